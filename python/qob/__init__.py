"""Create, inspect and edit image packages through the qob shared library.

qob.Package(path) reads a package the way zipfile.ZipFile reads a zip: namelist(),
infolist(), read(name), open(name) (a streaming file object), info(), lcc(id). The functions
create, update, info, extract, read, lcc, is_package and remove take the package's path (str
or os.PathLike).

Failures raise qob.Error, an OSError that carries the library's result code (.code, .name),
its message (.message), the system's error (.errno, .strerror) and the path or entry concerned
(.filename). Where a builtin exception means the same the error is also that one:
FileNotFoundError, PermissionError, KeyError for a missing entry. The library's log lines go
to the logger "qob".
"""
import ctypes
import dataclasses
from typing import Mapping, Optional, Union

from . import _native
from ._calls import (DEFAULT_SETTINGS_RESERVE, MANIFEST_NAMES, Entry,  # noqa: F401
                     EntryInfo, PackageInfo, PathLike, Progress, _check, _encode, _entry, _Files,
                     _InfoRecord, _lib, _Progress, _to_info, code_name, library_path,
                     library_version, load_library)
from ._errors import (EntryNotFoundError, Error, PackageExistsError,  # noqa: F401
                      PackageIsADirectoryError, PackageNotADirectoryError,
                      PackageNotFoundError, PackagePermissionError)
from ._native import TRACE  # noqa: F401  (part of the interface)
from ._package import Package

__all__ = ["Error", "PackageNotFoundError", "PackagePermissionError", "EntryNotFoundError",
           "Entry", "EntryInfo", "PackageInfo", "Package", "create", "update", "info",
           "extract", "read", "lcc", "is_package", "remove", "load_library", "library_path",
           "library_version", "code_name", "MANIFEST_NAMES", "TRACE"]
__version__ = "0.2.0"

Reserve = Union[None, int, Mapping[str, int]]


def create(path: PathLike, raw: PathLike, settings: Optional[PathLike] = None,
           proxy: Optional[PathLike] = None, lcc: Optional[Mapping[str, PathLike]] = None,
           icc: Optional[Mapping[str, PathLike]] = None, mask: Optional[PathLike] = None,
           hair: Optional[PathLike] = None, reserve: Reserve = None,
           progress: Optional[Progress] = None) -> None:
    """Creates a new package at path from a raw image and its companion files.

    lcc and icc map profile identifiers to files. reserve is the zero space kept behind each
    companion file (an int for all, or a mapping by kind: settings, proxy, lcc, icc, mask,
    hair); by default 16384 bytes behind the settings and none elsewhere. progress, when
    given, is called with the bytes done and the bytes in all while the package is written.
    """
    files = _Files(reserve, settings, proxy, lcc, icc, mask, hair)
    args = _native.CreateArgs()
    _lib().QOB_Constructor(ctypes.byref(args), _native.OBJECT_CREATE_ARGS)
    args.files = files.files
    files._fill(args.files.raw, raw, 0, "", "raw")
    args.szPackagePath = _encode(path, "package path")
    with _Progress(progress):
        _check("QOB_Create", ctypes.byref(args), where=path)


def info(path: PathLike) -> PackageInfo:
    """What the package's manifest says: every file with its sizes, offset and time."""
    with _InfoRecord(path) as record:
        return _to_info(path, record)


def update(path: PathLike, settings: Optional[PathLike] = None, proxy: Optional[PathLike] = None,
           lcc: Optional[Mapping[str, PathLike]] = None,
           icc: Optional[Mapping[str, PathLike]] = None, mask: Optional[PathLike] = None,
           hair: Optional[PathLike] = None, reserve: Reserve = None,
           progress: Optional[Progress] = None) -> None:
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
        _check("QOB_GetPackageInfo", ctypes.byref(args.info), where=path)
        args.files = files.files
        with _Progress(progress):
            _check("QOB_Update", ctypes.byref(args), where=path)
    finally:
        # The update's own destructor frees nothing: its package record owns the lists.
        lib.QOB_Destructor(ctypes.byref(args.info), _native.OBJECT_PACKAGE_INFO)


def extract(path: PathLike, dest: PathLike, progress: Optional[Progress] = None) -> None:
    """Writes every file of the package (not the manifests) under the directory dest."""
    args = _native.ExtractArgs()
    _lib().QOB_Constructor(ctypes.byref(args), _native.OBJECT_EXTRACT_ARGS)
    args.szPackagePath = _encode(path, "package path")
    args.szDestination = _encode(dest, "destination")
    args.eMode = _native.EXTRACT_ALL
    with _Progress(progress):
        _check("QOB_Extract", ctypes.byref(args), where=path)


def read(path: PathLike, entry: str) -> bytes:
    """The content of one entry, named exactly as stored; KeyError (a qob.EntryNotFoundError)
    when the package has none of that name."""
    with Package(path) as package:
        return package.read(entry)


def lcc(path: PathLike, identifier: str) -> Entry:
    """The lens cast calibration profile with this identifier (matched exactly); KeyError
    (a qob.EntryNotFoundError) when there is none."""
    found = _native.EntryInfo()
    _lib().QOB_Constructor(ctypes.byref(found), _native.OBJECT_ENTRY_INFO)
    _check("QOB_GetLensCastCalibInfo", _encode(path, "package path"),
           _encode(identifier, "identifier"), ctypes.byref(found), lookup=True, where=path)
    entry = _entry(found)
    # The look-up leaves the time out; the package's file list has it.
    for profile in info(path).lccs:
        if profile.path == entry.path:
            return dataclasses.replace(entry, time=profile.time)
    return entry


def is_package(path: PathLike) -> bool:
    """Whether path is an image package of a version the library reads."""
    try:
        _check("QOB_IsQob", _encode(path, "package path"), where=path)
        return True
    except Error:
        return False


def remove(path: PathLike, entry: str, progress: Optional[Progress] = None) -> None:
    """Removes an entry (its exact name) from the package and from its manifests."""
    with _Progress(progress):
        _check("QOB_RemoveEntry", _encode(path, "package path"), _encode(entry, "entry path"),
               lookup=True, where=path)


try:
    load_library()
except OSError:
    pass  # reported by the first call, after the caller had the chance of load_library(path)
