#!/usr/bin/env python3
"""Runs the built qob tool as a user would and checks its output, files and exit codes.

usage: tool_test.py --tool PATH [--emulator PROGRAM] [--quick]
--emulator runs the tool through a program (Wine for the Windows build); --quick runs only
the create, info and extract round trip.
"""
import argparse
import json
import os
import random
import struct
import subprocess
import sys
import tempfile
import unittest
import zipfile

OPTIONS = None
SETTINGS_DIR = "Quillmarsh/Settings1680/"
PROXY_DIR = "Quillmarsh/Cache/Proxies/"
RAW = "IMG ü 0001.CR3"  # a space and a non-ASCII letter
PACKAGE = "my packages/pkg é.qob"


def extracted_name(entry):
    """Where extraction writes an entry: the stem of its file name (up to the last dot)
    followed by the extension counted from the first dot."""
    directory, _, name = entry.rpartition("/")
    stem = name.rsplit(".", 1)[0] if "." in name[1:] else name
    extension = name[name.index("."):] if "." in name else ""
    return (directory + "/" if directory else "") + stem + extension


class ToolCase(unittest.TestCase):
    def setUp(self):
        self._tmp = tempfile.TemporaryDirectory(prefix="qob tool ")
        self.dir = self._tmp.name
        os.makedirs(self.path("my packages"))
        rng = random.Random(7)
        self.sources = {
            RAW: bytes(rng.getrandbits(8) for _ in range(20000)),
            "edit.xmp": b"<x:xmpmeta>" + b"s" * 900 + b"</x:xmpmeta>",
            "preview.jpg": bytes(rng.getrandbits(8) for _ in range(3000)),
            "a.lcc": b"lcc profile A",
            "b.lcc": b"lcc profile BB",
            "wide.icc": b"icc profile",
            "m.msk": b"mask" * 50,
        }
        for name, data in self.sources.items():
            self.write(name, data)

    def tearDown(self):
        self._tmp.cleanup()

    def path(self, name):
        return os.path.join(self.dir, name)

    def write(self, name, data):
        with open(self.path(name), "wb") as f:
            f.write(data)

    def read(self, name):
        with open(self.path(name), "rb") as f:
            return f.read()

    def run_tool(self, *args, expect=0):
        command = ([OPTIONS.emulator] if OPTIONS.emulator else []) + [OPTIONS.tool, *args]
        result = subprocess.run(command, cwd=self.dir, capture_output=True, timeout=300)
        result.out = result.stdout.decode("utf-8", "replace")
        result.err = result.stderr.decode("utf-8", "replace")
        self.assertEqual(result.returncode, expect,
                         f"qob {' '.join(args)}\nstdout: {result.out}\nstderr: {result.err}")
        return result

    def fail_tool(self, *args, code_name):
        """A failure: exit status 1, one line on standard error naming the result code."""
        result = self.run_tool(*args, expect=1)
        lines = result.err.splitlines()
        self.assertEqual(len(lines), 1, result.err)
        self.assertIn(code_name, lines[0])
        return lines[0]

    def create_full(self, *extra):
        self.run_tool("create", PACKAGE, "--raw", RAW, "--settings", "edit.xmp",
                      "--proxy", "preview.jpg", "--lcc", "LA=a.lcc", "--lcc", "LB=b.lcc",
                      "--icc", "Wide Gamut=wide.icc", "--mask", "m.msk", *extra)

    def info(self):
        return json.loads(self.run_tool("info", "--json", PACKAGE).out)

    def listing(self):
        """ls parsed: name -> (content, allocated, offset)."""
        entries = {}
        for line in self.run_tool("ls", PACKAGE).out.splitlines()[2:-2]:
            content, allocated, offset, _date, _time, name = line.split(None, 5)
            entries[name] = (int(content), int(allocated), int(offset))
        return entries

    def expected_entries(self):
        base = SETTINGS_DIR + RAW
        return {
            RAW: RAW,
            base + ".xmp": "edit.xmp",
            PROXY_DIR + RAW + ".jpg": "preview.jpg",
            base + ".LA.lcc": "a.lcc",
            base + ".LB.lcc": "b.lcc",
            base + ".Wide Gamut": "wide.icc",
            base + ".msk": "m.msk",
        }

    def check_extracted(self, destination, expected):
        found = {}
        root = self.path(destination)
        for parent, _dirs, files in os.walk(root):
            for name in files:
                full = os.path.join(parent, name)
                with open(full, "rb") as f:
                    found[os.path.relpath(full, root).replace(os.sep, "/")] = f.read()
        want = {extracted_name(entry): self.read(source) for entry, source in expected.items()}
        self.assertEqual(sorted(found), sorted(want))
        for name, data in want.items():
            self.assertEqual(found[name], data, name)

    def test_create_info_extract_round_trip(self):
        self.create_full()
        info = self.info()
        self.assertEqual(info["package"], PACKAGE)
        self.assertEqual(len(info["manifests"]), 23)
        files = {f["path"]: f for f in info["files"]}
        expected = self.expected_entries()
        self.assertEqual(sorted(files), sorted(expected))
        for entry, source in expected.items():
            self.assertEqual(files[entry]["contentSize"], len(self.sources[source]), entry)
        settings = files[SETTINGS_DIR + RAW + ".xmp"]
        self.assertEqual(settings["reservedSize"], 16384)  # the default for settings
        self.assertEqual(files[RAW]["reservedSize"], 0)
        self.assertEqual(files[SETTINGS_DIR + RAW + ".Wide Gamut"]["identifier"], "Wide Gamut")
        self.assertEqual(files[RAW]["kind"], "raw")
        # The text form names the same files.
        text = self.run_tool("info", PACKAGE).out
        for entry in expected:
            self.assertIn(entry, text)

        self.run_tool("extract", PACKAGE, "out dir")
        self.check_extracted("out dir", expected)

    def test_listing_matches_bytes_on_disk(self):
        self.create_full("--reserve", "100")
        entries = self.listing()
        package = self.read(PACKAGE)
        files = {f["path"]: f for f in self.info()["files"]}
        for entry, source in self.expected_entries().items():
            content, allocated, offset = entries[entry]
            data = self.sources[source]
            self.assertEqual(package[offset:offset + content], data, entry)
            self.assertEqual(allocated - content, 0 if entry == RAW else 100, entry)
            self.assertEqual(package[offset + content:offset + allocated],
                             bytes(allocated - content))
            self.assertEqual(files[entry]["dataOffset"], offset, entry)
            # cat gives the content and nothing else
            self.assertEqual(self.run_tool("cat", PACKAGE, entry).stdout, data, entry)
        self.assertIn("manifest.xml", entries)
        self.assertIn("manifest1680.xml", entries)
        self.assertIn(f"{len(entries)} entries", self.run_tool("ls", PACKAGE).out)

    def test_update_in_place_and_profiles(self):
        self.create_full()
        size_before = os.path.getsize(self.path(PACKAGE))
        before = self.listing()
        settings = SETTINGS_DIR + RAW + ".xmp"
        new_settings = b"<x:xmpmeta>" + b"S" * 5000 + b"</x:xmpmeta>"
        self.write("new settings é.xmp", new_settings)
        self.run_tool("update", PACKAGE, "--settings", "new settings é.xmp")
        self.assertEqual(os.path.getsize(self.path(PACKAGE)), size_before)
        after = self.listing()
        self.assertEqual({k: v[2] for k, v in after.items()}, {k: v[2] for k, v in before.items()})
        self.assertEqual(after[settings][0], len(new_settings))
        self.assertEqual(self.run_tool("cat", PACKAGE, settings).stdout, new_settings)

        # A new profile is added to the list and can be looked up.
        self.write("c.lcc", b"third lcc")
        self.run_tool("update", PACKAGE, "--lcc", "LC=c.lcc", "--reserve", "64")
        lcc = self.run_tool("lcc", PACKAGE, "LC").out
        self.assertIn(SETTINGS_DIR + RAW + ".LC.lcc", lcc)
        self.assertIn("9 bytes", lcc)
        self.assertIn("64 bytes", lcc)
        self.assertEqual([f["identifier"] for f in self.info()["files"] if f["kind"] == "lcc"],
                         ["LA", "LB", "LC"])
        self.assertIn("LB", self.run_tool("lcc", PACKAGE, "LB").out)

        # The companion files must exist; nothing at all to update is a usage error.
        line = self.fail_tool("update", PACKAGE, "--proxy", "absent.jpg", code_name="absent.jpg")
        self.assertIn("no such file", line)
        self.run_tool("update", PACKAGE, expect=2)

    def test_check_remove_and_verbosity(self):
        self.create_full()
        self.assertIn("an image package", self.run_tool("check", PACKAGE).out)
        self.assertIn("not an image package", self.run_tool("check", "edit.xmp", expect=1).out)
        self.assertIn("PACKAGE_NOT_FOUND", self.run_tool("check", "none.qob", expect=1).out)

        mask = SETTINGS_DIR + RAW + ".msk"
        self.run_tool("rm", PACKAGE, mask)
        self.assertNotIn(mask, self.listing())
        self.assertNotIn("mask", [f["kind"] for f in self.info()["files"]])
        self.fail_tool("rm", PACKAGE, mask, code_name="FILE_NOT_IN_PACKAGE (-2)")

        quiet = self.run_tool("info", PACKAGE)
        self.assertNotIn("[QOB]", quiet.err)
        self.assertIn("[QOB][TRACE]", self.run_tool("-vvv", "info", PACKAGE).err)
        self.assertNotIn("[QOB][TRACE]", self.run_tool("-v", "info", PACKAGE).err)
        # With -v the library's error trail is shown; the summary line comes last.
        verbose = self.run_tool("--verbose", "info", "none.qob", expect=1).err.splitlines()
        self.assertGreater(len(verbose), 1)
        self.assertTrue(verbose[-1].startswith("qob info: QOB_GetPackageInfo failed"))

    def test_failures_and_usage(self):
        line = self.fail_tool("create", "new.qob", "--raw", "absent.CR3",
                              code_name="FILE_NOT_FOUND (-1)")
        self.assertIn("failed to add raw image to package", line)
        self.assertFalse(os.path.exists(self.path("new.qob")))
        self.run_tool("create", "new.qob", "--raw", RAW)
        self.fail_tool("create", "new.qob", "--raw", RAW, code_name="CANNOT_REMOVE_FILE")
        for args in (["info", "none.qob"], ["update", "none.qob", "--settings", "edit.xmp"],
                     ["extract", "none.qob", "d"], ["lcc", "none.qob", "LA"],
                     ["cat", "none.qob", RAW], ["rm", "none.qob", RAW]):
            self.fail_tool(*args, code_name="PACKAGE_NOT_FOUND (-8)")
        self.fail_tool("ls", "none.qob", code_name="none.qob")
        self.fail_tool("lcc", "new.qob", "XX", code_name="FILE_NOT_IN_PACKAGE")
        self.fail_tool("cat", "new.qob", "nope.bin", code_name="FILE_NOT_IN_PACKAGE")
        self.fail_tool("create", "x" * 300 + ".qob", "--raw", RAW, code_name="too long")

        self.assertIn("commands:", self.run_tool("--help").out)
        self.run_tool(expect=2)
        self.run_tool("frobnicate", expect=2)
        for command in ("create", "update", "info", "ls", "lcc", "check", "extract", "cat", "rm"):
            self.assertIn("usage: qob " + command, self.run_tool(command, "--help").out)
        for args in (["info"], ["info", "a", "b"], ["info", "--bogus", "a"], ["create", "p.qob"],
                     ["create", "p.qob", "--raw"], ["create", "p.qob", "--raw", RAW, "--reserve",
                     "-5"], ["create", "p.qob", "--raw", RAW, "--lcc", "noid"],
                     ["create", "p.qob", "--raw", RAW, "--icc", "=x.icc"], ["ls", "--json", "p"]):
            result = self.run_tool(*args, expect=2)
            self.assertEqual(len(result.err.splitlines()), 1, result.err)
        self.assertFalse(os.path.exists(self.path("p.qob")))

    def test_ls_on_foreign_and_hostile_files(self):
        # Another tool's zip: tagged extra fields, so the whole stored size is content.
        with zipfile.ZipFile(self.path("other.zip"), "w", zipfile.ZIP_STORED) as z:
            z.writestr("a.txt", b"hello")
            info = zipfile.ZipInfo("b.bin")
            info.extra = struct.pack("<I", 999)  # a 4-byte field claiming more than stored
            z.writestr(info, b"12345678")
            info = zipfile.ZipInfo("c.bin")
            info.extra = struct.pack("<I", 3)
            z.writestr(info, b"12345678")
        out = self.run_tool("ls", "other.zip").out
        rows = {line.split()[-1]: line.split() for line in out.splitlines()[2:-2]}
        self.assertEqual(rows["a.txt"][:2], ["5", "5"])
        self.assertEqual(rows["b.bin"][:2], ["8", "8"])
        self.assertEqual(rows["c.bin"][:2], ["3", "8"])
        self.assertEqual(self.read("other.zip")[int(rows["c.bin"][2]):][:8], b"12345678")

        good = self.read("other.zip")
        end = good.rindex(b"PK\x05\x06")
        central = good.index(b"PK\x01\x02")
        hostile = {
            "empty": b"",
            "garbage": bytes(range(256)) * 10,
            "truncated": good[:end + 10],
            "directory past end": good[:end + 16] + struct.pack("<I", 0x7FFFFFF0) + good[end + 20:],
            "too many entries": good[:end + 10] + struct.pack("<H", 500) + good[end + 12:],
            "long name": good[:central + 28] + b"\xff\xff" + good[central + 30:],
            "zip64 marker": good[:end + 16] + b"\xff\xff\xff\xff" + good[end + 20:],
        }
        for label, data in hostile.items():
            self.write("hostile.zip", data)
            self.fail_tool("ls", "hostile.zip", code_name="hostile.zip")
            self.run_tool("cat", "hostile.zip", "a.txt", expect=1)


class WineCase(ToolCase):
    """The part that runs under an emulator: create, info and extract."""

    def runTest(self):
        self.create_full()
        info = self.info()
        self.assertEqual(sorted(f["path"] for f in info["files"]),
                         sorted(self.expected_entries()))
        self.run_tool("extract", PACKAGE, "out dir")
        self.check_extracted("out dir", self.expected_entries())
        self.fail_tool("info", "none.qob", code_name="PACKAGE_NOT_FOUND (-8)")


def main():
    global OPTIONS
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", required=True)
    parser.add_argument("--emulator")
    parser.add_argument("--quick", action="store_true")
    OPTIONS, rest = parser.parse_known_args()
    OPTIONS.tool = os.path.abspath(OPTIONS.tool)
    if OPTIONS.quick:
        suite = unittest.TestSuite([WineCase()])
    else:
        suite = unittest.defaultTestLoader.loadTestsFromTestCase(ToolCase)
    result = unittest.TextTestRunner(verbosity=2).run(suite)
    sys.exit(0 if result.wasSuccessful() else 1)


if __name__ == "__main__":
    main()
