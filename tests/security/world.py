"""The world the two-user tests run in: two users and their group, their folders, the
package in its reference states, calls of the library as either user, and what the files
look like before and after."""
import ctypes
import hashlib
import os
import pathlib
import random
import shutil
import stat
import struct
import subprocess
import sys
import time

import private_namespace
from journal_files import PACKAGE, Journal, crashed, genuine


def free_ids():
    """Ids for the owner, the other user and their group that the machine does not use."""
    taken = {int(line.split(':')[2]) for name in ('/etc/passwd', '/etc/group')
             for line in pathlib.Path(name).read_text().splitlines() if line.count(':') >= 3}
    return (next(i for i in range(start, start + 500) if i not in taken)
            for start in (1001, 1002, 1100))


OWNER, OTHER, SHARE = free_ids()
LIBRARY = CHILD = TOOL = None  # set by configure()

TOP = pathlib.Path('/tmp/q')
SOURCES = TOP / 'sources'   # root's: the files packages are made of, and reference copies
HOME = TOP / 'owner'        # the owner's own folder (0755)
THEIRS = TOP / 'other'      # the other user's own folder (0755)
STICKY = TOP / 'sticky'     # world-writable, sticky, like /tmp
SHARED = TOP / 'group'      # group folder (2770) of both users
STOP = pathlib.Path('/tmp/stop-background')
NAME = PACKAGE
JOURNAL = NAME + '-journal'
SETTINGS_ENTRY = 'Quillmarsh/Settings1680/raw.iiq.xml'
PROFILE = HOME / 'profile'
MINE = THEIRS / 'mine'

SETTINGS = {age: (f'<Settings age="{age}">' + 'x' * size + '</Settings>\n').encode()
            for age, size in (('oldest', 900), ('old', 1400), ('new', 2100))}
# What a reader sees of the settings.
OLD_SETTINGS, NEW_SETTINGS = (hashlib.sha256(SETTINGS[age]).hexdigest()[:16]
                              for age in ('old', 'new'))
BYTES = {}  # 'P0', 'P1', ... reference states of the package

CANNOT_OPEN, CANNOT_READ, ALREADY_EXISTS, PACKAGE_NOT_FOUND = -9, -10, -14, -8
FILE_NOT_IN_PACKAGE = -2
FAILS = 'fails'  # any failure: the code is the one the failing step has


def configure(library, child, tool):
    global LIBRARY, CHILD, TOOL
    LIBRARY, CHILD, TOOL = library, child, tool
    # The tool finds the library where it was built, unless that moved.
    os.environ['LD_LIBRARY_PATH'] = os.path.dirname(library)



def as_user(uid, command):
    return ['setpriv', f'--reuid={uid}', f'--regid={uid}', '--init-groups'] + command


class Call:
    def __init__(self, output):
        self.lines = output.splitlines()
        results = [int(line.split()[1]) for line in self.lines if line.startswith('result ')]
        self.code = results[-1] if results else None
        self.settings = next((line.split()[1] for line in self.lines
                              if line.startswith('settings ')), None)
        self.args = next((line.split()[1] for line in self.lines if line.startswith('args ')),
                         None)
        self.read = next((int(line.split()[1]) for line in self.lines
                          if line.startswith('read ')), None)

    def says(self, text):
        """Whether the failure's message (raised and reported by the frame) holds text."""
        raised = any('Exception: ' in line and text in line for line in self.lines)
        reported = any(line.startswith('[QOB][ERROR] QOB_') and '] ' in line and text in line
                       for line in self.lines)
        return raised and reported


def call(uid, operation, package, *arguments, env=None, timeout=60):
    """One library call, or with operation 'tool' one command of the tool (its exit status
    is the result)."""
    if operation == 'tool':
        command = [TOOL, arguments[0], str(package), *map(str, arguments[1:])]
    else:
        command = [sys.executable, CHILD, LIBRARY, operation, str(package), *map(str, arguments)]
    done = subprocess.run(as_user(uid, command) if uid else command, capture_output=True,
                          text=True, timeout=timeout, env=dict(os.environ, **(env or {})))
    output = done.stdout + done.stderr
    return Call(output + f'\nresult {done.returncode}' if operation == 'tool' else output)


def place(path, content, uid, mode, gid=None):
    path = pathlib.Path(path)
    path.write_bytes(content)
    os.chown(path, uid, uid if gid is None else gid)
    path.chmod(mode)
    return path


def link(path, target, uid):
    os.symlink(target, path)
    os.chown(path, uid, uid, follow_symlinks=False)


def describe(path):
    """Type, mode, owner, links and content (digest) of a path, not following links."""
    status = os.lstat(path)
    kind = stat.S_IFMT(status.st_mode)
    content = None
    if stat.S_ISREG(status.st_mode):
        digest = hashlib.sha256()
        with open(path, 'rb') as f:
            for block in iter(lambda: f.read(1 << 20), b''):
                digest.update(block)
        content = (digest.hexdigest(), status.st_mtime_ns)
    elif stat.S_ISLNK(status.st_mode):
        content = os.readlink(path)
    nlink = status.st_nlink if not stat.S_ISDIR(status.st_mode) else None
    return (kind, stat.S_IMODE(status.st_mode), status.st_uid, status.st_gid, nlink, content)


def snapshot():
    found = {}
    for folder, folders, files in os.walk(TOP):
        for name in folders + files:
            path = os.path.join(folder, name)
            found[path] = describe(path)
    return found


# Expected changes: a path -> GONE, a key of BYTES (the file's new content, owner and mode as
# before), UPDATED (a package that now holds the new settings, owner and mode as before),
# CREATED (a new regular file of the owner that nobody else may write), or EXTRACTED (a new
# folder of the other user's, with anything of theirs in it, the old settings among them).
GONE, CREATED, UPDATED, EXTRACTED = 'gone', 'created', 'updated', 'extracted'


def digest_of(name):
    return hashlib.sha256(BYTES[name]).hexdigest()


# --- The world each row starts from ---------------------------------------------------------

class World:
    @staticmethod
    def users():
        """Two users and their group, in passwd and group files of this namespace only."""
        passwd = pathlib.Path('/etc/passwd').read_text()
        group = pathlib.Path('/etc/group').read_text()
        edited = pathlib.Path('/tmp/etc')
        edited.mkdir(mode=0o755)
        (edited / 'passwd').write_text(
            passwd.rstrip('\n') + f'\nqobowner:x:{OWNER}:{OWNER}::{HOME}:/bin/sh\n'
            f'qobother:x:{OTHER}:{OTHER}::{THEIRS}:/bin/sh\n')
        (edited / 'group').write_text(
            group.rstrip('\n') + f'\nqobowner:x:{OWNER}:\nqobother:x:{OTHER}:\n'
            f'qobshare:x:{SHARE}:qobowner,qobother\n')
        for name in ('passwd', 'group'):
            (edited / name).chmod(0o644)
            if not private_namespace.mount('--bind', str(edited / name), f'/etc/{name}'):
                private_namespace.skip('may not bind passwd and group files here')

    @staticmethod
    def build():
        """Three states of one package (each an in-place update of the settings), the same
        without its settings, and a second package, all made by the library itself."""
        TOP.mkdir(mode=0o755)
        SOURCES.mkdir(mode=0o755)
        rng = random.Random(18)
        (SOURCES / 'raw.iiq').write_bytes(rng.randbytes(150000))
        (SOURCES / 'other.iiq').write_bytes(rng.randbytes(90000))
        for age, text in SETTINGS.items():
            (SOURCES / f'{age}.xml').write_bytes(text)
        # Larger than the space reserved behind the settings: the update moves them.
        (SOURCES / 'big.xml').write_bytes(b'<Settings>' + b'y' * 40000 + b'</Settings>\n')
        for name, raw, states in ((NAME, 'raw.iiq', ('P-1', 'P0', 'P1')),
                                  ('another.qob', 'other.iiq', (None, 'Q0', 'Q1'))):
            work = SOURCES / name
            made = call(0, 'create', work, SOURCES / raw, SOURCES / 'oldest.xml')
            assert made.code == 0, made.lines
            for state, age in zip(states, ('oldest', 'old', 'new')):
                if age != 'oldest':
                    assert call(0, 'update', work, SOURCES / f'{age}.xml').code == 0
                if state:
                    BYTES[state] = work.read_bytes()
            work.unlink()
        assert len(BYTES['P0']) == len(BYTES['P1']), 'the settings update should be in place'
        work = place(SOURCES / NAME, BYTES['P0'], 0, 0o644)
        assert call(0, 'remove', work, SETTINGS_ENTRY).code == 0
        BYTES['S1'] = work.read_bytes()  # P0 without its settings: shorter
        work.unlink()

    @staticmethod
    def reset():
        for folder in (HOME, THEIRS, STICKY, SHARED):
            if folder.exists():
                shutil.rmtree(folder)
        for folder, uid, gid, mode in ((HOME, OWNER, OWNER, 0o755), (THEIRS, OTHER, OTHER, 0o755),
                                       (STICKY, 0, 0, 0o1777), (SHARED, 0, SHARE, 0o2770)):
            folder.mkdir()
            os.chown(folder, uid, gid)
            folder.chmod(mode)
        place(PROFILE, b'# the owner\'s shell profile\nexport PATH=$HOME/bin:$PATH\n' * 2,
              OWNER, 0o644)
        place(MINE, b'a file of the other user\n', OTHER, 0o644)
        if STOP.exists():
            STOP.unlink()


def package(folder, state='P0', mode=None, gid=None):
    """The owner's package in folder; in the group folder the group may write it."""
    gid = SHARE if folder == SHARED else OWNER if gid is None else gid
    mode = mode or (0o660 if folder == SHARED else 0o644)
    return place(folder / NAME, BYTES[state], OWNER, mode, gid)


def hot(folder, mode, by=None):
    """The owner's package in folder as a crashed settings update left it, with its journal
    (mode and group as the package's, made by the owner unless `by` says who)."""
    journal = genuine(BYTES['P0'], BYTES['P1'])
    gid = SHARE if folder == SHARED else OWNER
    place(folder / NAME, crashed(journal, BYTES['P1']), OWNER, mode, gid)
    place(folder / JOURNAL, journal.encode()[0], by or OWNER, mode, gid)


def committed(folder):
    """The owner's package in folder as a removal of its settings left it when it had made its
    closing record durable but not yet cut the package."""
    journal = genuine(BYTES['P0'], BYTES['S1'])
    journal.done = (len(BYTES['S1']), len(journal.regions) + 1)
    place(folder / NAME, crashed(journal, BYTES['S1']), OWNER, 0o644)
    place(folder / JOURNAL, journal.encode()[0], OWNER, 0o644)


def hostile(folder, target=None):
    """A journal whose every check but its owner's holds, that would write 'EVIL' into the
    start of target (the package beside it by default)."""
    original = (target or folder / NAME).read_bytes()
    name = (target or folder / NAME).name
    return Journal(original, name, 7, [(0, b'EVIL' * 16, 1)])


def planted(folder, data, mode=0o644, gid=None):
    """A journal the other user put beside the package."""
    return place(folder / JOURNAL, data, OTHER, mode, gid)


class Created:
    """The names made in a folder (created, linked or renamed into it) while the block runs,
    through inotify."""

    IN_MOVED_TO, IN_CREATE = 0x80, 0x100

    def __init__(self, folder):
        self.folder = folder

    def __enter__(self):
        libc = ctypes.CDLL(None, use_errno=True)
        self.fd = libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        if self.fd < 0 or libc.inotify_add_watch(self.fd, bytes(self.folder),
                                                  self.IN_CREATE | self.IN_MOVED_TO) < 0:
            raise OSError(ctypes.get_errno(), 'inotify')
        return self

    def __exit__(self, *exc):
        self.names = []
        try:
            data = os.read(self.fd, 1 << 16)
        except BlockingIOError:
            data = b''
        finally:
            os.close(self.fd)
        while data:
            size = struct.unpack_from('iIII', data)[3]
            self.names.append(data[16:16 + size].rstrip(b'\0').decode())
            data = data[16 + size:]


class Background:
    """A shell loop run by a user until the block ends. Its output goes to a file: a full pipe
    would stop it in the middle of a call, holding the package's lock."""

    def __init__(self, uid, script):
        self.command = as_user(uid, ['sh', '-c', script])

    def __enter__(self):
        self.log = open('/tmp/background.log', 'w+')
        self.process = subprocess.Popen(self.command, stdout=self.log, stderr=subprocess.STDOUT)
        time.sleep(0.2)
        return self

    @staticmethod
    def rounds(least=4, seconds=3):
        """Turns of the foreground's work: at least `least`, and for `seconds` at least, so
        that the loop gets to run many times meanwhile."""
        turn, end = 0, time.monotonic() + seconds
        while turn < least or time.monotonic() < end:
            yield turn
            turn += 1

    def __exit__(self, *exc):
        STOP.touch()
        self.process.wait(timeout=60)
        STOP.unlink()
        self.log.seek(0)
        self.output = self.log.read()
        self.log.close()
