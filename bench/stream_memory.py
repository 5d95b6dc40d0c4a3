#!/usr/bin/env python3
"""Peak resident memory of streaming one large entry out of a package: the qob tool's cat,
Python's Package.open() read in pieces, and Python's ranged reads of the library directly.

usage: stream_memory.py --tool BUILD/bin/qob --library BUILD/lib/libqob.so.0 [--size-mib 1024]

The raw image is a sparse file of zeros, so making it costs no disk reads; the package holds
it stored, whole. Each reader runs in a process of its own and reports its peak resident set
(ru_maxrss); the target is under 64 MiB whatever the entry's size.
"""
import argparse
import os
import pathlib
import subprocess
import sys
import tempfile

TARGET_MIB = 64
PYTHON_SOURCE = pathlib.Path(__file__).resolve().parents[1] / "python"

# Each reader prints the bytes it read, then its own peak resident set in KiB.
PACKAGE_OPEN = """
import resource, sys
sys.path.insert(0, sys.argv[1])
import qob
total = 0
with qob.Package(sys.argv[2]) as package, package.open(sys.argv[3]) as stream:
    for chunk in iter(lambda: stream.read(1 << 20), b""):
        total += len(chunk)
print(total, resource.getrusage(resource.RUSAGE_SELF).ru_maxrss)
"""
RANGED_READS = """
import ctypes, resource, sys
sys.path.insert(0, sys.argv[1])
import qob
lib = qob._lib()
buffer = ctypes.create_string_buffer(4 << 20)
done, total = ctypes.c_uint32(), 0
while True:
    result = lib.QOBX_ReadEntry(sys.argv[2].encode(), sys.argv[3].encode(), total, buffer,
                                len(buffer), ctypes.byref(done))
    assert result == 0, result
    if done.value == 0:
        break
    total += done.value
print(total, resource.getrusage(resource.RUSAGE_SELF).ru_maxrss)
"""


TOOL_CAT = """
import os, resource, subprocess, sys
with open(os.devnull, "wb") as sink:
    subprocess.run([sys.argv[4], "cat", sys.argv[2], sys.argv[3]], stdout=sink, check=True)
print(os.path.getsize(sys.argv[2]), resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)
"""


def peak(script, options, package, entry):
    """Runs one reader in a fresh process: (bytes, peak resident set in KiB). The tool's cat
    runs under a small Python parent of its own, whose only child it is."""
    environment = dict(os.environ, QOB_LIBRARY=options.library)
    out = subprocess.run([sys.executable, "-c", script, str(PYTHON_SOURCE), package, entry,
                          options.tool], capture_output=True, text=True, check=True,
                         env=environment).stdout
    total, kib = map(int, out.split())
    return total, kib


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", required=True)
    parser.add_argument("--library", required=True)
    parser.add_argument("--size-mib", type=int, default=1024)
    options = parser.parse_args()
    size = options.size_mib << 20
    with tempfile.TemporaryDirectory(prefix="qob-stream-") as work:
        raw = os.path.join(work, "sparse.raw")
        with open(raw, "wb") as f:
            f.truncate(size)
        package = os.path.join(work, "p.qob")
        subprocess.run([options.tool, "-q", "create", package, "--raw", raw], check=True)
        rows = [(name, peak(script, options, package, "sparse.raw"))
                for name, script in (("qob cat", TOOL_CAT), ("Package.open()", PACKAGE_OPEN),
                                     ("QOBX_ReadEntry ranges", RANGED_READS))]
    print(f"entry: {options.size_mib} MiB; target: peak resident set under {TARGET_MIB} MiB")
    failed = False
    for name, (_, peak_kib) in rows:
        verdict = "ok" if peak_kib < TARGET_MIB * 1024 else "OVER"
        failed = failed or verdict == "OVER"
        print(f"{name:24s} {peak_kib / 1024:8.1f} MiB  {verdict}")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
