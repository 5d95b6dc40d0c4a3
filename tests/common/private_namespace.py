"""Tests that act as several users run as root in a private mount namespace with a fresh /tmp,
so that nothing of the machine's own is touched: whatever they mount is gone with them."""
import os
import shutil
import subprocess
import sys

SKIP = 77
_MARKER = 'QOB_PRIVATE_NAMESPACE'


def skip(why):
    print(f'skipped: {why}')
    sys.exit(SKIP)


def mount(*arguments):
    return subprocess.run(['mount', *arguments], stderr=subprocess.DEVNULL).returncode == 0


def enter():
    """Re-runs this script in a new mount namespace and exits with its status; returns only
    inside the namespace. Exits 77 (skipped) without root, unshare or setpriv."""
    if os.environ.get(_MARKER) == '1':
        return
    if os.geteuid() != 0 or shutil.which('unshare') is None or shutil.which('setpriv') is None:
        skip('needs root, unshare and setpriv')
    if subprocess.run(['unshare', '-m', 'true'], stderr=subprocess.DEVNULL).returncode != 0:
        skip('no mount namespace allowed here')
    env = dict(os.environ, **{_MARKER: '1'})
    command = ['unshare', '-m', '--propagation', 'private', sys.executable] + sys.argv
    sys.exit(subprocess.run(command, env=env).returncode)


def reachable(paths):
    """A build under /tmp (a clone there, say) would vanish under the fresh /tmp: the old /tmp
    is shown at /mnt in this namespace, and these paths are given as seen from there."""
    if not any(p.startswith('/tmp/') for p in paths):
        return list(paths)
    if not os.path.isdir('/mnt') or not mount('--bind', '/tmp', '/mnt'):
        skip('the build is under /tmp and cannot be shown elsewhere')
    return ['/mnt/' + p[len('/tmp/'):] if p.startswith('/tmp/') else p for p in paths]


def fresh_tmp():
    """A fresh, empty /tmp (and no session directories of real users)."""
    mounts = [['-t', 'tmpfs', '-o', 'mode=1777', 'tmpfs', '/tmp']]
    if os.path.isdir('/run/user'):
        mounts.append(['-t', 'tmpfs', 'tmpfs', '/run/user'])
    for arguments in mounts:
        if not mount(*arguments):
            skip('may not mount a tmpfs here')
    os.environ.pop('XDG_RUNTIME_DIR', None)
