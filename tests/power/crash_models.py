"""What a file system may keep of a list of operations when the power goes at some point in
it. Three models, from the kindest to the harshest:

- killed: the process died; the kernel keeps everything it was given.
- ext4: ext4's default ordering (data=ordered). Changes to names and sizes reach the device in
  the order they were made; a folder's flush commits all of them made before it, and so does
  a file's flush when that file's own name or size changed; the bytes of a file's new blocks
  reach the device before the size that exposes them; overwrites of existing bytes that no
  flush covered are kept per 4 KiB page, any subset of the pages.
- posix: only what POSIX promises. Unflushed writes are kept per 512-byte sector: each sector
  independently holds any one of the versions it had since the file's last flush (the first
  being its old bytes); a file's size is any of the sizes it had since its last flush; a
  sector that the size covers but that never reached the device reads as zeros, or as
  whatever a deleted file left in that block; a change to a directory (a new name, a
  rename, an unlink) survives only if the directory was flushed after it, and otherwise
  each one is kept or lost on its own.

Operations and the tree come from strace_ops. Every crash state is a Tree; the operations
recorded before `start` (the calls that set the scene) are taken as durable."""

import hashlib
import random

from strace_ops import apply

NAME_OPS = ("create", "rename", "link", "unlink")
MODELS = ("killed", "ext4", "posix")


def _last_flushes(ops, start, k):
    """Index of the last flush before k of each file and of each directory."""
    files, dirs = {}, {}
    for i in range(start, k):
        op = ops[i]
        if op[0] == "fsync":
            files[op[1]] = i
        elif op[0] == "dsync":
            dirs[op[1]] = i
    return files, dirs


def _dirs_of(op):
    if op[0] == "create" or op[0] == "unlink":
        return (op[1],)
    if op[0] == "rename":
        return (op[1], op[3])
    if op[0] == "link":
        return (op[2],)
    return ()


def _made_with(ops, i):
    """Whether ops[i] is the mode a file was made with: it goes wherever the file goes."""
    op, before = ops[i], ops[i - 1] if i > 0 else ()
    return op[0] == "chmod" and before[:1] in (("create",), ("tmpfile",)) and \
        (before[3] if before[0] == "create" else before[1]) == op[1]


def _chunks(offset, data, unit):
    """The pieces of a write cut at multiples of `unit` in the file."""
    pos, end = offset, offset + len(data)
    while pos < end:
        stop = min(end, (pos // unit + 1) * unit)
        yield pos, data[pos - offset:stop - offset]
        pos = stop


def _put(buf, offset, data, filler):
    if len(buf) < offset:
        buf.extend(filler(len(buf), offset))
    buf[offset:offset + len(data)] = data


def _whole(ops, k):
    """A crash point never falls between a file's creation and the mode it was made with."""
    return k + 1 if k < len(ops) and _made_with(ops, k) else k


def killed(base, ops, start, k, rng):
    del rng
    k = _whole(ops, k)
    tree = base.copy()
    for op in ops[start:k]:
        apply(tree, op)
    return tree


def _forced_commit(ops, start, k, base):
    """The last point before k up to which ext4 has surely committed names and sizes: a
    folder's flush commits the running transaction, and so does a file's flush when the
    file's name or size changed since its previous flush; a flush of overwrites alone
    writes the data and commits nothing."""
    sizes = {ino: len(data) for ino, data in base.data.items()}
    dirty, forced = set(), start - 1
    for i in range(start, k):
        op = ops[i]
        if op[0] in ("create", "link"):
            dirty.add(op[3] if op[0] == "create" else op[1])
        elif op[0] == "trunc":
            dirty.add(op[1])
            sizes[op[1]] = op[2]
        elif op[0] == "write" and op[2] + len(op[3]) > sizes.get(op[1], 0):
            dirty.add(op[1])
            sizes[op[1]] = op[2] + len(op[3])
        elif op[0] == "dsync" or op[0] == "fsync" and op[1] in dirty:
            forced = i
            dirty.clear()
    return forced


def ext4(base, ops, start, k, rng):
    k = _whole(ops, k)
    files, _ = _last_flushes(ops, start, k)
    # Names and sizes committed up to some point no earlier than the last forced commit.
    committed = rng.randint(_forced_commit(ops, start, k, base) + 1, k)
    tree = base.copy()
    zeros = lambda a, b: bytes(b - a)  # noqa: E731: ordered mode never shows stale blocks
    for i in range(start, k):
        op = ops[i]
        if op[0] != "write":
            if i < committed or _made_with(ops, i) and i - 1 < committed:
                apply(tree, op)
            continue
        ino, offset, data = op[1], op[2], op[3]
        buf = tree.data.setdefault(ino, bytearray())
        if i < files.get(ino, -1):
            _put(buf, offset, data, zeros)
            continue
        size = len(buf)
        for pos, piece in _chunks(offset, data, 4096):
            inside = piece[:max(0, size - pos)]
            beyond = piece[len(inside):]
            if inside and rng.random() < 0.5:
                buf[pos:pos + len(inside)] = inside
            if beyond and i < committed:  # new blocks: written before the size is committed
                _put(buf, pos + len(inside), beyond, zeros)
    return tree


def posix(base, ops, start, k, rng):
    k = _whole(ops, k)
    files, dirs = _last_flushes(ops, start, k)
    tree = base.copy()
    # Blocks freed by a deleted file may come back inside a file that grew without its
    # data: the newest such file first, as an allocator reusing them would.
    stale = bytearray()
    if rng.random() < 0.5:
        named = set(tree.names.values())
        gone = [ino for ino in sorted(tree.data) if ino not in named and tree.data[ino]]
        if gone:
            stale = tree.data[gone[-1]]

    # A sector reaches the device whole, as the page cache held it at some moment: any one
    # of its versions since the file's last flush, the first being none of the writes.
    touches = {}
    for i in range(start, k):
        op = ops[i]
        if op[0] == "write" and i >= files.get(op[1], -1):
            for pos, _ in _chunks(op[2], op[3], 512):
                touches[(op[1], pos // 512)] = touches.get((op[1], pos // 512), 0) + 1
    # Whole files at the extremes are drawn often, as a power cut tends to leave them: none
    # of a file's new sectors reached the device (a new file showing only old blocks), or all.
    extreme = {ino: rng.choice((0, None, None, 1)) for ino, _ in touches}
    version = {(ino, sector): rng.randint(0, n) if extreme[ino] is None else n * extreme[ino]
               for (ino, sector), n in touches.items()}

    def filler(ino):
        """Bytes for [a, b) that no kept write filled: zeros in a sector that reached the
        device (the page cache zeroes what was never written), else the old blocks."""
        def fill(a, b):
            out = bytearray()
            for pos, _ in _chunks(a, bytes(b - a), 512):
                stop = min(b, (pos // 512 + 1) * 512)
                old = b"" if version.get((ino, pos // 512), 0) else stale[pos:stop]
                out += old + bytes(stop - pos - len(old))
                tree.shows_old_blocks |= any(old)
            return bytes(out)
        return fill

    sizes, rank = {}, {}
    for i in range(start, k):
        op = ops[i]
        if op[0] in NAME_OPS:
            if all(i < dirs.get(d, -1) for d in _dirs_of(op)) or rng.random() < 0.5:
                apply(tree, op)
            continue
        if op[0] == "chmod":
            if i < files.get(op[1], -1) or _made_with(ops, i) or rng.random() < 0.5:
                apply(tree, op)
            continue
        if op[0] not in ("write", "trunc"):
            if op[0] == "tmpfile":
                apply(tree, op)
            continue
        ino = op[1]
        buf = tree.data.setdefault(ino, bytearray())
        if i < files.get(ino, -1):
            apply(tree, op)
            continue
        sizes.setdefault(ino, [len(buf)])
        if op[0] == "trunc":
            if rng.random() < 0.5:
                apply(tree, op)
            sizes[ino].append(op[2])
            continue
        for pos, piece in _chunks(op[2], op[3], 512):
            key = (ino, pos // 512)
            rank[key] = rank.get(key, 0) + 1
            if rank[key] <= version[key]:
                _put(buf, pos, piece, filler(ino))
        sizes[ino].append(max(sizes[ino][-1], op[2] + len(op[3])))
    for ino, seen in sizes.items():
        size = rng.choice(seen)
        buf = tree.data[ino]
        if size < len(buf):
            del buf[size:]
        else:
            buf.extend(filler(ino)(len(buf), size))
    return tree


BUILDERS = {"killed": killed, "ext4": ext4, "posix": posix}


def crash_states(model, base, ops, start, want, seed, directory, limit):
    """Up to `want` crash states of ops[start:] that differ in the content of `directory`,
    each as [crash point, files, returned, modes, old blocks]: `returned` when some draw
    after the last operation (the call had returned SUCCESS) gave that content, `old blocks`
    when some draw that gave it showed blocks of a deleted file. The killed model has one
    state per point and takes them all; the others draw points and choices from a generator
    seeded with `seed`, a third of the draws after the last operation, where a lost change
    would be a lost SUCCESS, until `want` distinct states are found or `limit` draws are
    spent."""
    rng = random.Random(seed)
    end, seen, out = len(ops), {}, []

    def keep(k, tree):
        files, modes = tree.files(directory), tree.modes_of(directory)
        digest = hashlib.sha256()
        for name in sorted(files):
            digest.update(b"%d %s %d %o\0" % (len(name), name.encode(), len(files[name]),
                                               modes[name]))
            digest.update(files[name])
        key = digest.digest()
        if key not in seen:
            seen[key] = len(out)
            out.append([k, files, k == end, modes, tree.shows_old_blocks])
        else:
            out[seen[key]][2] |= k == end
            out[seen[key]][4] |= tree.shows_old_blocks

    if model == "killed":
        for k in range(start, end + 1):
            keep(k, killed(base, ops, start, k, rng))
        return out
    for _ in range(limit):
        if len(out) >= want:
            break
        k = end if rng.random() < 1 / 3 else rng.randint(start, end)
        keep(k, BUILDERS[model](base, ops, start, k, rng))
    return out
