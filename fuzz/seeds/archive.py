#!/usr/bin/env python3
"""Writes the seed corpus of the archive fuzz target into the directory given."""
import io
import os
import struct
import sys
import zipfile


def build(entries, method=zipfile.ZIP_STORED):
    buffer = io.BytesIO()
    with zipfile.ZipFile(buffer, "w", method) as archive:
        for name_or_info, data in entries:
            archive.writestr(name_or_info, data)
    return buffer.getvalue()


def padded(name, content, padding):
    """An entry framed like the library's own: stored, zero padding, raw 4-byte size."""
    info = zipfile.ZipInfo(name, date_time=(2024, 2, 29, 13, 45, 58))
    info.extra = struct.pack("<I", len(content) if padding else 0)
    return info, content + b"\0" * padding


TEXT = b"<Manifest><Version>1</Version></Manifest>\n" * 20
STORED = build([("manifest.xml", TEXT), ("Settings/a.xml", b"<a/>")])
DEFLATED = build([("manifest.xml", TEXT), ("raw/image.raw", bytes(range(256)) * 8)],
                 zipfile.ZIP_DEFLATED)
def patch_central(data, index, offset, value):
    """Overwrites a 4-byte field of the index-th central record."""
    at = -1
    for _ in range(index + 1):
        at = data.index(b"PK\x01\x02", at + 1)
    return data[:at + offset] + struct.pack("<I", value) + data[at + offset + 4:]


TWINS = build([("MANIFEST.XML", b"<not"), ("manifest.xml", TEXT), ("IMG_0001.CR3", b"upper"),
               ("img_0001.cr3", b"lower")])
SEEDS = {
    "bomb.zip": build([("manifest.xml", bytes(8 << 20))], zipfile.ZIP_DEFLATED),
    "case_twins.zip": TWINS,
    "same_output.zip": build([("a//b/./x.raw", b"first"), ("a/b/x.raw", b"second"),
                              ("d", b"file"), ("d/x.raw", b"below a file")]),
    "shared_local_record.zip": patch_central(TWINS, 3, 42, 0),
    "lying_size.zip": patch_central(DEFLATED, 1, 24, 0xFFFFFF00),
    "stored.zip": STORED,
    "deflated.zip": DEFLATED,
    "traversal.zip": build([("../evil.txt", b"evil"), ("/abs", b"abs"), ("C:x", b"drive"),
                            ("a/../../up.txt", b"up"), ("dir\\back.txt", b"back")]),
    "padded.zip": build([padded("manifest.xml", TEXT, 300), padded("empty", b"", 16),
                         padded("full", b"full", 0)]),
    "empty_archive.zip": build([]),
    "empty_file.zip": b"",
    "truncated.zip": DEFLATED[:len(DEFLATED) // 2],
    "no_end_record.zip": STORED[:-22],
}

if __name__ == "__main__":
    os.makedirs(sys.argv[1], exist_ok=True)
    for name, data in SEEDS.items():
        with open(os.path.join(sys.argv[1], name), "wb") as handle:
            handle.write(data)
