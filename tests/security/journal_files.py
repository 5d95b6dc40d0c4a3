"""Journals as the library writes them (version 2, little-endian, CRC-32 as zlib computes
it), and the package as a crash in the middle of a change leaves it: the tests plant genuine,
damaged, stale and hostile journals built here."""
import struct
import zlib

PACKAGE = 'pkg.qob'  # the name the tests give their packages
MAGIC = b'QOBJRNL\0'
RECORD, CLOSING = 0x44524352, 0x454E4F44
HEADER_SIZE = 48



def crc(*parts):
    value = 0
    for part in parts:
        value = zlib.crc32(part, value)
    return value


class Journal:
    """A version-2 journal: the package's original bytes of each region the change overwrites
    (offset, data, batch), bound to one package by its name, the CRC of its original end and
    a nonce that every record's CRC covers."""

    def __init__(self, original, name=PACKAGE, nonce=0x1122334455667788, regions=(), done=None,
                 original_length=None):
        self.original, self.name, self.nonce = original, name, nonce
        self.regions = list(regions)
        self.done = done  # (new length, batch) of a closing record
        self.original_length = len(original) if original_length is None else original_length

    def header(self):
        body = MAGIC + struct.pack('<IIQQIII', 2, HEADER_SIZE, self.original_length, self.nonce,
                                   crc(self.original[-22:]), crc(self.name.encode()),
                                   crc(self.original[:4096]))
        return body + struct.pack('<I', crc(body))

    def record(self, offset, data, batch, nonce=None):
        head = struct.pack('<IQQI', RECORD, offset, len(data), batch)
        seed = struct.pack('<Q', self.nonce if nonce is None else nonce)
        return head + data + struct.pack('<I', crc(seed, head, data))

    def closing(self, length, batch):
        body = struct.pack('<IQI', CLOSING, length, batch)
        return body + struct.pack('<I', crc(struct.pack('<Q', self.nonce), body))

    def encode(self):
        """The journal's bytes and where each record starts."""
        out, starts = bytearray(self.header()), []
        for offset, data, batch in self.regions:
            starts.append(len(out))
            out += self.record(offset, data, batch)
        if self.done:
            out += self.closing(*self.done)
        return bytes(out), starts


def version1(original):
    """The older release's journal: a 32-byte header and records without nonce or batch."""
    body = MAGIC + struct.pack('<IIQI', 1, 32, len(original), 0)
    head = struct.pack('<IQQ', RECORD, 0, 64)
    data = original[:64]
    return body + struct.pack('<I', crc(body)) + head + data + struct.pack('<I', crc(head, data))


def changed_regions(before, after, at_least=3):
    """The regions an in-place change from before to after overwrites, as (offset, length):
    runs of differing bytes, close ones merged, the largest split until there are enough."""
    regions, start, last = [], None, None
    for i in range(min(len(before), len(after))):
        if before[i] != after[i]:
            if start is not None and i - last > 16:
                regions.append((start, last + 1 - start))
                start = None
            if start is None:
                start = i
            last = i
    if start is not None:
        regions.append((start, last + 1 - start))
    while len(regions) < at_least:
        big = max(regions, key=lambda r: r[1])
        half = big[1] // 2
        regions[regions.index(big)] = (big[0], half)
        regions.append((big[0] + half, big[1] - half))
        regions.sort()
    return regions


def genuine(before, after, name=PACKAGE, nonce=0x1122334455667788):
    """The journal of the change from before to after, one sync batch per region, and the
    package as a crash leaves it after `written` batches reached it."""
    regions = [(offset, before[offset:offset + length], batch)
               for batch, (offset, length) in enumerate(changed_regions(before, after), 1)]
    return Journal(before, name, nonce, regions)


def crashed(journal, after, written=None):
    """The package once the batches up to `written` (all by default) were written. Laying the
    journal's records of those batches back over it gives the original: the rows that expect
    a rollback rest on that."""
    last = len(journal.regions) if written is None else written
    out = bytearray(journal.original) + bytearray(after[len(journal.original):])
    for offset, data, batch in journal.regions:
        if batch <= last:
            out[offset:offset + len(data)] = after[offset:offset + len(data)]
    back = bytearray(out)
    for offset, data, batch in journal.regions:
        if batch <= last:
            back[offset:offset + len(data)] = data
    assert back[:len(journal.original)] == journal.original
    return bytes(out)
