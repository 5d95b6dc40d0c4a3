"""What the public functions and qob.Package share: the loaded library, the records the
package hands out, and the conversions between them and the library's records."""
import ctypes
import datetime
import os
from dataclasses import dataclass, field
from typing import Callable, Dict, List, Mapping, Optional, Union

from . import _native
from ._errors import from_record, missing_entry

PathLike = Union[str, "os.PathLike[str]"]
# Called with the bytes done and the bytes in all, a few times a second, during long work.
Progress = Callable[[int, int], None]

# Settings grow with every edit: they get this much reserved space unless told otherwise.
DEFAULT_SETTINGS_RESERVE = 16384


@dataclass(frozen=True)
class Entry:
    """One file of a package, as its manifest names it."""
    path: str                 # inside the package
    size: int                 # content length
    reserved: int             # zero space reserved behind the content
    offset: int               # where the content starts in the package file
    time: Optional[datetime.datetime]  # aware, in the local zone; None when unknown
    identifier: str = ""      # of an LCC or ICC profile
    second_path: str = ""


@dataclass(frozen=True)
class EntryInfo:
    """One zip entry of a package (qob.Package.infolist()), named as zipfile names them."""
    filename: str             # exactly as stored
    file_size: int            # content length
    allocated_size: int       # content plus reserved zero space, as stored
    data_offset: int          # where the stored data starts in the package file
    CRC: int                  # CRC-32 of the stored data
    compress_type: int        # 0 stored, 8 deflated
    dos_time: int             # the zip's local date and time word
    time: Optional[datetime.datetime]  # aware; None when the entry has no time


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


def load_library(path: Optional[PathLike] = None) -> str:
    """Loads the library from path, or from the first place it is found; returns its path."""
    global _library
    places = [os.fspath(path)] if path is not None else _native.candidates()
    failures = []
    for place in places:
        try:
            _library = _native.Library(place)
            return _library.path
        except OSError as e:
            failures.append(f"{place}: {e}")
    raise OSError("qob: cannot load the library (set QOB_LIBRARY to its path): " +
                  "; ".join(failures))


def library_path() -> str:
    """The file the library was loaded from."""
    return _lib().path


def library_version() -> str:
    """The library's version, "MAJOR.MINOR.PATCH"."""
    return _lib().QOBX_Version().decode("ascii")


def code_name(code: int) -> str:
    """The name of a result code ("PACKAGE_NOT_FOUND"); "UNKNOWN" for a value not in the list."""
    return _lib().QOBX_CodeName(code).decode("ascii")


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
    """The zip's local date and time word as an aware datetime in the local zone."""
    if word == 0:
        return None
    try:
        return datetime.datetime((word >> 25) + 1980, (word >> 21) & 15, (word >> 16) & 31,
                                 (word >> 11) & 31, (word >> 5) & 63,
                                 (word & 31) * 2).astimezone()
    except (ValueError, OverflowError):
        return None


def _entry(info: _native.EntryInfo) -> Entry:
    return Entry(path=_text(info.szPath), size=info.uStoredSize, reserved=info.uReservedSpace,
                 offset=info.uDataOffset, time=_dos_time(info.uTime),
                 identifier=_text(info.szIdentifier), second_path=_text(info.szSecondPath))


def _check(name: str, *args, lookup: bool = False, where: Optional[PathLike] = None) -> None:
    """Runs one export; raises the error its last-error record describes (naming where, the
    package, when the record names nothing)."""
    result, record = _lib().call(name, *args)
    if result != 0:
        raise from_record(result, record, lookup, os.fspath(where) if where is not None else None)


class _Progress:
    """Reports the library's progress of the calls made in its scope to a host function."""

    def __init__(self, progress: Optional[Progress]):
        self._progress = progress
        self._fn = _native.ProgressFn(lambda done, total, _user: progress(done, total)) \
            if progress is not None else None

    def __enter__(self):
        if self._fn is not None:
            _lib().QOBX_SetProgressFn(self._fn, None)

    def __exit__(self, *exc):
        if self._fn is not None:
            _lib().QOBX_SetProgressFn(_native.ProgressFn(), None)


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


class _InfoRecord:
    """A QOB_PackageInfo filled by the library, released with the lists it allocated."""

    def __init__(self, path):
        self.record = _native.PackageInfo()
        lib = _lib()
        lib.QOB_Constructor(ctypes.byref(self.record), _native.OBJECT_PACKAGE_INFO)
        self.record.szPackagePath = _encode(path, "package path")
        try:
            _check("QOB_GetPackageInfo", ctypes.byref(self.record), where=path)
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




def _entry_info(stat: _native.EntryStat) -> EntryInfo:
    time = None
    if stat.dosTime != 0:
        time = datetime.datetime.fromtimestamp(stat.unixTime, datetime.timezone.utc).astimezone()
    return EntryInfo(filename=bytes(stat.name).decode("utf-8", "replace"),
                     file_size=stat.contentSize, allocated_size=stat.allocatedSize,
                     data_offset=stat.dataOffset, CRC=stat.crc32, compress_type=stat.method,
                     dos_time=stat.dosTime, time=time)


def _list_entries(path: PathLike) -> List[EntryInfo]:
    """Every zip entry of the package, in central-directory order."""
    encoded = _encode(path, "package path")
    count = ctypes.c_uint32(0)
    stats = (_native.EntryStat * 0)()
    while True:
        _check("QOBX_ListEntries", encoded, stats, len(stats), ctypes.byref(count), where=path)
        if count.value <= len(stats):
            return [_entry_info(stats[i]) for i in range(count.value)]
        stats = (_native.EntryStat * count.value)()  # first call, or the package grew


def _encode_name(name: str) -> bytes:
    """An entry name as the library takes it: UTF-8, exactly as stored."""
    data = name.encode("utf-8")
    if len(data) >= _native.MAX_NAME or b"\0" in data:
        raise missing_entry(name)
    return data


def _read_range(encoded_path: bytes, encoded_name: bytes, offset: int, buffer) -> int:
    """Reads from offset into buffer (a writable bytes-like object); returns the bytes read,
    0 at the end. A read that reaches the end checks the entry's CRC-32."""
    size = min(len(buffer), 0xFFFFFFFF)
    view = (ctypes.c_char * size).from_buffer(buffer) if size else None
    done = ctypes.c_uint32(0)
    _check("QOBX_ReadEntry", encoded_path, encoded_name, offset, view, size, ctypes.byref(done),
           lookup=True, where=os.fsdecode(encoded_path))
    return done.value
