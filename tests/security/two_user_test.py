#!/usr/bin/env python3
"""What another user of the machine, or a set of files handed over, can do to a package: at
most make a call fail, with a message naming the file and the reason. Never change the package
or the user's other files, never make a call hang.

Runs as root in a private mount namespace with a fresh /tmp and its own passwd and group files
(two unprivileged users, both members of one group), acting as each user through setpriv: root
alone bypasses permissions and would hide failures. Every call is a fresh process (qob_child.py
over the shared library). Every row compares all files of the test's tree, byte for byte with
owner and mode, before and after the call, apart from the changes the row expects.

usage: two_user_test.py --library PATH --tool PATH [unittest arguments]
Exits 77 (skipped) when it is not root or may not make a mount namespace.
"""
import argparse
import os
import pathlib
import shutil
import stat
import struct
import subprocess
import sys
import tarfile
import unittest
import zlib

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / 'common'))
import private_namespace  # noqa: E402
import world  # noqa: E402
from journal_files import RECORD, Journal, crashed, crc, genuine, version1  # noqa: E402
from world import (  # noqa: E402
    ALREADY_EXISTS, BYTES, CANNOT_OPEN, CANNOT_READ, CREATED, EXTRACTED, FAILS,
    FILE_NOT_IN_PACKAGE, GONE, HOME, JOURNAL, MINE, NAME, NEW_SETTINGS, OLD_SETTINGS, OTHER,
    OWNER, PACKAGE_NOT_FOUND, PROFILE, SETTINGS_ENTRY, SHARE, SHARED, SOURCES, STICKY, STOP,
    THEIRS, UPDATED, Background, Created, World, as_user, call, committed, configure, describe,
    digest_of, hostile, hot, link, package, place, planted, snapshot)

# --- Rows ----------------------------------------------------------------------------------


def row(name, setup, who, operation, path, code, *, refused=None, settings=None, changes=None,
        arguments=(), env=None, timeout=60, reads_at_most=None):
    return dict(name=name, setup=setup, who=who, operation=operation, path=path, code=code,
                refused=refused, settings=settings, changes=changes or {}, arguments=arguments,
                env=env or {}, timeout=timeout, reads_at_most=reads_at_most)


class Rows(unittest.TestCase):
    maxDiff = None

    def run_rows(self, rows):
        for r in rows:
            with self.subTest(r['name']):
                World.reset()
                r['setup']()
                before = snapshot()
                who = {'owner': OWNER, 'other': OTHER, 'root': 0}[r['who']]
                result = call(who, r['operation'], r['path'], *r['arguments'], env=r['env'],
                              timeout=r['timeout'])
                context = '\n'.join(result.lines[-12:])
                if r['code'] == FAILS:
                    self.assertLess(result.code, 0, context)
                else:
                    self.assertEqual(result.code, r['code'], context)
                if r['refused']:
                    journal, check = r['refused']
                    text = f'journal "{journal}" refused: {check}'
                    self.assertTrue(result.says(text), f'no "{text}" in:\n' +
                                    '\n'.join(line for line in result.lines if 'ERROR' in line))
                if r['settings']:
                    self.assertEqual(result.settings, r['settings'], 'settings seen')
                if r['reads_at_most']:
                    self.assertLess(result.read, r['reads_at_most'], 'bytes read')
                self.assertChanges(before, snapshot(), r['changes'])

    def assertChanges(self, before, after, changes):
        for path in sorted(set(before) | set(after)):
            want = changes.get(str(path), 'same')
            got = after.get(path)
            if any(path.startswith(f'{k}/') for k, v in changes.items() if v == EXTRACTED):
                self.assertEqual(got[2], OTHER, f'{path}: not the other user\'s')
            elif want == EXTRACTED:  # and it holds the settings as they were
                self.assertEqual((got[0], got[2]), (stat.S_IFDIR, OTHER), path)
                contents = [v[5][0][:16] for k, v in after.items()
                            if k.startswith(f'{path}/') and v[0] == stat.S_IFREG]
                self.assertIn(OLD_SETTINGS, contents)
            elif want == 'same':
                self.assertEqual(got, before.get(path), f'{path} changed')
            elif want == GONE:
                self.assertIsNone(got, f'{path} should be gone')
            elif want == CREATED:
                self.assertIsNotNone(got, f'{path} should exist')
                kind, mode, uid = got[:3]
                self.assertEqual((kind, uid), (stat.S_IFREG, OWNER), f'{path}: not the owner\'s')
                self.assertEqual(mode & 0o022, 0, f'{path}: writable by others')
            else:
                self.assertIsNotNone(got, f'{path} should exist')
                self.assertEqual(got[:5], before[path][:5], f'{path}: type, mode or owner')
                if want == UPDATED:
                    self.assertEqual(call(0, 'info', path).settings, NEW_SETTINGS, path)
                else:
                    self.assertEqual(got[5][0], digest_of(want), f'{path}: not {want}')
        for path, want in changes.items():
            if want not in ('same', GONE):
                self.assertIn(path, after)


def refused(folder, check):
    return (str(folder / JOURNAL), check)


def rolled_back(folder):
    return {str(folder / NAME): 'P0', str(folder / JOURNAL): GONE}


class PlantedJournals(Rows):
    """Journals another user planted, or the owner was handed: refused, never applied."""

    def test_rows(self):
        def foreign(folder, make, mode=0o644):
            def setup():
                package(folder)
                planted(folder, make(folder), mode=mode, gid=SHARE if folder == SHARED else None)
            return setup

        def valid(folder):
            return hostile(folder).encode()[0]

        def grow(folder):
            return Journal(BYTES['P0'], original_length=0xFFFFFFFF).encode()[0]

        def cut(folder):
            return Journal(BYTES['P0'], done=(0, 1)).encode()[0]

        def many(folder):
            journal = Journal(BYTES['P0'])
            return journal.header() + journal.record(0, b'', 1) * 4_000_000

        def sparse():
            package(SHARED)
            journal = Journal(BYTES['P0'])
            path = SHARED / JOURNAL
            head = struct.pack('<IQQI', RECORD, 0, 512 << 20, 1)
            value = crc(struct.pack('<Q', journal.nonce), head)
            zeros = bytes(1 << 20)
            for _ in range(512):
                value = zlib.crc32(zeros, value)
            with open(path, 'wb') as f:
                f.write(journal.header() + head)
                f.seek(512 << 20, os.SEEK_CUR)
                f.write(struct.pack('<I', value))
            os.chown(path, OTHER, SHARE)
            path.chmod(0o660)

        def special(make):
            def setup():
                package(STICKY)
                make(STICKY / JOURNAL)
                os.chown(STICKY / JOURNAL, OTHER, OTHER, follow_symlinks=False)
            return setup

        def owners_elsewhere(second_link):
            def setup():
                package(HOME)
                saved = place(HOME / 'saved-journal', genuine(BYTES['P0'], BYTES['P1']).encode()[0],
                              OWNER, 0o644)
                if second_link:
                    os.link(saved, HOME / JOURNAL)
                else:
                    link(HOME / JOURNAL, saved, OWNER)
            return setup

        def another_package():
            package(HOME, 'P1')
            journal = genuine(BYTES['Q0'], BYTES['Q1'], name='another.qob', nonce=99)
            place(HOME / JOURNAL, journal.encode()[0], OWNER, 0o644)

        not_theirs = 'owned by a user who may not write the package'
        not_file = 'not a regular file'
        rows = [
            row('foreign journal with valid CRCs', foreign(STICKY, valid), 'owner', 'info',
                STICKY / NAME, CANNOT_READ, refused=refused(STICKY, not_theirs)),
            row('foreign journal growing the package to 4 GiB', foreign(STICKY, grow), 'owner',
                'info', STICKY / NAME, CANNOT_READ, refused=refused(STICKY, not_theirs)),
            row('foreign closing record cutting the package to zero', foreign(STICKY, cut),
                'owner', 'isqob', STICKY / NAME, CANNOT_READ,
                refused=refused(STICKY, not_theirs)),
            row('foreign journal before an update', foreign(STICKY, valid), 'owner', 'update',
                STICKY / NAME, CANNOT_READ, arguments=[SOURCES / 'new.xml'],
                refused=refused(STICKY, not_theirs)),
            row('group member growing the package to 4 GiB', foreign(SHARED, grow, 0o660),
                'owner', 'info', SHARED / NAME, CANNOT_READ,
                refused=refused(SHARED, 'original length beyond the package')),
            row('group member closing past the end',
                foreign(SHARED, lambda f: Journal(BYTES['P0'], done=(len(BYTES['P0']) + 4096, 1))
                        .encode()[0], 0o660),
                'owner', 'info', SHARED / NAME, CANNOT_READ,
                refused=refused(SHARED, 'closing length beyond the package')),
            row('group member journal of 4,000,000 empty records', foreign(SHARED, many, 0o660),
                'owner', 'info', SHARED / NAME, CANNOT_READ,
                refused=refused(SHARED, 'too many records'), reads_at_most=32 << 20),
            row('group member sparse record of 512 MiB', sparse, 'owner', 'info', SHARED / NAME,
                CANNOT_READ, refused=refused(SHARED, 'record outside the package')),
            row('group member journal that others may write', foreign(SHARED, valid, 0o666),
                'owner', 'info', SHARED / NAME, CANNOT_READ,
                refused=refused(SHARED, 'writable by a user who may not write the package')),
            row('FIFO', special(lambda p: os.mkfifo(p, 0o666)), 'owner', 'info', STICKY / NAME,
                CANNOT_READ, refused=refused(STICKY, not_file), timeout=15),
            row('FIFO before an update', special(lambda p: os.mkfifo(p, 0o666)), 'owner',
                'update', STICKY / NAME, CANNOT_READ, arguments=[SOURCES / 'new.xml'],
                refused=refused(STICKY, not_file), timeout=15),
            row('directory', special(lambda p: p.mkdir(mode=0o777)), 'owner', 'info',
                STICKY / NAME, CANNOT_READ, refused=refused(STICKY, not_file)),
            row('dangling link into the other user\'s folder',
                special(lambda p: os.symlink(THEIRS / 'stolen', p)), 'owner', 'update',
                STICKY / NAME, CANNOT_READ, arguments=[SOURCES / 'new.xml'],
                refused=refused(STICKY, not_file)),
            row('link to the owner\'s profile', special(lambda p: os.symlink(PROFILE, p)),
                'owner', 'info', STICKY / NAME, CANNOT_READ, refused=refused(STICKY, not_file)),
            row('link to a genuine journal of the owner', owners_elsewhere(False), 'owner',
                'info', HOME / NAME, CANNOT_READ, refused=refused(HOME, not_file)),
            row('hard link to a genuine journal of the owner', owners_elsewhere(True), 'owner',
                'info', HOME / NAME, CANNOT_READ, refused=refused(HOME, 'more than one link')),
            row('genuine journal of another package', another_package, 'owner', 'info',
                HOME / NAME, CANNOT_READ, refused=refused(HOME, 'bound to another package')),
        ]
        self.run_rows(rows)


class LinksAndGifts(Rows):
    """A package path that is a symbolic link: the journal beside the link is never read, and
    the link's target is never written by a read."""

    def test_rows(self):
        def link_in_their_folder(target):
            def setup():
                package(HOME)
                link(THEIRS / NAME, target, OTHER)
                planted(THEIRS, hostile(HOME, target).encode()[0])
            return setup

        def gift(target):
            """A tar file of a link and a journal, unpacked by the owner in their folder."""
            def setup():
                package(HOME)
                made = THEIRS / 'made'
                made.mkdir()
                os.symlink(target, made / NAME)
                (made / JOURNAL).write_bytes(hostile(HOME, target).encode()[0])
                with tarfile.open(THEIRS / 'gift.tar', 'w') as tar:
                    for name in (NAME, JOURNAL):
                        tar.add(made / name, arcname=name)
                shutil.rmtree(made)
                os.chown(THEIRS / 'gift.tar', OTHER, OTHER)
                (HOME / 'gift').mkdir()
                os.chown(HOME / 'gift', OWNER, OWNER)
                subprocess.run(as_user(OWNER, ['tar', '-xf', str(THEIRS / 'gift.tar'), '-C',
                                               str(HOME / 'gift')]), check=True)
            return setup

        package_path = HOME / NAME
        rows = [
            row('read through a link with a journal beside it', link_in_their_folder(package_path),
                'owner', 'info', THEIRS / NAME, 0, settings=OLD_SETTINGS),
            row('check through a link to the owner\'s profile', link_in_their_folder(PROFILE),
                'owner', 'isqob', THEIRS / NAME, CANNOT_OPEN),
            row('update through a link with a journal beside it',
                link_in_their_folder(package_path), 'owner', 'update', THEIRS / NAME, 0,
                arguments=[SOURCES / 'new.xml'], changes={str(package_path): UPDATED}),
            row('unpacked gift: link and journal', gift(package_path), 'owner', 'info',
                HOME / 'gift' / NAME, 0, settings=OLD_SETTINGS),
            row('unpacked gift: link to the profile and journal', gift(PROFILE), 'owner', 'info',
                HOME / 'gift' / NAME, CANNOT_OPEN),
            row('tool: info through a link with a journal beside it',
                link_in_their_folder(package_path), 'owner', 'tool', THEIRS / NAME, 0,
                arguments=['info']),
            row('tool: check of an unpacked link to the profile', gift(PROFILE), 'owner', 'tool',
                HOME / 'gift' / NAME, 3, arguments=['check']),
        ]
        self.run_rows(rows)


class Staging(Rows):
    """Whatever is planted under the staging names of a new package is left alone: the
    create succeeds and the planted thing is as it was."""

    def test_rows(self):
        partial = STICKY / 'new.qob-partial'

        def plant(make):
            def setup():
                make()
                os.chown(partial, OTHER, OTHER, follow_symlinks=False)
            return setup

        kinds = (('file', lambda: place(partial, b'theirs\n', OTHER, 0o666)),
                 ('hard link', lambda: os.link(MINE, partial)),
                 ('link to the owner\'s profile', lambda: os.symlink(PROFILE, partial)),
                 ('dangling link', lambda: os.symlink(THEIRS / 'caught', partial)),
                 ('FIFO', lambda: os.mkfifo(partial, 0o666)))
        rows = [row(f'{kind} at the staging name{hook}', plant(make), 'owner', 'create',
                    STICKY / 'new.qob', 0, arguments=[SOURCES / 'raw.iiq', SOURCES / 'old.xml'],
                    changes={str(STICKY / 'new.qob'): CREATED}, env=env, timeout=20)
                for kind, make in kinds
                for hook, env in (('', {}), (' (no unnamed files)', {'QOB_TEST_NO_TMPFILE': '1'}))]

        def link_at_the_package_path(folder):
            return lambda: link(folder / 'new.qob', HOME / 'made-through-the-link', OTHER)

        # The path exists (a link the other user planted): the create fails, and neither the
        # library nor the tool removes the link or writes through it.
        for folder in (STICKY, SHARED):
            rows += [row(f'create over a dangling link in the {folder.name} folder',
                         link_at_the_package_path(folder), 'owner', 'create', folder / 'new.qob',
                         ALREADY_EXISTS, arguments=[SOURCES / 'raw.iiq']),
                     row(f'tool: create over a dangling link in the {folder.name} folder',
                         link_at_the_package_path(folder), 'owner', 'tool', folder / 'new.qob',
                         1, arguments=['create', '--raw', SOURCES / 'raw.iiq'])]
        self.run_rows(rows)

    def test_staging_names(self):
        """A new package is an unnamed file given its name at the end; without unnamed files
        (the test hook), a fresh random name beside it, renamed."""
        for env, staged in (({}, 0), ({'QOB_TEST_NO_TMPFILE': '1'}, 1)):
            with self.subTest(env=env):
                World.reset()
                with Created(STICKY) as made:
                    done = call(OWNER, 'create', STICKY / 'new.qob', SOURCES / 'raw.iiq',
                                SOURCES / 'old.xml', env=env)
                self.assertEqual(done.code, 0)
                others = [n for n in made.names if n != 'new.qob']
                self.assertEqual(len(others), staged, made.names)
                for name in others:
                    self.assertRegex(name, r'^\.new\.qob\.\w+\.partial$')
                self.assertEqual(os.listdir(STICKY), ['new.qob'])

    def test_staging_name_replanted_in_a_loop(self):
        for env in ({}, {'QOB_TEST_NO_TMPFILE': '1'}):
            with self.subTest(env=env):
                World.reset()
                target = STICKY / 'new.qob'
                spot = f'{target}-partial'
                loop = (f'while [ ! -e {STOP} ]; do ln -sfn {PROFILE} {spot}; rm -f {spot}; '
                        f': > {spot}; rm -f {spot}; ln {MINE} {spot}; rm -f {spot}; done')
                before = snapshot()
                with Background(OTHER, loop):
                    for _ in range(4):
                        made = call(OWNER, 'create', target, SOURCES / 'raw.iiq',
                                    SOURCES / 'old.xml', env=env, timeout=20)
                        self.assertEqual(made.code, 0, '\n'.join(made.lines[-8:]))
                        self.assertEqual(describe(target)[:3][2], OWNER)
                        self.assertEqual(call(OWNER, 'isqob', target).code, 0)
                        target.unlink()
                after = snapshot()
                for path in (PROFILE, MINE):
                    self.assertEqual(after[str(path)][:5], before[str(path)][:5])
                    self.assertEqual(after[str(path)][5][0], before[str(path)][5][0])
                leftovers = [p for p in os.listdir(STICKY) if p.startswith('.new.qob')]
                self.assertEqual(leftovers, [])


class Overlay(Rows):
    """A genuine journal of a crashed update: the owner who can write the package rolls it
    back in place; every other reader sees the old state and writes nothing."""

    def test_rows(self):
        def crashed_in(folder, mode=None):
            return lambda: hot(folder, mode or (0o660 if folder == SHARED else 0o644))

        rows = [
            row('owner rolls back', crashed_in(HOME), 'owner', 'info', HOME / NAME, 0,
                settings=OLD_SETTINGS, changes=rolled_back(HOME)),
            row('owner rolls back before an update', crashed_in(HOME), 'owner', 'update',
                HOME / NAME, 0, arguments=[SOURCES / 'new.xml'],
                changes={str(HOME / NAME): UPDATED, str(HOME / JOURNAL): GONE}),
            row('another user reads the old state', crashed_in(HOME), 'other', 'info',
                HOME / NAME, 0, settings=OLD_SETTINGS),
            row('another user checks it', crashed_in(HOME), 'other', 'isqob', HOME / NAME, 0),
            row('root reads the old state', crashed_in(HOME), 'root', 'info', HOME / NAME, 0,
                settings=OLD_SETTINGS),
            row('owner completes a committed removal', lambda: committed(HOME), 'owner', 'info',
                HOME / NAME, 0, settings='none',
                changes={str(HOME / NAME): 'S1', str(HOME / JOURNAL): GONE}),
            row('another user reads a committed removal', lambda: committed(HOME), 'other',
                'info', HOME / NAME, 0, settings='none'),
            row('another user extracts it', crashed_in(HOME), 'other', 'extract', HOME / NAME,
                0, arguments=[THEIRS / 'out'], changes={str(THEIRS / 'out'): EXTRACTED}),
            row('another user looks up a profile', crashed_in(HOME), 'other', 'lcc',
                HOME / NAME, FILE_NOT_IN_PACKAGE, arguments=['nothing']),
            row('group member reads the owner\'s crash', crashed_in(SHARED), 'other',
                'info', SHARED / NAME, 0, settings=OLD_SETTINGS),
            row('owner rolls back a group member\'s crash', lambda: hot(SHARED, 0o660, OTHER),
                'owner', 'info', SHARED / NAME, 0, settings=OLD_SETTINGS,
                changes=rolled_back(SHARED)),
            row('group member updates the owner\'s package', lambda: package(SHARED), 'other',
                'update', SHARED / NAME, 0, arguments=[SOURCES / 'new.xml'],
                changes={str(SHARED / NAME): UPDATED}),
            row('owner reads its crash in the group folder', crashed_in(SHARED), 'owner',
                'info', SHARED / NAME, 0, settings=OLD_SETTINGS, changes=rolled_back(SHARED)),
            row('read-only package, another user', crashed_in(HOME, 0o444), 'other', 'info',
                HOME / NAME, 0, settings=OLD_SETTINGS),
            row('read-only package, its owner', crashed_in(HOME, 0o444), 'owner', 'info',
                HOME / NAME, 0, settings=OLD_SETTINGS),
            row('read-only package, failed update', lambda: package(HOME, mode=0o444), 'owner',
                'update', HOME / NAME, FAILS, arguments=[SOURCES / 'new.xml']),
            row('read-only package, failed removal', lambda: package(HOME, mode=0o444), 'owner',
                'remove', HOME / NAME, FAILS,
                arguments=[SETTINGS_ENTRY]),
            row('read-only package in a sticky folder, failed update',
                lambda: package(STICKY, mode=0o444), 'owner', 'update', STICKY / NAME, FAILS,
                arguments=[SOURCES / 'new.xml']),
        ]
        self.run_rows(rows)



class DamagedJournals(Rows):
    """The owner's own journals, damaged or stale: a record whose CRC fails is the torn end of
    the journal when nothing valid of a later batch follows (the records before it are applied),
    damage otherwise (refused, the journal kept)."""

    def test_rows(self):
        journal = genuine(BYTES['P0'], BYTES['P1'])
        data, starts = journal.encode()
        count = len(journal.regions)
        torn = count - 1  # the last batch had not reached the package

        def with_journal(content, written=torn, mode=0o644, of=journal):
            def setup():
                place(HOME / NAME, crashed(of, BYTES['P1'], written), OWNER, 0o644)
                place(HOME / JOURNAL, content, OWNER, mode)
            return setup

        def flipped(index, field, of=journal):
            out, starts = of.encode()
            out = bytearray(out)
            start = starts[index]
            length = len(of.regions[index][1])
            at = {'data': start + 24, 'crc': start + 24 + length, 'length': start + 12}[field]
            out[at] ^= 0x01 if field == 'length' else 0xFF
            return bytes(out)

        # The last batch holds all records but the first; its first record is torn. The batch
        # never reached the package, and its valid records are not applied either.
        paired = Journal(BYTES['P0'], regions=[(o, d, min(b, 2)) for o, d, b in journal.regions])
        closed = Journal(BYTES['P0'], regions=journal.regions, done=(len(BYTES['P1']), count + 1))

        earlier = genuine(BYTES['P-1'], BYTES['P0'], nonce=0x0BADC0DE)
        stale = Journal(BYTES['P0'], regions=journal.regions)
        middle = bytearray(stale.header())
        for offset, region, batch in journal.regions:
            nonce = earlier.nonce if batch == 2 else None
            middle += stale.record(offset, region, batch, nonce)
        first_only = Journal(BYTES['P0'], regions=journal.regions[:1]).encode()[0]
        older = earlier.encode()[0]
        grown = first_only + older[len(first_only):]
        assert len(grown) > len(first_only)

        damaged = refused(HOME, 'damaged record')
        back = rolled_back(HOME)
        rows = [row('intact journal', with_journal(data, written=count), 'owner', 'info',
                    HOME / NAME, 0, settings=OLD_SETTINGS, changes=back)]
        for field in ('data', 'crc', 'length'):
            for index, where in ((0, 'first'), (count // 2, 'middle')):
                rows.append(row(f'{field} of the {where} record flipped',
                                with_journal(flipped(index, field)), 'owner', 'info',
                                HOME / NAME, CANNOT_READ, refused=damaged))
            rows.append(row(f'{field} of the last record flipped',
                            with_journal(flipped(count - 1, field)), 'owner', 'info',
                            HOME / NAME, 0, settings=OLD_SETTINGS, changes=back))
        mid = starts[-1] + (len(data) - starts[-1]) // 2
        rows += [
            row('torn record followed by one of its own batch',
                with_journal(flipped(1, 'data', paired), written=1, of=paired), 'owner', 'info',
                HOME / NAME, 0, settings=OLD_SETTINGS, changes=back),
            row('damaged record followed by the closing record',
                with_journal(flipped(count // 2, 'data', closed), written=count, of=closed),
                'owner', 'info', HOME / NAME, CANNOT_READ, refused=damaged),
            row('another user reads past a torn last record',
                with_journal(data[:mid]), 'other', 'info', HOME / NAME, 0, settings=OLD_SETTINGS),
            row('another user meets a damaged record', with_journal(flipped(0, 'crc')), 'other',
                'info', HOME / NAME, CANNOT_READ, refused=damaged),
            row('torn last record', with_journal(data[:mid]), 'owner', 'info', HOME / NAME, 0,
                settings=OLD_SETTINGS, changes=back),
            row('record of an earlier journal in the middle', with_journal(bytes(middle)),
                'owner', 'info', HOME / NAME, CANNOT_READ, refused=damaged),
            row('grown journal over an older one', with_journal(grown, written=1), 'owner',
                'info', HOME / NAME, 0, settings=OLD_SETTINGS, changes=back),
            row('journal of another package',
                with_journal(genuine(BYTES['Q0'], BYTES['Q1'], 'another.qob').encode()[0]),
                'owner', 'info', HOME / NAME, CANNOT_READ,
                refused=refused(HOME, 'bound to another package')),
            row('damaged header', with_journal(data[:20] + bytes([data[20] ^ 1]) + data[21:]),
                'owner', 'info', HOME / NAME, CANNOT_READ,
                refused=refused(HOME, 'damaged header')),
            row('version 1 journal', with_journal(version1(BYTES['P0'])), 'owner', 'info',
                HOME / NAME, CANNOT_READ,
                refused=refused(HOME, 'format version 1 of an older release')),
            row('overlapping records',
                with_journal(Journal(BYTES['P0'], regions=[
                    (100, BYTES['P0'][100:200], 1), (150, BYTES['P0'][150:250], 2)]).encode()[0],
                    written=0),
                'owner', 'info', HOME / NAME, CANNOT_READ,
                refused=refused(HOME, 'records overlap')),
            row('record past the original end',
                with_journal(Journal(BYTES['P0'], regions=[
                    (len(BYTES['P0']) - 8, b'\0' * 64, 1)]).encode()[0], written=0),
                'owner', 'info', HOME / NAME, CANNOT_READ,
                refused=refused(HOME, 'record outside the package')),
            row('journal that others may write', with_journal(data, written=count, mode=0o666),
                'owner', 'info', HOME / NAME, CANNOT_READ,
                refused=refused(HOME, 'writable by a user who may not write the package')),
        ]
        self.run_rows(rows)


class Concurrent(unittest.TestCase):
    """Both users on one path at once: each call is whole, and nothing of one user's work is
    taken away by the other's."""

    def results(self, output):
        return [int(line.split()[1]) for line in output.splitlines() if line.startswith('result ')]

    def loop(self, operations):
        steps = '; '.join(f'{sys.executable} {world.CHILD} {world.LIBRARY} {o}' for o in operations)
        return f'while [ ! -e {STOP} ]; do {steps}; done'

    def test_create_while_the_other_user_reads(self):
        target = STICKY / 'race.qob'
        for env in ({}, {'QOB_TEST_NO_TMPFILE': '1'}):
            with self.subTest(env=env):
                World.reset()
                with Background(OTHER, self.loop([f'info {target}'])) as reader:
                    for _ in reader.rounds():
                        made = call(OWNER, 'create', target, SOURCES / 'raw.iiq',
                                    SOURCES / 'old.xml', env=env)
                        self.assertEqual(made.code, 0, '\n'.join(made.lines[-8:]))
                        self.assertEqual(call(OWNER, 'info', target).settings, OLD_SETTINGS)
                        target.unlink()
                seen = self.results(reader.output)
                self.assertTrue(seen and set(seen) <= {0, PACKAGE_NOT_FOUND}, seen)
                self.assertEqual(os.listdir(STICKY), [])

    def test_create_while_a_group_member_swaps_the_staging_file(self):
        """Without unnamed files, a group member can rename the owner's staging file away and
        put a file of theirs under its name: the package that gets the name is still the one
        the owner wrote."""
        target = SHARED / 'swap.qob'
        spot = f'{SHARED}/.swap.qob.*.partial'
        loop = (f'while [ ! -e {STOP} ]; do for f in {spot}; do if [ -f "$f" ] && '
                f'[ ! -O "$f" ] && mv -f "$f" "$f.kept" 2>/dev/null; then : > "$f"; '
                f'chmod 666 "$f"; fi; done; done')
        World.reset()
        with Background(OTHER, loop) as other:
            for _ in other.rounds():
                made = call(OWNER, 'create', target, SOURCES / 'raw.iiq', SOURCES / 'old.xml',
                            env={'QOB_TEST_NO_TMPFILE': '1'})
                if made.code == 0:
                    self.assertEqual(describe(target)[2], OWNER, 'the package is not the owner\'s')
                    self.assertEqual(call(OWNER, 'info', target).settings, OLD_SETTINGS)
                    target.unlink()
                self.assertFalse(target.exists())
        self.assertTrue([n for n in os.listdir(SHARED) if n.endswith('.kept')], 'never swapped')

    def test_update_while_the_other_user_reads_or_creates(self):
        for operations, answers in ((['info'], {0}), (['create'], {ALREADY_EXISTS}),
                                    (['info', 'create'], {0, ALREADY_EXISTS})):
            with self.subTest(operations):
                World.reset()
                target = package(STICKY)
                loop = self.loop([f'{o} {target} {SOURCES / "raw.iiq"}' for o in operations])
                with Background(OTHER, loop) as other:
                    for turn in other.rounds():
                        age = ('new', 'old')[turn % 2]
                        done = call(OWNER, 'update', target, SOURCES / f'{age}.xml', timeout=30)
                        self.assertEqual(done.code, 0, '\n'.join(done.lines[-8:]))
                seen = self.results(other.output)
                self.assertTrue(seen and set(seen) <= answers, seen)
                self.assertEqual(os.listdir(STICKY), [NAME])
                last = OLD_SETTINGS if age == 'old' else NEW_SETTINGS
                self.assertEqual(call(OWNER, 'info', target).settings, last)
                self.assertEqual(describe(target)[2], OWNER)

    def test_the_journal_of_a_private_package_is_private(self):
        """While an update of a 0600 package runs, its journal (the old bytes) is no more
        readable than the package."""
        World.reset()
        target = package(STICKY, mode=0o600)
        journal = STICKY / JOURNAL
        loop = (f'while [ ! -e {STOP} ]; do if [ -e {journal} ]; then echo seen; '
                f'cat {journal} > /dev/null 2>&1 && echo read; fi; done')
        with Background(OTHER, loop) as other:
            for turn in other.rounds(least=20):
                age = ('big', 'old')[turn % 2]  # a move journals the package's whole tail
                self.assertEqual(call(OWNER, 'update', target, SOURCES / f'{age}.xml').code, 0)
        self.assertNotIn('read', other.output.split())

    def test_a_failed_update_leaves_its_record_and_no_journal(self):
        """Disk full at every stage of an update, in place or growing the package, by its owner
        and by another user who may write it only because everyone may: it either succeeds, or
        fails leaving the package, the host's record and the folder as they were."""
        World.reset()
        big = SOURCES / 'big.xml'
        full = HOME / 'full'
        full.mkdir()
        failures = 0
        for settings, most, step, who, mode in ((SOURCES / 'new.xml', 32 << 10, 4 << 10, OWNER,
                                                 0o644),
                                                (big, 640 << 10, 16 << 10, OWNER, 0o644),
                                                (big, 640 << 10, 64 << 10, OTHER, 0o666)):
            for room in range(0, most, step):
                with self.subTest(settings=settings.name, room=room, who=who):
                    self.assertTrue(private_namespace.mount(
                        '-t', 'tmpfs', '-o', f'size={len(BYTES["P0"]) + (1 << 20)}', 'tmpfs',
                        str(full)))
                    try:
                        os.chown(full, OWNER, OWNER)
                        full.chmod(0o1777)
                        target = place(full / NAME, BYTES['P0'], OWNER, mode)
                        filler = full / 'filler'
                        with open(filler, 'wb', buffering=0) as f:
                            try:
                                while True:
                                    f.write(bytes(4096))
                            except OSError:
                                pass
                        os.truncate(filler, max(filler.stat().st_size - room, 0))
                        done = call(who, 'update', target, settings)
                        self.assertEqual(sorted(os.listdir(full)), ['filler', NAME])
                        if done.code == 0:
                            continue
                        failures += 1
                        self.assertEqual(done.args, 'unchanged', '\n'.join(done.lines[-8:]))
                        self.assertEqual(target.read_bytes(), BYTES['P0'])
                    finally:
                        subprocess.run(['umount', str(full)], check=True)
        self.assertGreater(failures, 0)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('--library', required=True)
    parser.add_argument('--tool', required=True)
    options, rest = parser.parse_known_args()
    private_namespace.enter()
    configure(*private_namespace.reachable([options.library, str(HERE / 'qob_child.py'),
                                            options.tool]))
    private_namespace.fresh_tmp()
    os.umask(0o022)
    World.users()
    World.build()
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)


if __name__ == '__main__':
    main()
