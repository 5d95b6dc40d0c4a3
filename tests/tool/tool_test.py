#!/usr/bin/env python3
"""Runs the built qob tool as a user would and checks its output, files and exit codes.

usage: tool_test.py --tool PATH [--emulator PROGRAM] [--quick] [--no-memory-limit]
--emulator runs the tool through a program (Wine for the Windows build); --quick runs only
the create, info and extract round trip; --no-memory-limit leaves out the address-space limit
(a sanitized tool reserves more than any limit allows).
"""
import argparse
import json
import os
import pathlib
import random
import resource
import shutil
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import zipfile

OPTIONS = None
SETTINGS = "Quillmarsh/Settings1680/"
RAW = "IMG ü 0001.CR3"  # a space and a non-ASCII letter
PACKAGE = "my packages/pkg é.qob"
BASE = SETTINGS + RAW
ISO_TIME = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d\d:\d\d"
# entry in the package -> source file
ENTRIES = {RAW: RAW, BASE + ".xmp": "edit.xmp", "Quillmarsh/Cache/Proxies/" + RAW + ".jpg":
           "preview.jpg", BASE + ".LA.lcc": "a.lcc", BASE + ".LB.lcc": "b.lcc",
           BASE + ".Wide Gamut": "wide.icc", BASE + ".msk": "m.msk"}


def extracted_name(entry):
    """Where extraction writes an entry: stem up to the last dot, extension from the first."""
    directory, _, name = entry.rpartition("/")
    stem = name.rsplit(".", 1)[0] if "." in name[1:] else name
    extension = name[name.index("."):] if "." in name else ""
    return (directory + "/" if directory else "") + stem + extension


class ToolCase(unittest.TestCase):
    def setUp(self):
        tmp = tempfile.TemporaryDirectory(prefix="qob tool ")
        self.addCleanup(tmp.cleanup)
        self.dir = pathlib.Path(tmp.name)
        (self.dir / "my packages").mkdir()
        rng = random.Random(7)
        self.sources = {RAW: rng.randbytes(20000), "preview.jpg": rng.randbytes(3000),
                        "edit.xmp": b"<x:xmpmeta>" + b"s" * 900 + b"</x:xmpmeta>",
                        "a.lcc": b"lcc profile A", "b.lcc": b"lcc profile BB",
                        "wide.icc": b"icc profile", "m.msk": b"mask" * 50}
        for name, data in self.sources.items():
            self.write(name, data)

    def write(self, name, data):
        (self.dir / name).write_bytes(data)

    def run_tool(self, *args, expect=0, limit=None, wrap=()):
        """Runs the tool in the test's directory; limit caps its address space (bytes), wrap
        is a command that runs it."""
        command = [*wrap] + ([OPTIONS.emulator] if OPTIONS.emulator else []) + \
            [OPTIONS.tool, *args]

        def cap():
            resource.setrlimit(resource.RLIMIT_AS, (limit, limit))

        result = subprocess.run(command, cwd=self.dir, capture_output=True, timeout=300,
                                preexec_fn=cap if limit else None)
        result.out = result.stdout.decode("utf-8", "replace")
        result.err = result.stderr.decode("utf-8", "replace")
        self.assertIn(result.returncode, expect if isinstance(expect, tuple) else (expect,),
                      f"qob {' '.join(args)}\nstdout: {result.out}\nstderr: {result.err}")
        return result

    def fail_tool(self, *args, code_name, expect=1, **options):
        """A failure: the exit status, nothing on standard output, one line on standard error
        naming the cause."""
        result = self.run_tool(*args, expect=expect, **options)
        lines = result.err.splitlines()
        self.assertEqual((len(lines), result.out), (1, ""), lines)
        self.assertIn(code_name, lines[0])
        return lines[0]

    def create_full(self, *extra):
        self.run_tool("create", PACKAGE, "--raw", RAW, "--settings", "edit.xmp",
                      "--proxy", "preview.jpg", "--lcc", "LA=a.lcc", "--lcc", "LB=b.lcc",
                      "--icc", "Wide Gamut=wide.icc", "--mask", "m.msk", *extra)

    def files(self):
        info = json.loads(self.run_tool("info", "--json", PACKAGE).out)
        self.assertEqual((info["package"], len(info["manifests"])), (PACKAGE, 23))
        return {f["path"]: f for f in info["files"]}

    def listing(self, package=PACKAGE):
        """ls --json: name -> (content, allocated, offset); the table agrees with it."""
        entries = json.loads(self.run_tool("ls", "--json", package).out)["entries"]
        table = self.run_tool("ls", package).out.splitlines()
        self.assertEqual(table[-1].split()[2:], [str(len(entries)), "entries"])
        for line, entry in zip(table[1:-1], entries):
            self.assertTrue(line.endswith("  " + entry["name"]), line)  # spaces kept
            if entry["time"] is not None:
                self.assertRegex(entry["time"], ISO_TIME)
                self.assertIn(entry["time"], line)
        return {e["name"]: (e["contentSize"], e["allocatedSize"], e["dataOffset"])
                for e in entries}

    def check_extracted(self, destination, expected):
        self.run_tool("extract", PACKAGE, destination)
        found = {p.relative_to(self.dir / destination).as_posix(): p.read_bytes()
                 for p in (self.dir / destination).rglob("*") if p.is_file()}
        self.assertEqual(found, {extracted_name(e): self.sources[s] for e, s in expected.items()})

    def test_round_trip_create_info_ls_cat_extract(self):
        self.create_full("--reserve", "100")
        files = self.files()
        self.assertEqual(sorted(files), sorted(ENTRIES))
        self.assertEqual(files[BASE + ".Wide Gamut"]["identifier"], "Wide Gamut")
        self.assertEqual(files[RAW]["kind"], "raw")
        text = self.run_tool("info", PACKAGE).out
        package, entries = (self.dir / PACKAGE).read_bytes(), self.listing()
        self.assertTrue({"manifest.xml", "manifest1680.xml"} <= set(entries))
        for entry, source in ENTRIES.items():
            data, (content, allocated, offset) = self.sources[source], entries[entry]
            self.assertIn(entry, text)
            self.assertRegex(files[entry]["time"], ISO_TIME)
            self.assertEqual(files[entry]["contentSize"], len(data), entry)
            self.assertEqual(files[entry]["dataOffset"], offset, entry)
            self.assertEqual(package[offset:offset + allocated], data + bytes(allocated - content))
            self.assertEqual(allocated - content, 0 if entry == RAW else 100, entry)
            self.assertEqual(self.run_tool("cat", PACKAGE, entry).stdout, data, entry)
        self.check_extracted("out dir", ENTRIES)
        self.assertIn("sound", self.run_tool("verify", PACKAGE).out)

    def test_update_in_place_and_profiles(self):
        self.create_full()
        self.assertEqual(self.files()[BASE + ".xmp"]["reservedSize"], 16384)  # the default
        size, before = (self.dir / PACKAGE).stat().st_size, self.listing()
        new_settings = b"<x:xmpmeta>" + b"S" * 5000 + b"</x:xmpmeta>"
        self.write("new settings é.xmp", new_settings)
        self.run_tool("update", PACKAGE, "--settings", "new settings é.xmp")
        self.assertEqual((self.dir / PACKAGE).stat().st_size, size)
        self.assertEqual({k: v[2] for k, v in self.listing().items()},
                         {k: v[2] for k, v in before.items()})
        self.assertEqual(self.run_tool("cat", PACKAGE, BASE + ".xmp").stdout, new_settings)
        # A new profile is added to the list and can be looked up, with its time.
        self.write("c.lcc", b"third lcc")
        self.run_tool("update", PACKAGE, "--lcc", "LC=c.lcc", "--reserve", "64")
        lcc = self.run_tool("lcc", PACKAGE, "LC").out
        self.assertEqual([p in lcc for p in (BASE + ".LC.lcc", "9 bytes", "64 bytes")], [True] * 3)
        self.assertRegex(lcc, "time: +" + ISO_TIME)
        as_json = json.loads(self.run_tool("lcc", "--json", PACKAGE, "LC").out)
        self.assertEqual(as_json, {**self.files()[BASE + ".LC.lcc"], "secondPath": as_json["secondPath"]})
        self.assertEqual([f["identifier"] for f in self.files().values() if f["kind"] == "lcc"],
                         ["LA", "LB", "LC"])
        # The companion files must exist; nothing at all to update is a usage error.
        line = self.fail_tool("update", PACKAGE, "--proxy", "absent.jpg", code_name="absent.jpg",
                              expect=4)
        self.assertIn("No such file or directory", line)
        self.run_tool("update", PACKAGE, expect=2)
        self.assertEqual(self.run_tool("-q", "update", PACKAGE, "--lcc", "LC=c.lcc").out, "")

    def test_check_and_verify_answers(self):
        self.create_full()
        good = (self.dir / PACKAGE).read_bytes()
        # (file, exit status, where the text answer goes, what it says)
        answers = [(PACKAGE, 0, "out", "an image package"),
                   ("edit.xmp", 3, "err", "not an image package"),
                   ("none.qob", 4, "err", "none.qob: No such file or directory")]
        for name, status, stream, text in answers:
            result = self.run_tool("check", name, expect=status)
            self.assertIn(text, getattr(result, stream))
            self.assertEqual(getattr(result, "err" if stream == "out" else "out"), "")
            self.assertEqual(self.run_tool("-q", "check", name, expect=status).out, "")
            if status != 4:
                answer = json.loads(self.run_tool("check", "--json", name, expect=status).out)
                self.assertEqual((answer["package"], answer["imagePackage"]), (name, status == 0))
        # Damage that verify finds: a flipped content byte, an entry no manifest names, a
        # file a manifest names that is gone. Each time the package is restored first.
        offset = self.listing()[BASE + ".xmp"][2]
        damaged = bytearray(good)
        damaged[offset] ^= 1

        def add_stray():
            with zipfile.ZipFile(self.dir / PACKAGE, "a") as archive:
                archive.writestr("stray.txt", b"stray")

        cases = [(lambda: (self.dir / PACKAGE).write_bytes(damaged), BASE + ".xmp"),
                 (add_stray, "stray.txt"),
                 (lambda: self.run_tool("rm", "--force", PACKAGE, RAW), "cannot read the package")]
        for damage, named in cases:
            (self.dir / PACKAGE).write_bytes(good)
            damage()
            result = self.run_tool("verify", PACKAGE, expect=1)
            self.assertTrue(result.err.splitlines()[-1].endswith(PACKAGE + ": damaged"))
            self.assertIn(named, result.err)
            report = json.loads(self.run_tool("verify", "--json", PACKAGE, expect=1).out)
            self.assertFalse(report["sound"])
            unsound = [e["name"] for e in report["entries"] if not e["sound"]]
            self.assertIn(named, json.dumps(report["problems"] + unsound, ensure_ascii=False))
        (self.dir / PACKAGE).write_bytes(good)
        report = json.loads(self.run_tool("verify", "--json", PACKAGE).out)
        self.assertEqual((report["sound"], report["problems"]), (True, []))
        self.assertTrue(all(e["sound"] for e in report["entries"]))

    def test_rm_refuses_what_it_cannot_do_and_changes_nothing(self):
        self.create_full()
        with zipfile.ZipFile(self.dir / "album.zip", "w") as archive:
            archive.writestr("a.txt", b"text")
        refusals = [("album.zip", "a.txt", 3, "not an image package"),
                    (PACKAGE, RAW, 1, "refusing to remove the raw image"),
                    (PACKAGE, "absent.bin", 4, "no entry"),
                    (PACKAGE, (BASE + ".msk").upper(), 4, "no entry"),
                    ("none.qob", RAW, 4, "No such file or directory")]
        for package, entry, status, text in refusals:
            before = (self.dir / package).read_bytes() if package != "none.qob" else None
            self.assertIn(text, self.fail_tool("rm", package, entry, code_name=package,
                                               expect=status))
            if before is not None:
                self.assertEqual((self.dir / package).read_bytes(), before, entry)
        self.assertEqual(self.run_tool("rm", PACKAGE, BASE + ".msk").out,
                         f"removed {BASE}.msk from {PACKAGE}\n")
        self.assertNotIn(BASE + ".msk", self.listing())
        self.assertNotIn("mask", [f["kind"] for f in self.files().values()])
        self.assertEqual(self.run_tool("-q", "rm", "--force", PACKAGE, RAW).out, "")
        self.assertNotIn(RAW, self.listing())

    def test_rm_refuses_every_manifest(self):
        self.create_full()
        before = (self.dir / PACKAGE).read_bytes()
        manifests = sorted(name for name in self.listing() if name.startswith("manifest"))
        self.assertEqual(len(manifests), 23)
        for name in manifests + ["MANIFEST1680.XML"]:  # and any spelling the lookup accepts
            line = self.fail_tool("rm", PACKAGE, name, code_name="refusing", expect=(1, 4))
            self.assertIn(name, line)
            self.assertEqual((self.dir / PACKAGE).read_bytes(), before, name)
        # Forced, the removal is reported only if the entry is really gone.
        result = self.run_tool("rm", "--force", PACKAGE, "manifest50.xml", expect=(0, 1))
        gone = "manifest50.xml" not in self.listing()
        self.assertEqual((result.returncode == 0, "removed" in result.out), (gone, gone))

    def test_verbosity(self):
        self.create_full()
        # (arguments, library levels shown on standard error)
        rows = [(["info", PACKAGE], set()), (["-v", "info", PACKAGE], set()),
                (["info", PACKAGE, "-vv"], {"DEBUG"}), (["-qvvv", "info", PACKAGE], {"DEBUG", "TRACE"})]
        for args, shown in rows:
            err = self.run_tool(*args).err.splitlines()
            self.assertEqual({line[6:11] for line in err}, shown, args)
        # A package that is only readable gives no warning unless asked for.
        if hasattr(os, "geteuid") and os.geteuid() != 0:
            (self.dir / PACKAGE).chmod(0o444)
            for command in (["info"], ["ls"], ["verify"], ["cat", PACKAGE, RAW]):
                self.assertEqual(self.run_tool(*command[:1], PACKAGE, *command[2:]).err, "")
        # With -v the library's error trail is shown; the summary line comes last.
        self.write("plain.zip", b"PK\x05\x06" + bytes(18))
        verbose = self.run_tool("--verbose", "info", "plain.zip", expect=3).err.splitlines()
        self.assertTrue(len(verbose) > 1 and verbose[-1].startswith("qob info: plain.zip: "))

    def test_failures_and_usage(self):
        line = self.fail_tool("create", "new.qob", "--raw", "absent.CR3",
                              code_name="absent.CR3: No such file or directory", expect=4)
        self.assertFalse((self.dir / "new.qob").exists())
        self.run_tool("create", "new.qob", "--raw", RAW)
        failures = [(["create", "new.qob", "--raw", RAW], "new.qob: File exists", 1),
                    (["lcc", "new.qob", "XX"], "XX", 4), (["cat", "new.qob", "nope.bin"], "nope", 4),
                    (["create", "x" * 300 + ".qob", "--raw", RAW], "too long", 1),
                    (["info", "edit.xmp"], "edit.xmp: ", 3), (["ls", "edit.xmp"], "edit.xmp: ", 3),
                    (["info", "my packages"], "my packages: Is a directory", 1),
                    (["extract", "new.qob", "edit.xmp"], "edit.xmp: ", 1)]
        failures += [(args, "none.qob: No such file or directory", 4) for args in (
            ["info", "none.qob"], ["ls", "none.qob"], ["verify", "none.qob"],
            ["update", "none.qob", "--settings", "edit.xmp"], ["extract", "none.qob", "d"],
            ["lcc", "none.qob", "LA"], ["cat", "none.qob", RAW], ["rm", "none.qob", RAW])]
        if hasattr(os, "geteuid") and os.geteuid() != 0:  # root ignores permissions
            (self.dir / "new.qob").chmod(0o444)
            failures.append((["update", "new.qob", "--settings", "edit.xmp"],
                             "new.qob: Permission denied", 1))
        for args, text, status in failures:
            self.fail_tool(*args, code_name=text, expect=status)
        for overview in (self.run_tool("--help").out, self.run_tool("help").out):
            self.assertTrue("Subcommands:" in overview and "Exit status:" in overview)
        self.assertRegex(self.run_tool("--version").out,
                         r"^qob \d+\.\d+\.\d+ \(library \d+\.\d+\.\d+\)\n$")
        self.run_tool(expect=2)
        for command in ("create", "update", "info", "ls", "lcc", "check", "verify", "extract",
                        "cat", "rm"):
            for args in ([command, "--help"], ["help", command]):
                self.assertIn("Usage: qob " + command, self.run_tool(*args).out)
        create = ["create", "p.qob", "--raw", RAW]
        for args in (["frobnicate"], ["help", "frobnicate"], ["info"], ["info", "a", "b"],
                     ["info", "--bogus", "a"], create[:2], create[:3],
                     create + ["--reserve", "-5"], create + ["--reserve", "4294967296"],
                     ["cat", "--json", "p"], create + ["--lcc", "noid"],
                     create + ["--icc", "=x.icc"], ["-x", "info", "a"]):
            self.fail_tool(*args, code_name="", expect=2)
        self.assertFalse((self.dir / "p.qob").exists())

    def test_ls_on_foreign_and_hostile_files(self):
        # Another tool's zip: tagged extra fields, so the whole stored size is content.
        with zipfile.ZipFile(self.dir / "other.zip", "w") as z:
            z.writestr("a.txt", b"hello")
            for name, claim in (("b.bin", 999), ("c.bin", 3)):  # a 4-byte field claiming a size
                info = zipfile.ZipInfo(name)
                info.extra = struct.pack("<I", claim)
                z.writestr(info, b"12345678")
        rows, good = self.listing("other.zip"), (self.dir / "other.zip").read_bytes()
        self.assertEqual({k: v[:2] for k, v in rows.items()},
                         {"a.txt": (5, 5), "b.bin": (8, 8), "c.bin": (3, 8)})
        self.assertEqual(good[rows["c.bin"][2]:][:8], b"12345678")
        end, central = good.rindex(b"PK\x05\x06"), good.index(b"PK\x01\x02")
        for data in (b"", bytes(range(256)) * 10, good[:end + 10],  # empty, garbage, truncated
                     good[:end + 16] + struct.pack("<I", 0x7FFFFFF0) + good[end + 20:],
                     good[:end + 10] + struct.pack("<H", 500) + good[end + 12:],
                     good[:central + 28] + b"\xff\xff" + good[central + 30:],  # long name
                     good[:end + 16] + b"\xff\xff\xff\xff" + good[end + 20:]):  # zip64 marker
            self.write("hostile.zip", data)
            self.fail_tool("ls", "hostile.zip", code_name="hostile.zip", expect=3)
            self.run_tool("cat", "hostile.zip", "a.txt", expect=(1, 3, 4))
            self.run_tool("verify", "hostile.zip", expect=3)


    def test_cat_takes_constant_memory_whatever_the_directory_claims(self):
        # A tiny zip whose central directory claims an entry of about 4 GiB: cat must fail
        # cleanly in an address space of 256 MiB, never set the claimed size aside.
        with zipfile.ZipFile(self.dir / "small.zip", "w") as archive:
            archive.writestr("big.bin", b"tiny content")
        good = (self.dir / "small.zip").read_bytes()
        central = good.index(b"PK\x01\x02")
        limit = None if OPTIONS.no_memory_limit else 256 << 20
        # (compressed size, uncompressed size) the directory claims
        for claim in ((12, 0xFFFFFFF0), (0xFFFFFFF0, 0xFFFFFFF0), (0xFFFFFFFF, 0xFFFFFFFF)):
            data = good[:central + 20] + struct.pack("<II", *claim) + good[central + 28:]
            self.write("claims.zip", data)
            result = self.run_tool("cat", "claims.zip", "big.bin", expect=(1, 3), limit=limit)
            self.assertEqual((len(result.err.splitlines()), result.out), (1, ""), result.err)
            self.assertNotIn("bad_alloc", result.err)
        # A real entry of 64 MiB streams through the same limit.
        self.write("raw64.bin", bytes(64 << 20))
        self.run_tool("create", "p64.qob", "--raw", "raw64.bin")
        out = self.run_tool("cat", "p64.qob", "raw64.bin", limit=limit).stdout
        self.assertEqual((len(out), out.count(0)), (64 << 20, 64 << 20))

    def test_disk_full_has_its_own_message_and_status(self):
        if shutil.which("unshare") is None or not hasattr(os, "geteuid") or os.geteuid() != 0 \
                or subprocess.run(["unshare", "-m", "true"]).returncode != 0:
            self.skipTest("needs root and a private mount namespace")
        self.write("raw3.bin", random.Random(3).randbytes(3 << 20))
        (self.dir / "tiny").mkdir()
        mount = ["unshare", "-m", "sh", "-c",
                 'mount -t tmpfs -o size=1m tmpfs tiny && exec "$@"', "sh"]
        result = self.run_tool("create", "tiny/p.qob", "--raw", "raw3.bin", wrap=mount, expect=5)
        self.assertEqual((result.out, result.err),
                         ("", "qob create: tiny/p.qob: No space left on device\n"))

    def run_on_terminal(self, *args):
        """Runs the tool in a tmux pane and returns every byte it wrote there."""
        self.terminals = getattr(self, "terminals", 0) + 1
        socket = f"qob-test-{os.getpid()}-{self.terminals}"
        log = self.dir / f"terminal{self.terminals}.log"
        tmux = ["tmux", "-L", socket]
        environment = dict(os.environ, TERM="xterm", QOB_PROGRESS_DELAY="0")
        command = " ".join(f"'{a}'" for a in [OPTIONS.tool, *args])
        self.addCleanup(subprocess.run, tmux + ["kill-server"], stderr=subprocess.DEVNULL)
        # The pane waits for a key, so that its output is recorded from the first byte.
        subprocess.run(tmux + ["new-session", "-d", "-s", "t", "-x", "150", "-y", "20", "-c",
                               str(self.dir), f"read go; {command}; echo exit=$?; read done"],
                       check=True, env=environment)
        subprocess.run(tmux + ["pipe-pane", "-t", "t", "-o", f"cat >> '{log}'"], check=True)
        subprocess.run(tmux + ["send-keys", "-t", "t", "Enter"], check=True)
        deadline = time.monotonic() + 60
        while "exit=" not in (log.read_text(errors="replace") if log.exists() else ""):
            self.assertLess(time.monotonic(), deadline, "the tool did not finish in tmux")
            time.sleep(0.1)
        subprocess.run(tmux + ["kill-server"], stderr=subprocess.DEVNULL)
        return log.read_text(errors="replace")

    def test_progress_on_a_terminal_only(self):
        if shutil.which("tmux") is None:
            self.skipTest("needs tmux")
        self.write("raw8.bin", random.Random(8).randbytes(8 << 20))
        # (command, what it says when done); each shows a bar on the terminal
        rows = [(["create", "p.qob", "--raw", "raw8.bin"], "created"),
                (["verify", "p.qob"], "sound"), (["extract", "p.qob", "out"], "extracted")]
        for args, done in rows:
            shown = self.run_on_terminal(*args)
            self.assertRegex(shown, args[0] + r" \[#+ *\] +\d+%", args)
            self.assertIn(done, shown)
            self.assertIn("exit=0", shown)
        # None with -q, and none when standard error is not a terminal.
        self.assertNotIn("%", self.run_on_terminal("-q", "verify", "p.qob"))
        for args, _ in rows:
            shutil.rmtree(self.dir / "out", ignore_errors=True)
            if args[0] == "create":
                (self.dir / "p.qob").unlink()
            result = self.run_tool(*args)
            self.assertNotIn("%", result.err + result.out)
            self.assertNotIn("\r", result.err)


class WineCase(ToolCase):
    """The part that runs under an emulator: create, info and extract."""

    def runTest(self):
        self.create_full()
        self.assertEqual(sorted(self.files()), sorted(ENTRIES))
        self.check_extracted("out dir", ENTRIES)
        self.fail_tool("info", "none.qob", code_name="none.qob: No such file or directory",
                       expect=4)


def main():
    global OPTIONS
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", required=True)
    parser.add_argument("--emulator")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--no-memory-limit", action="store_true")
    OPTIONS, _ = parser.parse_known_args()
    OPTIONS.tool = os.path.abspath(OPTIONS.tool)
    suite = unittest.TestSuite([WineCase()]) if OPTIONS.quick else \
        unittest.defaultTestLoader.loadTestsFromTestCase(ToolCase)
    sys.exit(0 if unittest.TextTestRunner(verbosity=2).run(suite).wasSuccessful() else 1)


if __name__ == "__main__":
    main()
