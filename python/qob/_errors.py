"""The exceptions the package raises for a failed library call.

Every one is a qob.Error, which is an OSError; where a builtin exception says the same thing
(FileNotFoundError, PermissionError, IsADirectoryError, KeyError for a missing entry) the error
is also that exception.
"""
import errno as _errno
import os
from typing import Dict, Optional, Type

PACKAGE_NOT_FOUND = -8
FILE_NOT_IN_PACKAGE = -2

# Windows gives GetLastError numbers: the ones a host meets, as the errno Python uses.
_WINDOWS_ERRNO = {2: _errno.ENOENT, 3: _errno.ENOENT, 5: _errno.EACCES, 32: _errno.EACCES,
                  33: _errno.EACCES, 80: _errno.EEXIST, 183: _errno.EEXIST,
                  39: _errno.ENOSPC, 112: _errno.ENOSPC, 267: _errno.ENOTDIR}


def _as_errno(system_error: int) -> int:
    return _WINDOWS_ERRNO.get(system_error, system_error) if os.name == "nt" else system_error


class Error(OSError):
    """A call of the library failed.

    code and name are the library's result code and its name, message the library's message
    for it; errno, strerror and filename are the system's error (0 and "" when it gave none)
    and the path or entry the failure concerns.
    """

    def __init__(self, code: int, name: str, message: str, system_error: int = 0,
                 system_message: str = "", subject: Optional[str] = None):
        super().__init__(_as_errno(system_error), system_message, subject or None)
        self.code = code
        self.name = name
        self.message = message
        self.system_error = system_error

    def __str__(self) -> str:
        where = f"{self.filename}: " if self.filename else ""
        text = f"{where}{self.name} ({self.code}): {self.message}" if self.message \
            else f"{where}{self.name} ({self.code})"
        return f"{text} [{self.strerror}]" if self.strerror else text

    def __reduce__(self):
        return (type(self), (self.code, self.name, self.message, self.system_error,
                             self.strerror or "", self.filename))


class PackageNotFoundError(Error, FileNotFoundError):
    """The package (or another file the call needs) does not exist."""


class PackagePermissionError(Error, PermissionError):
    """The system refused access to the package or a file the call needs."""


class PackageIsADirectoryError(Error, IsADirectoryError):
    """A directory was given where a file is needed."""


class PackageNotADirectoryError(Error, NotADirectoryError):
    """A file was given where a directory is needed."""


class PackageExistsError(Error, FileExistsError):
    """The file to be written exists already."""


class EntryNotFoundError(Error, KeyError):
    """The package has no entry (or LCC profile) of that name."""


_BY_ERRNO: Dict[int, Type[Error]] = {
    _errno.ENOENT: PackageNotFoundError, _errno.EACCES: PackagePermissionError,
    _errno.EPERM: PackagePermissionError, _errno.EISDIR: PackageIsADirectoryError,
    _errno.ENOTDIR: PackageNotADirectoryError, _errno.EEXIST: PackageExistsError}


def from_record(code: int, record, lookup: bool = False, where: Optional[str] = None) -> Error:
    """The exception for a failed call from its last-error record. With lookup, a missing
    entry or manifest is a KeyError (the call looked a name up in a package); where names the
    package when the record names nothing."""
    def text(field) -> str:
        return bytes(field).split(b"\0", 1)[0].decode("utf-8", "replace")

    args = (code, text(record.codeName), text(record.message), record.systemError,
            text(record.systemMessage), text(record.subject) or where)
    kind: Type[Error] = Error
    number = _as_errno(record.systemError)
    if lookup and code == FILE_NOT_IN_PACKAGE:
        kind = EntryNotFoundError
    elif number in _BY_ERRNO:
        kind = _BY_ERRNO[number]
    elif code == PACKAGE_NOT_FOUND:
        kind = PackageNotFoundError
    return kind(*args)


def missing_entry(name: str) -> EntryNotFoundError:
    """The error for a name the package holds no entry of, found before the library was asked."""
    return EntryNotFoundError(FILE_NOT_IN_PACKAGE, "FILE_NOT_IN_PACKAGE",
                              "no entry of that name", 0, "", name)
