#!/usr/bin/env python3
"""One library call in a process of its own, run as whichever user the test chose.

usage: qob_child.py LIBRARY OPERATION PACKAGE [ARGUMENT...]
  info               QOB_GetPackageInfo; on success also the settings' content digest
  isqob              QOB_IsQob
  lcc ID             QOB_GetLensCastCalibInfo
  update SETTINGS    QOB_GetPackageInfo, then QOB_Update of the settings; on failure says
                     whether the record came back byte-identical
  create RAW [SETTINGS]
  remove ENTRY       QOB_RemoveEntry
  extract FOLDER     QOB_Extract of every file into FOLDER

Prints "result N" for the operation's call (and "settings SHA", "args unchanged|changed"), and
last "read N", the bytes the process read in all.
The library keeps its built-in sink, so its log lines go to standard output as well.
"""
import ctypes
import hashlib
import importlib.util
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
# The record mirrors of the Python package, loaded on their own: importing the package would
# install its log sink.
_spec = importlib.util.spec_from_file_location(
    'qob_records', os.path.join(HERE, '..', '..', 'python', 'qob', '_native.py'))
records = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(records)

SETTINGS_RESERVE = 16384


def library(path):
    dll = ctypes.CDLL(path)
    c = ctypes
    for name, argtypes in (('QOB_Create', [c.POINTER(records.CreateArgs)]),
                           ('QOB_Extract', [c.POINTER(records.ExtractArgs)]),
                           ('QOB_Update', [c.POINTER(records.UpdateArgs)]),
                           ('QOB_GetPackageInfo', [c.POINTER(records.PackageInfo)]),
                           ('QOB_GetLensCastCalibInfo',
                            [c.c_char_p, c.c_char_p, c.POINTER(records.EntryInfo)]),
                           ('QOB_IsQob', [c.c_char_p]),
                           ('QOB_RemoveEntry', [c.c_char_p, c.c_char_p]),
                           ('QOB_Constructor', [c.c_void_p, c.c_int]),
                           ('QOB_Destructor', [c.c_void_p, c.c_int])):
        function = getattr(dll, name)
        function.argtypes = argtypes
        function.restype = c.c_int
    return dll


def report(name, value):
    print(f'{name} {value}', flush=True)


def from_file(entry, path, reserve):
    entry.szPath = os.fsencode(path)
    entry.ePackingType = records.PACK_FROM_FILE
    entry.uReservedSpace = reserve


def settings_digest(lib, package, info):
    """The settings as this reader sees them, through a read into a buffer."""
    entry = info.files.settings
    if not entry.szPath:
        return 'none'
    size = max(entry.uStoredSize, 1)
    buffer = ctypes.create_string_buffer(size)
    args = records.ExtractArgs()
    lib.QOB_Constructor(ctypes.byref(args), records.OBJECT_EXTRACT_ARGS)
    args.szPackagePath = package
    args.szEntryPath = entry.szPath
    args.eMode = records.EXTRACT_TO_BUFFER
    args.pBuffer = ctypes.cast(buffer, ctypes.c_void_p)
    args.uBufferSize = size
    if lib.QOB_Extract(ctypes.byref(args)) != 0:
        return 'unreadable'
    return hashlib.sha256(buffer.raw[:entry.uStoredSize]).hexdigest()[:16]


def main(argv):
    lib = library(argv[1])
    operation, package, rest = argv[2], os.fsencode(argv[3]), argv[4:]
    if operation == 'info':
        info = records.PackageInfo()
        lib.QOB_Constructor(ctypes.byref(info), records.OBJECT_PACKAGE_INFO)
        info.szPackagePath = package
        result = lib.QOB_GetPackageInfo(ctypes.byref(info))
        report('result', result)
        if result == 0:
            report('settings', settings_digest(lib, package, info))
            lib.QOB_Destructor(ctypes.byref(info), records.OBJECT_PACKAGE_INFO)
    elif operation == 'isqob':
        report('result', lib.QOB_IsQob(package))
    elif operation == 'lcc':
        entry = records.EntryInfo()
        report('result', lib.QOB_GetLensCastCalibInfo(package, os.fsencode(rest[0]),
                                                      ctypes.byref(entry)))
    elif operation == 'extract':
        args = records.ExtractArgs()
        lib.QOB_Constructor(ctypes.byref(args), records.OBJECT_EXTRACT_ARGS)
        args.szPackagePath = package
        args.szDestination = os.fsencode(rest[0])
        args.eMode = records.EXTRACT_ALL
        report('result', lib.QOB_Extract(ctypes.byref(args)))
    elif operation == 'remove':
        report('result', lib.QOB_RemoveEntry(package, os.fsencode(rest[0])))
    elif operation == 'create':
        args = records.CreateArgs()
        lib.QOB_Constructor(ctypes.byref(args), records.OBJECT_CREATE_ARGS)
        from_file(args.files.raw, rest[0], 0)
        if len(rest) > 1:
            from_file(args.files.settings, rest[1], SETTINGS_RESERVE)
        args.szPackagePath = package
        report('result', lib.QOB_Create(ctypes.byref(args)))
    elif operation == 'update':
        args = records.UpdateArgs()
        lib.QOB_Constructor(ctypes.byref(args), records.OBJECT_UPDATE_ARGS)
        args.szPackagePath = package
        args.info.szPackagePath = package
        result = lib.QOB_GetPackageInfo(ctypes.byref(args.info))
        if result == 0:
            from_file(args.files.settings, rest[0], SETTINGS_RESERVE)
            before = ctypes.string_at(ctypes.addressof(args), ctypes.sizeof(args))
            result = lib.QOB_Update(ctypes.byref(args))
            if result != 0:
                after = ctypes.string_at(ctypes.addressof(args), ctypes.sizeof(args))
                report('args', 'unchanged' if after == before else 'changed')
            lib.QOB_Destructor(ctypes.byref(args.info), records.OBJECT_PACKAGE_INFO)
        report('result', result)
    else:
        sys.exit(f'unknown operation {operation}')


def bytes_read():
    with open('/proc/self/io') as io:
        return next(int(line.split()[1]) for line in io if line.startswith('rchar:'))


if __name__ == '__main__':
    main(sys.argv)
    report('read', bytes_read())
