"""qob.Package: a package read the way zipfile.ZipFile reads a zip."""
import io
import os
from typing import BinaryIO, List

from ._calls import (Entry, EntryInfo, PackageInfo, PathLike, _check, _encode, _encode_name,
                     _list_entries, _read_range)
from ._errors import missing_entry

# Bytes asked of the library per call: large enough that few calls are needed, small enough
# that reading an entry of any size takes little memory.
CHUNK = 4 << 20


class _EntryReader(io.RawIOBase):
    """One entry's content, read from the library range by range (seekable)."""

    def __init__(self, path: bytes, name: str, size: int):
        super().__init__()
        self._path = path
        self._encoded = _encode_name(name)
        self._size = size
        self._position = 0
        self.name = name

    def readable(self) -> bool:
        return True

    def seekable(self) -> bool:
        return True

    def readinto(self, buffer) -> int:
        if self.closed:
            raise ValueError("I/O operation on closed entry")
        with memoryview(buffer) as view, view.cast("B") as raw:
            count = _read_range(self._path, self._encoded, self._position, raw[:CHUNK])
        self._position += count
        return count

    def readall(self) -> bytes:
        # In the library's steps, not RawIOBase's 8 KiB ones: each call opens the package.
        parts = []
        while True:
            chunk = bytearray(CHUNK)
            count = self.readinto(chunk)
            if count == 0:
                return b"".join(parts)
            del chunk[count:]
            parts.append(chunk)

    def seek(self, offset: int, whence: int = io.SEEK_SET) -> int:
        bases = {io.SEEK_SET: 0, io.SEEK_CUR: self._position, io.SEEK_END: self._size}
        if whence not in bases:
            raise ValueError(f"invalid whence ({whence})")
        position = bases[whence] + offset
        if position < 0:
            raise ValueError(f"negative seek position {position}")
        self._position = position
        return position

    def tell(self) -> int:
        return self._position


class Package:
    """An image package, opened by path; use it as a context manager.

    The library keeps nothing open between calls, so every method reads the package as it is
    at that moment. Entry names are compared exactly, as stored.
    """

    def __init__(self, path: PathLike):
        """Opens the package at path; raises FileNotFoundError (a qob.Error) when it does not
        exist and qob.Error when it is no image package."""
        self.filename = os.fspath(path)
        self._path = _encode(path, "package path")
        self._closed = False
        _check("QOB_IsQob", self._path, where=path)

    def __enter__(self) -> "Package":
        return self

    def __exit__(self, *exc) -> None:
        self.close()

    def __repr__(self) -> str:
        state = " [closed]" if self._closed else ""
        return f"<qob.Package filename={self.filename!r}{state}>"

    def close(self) -> None:
        """Ends the use of the package; further calls raise ValueError."""
        self._closed = True

    def _open(self) -> bytes:
        if self._closed:
            raise ValueError("Attempt to use a closed package")
        return self._path

    def infolist(self) -> List[EntryInfo]:
        """Every zip entry, manifests included, in the order the zip lists them."""
        self._open()
        return _list_entries(self.filename)

    def namelist(self) -> List[str]:
        """The name of every zip entry, manifests included."""
        return [entry.filename for entry in self.infolist()]

    def getinfo(self, name: str) -> EntryInfo:
        """The entry of exactly this name; KeyError (a qob.EntryNotFoundError) when none."""
        for entry in self.infolist():
            if entry.filename == name:
                return entry
        raise missing_entry(name)

    def open(self, name: str, mode: str = "r") -> BinaryIO:
        """A read-only, seekable file object that streams one entry's content (its exact
        name); the whole content is never held in memory. Reaching the end checks the CRC-32.
        """
        if mode != "r":
            raise ValueError("open() requires mode 'r'")
        size = self.getinfo(name).file_size
        return io.BufferedReader(_EntryReader(self._open(), name, size), buffer_size=CHUNK)

    def read(self, name: str) -> bytes:
        """The content of one entry (its exact name)."""
        with self.open(name) as stream:
            return stream.read()

    def info(self) -> PackageInfo:
        """What the package's manifest says: every file with its sizes, offset and time."""
        from . import info
        self._open()
        return info(self.filename)

    def lcc(self, identifier: str) -> Entry:
        """The lens cast calibration profile with this identifier (matched exactly); KeyError
        (a qob.EntryNotFoundError) when there is none."""
        from . import lcc
        self._open()
        return lcc(self.filename, identifier)

    def extractall(self, path: PathLike) -> None:
        """Writes every file of the package (not the manifests) under the directory path."""
        from . import extract
        self._open()
        extract(self.filename, path)

