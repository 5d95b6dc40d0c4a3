"""The shared library and ctypes mirrors of its public records and functions."""
import ctypes
import ctypes.util
import logging
import os
import sys
import threading
from pathlib import Path

MAX_PATH = 260
MANIFEST_COUNT = 23
MANIFEST_SIZE = 16384

# Result codes (QobErrorCode_e), in the header's order.
RESULT_NAMES = {
    0: "SUCCESS", -1: "FILE_NOT_FOUND", -2: "FILE_NOT_IN_PACKAGE",
    -3: "DIRECTORY_DOESNOT_EXIST", -4: "CREATE_DIRECTORY", -5: "EXTRACT_FILE",
    -6: "INVALID_POINTER", -7: "INVALID_PARAMETER", -8: "PACKAGE_NOT_FOUND",
    -9: "CANNOT_OPEN_FILE_PCK", -10: "CANNOT_READ_FILE_PCK", -11: "FILE_COUNT_EXCEEDS_MAX",
    -12: "PACKAGEVERSION_NOT_SUPPORTED", -13: "CANNOT_DELETE_INTERNAL_FILE",
    -14: "CANNOT_REMOVE_FILE", -15: "INTERNAL_INCONSISTENCY", -100: "FUNC_NOT_IMPL",
}

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


# The header pins these sizes; a mismatch would corrupt memory, so refuse to go on.
RECORD_SIZES = {EntryInfo: 812, ImageFiles: 4084, PackageInfo: 381176, CreateArgs: 4344,
                UpdateArgs: 385520, ExtractArgs: 1348}
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
        self._local = threading.local()
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
            break
        else:
            raise OSError(f"{self.path}: exports no QOB_SetLogFn")

    def _declare(self):
        d, c = self.dll, ctypes
        signatures = {
            "QOB_Create": [c.POINTER(CreateArgs)],
            "QOB_Extract": [c.POINTER(ExtractArgs)],
            "QOB_Update": [c.POINTER(UpdateArgs)],
            "QOB_GetPackageInfo": [c.POINTER(PackageInfo)],
            "QOB_GetLensCastCalibInfo": [c.c_char_p, c.c_char_p, c.POINTER(EntryInfo)],
            "QOB_IsQob": [c.c_char_p],
            "QOB_RemoveEntry": [c.c_char_p, c.c_char_p],
            "QOB_Constructor": [c.c_void_p, c.c_int],
            "QOB_Destructor": [c.c_void_p, c.c_int],
        }
        for name, argtypes in signatures.items():
            function = getattr(d, name)
            function.argtypes = argtypes
            function.restype = c.c_int
            setattr(self, name, function)

    def _on_log(self, level, text, _user):
        line = text.decode("utf-8", "replace") if text else ""
        # "[QOB][ERROR] message": the level travels separately.
        message = line[13:] if line.startswith("[QOB][") and len(line) > 12 else line
        if level <= 1:
            self._local.errors = getattr(self._local, "errors", []) + [message]
        logger.log(LEVELS.get(level, logging.DEBUG), "%s", message)

    def call(self, name, *args):
        """Runs one export; returns its result code and the library's message for a failure."""
        self._local.errors = []
        result = getattr(self, name)(*args)
        if result == 0:
            return 0, ""
        # The frame's last line reads "<function>: [<NAME>] <message>".
        lead = name + ": "
        message = ""
        for line in getattr(self._local, "errors", []):
            if line.startswith(lead):
                message = line[len(lead):]
                if message.startswith("[") and "] " in message:
                    message = message[message.index("] ") + 2:]
        return result, message
