"""Create, inspect and edit image packages through the qob shared library.

Every function takes the package's path (str or os.PathLike). Failures raise qob.Error,
whose .code and .name are the library's result code and its name, and whose .message is the
library's own message. The library's log lines go to the logger "qob".
"""
import ctypes
import dataclasses
import datetime
import os
from dataclasses import dataclass, field
from typing import Dict, List, Mapping, Optional, Union

from . import _native
from ._native import RESULT_NAMES, TRACE  # noqa: F401  (part of the interface)

__all__ = ["Error", "Entry", "PackageInfo", "create", "update", "info", "extract", "read",
           "lcc", "is_package", "remove", "load_library", "library_path", "MANIFEST_NAMES"]
__version__ = "0.1.0"

PathLike = Union[str, "os.PathLike[str]"]

# Settings grow with every edit: they get this much reserved space unless told otherwise.
DEFAULT_SETTINGS_RESERVE = 16384


class Error(Exception):
    """A call of the library failed."""

    def __init__(self, code: int, message: str, path: Optional[str] = None):
        self.code = code
        self.name = RESULT_NAMES.get(code, "UNKNOWN_RESULT")
        self.message = message
        self.path = path
        where = f"{path}: " if path else ""
        super().__init__(f"{where}{self.name} ({code}): {message}" if message
                         else f"{where}{self.name} ({code})")


@dataclass(frozen=True)
class Entry:
    """One file of a package."""
    path: str                 # inside the package
    size: int                 # content length
    reserved: int             # zero space reserved behind the content
    offset: int               # where the content starts in the package file
    time: Optional[datetime.datetime]  # local time, as zip stores it; None when unknown
    identifier: str = ""      # of an LCC or ICC profile
    second_path: str = ""


@dataclass(frozen=True)
class PackageInfo:
    path: str
    raw: Entry
    settings: Optional[Entry] = None
    proxy: Optional[Entry] = None
    lccs: List[Entry] = field(default_factory=list)
    iccs: List[Entry] = field(default_factory=list)
    mask: Optional[Entry] = None
    hair: Optional[Entry] = None
    # name -> text of each manifest present
    manifests: Dict[str, str] = field(default_factory=dict, repr=False)

    def files(self) -> List[Entry]:
        """Every file the manifest names, raw image first."""
        singles = [self.raw, self.settings, self.proxy]
        return [e for e in singles if e] + self.lccs + self.iccs + \
            [e for e in (self.mask, self.hair) if e]


MANIFEST_NAMES = (
    "manifest.xml", "manifest50.xml", "manifest70.xml", "manifest80.xml", "manifest81.xml",
    "manifest82.xml", "manifest90.xml", "manifest91.xml", "manifest100.xml",
    "manifest110.xml", "manifest120.xml", "manifest130.xml", "manifest131.xml",
    "manifest140.xml", "manifest141.xml", "manifest152.xml", "manifest165.xml",
    "manifest166.xml", "manifest1664.xml", "manifest1665.xml", "manifest1670.xml",
    "manifest1674.xml", "manifest1680.xml")

_library: Optional[_native.Library] = None
_load_error: Optional[OSError] = None


def load_library(path: Optional[PathLike] = None) -> str:
    """Loads the library from path, or from the first place it is found; returns its path."""
    global _library, _load_error
    places = [os.fspath(path)] if path is not None else _native.candidates()
    failures = []
    for place in places:
        try:
            _library = _native.Library(place)
            _load_error = None
            return _library.path
        except OSError as e:
            failures.append(f"{place}: {e}")
    _load_error = OSError("qob: cannot load the library (set QOB_LIBRARY to its path): " +
                          "; ".join(failures))
    raise _load_error


def library_path() -> str:
    return _lib().path


def _lib() -> _native.Library:
    if _library is None:
        load_library()
    return _library


def _encode(text: PathLike, what: str) -> bytes:
    # The library takes UTF-8 on Windows, the file system's bytes elsewhere.
    text = os.fspath(text)
    if isinstance(text, bytes):
        data = text
    else:
        data = text.encode("utf-8") if os.name == "nt" else os.fsencode(text)
    if len(data) >= _native.MAX_PATH:
        raise ValueError(f"{what} is too long (at most {_native.MAX_PATH - 1} bytes): {text}")
    if b"\0" in data:
        raise ValueError(f"{what} contains a NUL byte")
    return data


def _text(field_bytes) -> str:
    return bytes(field_bytes).split(b"\0", 1)[0].decode("utf-8", "replace")


def _dos_time(word: int) -> Optional[datetime.datetime]:
    if word == 0:
        return None
    try:
        return datetime.datetime((word >> 25) + 1980, (word >> 21) & 15, (word >> 16) & 31,
                                 (word >> 11) & 31, (word >> 5) & 63, (word & 31) * 2)
    except ValueError:
        return None


def _entry(info: _native.EntryInfo) -> Entry:
    return Entry(path=_text(info.szPath), size=info.uStoredSize, reserved=info.uReservedSpace,
                 offset=info.uDataOffset, time=_dos_time(info.uTime),
                 identifier=_text(info.szIdentifier), second_path=_text(info.szSecondPath))


def _check(path, name, *args):
    result, message = _lib().call(name, *args)
    if result != 0:
        raise Error(result, message, os.fspath(path) if path is not None else None)


class _Files:
    """The companion files of create and update, in the records the library reads."""

    def __init__(self, reserve, settings=None, proxy=None, lcc=None, icc=None, mask=None,
                 hair=None):
        self.files = _native.ImageFiles()
        _lib().QOB_Constructor(ctypes.byref(self.files), _native.OBJECT_IMAGE_FILES)
        self.count = 0
        spaces = self._spaces(reserve)
        for kind, source in (("settings", settings), ("proxy", proxy), ("mask", mask),
                             ("hair", hair)):
            if source is not None:
                self._fill(getattr(self.files, kind), source, spaces[kind], "", kind)
        self.lccs = self._list(lcc, spaces["lcc"], "lcc")
        self.iccs = self._list(icc, spaces["icc"], "icc")
        # An empty list is a null pointer with a count of 0, nothing else.
        if lcc:
            self.files.uLccCount, self.files.pLccs = len(lcc), self._pointer(self.lccs)
        if icc:
            self.files.uIccCount, self.files.pIccs = len(icc), self._pointer(self.iccs)

    @staticmethod
    def _spaces(reserve) -> Dict[str, int]:
        kinds = ("settings", "proxy", "lcc", "icc", "mask", "hair")
        if reserve is None:
            spaces = dict.fromkeys(kinds, 0)
            spaces["settings"] = DEFAULT_SETTINGS_RESERVE
        elif isinstance(reserve, Mapping):
            unknown = set(reserve) - set(kinds)
            if unknown:
                raise ValueError(f"reserve: unknown kinds {sorted(unknown)}")
            spaces = {k: int(reserve.get(k, 0)) for k in kinds}
        else:
            spaces = dict.fromkeys(kinds, int(reserve))
        for kind, space in spaces.items():
            if not 0 <= space <= 0xFFFFFFFF:
                raise ValueError(f"reserve for {kind}: {space} is not a 32-bit byte count")
        return spaces

    def _fill(self, entry, source, reserve, identifier, what):
        path = os.fspath(source)
        if not os.path.isfile(path):
            raise FileNotFoundError(f"{what}: no such file: {path}")
        _lib().QOB_Constructor(ctypes.byref(entry), _native.OBJECT_ENTRY_INFO)
        entry.szPath = _encode(path, what)
        entry.szIdentifier = _encode(identifier, what + " identifier")
        entry.uReservedSpace = reserve
        entry.ePackingType = _native.PACK_FROM_FILE
        self.count += 1

    def _list(self, profiles, reserve, what):
        profiles = dict(profiles or {})
        array = (_native.EntryInfo * max(len(profiles), 1))()
        for slot, (identifier, source) in zip(array, profiles.items()):
            if not identifier:
                raise ValueError(f"{what}: empty identifier")
            self._fill(slot, source, reserve, str(identifier), what)
        return array

    @staticmethod
    def _pointer(array):
        return ctypes.cast(array, ctypes.POINTER(_native.EntryInfo))


def create(path: PathLike, raw: PathLike, settings: Optional[PathLike] = None,
           proxy: Optional[PathLike] = None, lcc: Optional[Mapping[str, PathLike]] = None,
           icc: Optional[Mapping[str, PathLike]] = None, mask: Optional[PathLike] = None,
           hair: Optional[PathLike] = None,
           reserve: Union[None, int, Mapping[str, int]] = None) -> None:
    """Creates a new package at path from a raw image and its companion files.

    lcc and icc map profile identifiers to files. reserve is the zero space kept behind each
    companion file (an int for all, or a mapping by kind: settings, proxy, lcc, icc, mask,
    hair); by default 16384 bytes behind the settings and none elsewhere.
    """
    files = _Files(reserve, settings, proxy, lcc, icc, mask, hair)
    args = _native.CreateArgs()
    _lib().QOB_Constructor(ctypes.byref(args), _native.OBJECT_CREATE_ARGS)
    args.files = files.files
    files._fill(args.files.raw, raw, 0, "", "raw")
    args.szPackagePath = _encode(path, "package path")
    _check(path, "QOB_Create", ctypes.byref(args))


class _InfoRecord:
    """A QOB_PackageInfo filled by the library, released with the lists it allocated."""

    def __init__(self, path):
        self.record = _native.PackageInfo()
        lib = _lib()
        lib.QOB_Constructor(ctypes.byref(self.record), _native.OBJECT_PACKAGE_INFO)
        self.record.szPackagePath = _encode(path, "package path")
        try:
            _check(path, "QOB_GetPackageInfo", ctypes.byref(self.record))
        except BaseException:
            self.close()
            raise

    def close(self):
        if self.record is not None:
            _lib().QOB_Destructor(ctypes.byref(self.record), _native.OBJECT_PACKAGE_INFO)
            self.record = None

    def __enter__(self):
        return self.record

    def __exit__(self, *exc):
        self.close()


def _to_info(path, record: _native.PackageInfo) -> PackageInfo:
    files = record.files

    def single(entry):
        return _entry(entry) if entry.szPath else None

    def many(pointer, count):
        return [_entry(pointer[i]) for i in range(count)] if pointer else []

    manifests = {}
    for row, name in enumerate(MANIFEST_NAMES):
        text = bytes(record.szManifests[row]).split(b"\0", 1)[0]
        if text:
            manifests[name] = text.decode("utf-8", "replace")
    return PackageInfo(path=os.fspath(path), raw=_entry(files.raw), settings=single(files.settings),
                       proxy=single(files.proxy), lccs=many(files.pLccs, files.uLccCount),
                       iccs=many(files.pIccs, files.uIccCount), mask=single(files.mask),
                       hair=single(files.hair), manifests=manifests)


def info(path: PathLike) -> PackageInfo:
    """What the package's manifests say: every file with its sizes, offset and time."""
    with _InfoRecord(path) as record:
        return _to_info(path, record)


def update(path: PathLike, settings: Optional[PathLike] = None, proxy: Optional[PathLike] = None,
           lcc: Optional[Mapping[str, PathLike]] = None,
           icc: Optional[Mapping[str, PathLike]] = None, mask: Optional[PathLike] = None,
           hair: Optional[PathLike] = None,
           reserve: Union[None, int, Mapping[str, int]] = None) -> None:
    """Puts new or changed companion files into a package; profiles with new identifiers
    are added. A file that fits its entry's space is rewritten in place."""
    files = _Files(reserve, settings, proxy, lcc, icc, mask, hair)
    if files.count == 0:
        raise ValueError("update: nothing to update: name at least one file")
    args = _native.UpdateArgs()
    lib = _lib()
    lib.QOB_Constructor(ctypes.byref(args), _native.OBJECT_UPDATE_ARGS)
    args.szPackagePath = _encode(path, "package path")
    args.info.szPackagePath = args.szPackagePath
    try:
        _check(path, "QOB_GetPackageInfo", ctypes.byref(args.info))
        args.files = files.files
        _check(path, "QOB_Update", ctypes.byref(args))
    finally:
        lib.QOB_Destructor(ctypes.byref(args.info), _native.OBJECT_PACKAGE_INFO)


def extract(path: PathLike, dest: PathLike) -> None:
    """Writes every file of the package (not the manifests) under the directory dest."""
    args = _native.ExtractArgs()
    _lib().QOB_Constructor(ctypes.byref(args), _native.OBJECT_EXTRACT_ARGS)
    args.szPackagePath = _encode(path, "package path")
    args.szDestination = _encode(dest, "destination")
    args.eMode = _native.EXTRACT_ALL
    _check(path, "QOB_Extract", ctypes.byref(args))


def _read_into(path, entry: str, size: int, fill: int):
    buffer = ctypes.create_string_buffer(bytes([fill]) * max(size, 1), max(size, 1))
    args = _native.ExtractArgs()
    _lib().QOB_Constructor(ctypes.byref(args), _native.OBJECT_EXTRACT_ARGS)
    args.szPackagePath = _encode(path, "package path")
    args.szEntryPath = _encode(entry, "entry path")
    args.eMode = _native.EXTRACT_TO_BUFFER
    args.pBuffer = ctypes.cast(buffer, ctypes.c_void_p)
    args.uBufferSize = size
    _check(path, "QOB_Extract", ctypes.byref(args))
    return buffer.raw[:size]


def read(path: PathLike, entry: str) -> bytes:
    """The content of one entry (letter case in its name is not significant)."""
    for item in info(path).files():
        if item.path.lower() == entry.lower():
            return _read_into(path, entry, item.size, 0)
    # Not a file the manifest names (a manifest, say): its size is not known up front. The
    # library fills a buffer with the content and leaves the rest alone, so two reads into
    # buffers of different fill show where the content ends. The package's size bounds it.
    # Manifests are small: a first try with 64 KiB, then the bound that always holds.
    whole = min(os.path.getsize(path), 0xFFFFFFFF)
    for size in sorted({min(whole, 65536), whole}):
        try:
            low = _read_into(path, entry, size, 0x00)
            break
        except Error as e:
            if e.name != "INTERNAL_INCONSISTENCY" or size == whole:  # not "buffer too small"
                raise
    high = _read_into(path, entry, size, 0xFF)
    end = size
    while end > 0 and low[end - 1] != high[end - 1]:
        end -= 1
    return low[:end]


def lcc(path: PathLike, identifier: str) -> Entry:
    """The lens cast calibration profile with this identifier (matched exactly)."""
    found = _native.EntryInfo()
    lib = _lib()
    lib.QOB_Constructor(ctypes.byref(found), _native.OBJECT_ENTRY_INFO)
    _check(path, "QOB_GetLensCastCalibInfo", _encode(path, "package path"),
           _encode(identifier, "identifier"), ctypes.byref(found))
    entry = _entry(found)
    # The look-up leaves the time out; the package's file list has it.
    for profile in info(path).lccs:
        if profile.path == entry.path:
            return dataclasses.replace(entry, time=profile.time)
    return entry


def is_package(path: PathLike) -> bool:
    """Whether path is an image package of a version the library reads."""
    try:
        _check(path, "QOB_IsQob", _encode(path, "package path"))
        return True
    except Error:
        return False


def remove(path: PathLike, entry: str) -> None:
    """Removes an entry (its exact name) from the package and from its manifests."""
    _check(path, "QOB_RemoveEntry", _encode(path, "package path"), _encode(entry, "entry path"))


try:
    load_library()
except OSError:
    pass  # reported by the first call, after the caller had the chance of load_library(path)
