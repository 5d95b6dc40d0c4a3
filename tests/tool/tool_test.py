#!/usr/bin/env python3
"""Runs the built qob tool as a user would and checks its output, files and exit codes.

usage: tool_test.py --tool PATH [--emulator PROGRAM] [--quick]
--emulator runs the tool through a program (Wine for the Windows build); --quick runs only
the create, info and extract round trip.
"""
import argparse
import json
import os
import pathlib
import random
import struct
import subprocess
import sys
import tempfile
import unittest
import zipfile

OPTIONS = None
SETTINGS = "Quillmarsh/Settings1680/"
RAW = "IMG ü 0001.CR3"  # a space and a non-ASCII letter
PACKAGE = "my packages/pkg é.qob"
BASE = SETTINGS + RAW
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

    def run_tool(self, *args, expect=0):
        command = ([OPTIONS.emulator] if OPTIONS.emulator else []) + [OPTIONS.tool, *args]
        result = subprocess.run(command, cwd=self.dir, capture_output=True, timeout=300)
        result.out = result.stdout.decode("utf-8", "replace")
        result.err = result.stderr.decode("utf-8", "replace")
        self.assertEqual(result.returncode, expect,
                         f"qob {' '.join(args)}\nstdout: {result.out}\nstderr: {result.err}")
        return result

    def fail_tool(self, *args, code_name, expect=1):
        """A failure: the exit status, one line on standard error naming the cause."""
        lines = self.run_tool(*args, expect=expect).err.splitlines()
        self.assertEqual(len(lines), 1, lines)
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
        """ls parsed: name -> (content, allocated, offset)."""
        lines = self.run_tool("ls", package).out.splitlines()
        self.assertIn(f"{len(lines) - 4} entries", lines[-2] + lines[-1])
        return {line.split(None, 5)[5]: tuple(map(int, line.split()[:3])) for line in lines[2:-2]}

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
            self.assertEqual(files[entry]["contentSize"], len(data), entry)
            self.assertEqual(files[entry]["dataOffset"], offset, entry)
            self.assertEqual(package[offset:offset + allocated], data + bytes(allocated - content))
            self.assertEqual(allocated - content, 0 if entry == RAW else 100, entry)
            self.assertEqual(self.run_tool("cat", PACKAGE, entry).stdout, data, entry)
        self.check_extracted("out dir", ENTRIES)

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
        # A new profile is added to the list and can be looked up.
        self.write("c.lcc", b"third lcc")
        self.run_tool("update", PACKAGE, "--lcc", "LC=c.lcc", "--reserve", "64")
        lcc = self.run_tool("lcc", PACKAGE, "LC").out
        self.assertEqual([p in lcc for p in (BASE + ".LC.lcc", "9 bytes", "64 bytes")], [True] * 3)
        self.assertEqual([f["identifier"] for f in self.files().values() if f["kind"] == "lcc"],
                         ["LA", "LB", "LC"])
        # The companion files must exist; nothing at all to update is a usage error.
        line = self.fail_tool("update", PACKAGE, "--proxy", "absent.jpg", code_name="absent.jpg")
        self.assertIn("no such file", line)
        self.run_tool("update", PACKAGE, expect=2)

    def test_check_remove_and_verbosity(self):
        self.create_full()
        self.assertIn("an image package", self.run_tool("check", PACKAGE).out)
        self.assertIn("not an image package", self.run_tool("check", "edit.xmp", expect=1).out)
        self.assertIn("PACKAGE_NOT_FOUND", self.run_tool("check", "none.qob", expect=1).out)
        self.run_tool("rm", PACKAGE, BASE + ".msk")
        self.assertNotIn(BASE + ".msk", self.listing())
        self.assertNotIn("mask", [f["kind"] for f in self.files().values()])
        self.fail_tool("rm", PACKAGE, BASE + ".msk", code_name="FILE_NOT_IN_PACKAGE (-2)")
        self.assertNotIn("[QOB]", self.run_tool("info", PACKAGE).err)
        self.assertIn("[QOB][TRACE]", self.run_tool("-vvv", "info", PACKAGE).err)
        self.assertNotIn("[QOB][TRACE]", self.run_tool("-v", "info", PACKAGE).err)
        # With -v the library's error trail is shown; the summary line comes last.
        verbose = self.run_tool("--verbose", "info", "none.qob", expect=1).err.splitlines()
        self.assertTrue(len(verbose) > 1 and verbose[-1].startswith("qob info: QOB_GetPackage"))

    def test_failures_and_usage(self):
        line = self.fail_tool("create", "new.qob", "--raw", "absent.CR3",
                              code_name="FILE_NOT_FOUND (-1)")
        self.assertIn("failed to add raw image to package", line)
        self.assertFalse((self.dir / "new.qob").exists())
        self.run_tool("create", "new.qob", "--raw", RAW)
        failures = [(["create", "new.qob", "--raw", RAW], "CANNOT_REMOVE_FILE"),
                    (["ls", "none.qob"], "none.qob"), (["lcc", "new.qob", "XX"], "FILE_NOT_IN"),
                    (["cat", "new.qob", "nope.bin"], "FILE_NOT_IN_PACKAGE"),
                    (["create", "x" * 300 + ".qob", "--raw", RAW], "too long")]
        failures += [(args, "PACKAGE_NOT_FOUND (-8)") for args in (
            ["info", "none.qob"], ["update", "none.qob", "--settings", "edit.xmp"],
            ["extract", "none.qob", "d"], ["lcc", "none.qob", "LA"], ["cat", "none.qob", RAW],
            ["rm", "none.qob", RAW])]
        for args, code_name in failures:
            self.fail_tool(*args, code_name=code_name)
        self.assertIn("commands:", self.run_tool("--help").out)
        self.run_tool(expect=2)
        for command in ("create", "update", "info", "ls", "lcc", "check", "extract", "cat", "rm"):
            self.assertIn("usage: qob " + command, self.run_tool(command, "--help").out)
        create = ["create", "p.qob", "--raw", RAW]
        for args in (["frobnicate"], ["info"], ["info", "a", "b"], ["info", "--bogus", "a"],
                     create[:2], create[:3], create + ["--reserve", "-5"], ["ls", "--json", "p"],
                     create + ["--lcc", "noid"], create + ["--icc", "=x.icc"]):
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
            self.fail_tool("ls", "hostile.zip", code_name="hostile.zip")
            self.run_tool("cat", "hostile.zip", "a.txt", expect=1)


class WineCase(ToolCase):
    """The part that runs under an emulator: create, info and extract."""

    def runTest(self):
        self.create_full()
        self.assertEqual(sorted(self.files()), sorted(ENTRIES))
        self.check_extracted("out dir", ENTRIES)
        self.fail_tool("info", "none.qob", code_name="PACKAGE_NOT_FOUND (-8)")


def main():
    global OPTIONS
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", required=True)
    parser.add_argument("--emulator")
    parser.add_argument("--quick", action="store_true")
    OPTIONS, _ = parser.parse_known_args()
    OPTIONS.tool = os.path.abspath(OPTIONS.tool)
    suite = unittest.TestSuite([WineCase()]) if OPTIONS.quick else \
        unittest.defaultTestLoader.loadTestsFromTestCase(ToolCase)
    sys.exit(0 if unittest.TextTestRunner(verbosity=2).run(suite).wasSuccessful() else 1)


if __name__ == "__main__":
    main()
