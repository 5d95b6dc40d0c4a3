"""Records a process's file-system operations with strace and turns them into a list of
operations on one directory tree: creates, writes with their bytes, size changes, flushes of
files and of directories, renames, links and unlinks, each naming the inode it touches.

Offsets, descriptors and names are resolved here, the way the kernel resolved them during the
run, so that a replay needs nothing but the list. Anything that writes to a recorded file in a
way this module does not model (a shared writable mapping, copy_file_range, fallocate) stops
the recording instead of being missed."""

import os
import re
import subprocess
from dataclasses import dataclass, field

TRACED = ("open,openat,creat,close,dup,dup2,dup3,fcntl,lseek,read,readv,pread64,write,writev,"
          "umask,chmod,fchmod,fchmodat,"
          "pwrite64,pwritev,pwritev2,ftruncate,truncate,fsync,fdatasync,sync_file_range,"
          "rename,renameat,renameat2,link,linkat,unlink,unlinkat,chdir,fchdir,mkdir,mkdirat,"
          "copy_file_range,sendfile,fallocate,mmap")

O_ACCMODE, O_CREAT, O_EXCL, O_TRUNC, O_APPEND = 0o3, 0o100, 0o200, 0o1000, 0o2000
O_DIRECTORY, O_PATH, O_TMPFILE_BIT = 0o200000, 0o10000000, 0o20000000
AT_FDCWD, AT_REMOVEDIR, AT_SYMLINK_FOLLOW, AT_EMPTY_PATH = -100, 0x200, 0x400, 0x1000
F_DUPFD, F_DUPFD_CLOEXEC = 0, 1030
MAP_SHARED, PROT_WRITE = 0x1, 0x2

# Operations. Every one carries the index of the call (segment) that issued it.
#   ("create", dir, name, ino)         a new empty file under that name
#   ("tmpfile", ino)                   a new file with no name yet
#   ("write", ino, offset, bytes)
#   ("trunc", ino, size)
#   ("fsync", ino)                     a flush of a file (fsync or fdatasync)
#   ("dsync", dir)                     a flush of a directory
#   ("rename", dir, name, dir2, name2)
#   ("link", ino, dir, name)
#   ("unlink", dir, name)
#   ("chmod", ino, mode)               also right after a create, with the mode it was made with


class TraceError(Exception):
    pass


@dataclass
class OpenFile:
    path: str            # the name it was opened under, absolute
    ino: object          # an int for a recorded regular file, None otherwise
    is_dir: bool
    append: bool
    pos: int = 0


@dataclass
class Tree:
    """The recorded directory tree as the running process saw it."""
    root: str
    names: dict = field(default_factory=dict)   # (dir, name) -> ino
    data: dict = field(default_factory=dict)    # ino -> bytearray
    next_ino: int = 1
    modes: dict = field(default_factory=dict)   # ino -> permission bits
    # Set by a crash model when a file shows blocks a deleted file left behind.
    shows_old_blocks: bool = False

    def copy(self):
        return Tree(self.root, dict(self.names), {k: bytearray(v) for k, v in self.data.items()},
                    self.next_ino, dict(self.modes))

    def new_inode(self):
        ino = self.next_ino
        self.next_ino += 1
        self.data[ino] = bytearray()
        return ino

    def tracked(self, directory):
        return directory == self.root or directory.startswith(self.root + "/")

    def load(self, directory):
        """Takes the files already in `directory` as the starting point, all of them durable."""
        for name in sorted(os.listdir(directory)):
            path = os.path.join(directory, name)
            if os.path.isfile(path) and not os.path.islink(path):
                ino = self.new_inode()
                with open(path, "rb") as f:
                    self.data[ino] = bytearray(f.read())
                self.names[(directory, name)] = ino
                self.modes[ino] = os.stat(path).st_mode & 0o7777

    def files(self, directory):
        return {name: bytes(self.data[ino]) for (d, name), ino in self.names.items()
                if d == directory}

    def modes_of(self, directory):
        return {name: self.modes.get(ino, 0o600) for (d, name), ino in self.names.items()
                if d == directory}


def apply(tree, op):
    """Applies one operation as the running process saw it. Returns False when it cannot
    apply (a name that is not there); replays of partial histories skip those."""
    kind = op[0]
    if kind == "create":
        if (op[1], op[2]) in tree.names:
            return False
        tree.names[(op[1], op[2])] = op[3]
        tree.data.setdefault(op[3], bytearray())
    elif kind == "tmpfile":
        tree.data.setdefault(op[1], bytearray())
    elif kind == "write":
        buf = tree.data.setdefault(op[1], bytearray())
        end = op[2] + len(op[3])
        if len(buf) < op[2]:
            buf.extend(bytes(op[2] - len(buf)))
        buf[op[2]:end] = op[3]
    elif kind == "trunc":
        buf = tree.data.setdefault(op[1], bytearray())
        if op[2] < len(buf):
            del buf[op[2]:]
        else:
            buf.extend(bytes(op[2] - len(buf)))
    elif kind == "rename":
        ino = tree.names.pop((op[1], op[2]), None)
        if ino is None:
            return False
        tree.names[(op[3], op[4])] = ino
    elif kind == "link":
        if (op[2], op[3]) in tree.names:
            return False
        tree.names[(op[2], op[3])] = op[1]
    elif kind == "unlink":
        return tree.names.pop((op[1], op[2]), None) is not None
    elif kind == "chmod":
        tree.modes[op[1]] = op[2]
    return True


def _string(arg):
    if not arg.startswith('"'):
        raise TraceError(f"expected a string, got {arg[:40]}")
    end = arg.rindex('"')
    if arg[end + 1:].startswith("..."):
        raise TraceError("strace cut a buffer short: raise -s")
    return bytes.fromhex(arg[1:end].replace("\\x", ""))


def _split(args):
    """Top-level arguments of one strace line."""
    out, depth, quoted, start = [], 0, False, 0
    for i, c in enumerate(args):
        if quoted:
            quoted = c != '"'
        elif c == '"':
            quoted = True
        elif c in "[{":
            depth += 1
        elif c in "]}":
            depth -= 1
        elif c == "," and depth == 0:
            out.append(args[start:i].strip())
            start = i + 1
    if args.strip():
        out.append(args[start:].strip())
    return out


def _int(arg):
    return int(arg, 0) if not arg.startswith("0") or arg.startswith("0x") or arg == "0" \
        else int(arg, 8)


LINE = re.compile(r"^(\d+) +(\w+)\((.*)\) += (-?\d+|0x[0-9a-f]+|\?)")


class Recorder:
    """Parses strace output call after call, keeping the tree and descriptors between the
    lines of one process; each process starts with no descriptors of its own."""

    def __init__(self, tree):
        self.tree = tree
        self.ops = []
        self.segment = 0
        self.umask = os.umask(0o022)  # what the traced processes inherit
        os.umask(self.umask)

    def run(self, argv, cwd, env):
        """Runs argv under strace; returns its exit status and records its operations."""
        trace = os.path.join(self.tree.root, "..", f"trace{self.segment}.txt")
        status = subprocess.run(
            ["strace", "-f", "-qq", "-X", "raw", "-xx", "-s", "268435456", "-e", "abbrev=none",
             "-e", "trace=" + TRACED, "-o", trace] + argv, cwd=cwd, env=env,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE).returncode
        with open(trace, encoding="ascii") as f:
            lines = f.read().splitlines()
        os.unlink(trace)
        self.parse(lines, cwd)
        self.segment += 1
        return status

    def parse(self, lines, cwd):
        fds, self.cwd, pending, self.mask = {}, cwd, {}, self.umask
        for raw in lines:
            pid, _, rest = raw.partition(" ")
            if rest.endswith("<unfinished ...>"):
                pending[pid] = rest[:-len("<unfinished ...>")].rstrip()
                continue
            m = re.match(r"^<\.\.\. \w+ resumed>(.*)$", rest)
            if m:
                rest = pending.pop(pid) + m.group(1)
            m = LINE.match(pid + " " + rest)
            if not m:
                continue  # signals, exits
            name, args, result = m.group(2), _split(m.group(3)), m.group(4)
            if result == "?" or result.startswith("-"):
                continue
            self._call(fds, name, args, _int(result) if not result.startswith("0x")
                       else int(result, 16))

    # --- resolution -------------------------------------------------------------------------

    def _dir_of(self, fds, dirfd):
        if dirfd == AT_FDCWD:
            return self.cwd
        f = fds.get(dirfd)
        if f is None or not f.is_dir:
            raise TraceError(f"a name relative to descriptor {dirfd}, not a known directory")
        return f.path

    def _path(self, fds, dirfd, name):
        name = name.decode()
        full = os.path.normpath(name if name.startswith("/") else
                                os.path.join(self._dir_of(fds, dirfd), name))
        return os.path.dirname(full), os.path.basename(full), full

    def _emit(self, *op):
        op = op + (self.segment,)
        self.ops.append(op)
        apply(self.tree, op)

    def _file(self, fds, fd):
        f = fds.get(fd)
        return f.ino if f is not None else None

    def _write(self, fds, fd, data, offset=None):
        f = fds.get(fd)
        if f is None or f.ino is None:
            return
        if offset is None:
            offset = len(self.tree.data[f.ino]) if f.append else f.pos
            f.pos = offset + len(data)
        if data:
            self._emit("write", f.ino, offset, bytes(data))

    # --- system calls -----------------------------------------------------------------------

    def _call(self, fds, name, a, result):
        t = self.tree
        if name in ("open", "openat", "creat"):
            if name == "open":
                a = ["-100"] + a
            elif name == "creat":
                a = ["-100", a[0], hex(O_CREAT | O_TRUNC | 1)] + a[1:]
            dirfd, flags = _int(a[0]), _int(a[2])
            d, base, full = self._path(fds, dirfd, _string(a[1]))
            mode = (_int(a[3]) if len(a) > 3 else 0) & ~self.mask & 0o7777
            if flags & O_TMPFILE_BIT:
                ino = t.new_inode() if t.tracked(full) else None
                fds[result] = OpenFile(full, ino, False, False)
                if ino is not None:
                    self._emit("tmpfile", ino)
                    self._emit("chmod", ino, mode)
                return
            is_dir = bool(flags & O_DIRECTORY) or os.path.isdir(full) and (d, base) not in t.names
            ino = None
            if not is_dir and t.tracked(d):
                ino = t.names.get((d, base))
                if ino is None:
                    if not flags & O_CREAT:
                        raise TraceError(f"opened {full}, which the recording never saw made")
                    ino = t.new_inode()
                    self._emit("create", d, base, ino)
                    self._emit("chmod", ino, mode)
                elif flags & O_TRUNC and flags & O_ACCMODE and t.data[ino]:
                    self._emit("trunc", ino, 0)
            fds[result] = OpenFile(full, ino, is_dir, bool(flags & O_APPEND))
        elif name == "close":
            fds.pop(_int(a[0]), None)
        elif name in ("dup", "dup2", "dup3") or name == "fcntl" and \
                _int(a[1]) in (F_DUPFD, F_DUPFD_CLOEXEC):
            if _int(a[0]) in fds:
                fds[result] = fds[_int(a[0])]  # one open file: a shared position
        elif name == "lseek":
            if _int(a[0]) in fds:
                fds[_int(a[0])].pos = result
        elif name in ("read", "readv"):
            if _int(a[0]) in fds:
                fds[_int(a[0])].pos += result
        elif name == "write":
            self._write(fds, _int(a[0]), _string(a[1])[:result])
        elif name == "pwrite64":
            self._write(fds, _int(a[0]), _string(a[1])[:result], _int(a[3]))
        elif name in ("writev", "pwritev", "pwritev2"):
            data = b"".join(_string(m) for m in re.findall(r'iov_base=("[^"]*"(?:\.\.\.)?)', a[1]))
            self._write(fds, _int(a[0]), data[:result],
                        None if name == "writev" else _int(a[3]))
        elif name in ("ftruncate", "truncate"):
            if name == "truncate":
                d, base, _ = self._path(fds, AT_FDCWD, _string(a[0]))
                ino = t.names.get((d, base))
            else:
                ino = self._file(fds, _int(a[0]))
            if ino is not None:
                self._emit("trunc", ino, _int(a[1]))
        elif name in ("fsync", "fdatasync", "sync_file_range"):
            f = fds.get(_int(a[0]))
            if f is None:
                return
            if f.is_dir and t.tracked(f.path):
                self._emit("dsync", f.path)
            elif f.ino is not None and name != "sync_file_range":
                self._emit("fsync", f.ino)
        elif name in ("rename", "renameat", "renameat2"):
            if name == "rename":
                a = ["-100", a[0], "-100", a[1]]
            d, base, _ = self._path(fds, _int(a[0]), _string(a[1]))
            d2, base2, _ = self._path(fds, _int(a[2]), _string(a[3]))
            if t.tracked(d) or t.tracked(d2):
                self._emit("rename", d, base, d2, base2)  # a name already there is replaced
        elif name in ("link", "linkat"):
            if name == "link":
                a = ["-100", a[0], "-100", a[1], "0"]
            flags = _int(a[4])
            source = _string(a[1])
            m = re.match(rb"^/proc/(?:self|\d+)/fd/(\d+)$", source)
            if m and flags & AT_SYMLINK_FOLLOW:
                ino = self._file(fds, int(m.group(1)))
            elif not source and flags & AT_EMPTY_PATH:
                ino = self._file(fds, _int(a[0]))
            else:
                d, base, _ = self._path(fds, _int(a[0]), source)
                ino = t.names.get((d, base))
            d2, base2, _ = self._path(fds, _int(a[2]), _string(a[3]))
            if ino is not None and t.tracked(d2):
                self._emit("link", ino, d2, base2)
        elif name in ("unlink", "unlinkat"):
            if name == "unlink":
                a = ["-100", a[0], "0"]
            if _int(a[2]) & AT_REMOVEDIR:
                return
            d, base, _ = self._path(fds, _int(a[0]), _string(a[1]))
            if (d, base) in t.names:
                self._emit("unlink", d, base)
        elif name == "umask":
            self.mask = _int(a[0])
        elif name in ("chmod", "fchmod", "fchmodat"):
            if name == "fchmod":
                ino = self._file(fds, _int(a[0]))
            else:
                if name == "chmod":
                    a = ["-100"] + a
                d, base, _ = self._path(fds, _int(a[0]), _string(a[1]))
                ino = t.names.get((d, base))
            if ino is not None:
                self._emit("chmod", ino, _int(a[-1] if name != "fchmodat" else a[2]) & 0o7777)
        elif name == "chdir":
            self.cwd = os.path.normpath(os.path.join(self.cwd, _string(a[0]).decode()))
        elif name == "fchdir":
            self.cwd = fds[_int(a[0])].path
        elif name in ("mkdir", "mkdirat"):
            if name == "mkdir":
                a = ["-100"] + a
            d, _, full = self._path(fds, _int(a[0]), _string(a[1]))
            if t.tracked(full):
                raise TraceError(f"made a directory inside the recorded tree: {full}")
        elif name in ("copy_file_range", "sendfile", "fallocate"):
            target = _int(a[2]) if name == "copy_file_range" else _int(a[0])
            if self._file(fds, target) is not None:
                raise TraceError(f"{name} on a recorded file is not modelled")
        elif name == "mmap":
            fd = _int(a[4])
            if _int(a[3]) & MAP_SHARED and _int(a[2]) & PROT_WRITE and \
                    self._file(fds, fd) is not None:
                raise TraceError("a shared writable mapping of a recorded file is not modelled")
