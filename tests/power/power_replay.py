#!/usr/bin/env python3
"""Power-loss replay: records each changing call of the qob tool with strace, rebuilds the
states a power cut could leave under three models (crash_models.py), and has a fresh `qob
verify` process open each one, as the next call would, recovering what it finds. Every state
must come back as the package before the call or the package after it, entry for entry; a
state drawn after the call returned SUCCESS must come back as the package after it.

A self-test then plants two faults in the recorded operations (the journal's flush dropped;
the flush that makes the journal's deletion durable dropped) and requires the replay to find
bad states in each: a replay that cannot see them proves nothing when it finds none.

Sampling, so that the whole run fits in a few minutes on two cores: the killed model takes
every crash point (one state each); the other two draw a crash point and the file system's
choices from a generator with a fixed seed, a third of the draws after the last operation,
until --states states that differ in content are found (or --draws draws are spent).
Identical states are checked once."""

import argparse
import concurrent.futures
import hashlib
import itertools
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time
import zipfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from crash_models import MODELS, crash_states  # noqa: E402
from strace_ops import Tree, Recorder, apply  # noqa: E402

PKG = "photo.qob"
RAW = "IMG_0042.CR3"


def inputs(directory, seed):
    rng = random.Random(seed)
    blob = lambda n: bytes(rng.getrandbits(8) for _ in range(n))  # noqa: E731
    xmp = lambda text: f"<x:xmpmeta><Exposure>{text}</Exposure></x:xmpmeta>\n".encode()  # noqa
    # s2 still fits the settings' reserved space, but differs from s1 in many sectors.
    files = {RAW: blob(96 * 1024), "proxy.jpg": blob(24 * 1024), "s0.xmp": xmp("+0.10"),
             "s1.xmp": xmp("+0.35"), "s2.xmp": xmp(blob(4500).hex()),
             "big.xmp": xmp("x" * 20000), "wide.lcc": blob(300), "tele.lcc": blob(420),
             "mask.msk": blob(2048)}
    for name, data in files.items():
        with open(os.path.join(directory, name), "wb") as f:
            f.write(data)
    return {name: os.path.join(directory, name) for name in files}


def scenarios(i):
    """(name, calls that set the scene, the call replayed). Paths are relative to the
    scenario's directory, where the package lives in pkg/. A scene given as (call, point)
    is that earlier call's folder as a killed process left it at that point."""
    p = "pkg/" + PKG
    create = ["create", p, "--raw", i[RAW], "--settings", i["s0.xmp"], "--proxy",
              i["proxy.jpg"], "--lcc", "WIDE=" + i["wide.lcc"], "--mask", i["mask.msk"]]
    # A first update leaves a deleted journal behind: its blocks are what a file system
    # without ordered data may show inside the next journal.
    scene = [create, ["update", p, "--settings", i["s1.xmp"]]]
    proxy = f"Quillmarsh/Cache/Proxies/{RAW}.jpg"
    return [
        ("create", [], create),
        ("update in place", scene, ["update", p, "--settings", i["s2.xmp"]]),
        ("growing update", scene, ["update", p, "--settings", i["big.xmp"]]),
        ("add profile", scene, ["update", p, "--lcc", "TELE=" + i["tele.lcc"]]),
        ("remove proxy", scene, ["rm", p, proxy]),
        ("remove raw image", scene, ["rm", p, RAW, "--force"]),
        ("interrupted recovery", ("update in place", "undo"), ["verify", p]),
        ("interrupted completion", ("remove proxy", "cut"), ["verify", p]),
    ]


class Runner:
    def __init__(self, tool, work, jobs):
        self.tool, self.work, self.jobs = tool, work, jobs
        self.env = dict(os.environ, LANG="C.UTF-8")
        # A lock directory of our own: thousands of calls contend with nobody else.
        self.env["XDG_RUNTIME_DIR"] = tempfile.mkdtemp(dir=work, prefix="runtime-")
        self.names = itertools.count()

    def qob(self, args, cwd):
        return subprocess.run([self.tool, "-q"] + args, cwd=cwd, env=self.env,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode

    def outcome(self, files, modes=None):
        """What the next call makes of a directory holding `files`: verify's exit status, the
        package's entries read back in full (None: no package; "unreadable"), and the other
        files left in the folder, and the package's permissions."""
        top = os.path.join(self.work, f"state-{next(self.names)}")
        os.makedirs(os.path.join(top, "pkg"))
        try:
            for name, data in files.items():
                with open(os.path.join(top, "pkg", name), "wb") as f:
                    f.write(data)
                os.chmod(os.path.join(top, "pkg", name), (modes or {}).get(name, 0o644))
            status = self.qob(["verify", "pkg/" + PKG], top)
            # A journal left behind would roll a later call back. (A create's staging file
            # left by a crash is only garbage, which the next create removes.)
            left = tuple(sorted(n for n in os.listdir(os.path.join(top, "pkg"))
                                if n.endswith("-journal")))
            path = os.path.join(top, "pkg", PKG)
            if not os.path.exists(path):
                return status, None, left, None
            mode = oct(os.stat(path).st_mode & 0o7777)
            try:
                digest = hashlib.sha256()
                with zipfile.ZipFile(path) as z:  # reads check every entry's CRC-32
                    for info in z.infolist():
                        digest.update(info.filename.encode() + b"\0")
                        digest.update(z.read(info))
                return status, digest.hexdigest(), left, mode
            except (zipfile.BadZipFile, OSError, ValueError, EOFError):
                return status, "unreadable", left, mode
        finally:
            shutil.rmtree(top)

    def outcomes(self, states):
        with concurrent.futures.ThreadPoolExecutor(self.jobs) as pool:
            return list(pool.map(lambda s: self.outcome(s[1], s[3]), states))


def files_on_disk(directory):
    out, modes = {}, {}
    for name in sorted(os.listdir(directory)):
        with open(os.path.join(directory, name), "rb") as f:
            out[name] = f.read()
        modes[name] = os.stat(os.path.join(directory, name)).st_mode & 0o7777
    return out, modes


class Recording:
    """One call recorded after the calls that set its scene."""

    def __init__(self, runner, name, scene, call, preload=None):
        top = os.path.join(runner.work, name.replace(" ", "-"))
        pkg = os.path.join(top, "pkg")
        os.makedirs(pkg)
        for file_name, data in (preload or {}).items():
            with open(os.path.join(pkg, file_name), "wb") as f:
                f.write(data)
        self.name, self.pkg = name, pkg
        tree = Tree(pkg)
        tree.load(pkg)
        recorder = Recorder(tree)
        for setup in scene or []:
            if recorder.run([runner.tool, "-q"] + setup, top, runner.env) != 0:
                raise SystemExit(f"{name}: setting the scene failed: {' '.join(setup)}")
        self.start, self.base = len(recorder.ops), tree.copy()
        self.before, self.before_modes = files_on_disk(pkg)
        self.status = recorder.run([runner.tool, "-q"] + call, top, runner.env)
        self.after, self.after_modes = files_on_disk(pkg)
        self.ops = recorder.ops
        # The recording must rebuild what the call really left, byte for byte.
        if tree.files(pkg) != self.after or tree.modes_of(pkg) != self.after_modes:
            raise SystemExit(f"{name}: the recorded operations do not rebuild the package")
        if self.status != 0:
            raise SystemExit(f"{name}: the call failed with exit status {self.status}")

    def inode_names(self, ops=None):
        """Every name each inode had at some point of the call, for reports and faults: a
        file may be flushed before it has its name (a new file linked in when complete)."""
        ops = self.ops if ops is None else ops
        tree, names = self.base.copy(), {}
        for op in ops[self.start:]:
            apply(tree, op)
            for (d, n), ino in tree.names.items():
                names.setdefault(ino, set()).add(n)
        return names

    def flushes(self, ops=None):
        ops = self.ops if ops is None else ops
        names, kinds = self.inode_names(ops), {}
        for op in ops[self.start:]:
            if op[0] == "fsync":
                seen = names.get(op[1], set())
                kind = ("journal" if any(n.endswith("-journal") for n in seen) else
                        "package" if PKG in seen else "a file never named")
                kinds[kind] = kinds.get(kind, 0) + 1
            elif op[0] == "dsync":
                kinds["folder"] = kinds.get("folder", 0) + 1
        return kinds


def flush_text(kinds):
    files = sum(v for k, v in kinds.items() if k != "folder")
    detail = ", ".join(f"{k} {v}" for k, v in sorted(kinds.items()) if k != "folder")
    return f"{files} file ({detail or 'none'}), {kinds.get('folder', 0)} folder"


def replay(runner, rec, ops, args, models):
    """Checks every sampled state; returns {model: counts} and the first bad states."""
    reference = {"old": runner.outcome(rec.before, rec.before_modes),
                 "new": runner.outcome(rec.after, rec.after_modes)}
    if rec.name.startswith("interrupted"):
        reference["old"] = reference["new"]  # the interrupted state itself is no package
    results, bad = {}, []
    for index, model in enumerate(models):
        states = crash_states(model, rec.base, ops, rec.start, args.states,
                              args.seed * 1009 + index, rec.pkg, args.draws)
        # "... old blocks": those of the bad states that show a deleted file's blocks.
        counts = {"states": len(states), "old": 0, "new": 0, "bad": 0, "lost": 0,
                  "bad old blocks": 0, "lost old blocks": 0}
        for (k, files, returned, _, old_blocks), got in zip(states, runner.outcomes(states)):
            label = next((n for n in ("new", "old") if reference[n] == got), "bad")
            lost = returned and label == "old" and reference["old"] != reference["new"]
            counts[label] += 1
            counts["lost"] += lost
            if label == "bad" or lost:
                counts["lost old blocks" if lost else "bad old blocks"] += old_blocks
                bad.append((model, k - rec.start, len(ops) - rec.start,
                            "lost SUCCESS" if lost else "damaged", got, sorted(files),
                            old_blocks))
        results[model] = counts
    return results, bad


def drop_journal_flush(rec):
    journal = {ino for ino, names in rec.inode_names().items()
               if any(n.endswith("-journal") for n in names)}
    out = rec.ops[:rec.start] + [op for op in rec.ops[rec.start:]
                                 if not (op[0] == "fsync" and op[1] in journal)]
    return out if len(out) < len(rec.ops) else None


def drop_commit_flush(rec):
    """Drops the flush that makes the commit durable: the folder's flush after the journal's
    deletion where there is one, else the journal's last flush before its deletion (the one
    that makes its closing record durable)."""
    ops, unlinked, journal_flush = list(rec.ops), None, None
    journal = {ino for ino, names in rec.inode_names().items()
               if any(n.endswith("-journal") for n in names)}
    for i in range(rec.start, len(ops)):
        if ops[i][0] == "unlink" and ops[i][2].endswith("-journal"):
            unlinked = i
        elif ops[i][0] == "dsync" and unlinked is not None:
            return ops[:i] + ops[i + 1:]
        elif ops[i][0] == "fsync" and ops[i][1] in journal and unlinked is None:
            journal_flush = i
    if unlinked is None or journal_flush is None:
        return None
    return ops[:journal_flush] + ops[journal_flush + 1:]


FAULTS = [("no journal flush", drop_journal_flush),
          ("no flush that makes the commit durable", drop_commit_flush)]


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--tool", required=True)
    parser.add_argument("--seed", type=int, default=20)
    parser.add_argument("--states", type=int, default=100, help="distinct states per model")
    parser.add_argument("--draws", type=int, default=3000, help="draws per model at most")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--only", help="replay only the calls whose name contains this")
    parser.add_argument("--known-old-blocks", action="store_true",
                        help="report, not fail, bad states that show a deleted file's blocks")
    parser.add_argument("--no-self-test", action="store_true")
    args = parser.parse_args()
    if shutil.which("strace") is None:
        print("strace is not installed (scripts/install-deps.sh installs it)")
        return 77
    if subprocess.run(["strace", "-o", os.devnull, "true"], stdout=subprocess.DEVNULL,
                      stderr=subprocess.DEVNULL).returncode != 0:
        print("strace cannot trace here (ptrace is not allowed)")
        return 77
    work = tempfile.mkdtemp(prefix="qob-power-")
    failures = []
    try:
        runner = Runner(os.path.abspath(args.tool), work, args.jobs)
        files = inputs(tempfile.mkdtemp(dir=work, prefix="inputs-"), args.seed)
        recordings, baseline, known_seen = {}, {}, 0
        for name, scene, call in scenarios(files):
            started = time.monotonic()
            if isinstance(scene, tuple):
                source = recordings[scene[0]]
                rec = Recording(runner, name, None, call, interrupted(source, scene[1]))
                # The second recovery must end where the first would have.
                wanted = source.before if scene[1] == "undo" else source.after
                if rec.after.get(PKG) != wanted.get(PKG):
                    failures.append(f"{name}: the recovered package is not the one expected")
            else:
                rec = Recording(runner, name, scene, call)
            recordings[name] = rec
            if args.only and args.only not in name:
                continue
            results, bad = replay(runner, rec, rec.ops, args, MODELS)
            print(f"{name}: {len(rec.ops) - rec.start} operations; flushes: "
                  f"{flush_text(rec.flushes())}; {time.monotonic() - started:.1f} s")
            for model, c in results.items():
                print(f"  {model:6} {c['states']:4} states: {c['old']:4} old, {c['new']:4} new, "
                      f"{c['bad']} damaged, {c['lost']} lost SUCCESS")
            for model, k, n, what, got, names, old_blocks in bad[:5]:
                shown = " (showing a deleted file's blocks)" if old_blocks else ""
                print(f"    {what}: {model} model, crash after operation {k} of {n}, files "
                      f"{names}{shown}: verify exit status {got[0]}, package "
                      f"{got[1] and got[1][:12]}, left beside it {list(got[2])}, "
                      f"permissions {got[3]}")
            failures += verdict(name, results, args.known_old_blocks)
            known_seen += sum(r["bad old blocks"] + r["lost old blocks"]
                              for r in results.values())
            baseline[name] = results
        if args.known_old_blocks and not known_seen and not args.only:
            failures.append("--known-old-blocks, but no bad state shows old blocks: drop it")
        if not args.no_self_test:
            failures += self_test(runner, recordings["update in place"], args,
                                  baseline.get("update in place"))
    finally:
        shutil.rmtree(work, ignore_errors=True)
    for failure in failures:
        print("FAILED:", failure)
    return 1 if failures else 0


def verdict(name, results, known_old_blocks):
    """Failures for one call: each check that some state fails, and how many. States that
    show a deleted file's blocks are reported apart, and pass with --known-old-blocks."""
    failures = []
    total = lambda key: sum(r[key] for r in results.values())  # noqa: E731
    damaged, lost = total("bad"), total("lost")
    if known_old_blocks and total("bad old blocks") + total("lost old blocks"):
        print(f"  KNOWN: {total('bad old blocks') + total('lost old blocks')} of these states "
              "show a deleted file's blocks (the previous journal's) in the new journal")
        damaged -= total("bad old blocks")
        lost -= total("lost old blocks")
    if damaged:
        failures.append(f"{name}: {damaged} states come back as neither the old nor the new "
                        "package, entry for entry")
    if lost:
        failures.append(f"{name}: {lost} states drawn after the call returned SUCCESS come "
                        "back as the old package")
    return failures


def interrupted(rec, point):
    """A call's folder as a killed process leaves it. "undo": after the last write to the
    package while the journal is there and before the package's flush (which comes before
    the closing record), so that a recovery has every region to put back. "cut": just before the package is cut to its new
    length, the closing record written, so that a recovery completes the change."""
    tree, pkg, last, flushed = rec.base.copy(), None, None, False
    for op in rec.ops[rec.start:]:
        journal = {i for (d, n), i in tree.names.items() if n.endswith("-journal")}
        pkg = pkg or tree.names.get((rec.pkg, PKG))
        if point == "cut" and op[0] == "trunc" and op[1] == pkg and journal:
            return tree.files(rec.pkg)
        flushed |= op[0] == "fsync" and op[1] == pkg
        apply(tree, op)
        if point == "undo" and op[0] == "write" and op[1] == pkg and journal and not flushed:
            last = tree.files(rec.pkg)
    if last is None:
        raise SystemExit(f"{rec.name}: no such point ({point}) in the recording")
    return last


def self_test(runner, rec, args, baseline):
    """Each planted fault must make some model find more bad states than it finds in the
    recording as it is."""
    failures = []
    bad = lambda r: r["bad"] + r["lost"]  # noqa: E731
    for fault, plant in FAULTS:
        ops = plant(rec)
        if ops is None:
            failures.append(f"self-test: {fault}: no such flush in the recording to drop")
            continue
        results, _ = replay(runner, rec, ops, args, ("ext4", "posix"))
        before = {m: bad(baseline[m]) if baseline else 0 for m in results}
        print(f"self-test, {fault}: bad states " + ", ".join(
            f"{m} {bad(r)}/{r['states']} (unplanted {before[m]})" for m, r in results.items()))
        if not any(bad(r) > before[m] for m, r in results.items()):
            failures.append(f"self-test: the replay does not see {fault}")
    return failures


if __name__ == "__main__":
    sys.exit(main())
