"""The shared library and ctypes mirrors of its public records and functions."""
import ctypes
import ctypes.util
import logging
import os
import sys
from pathlib import Path

MAX_PATH = 260
MANIFEST_COUNT = 23
MANIFEST_SIZE = 16384

# QOB_ObjectType, QOB_ExtractMode, QOB_CreateMode
OBJECT_PACKAGE_INFO, OBJECT_IMAGE_FILES, OBJECT_UPDATE_ARGS = 0, 1, 2
OBJECT_ENTRY_INFO, OBJECT_CREATE_ARGS, OBJECT_EXTRACT_ARGS = 3, 4, 5
EXTRACT_ALL, EXTRACT_TO_BUFFER = 0, 1
PACK_FROM_FILE, PACK_FROM_MEMORY = 0, 1

PathField = ctypes.c_char * MAX_PATH


class EntryInfo(ctypes.Structure):
    _pack_ = 4
    _fields_ = [("szPath", PathField), ("szSecondPath", PathField),
                ("szIdentifier", PathField), ("uReservedSpace", ctypes.c_uint32),
                ("ePackingType", ctypes.c_uint32), ("uStoredSize", ctypes.c_uint32),
                ("uBufferLength", ctypes.c_uint32), ("uDataOffset", ctypes.c_uint32),
                ("uTime", ctypes.c_uint32), ("pBuffer", ctypes.c_void_p)]


class ImageFiles(ctypes.Structure):
    _pack_ = 4
    _fields_ = [("raw", EntryInfo), ("uLccCount", ctypes.c_uint32),
                ("pLccs", ctypes.POINTER(EntryInfo)), ("settings", EntryInfo),
                ("proxy", EntryInfo), ("uIccCount", ctypes.c_uint32),
                ("pIccs", ctypes.POINTER(EntryInfo)), ("mask", EntryInfo), ("hair", EntryInfo)]


class PackageInfo(ctypes.Structure):
    _pack_ = 4
    _fields_ = [("szPackagePath", PathField),
                ("szManifests", (ctypes.c_char * MANIFEST_SIZE) * MANIFEST_COUNT),
                ("files", ImageFiles)]


class CreateArgs(ctypes.Structure):
    _pack_ = 4
    _fields_ = [("files", ImageFiles), ("szPackagePath", PathField)]


class UpdateArgs(ctypes.Structure):
    _pack_ = 4
    _fields_ = [("szPackagePath", PathField), ("files", ImageFiles), ("info", PackageInfo)]


class ExtractArgs(ctypes.Structure):
    _pack_ = 4
    _fields_ = [("szPackagePath", PathField), ("szDestination", PathField),
                ("eMode", ctypes.c_uint32), ("szEntryPath", PathField),
                ("szPath4", PathField), ("szPath5", PathField),
                ("reserved", ctypes.c_uint8 * 32), ("pBuffer", ctypes.c_void_p),
                ("uBufferSize", ctypes.c_uint32)]


MAX_NAME = 1024     # QOBX_MAX_NAME
MAX_MESSAGE = 1024  # QOBX_MAX_MESSAGE


class LastError(ctypes.Structure):
    """QOBX_Error: why the calling thread's last call failed."""
    _pack_ = 4
    _fields_ = [("code", ctypes.c_int32), ("systemError", ctypes.c_int32),
                ("codeName", ctypes.c_char * 32), ("message", ctypes.c_char * MAX_MESSAGE),
                ("systemMessage", ctypes.c_char * 256), ("subject", ctypes.c_char * MAX_MESSAGE)]


class EntryStat(ctypes.Structure):
    """QOBX_EntryStat: one zip entry of a package."""
    _pack_ = 4
    _fields_ = [("name", ctypes.c_char * MAX_NAME), ("contentSize", ctypes.c_uint64),
                ("allocatedSize", ctypes.c_uint64), ("dataOffset", ctypes.c_uint64),
                ("crc32", ctypes.c_uint32), ("method", ctypes.c_uint32),
                ("dosTime", ctypes.c_uint32), ("reserved", ctypes.c_uint32),
                ("unixTime", ctypes.c_int64)]


ProgressFn = ctypes.CFUNCTYPE(None, ctypes.c_uint64, ctypes.c_uint64, ctypes.c_void_p)

# The header pins these sizes; a mismatch would corrupt memory, so refuse to go on.
RECORD_SIZES = {EntryInfo: 812, ImageFiles: 4084, PackageInfo: 381176, CreateArgs: 4344,
                UpdateArgs: 385520, ExtractArgs: 1348,
                LastError: 2344, EntryStat: 1072}
for _record, _size in RECORD_SIZES.items():
    if ctypes.sizeof(_record) != _size:
        raise ImportError(f"qob: {_record.__name__} is {ctypes.sizeof(_record)} bytes, "
                          f"the library's is {_size}")

# QOB_SetLogFn has C++ linkage: its exported name is decorated, differently per compiler.
_ITANIUM_NAME = "_Z12QOB_SetLogFnPFviPKcPvES1_"    # GCC and Clang; MinGW builds of the DLL
_MSVC_NAME = "?QOB_SetLogFn@@YAXP6AXHPEBDPEAX@Z1@Z"  # the DLL's own decoration on Windows
SET_LOG_FN_NAMES = (_MSVC_NAME, _ITANIUM_NAME) if os.name == "nt" else (_ITANIUM_NAME,)
LogFn = ctypes.CFUNCTYPE(None, ctypes.c_int, ctypes.c_char_p, ctypes.c_void_p)

# Library level (0 FATAL .. 5 TRACE) -> logging level; TRACE sits below DEBUG.
TRACE = 5
LEVELS = {0: logging.CRITICAL, 1: logging.ERROR, 2: logging.WARNING, 3: logging.INFO,
          4: logging.DEBUG, 5: TRACE}
logging.addLevelName(TRACE, "TRACE")
logger = logging.getLogger("qob")
# A library shows nothing until the application configures logging.
logger.addHandler(logging.NullHandler())


def _library_names():
    if os.name == "nt":
        return ["qob.dll"]
    if sys.platform == "darwin":
        return ["libqob.dylib"]
    return ["libqob.so.0", "libqob.so"]


def candidates():
    """Where the library is looked for, in order."""
    given = os.environ.get("QOB_LIBRARY")
    if given:
        return [given]
    names = _library_names()
    places = [Path(__file__).resolve().parent]
    for prefix in dict.fromkeys([sys.prefix, sys.base_prefix, "/usr/local"]):
        places += [Path(prefix) / "lib", Path(prefix) / "lib64"]
    found = [str(place / name) for place in places for name in names if (place / name).exists()]
    system = ctypes.util.find_library("qob")
    return found + ([system] if system else []) + names


class Library:
    """One loaded library: its functions with their signatures, and the log sink."""

    def __init__(self, path):
        self.path = str(path)
        self.dll = ctypes.CDLL(self.path)
        self._declare()
        self._sink = LogFn(self._on_log)  # kept alive as long as the library
        for name in SET_LOG_FN_NAMES:
            try:
                set_log = getattr(self.dll, name)
            except AttributeError:
                continue
            set_log.argtypes = [LogFn, ctypes.c_void_p]
            set_log.restype = None
            set_log(self._sink, None)
            self.set_log = set_log  # QOB_SetLogFn
            break
        else:
            raise OSError(f"{self.path}: exports no QOB_SetLogFn")

    def _declare(self):
        d, c = self.dll, ctypes
        signatures = {
            "QOB_Create": ([c.POINTER(CreateArgs)], c.c_int),
            "QOB_Extract": ([c.POINTER(ExtractArgs)], c.c_int),
            "QOB_Update": ([c.POINTER(UpdateArgs)], c.c_int),
            "QOB_GetPackageInfo": ([c.POINTER(PackageInfo)], c.c_int),
            "QOB_GetLensCastCalibInfo": ([c.c_char_p, c.c_char_p, c.POINTER(EntryInfo)],
                                         c.c_int),
            "QOB_IsQob": ([c.c_char_p], c.c_int),
            "QOB_RemoveEntry": ([c.c_char_p, c.c_char_p], c.c_int),
            "QOB_Constructor": ([c.c_void_p, c.c_int], c.c_int),
            "QOB_Destructor": ([c.c_void_p, c.c_int], c.c_int),
            "QOBX_Version": ([], c.c_char_p),
            "QOBX_LastError": ([c.POINTER(LastError)], c.c_int),
            "QOBX_CodeName": ([c.c_int32], c.c_char_p),
            "QOBX_ListEntries": ([c.c_char_p, c.POINTER(EntryStat), c.c_uint32,
                                  c.POINTER(c.c_uint32)], c.c_int),
            "QOBX_ReadEntry": ([c.c_char_p, c.c_char_p, c.c_uint64, c.c_void_p, c.c_uint32,
                                c.POINTER(c.c_uint32)], c.c_int),
            "QOBX_SetLogLevel": ([c.c_int32], None),
            "QOBX_SetProgressFn": ([ProgressFn, c.c_void_p], None),
        }
        for name, (argtypes, restype) in signatures.items():
            function = getattr(d, name)
            function.argtypes = argtypes
            function.restype = restype
            setattr(self, name, function)

    def _on_log(self, level, text, _user):
        line = text.decode("utf-8", "replace") if text else ""
        # "[QOB][ERROR] message": the level travels separately.
        message = line[13:] if line.startswith("[QOB][") and len(line) > 12 else line
        logger.log(LEVELS.get(level, logging.DEBUG), "%s", message)

    def last_error(self) -> LastError:
        """The calling thread's last-error record."""
        record = LastError()
        self.QOBX_LastError(ctypes.byref(record))
        return record

    def call(self, name, *args):
        """Runs one export; returns its result code and, for a failure, the last-error record."""
        result = getattr(self, name)(*args)
        return (0, None) if result == 0 else (result, self.last_error())
