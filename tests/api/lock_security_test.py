#!/usr/bin/env python3
"""The per-user lock against a second user, in a private mount namespace with a fresh /tmp,
so that nothing of the machine's own is touched.

usage: lock_security_test.py --child PATH --tool PATH
Needs root (to mount and to act as a second user through setpriv); exits 77 (skipped) when
it is not root or may not make a mount namespace.
"""
import argparse
import os
import pathlib
import shutil
import stat
import subprocess
import sys
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / 'common'))
import private_namespace  # noqa: E402

NOBODY = 65534
OPTIONS = None
TMP = pathlib.Path('/tmp')
OURS = TMP / f'qob-{os.geteuid()}'
LOCK = 'ZT.XProcess.Lock'


def enter_namespace():
    private_namespace.enter()
    moved = private_namespace.reachable([OPTIONS.child, OPTIONS.tool])
    if moved != [OPTIONS.child, OPTIONS.tool]:
        # The child finds its library beside it, no longer where it was built.
        OPTIONS.child, OPTIONS.tool = moved
        os.environ['LD_LIBRARY_PATH'] = os.path.join(
            os.path.dirname(os.path.dirname(OPTIONS.child)), 'lib')
    private_namespace.fresh_tmp()


def as_nobody(command):
    return ['setpriv', f'--reuid={NOBODY}', f'--regid={NOBODY}', '--clear-groups'] + command


def call(nobody=False, env=None, timeout=20):
    """One library call in a fresh process: (result code, lines about the lock)."""
    command = [OPTIONS.child, 'call', '-']
    out = subprocess.run(as_nobody(command) if nobody else command, capture_output=True,
                         text=True, timeout=timeout, env=env).stdout.splitlines()
    results = [int(line.split()[1]) for line in out if line.startswith('result ')]
    return (results[0] if results else None), [line for line in out if 'lock' in line]


def state(path):
    """What a path is, for before/after comparisons: type, mode, owner and content."""
    try:
        status = os.lstat(path)
    except FileNotFoundError:
        return None
    content = None
    if stat.S_ISREG(status.st_mode):
        content = pathlib.Path(path).read_bytes()
    elif stat.S_ISLNK(status.st_mode):
        content = os.readlink(path)
    return (stat.S_IFMT(status.st_mode), stat.S_IMODE(status.st_mode), status.st_uid, content)


def make_as_nobody(script):
    subprocess.run(as_nobody(['sh', '-c', script]), check=True)


class LockSecurity(unittest.TestCase):
    def setUp(self):
        for item in TMP.iterdir():
            if item.is_dir() and not item.is_symlink():
                shutil.rmtree(item)
            else:
                item.unlink()
        self.secret = TMP / 'secret'
        self.secret.write_text('root only')
        self.secret.chmod(0o600)

    def assertRefused(self, result, why):
        code, lines = result
        self.assertEqual(code, -15)
        self.assertTrue(any(why in line for line in lines), lines)

    def test_the_old_shared_path_is_never_touched(self):
        for target in (self.secret, TMP / 'created-by-root'):
            with self.subTest(target=str(target)):
                make_as_nobody(f'ln -sfn {target} /tmp/{LOCK}')
                before = state(target)
                self.assertEqual(call()[0], 0)
                self.assertEqual(state(target), before)

    def test_a_private_directory_made_by_someone_else_fails_the_call(self):
        make_as_nobody(f'mkdir -m 777 {OURS}')
        before = state(OURS)
        self.assertRefused(call(), 'not private to this user')
        self.assertEqual(state(OURS), before)
        self.assertEqual(list(OURS.iterdir()), [])

    def test_a_link_in_place_of_the_directory_is_not_followed(self):
        (TMP / 'rootdir').mkdir(mode=0o700)
        make_as_nobody('mkdir -m 777 /tmp/trap')
        for target in ('/tmp/trap', '/tmp/rootdir'):
            with self.subTest(target=target):
                if OURS.is_symlink():
                    OURS.unlink()
                os.symlink(target, OURS)
                self.assertRefused(call(), 'not a directory')
                self.assertEqual(os.listdir(target), [])

    def test_a_lock_file_that_is_not_safely_ours_fails_the_call(self):
        lock = OURS / LOCK
        cases = ((lambda: os.symlink(self.secret, lock), 'symbolic link'),
                 (lambda: os.mkfifo(lock, 0o600), 'not a regular file'),
                 (lambda: (lock.write_text(''), os.chown(lock, NOBODY, NOBODY)),
                  'belongs to another user'),
                 (lambda: (lock.write_text(''), lock.chmod(0o666)), 'writable by other users'))
        for make, why in cases:
            with self.subTest(why=why):
                self.setUp()
                OURS.mkdir(mode=0o700)
                make()
                before = (state(lock), state(self.secret))
                self.assertRefused(call(timeout=10), why)  # a FIFO must not hang the call
                self.assertEqual((state(lock), state(self.secret)), before)

    def test_a_fifo_does_not_hang_loading_the_library(self):
        OURS.mkdir(mode=0o700)
        os.mkfifo(OURS / LOCK, 0o600)
        make_as_nobody(f'mkdir -m 700 /tmp/qob-{NOBODY} && mkfifo /tmp/qob-{NOBODY}/{LOCK}')
        for command in ([OPTIONS.tool, '--help'], as_nobody([OPTIONS.tool, '--help'])):
            subprocess.run(command, capture_output=True, timeout=10)

    def test_a_second_users_lock_neither_blocks_nor_disables_ours(self):
        marker = TMP / 'holding'
        holder = subprocess.Popen(as_nobody([OPTIONS.child, 'hold', str(marker), '6000']))
        try:
            deadline = time.monotonic() + 20
            while not marker.exists() and time.monotonic() < deadline:
                time.sleep(0.02)
            self.assertTrue(marker.exists())
            self.assertEqual(call(timeout=4)[0], 0)  # a blocked call would time out
            self.assertIsNone(holder.poll(), 'the second user should still hold its lock')
        finally:
            holder.wait(timeout=30)
        self.assertEqual(holder.returncode, 0)
        theirs = state(TMP / f'qob-{NOBODY}')
        self.assertEqual(theirs[1:3], (0o700, NOBODY))
        self.assertEqual(state(OURS / LOCK)[:3], (stat.S_IFREG, 0o600, os.geteuid()))

    def test_the_runtime_directory_is_used_only_when_private(self):
        runtime = TMP / 'runtime'
        for mode, owner, used in ((0o700, 0, True), (0o755, 0, False), (0o700, NOBODY, False)):
            with self.subTest(mode=oct(mode), owner=owner):
                self.setUp()
                runtime.mkdir()
                runtime.chmod(mode)
                os.chown(runtime, owner, owner)
                env = dict(os.environ, XDG_RUNTIME_DIR=str(runtime))
                self.assertEqual(call(env=env)[0], 0)
                self.assertEqual((runtime / LOCK).exists(), used)
                self.assertEqual((OURS / LOCK).exists(), not used)

    def test_without_any_place_for_a_lock_calls_run_unlocked(self):
        subprocess.run(['mount', '-o', 'remount,ro', '/tmp'], check=True)
        try:
            self.assertEqual(call()[0], 0)
        finally:
            subprocess.run(['mount', '-o', 'remount,rw', '/tmp'], check=True)
        self.assertFalse(OURS.exists())


def main():
    global OPTIONS
    parser = argparse.ArgumentParser()
    parser.add_argument('--child', required=True)
    parser.add_argument('--tool', required=True)
    OPTIONS, rest = parser.parse_known_args()
    enter_namespace()
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)


if __name__ == '__main__':
    main()
