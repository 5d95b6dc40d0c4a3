#!/usr/bin/env python3
"""Package locks against a second user who may only read the package: whatever lock that
user holds, the owner's calls end within the (shortened) bound, busy or done, and the package
is unchanged or changed as asked. Real uids through setpriv, in a private mount namespace.

usage: package_lock_users_test.py --tool PATH
Needs root; exits 77 (skipped) when it is not root or may not make a mount namespace.
"""
import argparse
import os
import pathlib
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / 'common'))
import private_namespace  # noqa: E402

NOBODY = 65534
OPTIONS = None
TMP = pathlib.Path('/tmp')
BUSY = 'package is busy'

# Runs as the other user: opens the package read-only, tries one lock, says what it got,
# then holds whatever it has until its standard input closes.
HOLDER = r'''
import fcntl, os, struct, sys
kind, path = sys.argv[1], sys.argv[2]
fd = os.open(path, os.O_RDONLY)
def ofd(kind_):
    fcntl.fcntl(fd, fcntl.F_OFD_SETLK, struct.pack('hhxxxxqqixxxx', kind_, 0, 0, 0, 0))
try:
    {'ofd-read': lambda: ofd(fcntl.F_RDLCK),
     'ofd-write': lambda: ofd(fcntl.F_WRLCK),
     'flock-exclusive': lambda: fcntl.flock(fd, fcntl.LOCK_EX),
     'flock-shared': lambda: fcntl.flock(fd, fcntl.LOCK_SH)}[kind]()
    print('held', flush=True)
except OSError as error:
    print('refused', error.errno, flush=True)
sys.stdin.read()
'''


def as_nobody(command):
    return ['setpriv', f'--reuid={NOBODY}', f'--regid={NOBODY}', '--clear-groups'] + command


def tool(*arguments):
    """(exit status, standard error) of one tool run as the owner, with a short bound."""
    env = dict(os.environ, QOB_TEST_BUSY_MS='300')
    done = subprocess.run([OPTIONS.tool, '-q'] + list(arguments), capture_output=True,
                          text=True, timeout=60, env=env)
    return done.returncode, done.stderr


class OtherUsersLocks(unittest.TestCase):
    def setUp(self):
        self.folder = TMP / 'photos'
        subprocess.run(['rm', '-rf', str(self.folder)], check=True)
        self.folder.mkdir(mode=0o755)
        self.folder.chmod(0o755)
        (self.folder / 'a.raw').write_bytes(os.urandom(5000))
        (self.folder / 's.xml').write_text('<s/>')
        (self.folder / 'p.jpg').write_text('proxy')
        self.package = self.folder / 'a.qob'
        status, why = tool('create', str(self.package), '--raw', str(self.folder / 'a.raw'),
                           '--settings', str(self.folder / 's.xml'),
                           '--proxy', str(self.folder / 'p.jpg'))
        self.assertEqual(status, 0, why)
        self.package.chmod(0o644)  # the other user may read it, never write it
        (self.folder / 'new.xml').write_text('<changed/>')

    def hold(self, kind):
        holder = subprocess.Popen(
            as_nobody([sys.executable, '-c', HOLDER, kind, str(self.package)]),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.addCleanup(holder.wait)
        self.addCleanup(holder.stdin.close)
        return holder.stdout.readline().split()

    def test_owner_calls_end_busy_or_done(self):
        # What the other user's attempt gets, and whether the owner's changes must wait for
        # it: a read lock holds them off (up to the bound), nothing else does (a write lock
        # needs write access, and flock does not meet these locks at all).
        cases = (
            ('ofd-read', ['held'], True),
            ('ofd-write', ['refused', '9'], False),  # EBADF
            ('flock-exclusive', ['held'], False),
            ('flock-shared', ['held'], False),
        )
        for kind, got, blocks in cases:
            with self.subTest(kind=kind):
                self.setUp()
                self.assertEqual(self.hold(kind), got)
                before = self.package.read_bytes()

                status, why = tool('update', str(self.package),
                                   '--settings', str(self.folder / 'new.xml'))
                if blocks:
                    self.assertNotEqual(status, 0)
                    self.assertIn(BUSY, why)
                    self.assertEqual(self.package.read_bytes(), before)
                else:
                    self.assertEqual(status, 0, why)
                    self.assertIn(b'<changed/>', self.package.read_bytes())

                # A reader shares a read lock: it never waits for another reader.
                status, why = tool('info', str(self.package))
                self.assertEqual(status, 0, why)

                before = self.package.read_bytes()
                status, why = tool('rm', str(self.package), 'Quillmarsh/Cache/Proxies/a.raw.jpg')
                listing = subprocess.run([OPTIONS.tool, 'ls', str(self.package)],
                                         capture_output=True, text=True).stdout
                if blocks:
                    self.assertNotEqual(status, 0)
                    self.assertIn(BUSY, why)
                    self.assertEqual(self.package.read_bytes(), before)
                else:
                    self.assertEqual(status, 0, why)
                    self.assertNotIn('Proxies/a.raw.jpg', listing)


def main():
    global OPTIONS
    parser = argparse.ArgumentParser()
    parser.add_argument('--tool', required=True)
    OPTIONS, rest = parser.parse_known_args()
    private_namespace.enter()
    moved = private_namespace.reachable([OPTIONS.tool])
    if moved != [OPTIONS.tool]:
        (OPTIONS.tool,) = moved
        os.environ['LD_LIBRARY_PATH'] = os.path.join(
            os.path.dirname(os.path.dirname(OPTIONS.tool)), 'lib')
    private_namespace.fresh_tmp()
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)


if __name__ == '__main__':
    main()
