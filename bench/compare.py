#!/usr/bin/python3
"""qob against the usual zip tools on the same generated files.

Each figure is the median of several runs of a whole process (except the package info,
which is per call inside one process). qob's changing commands flush to the device and the
other tools do not, so they are timed a second time under eatmydata (when installed), which
turns the flushes into no-ops: that figure is the one to set against the others, and the
difference is what durability costs. Prints a table with ratios and the peak memory of
create and extract and, with --write, rewrites the generated part of docs/performance.md
and its chart (gnuplot, when present).

    bench/compare.py --qob build/release/bin/qob --lib build/release/lib/libqob.so [--write]
"""

import argparse
import ctypes
import os
import random
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
import xml.etree.ElementTree as ElementTree
import zipfile

MIB = 1024 * 1024
RAW = "IMG_0001.CR3"
SETTINGS_ENTRY = "Quillmarsh/Settings1680/IMG_0001.CR3.xmp"
PROXY_ENTRY = "Quillmarsh/Cache/Proxies/IMG_0001.CR3.jpg"
PACKAGE_INFO_SIZE = 381176  # sizeof(QOB_PackageInfo); the path is its first field


def write_random(path, size, seed):
    rng = random.Random(seed)
    with open(path, "wb") as out:
        block = rng.randbytes(MIB)
        for left in range(size, 0, -MIB):
            out.write(block[: min(left, MIB)])


def median_seconds(run, prepare=None, repeat=7):
    times = []
    for _ in range(repeat):
        if prepare:
            prepare()
        start = time.perf_counter()
        run()
        times.append(time.perf_counter() - start)
    return statistics.median(times)


def command(*args, cwd=None, env=None):
    def run():
        subprocess.run(args, cwd=cwd, env=env, check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)
    return run


def without_flushes():
    """An environment in which fsync and friends do nothing (eatmydata's library, preloaded
    directly: its wrapper script alone costs milliseconds), or None."""
    for directory in ("/usr/lib/x86_64-linux-gnu", "/usr/lib64", "/usr/lib"):
        library = os.path.join(directory, "libeatmydata.so")
        if os.path.exists(library):
            return dict(os.environ, LD_PRELOAD=library)
    return None


def peak_rss_mib(*args):
    """The largest resident set of one run of a command, in MiB."""
    child = subprocess.Popen(args, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    _, status, usage = os.wait4(child.pid, 0)
    if status != 0:
        raise RuntimeError(f"{args[0]} failed")
    return usage.ru_maxrss / 1024


def have(tool):
    return shutil.which(tool) is not None


class Workspace:
    def __init__(self, root, raw_mib):
        self.root = root
        self.src = os.path.join(root, "src")
        os.makedirs(self.src)
        self.files = {
            "raw": (os.path.join(self.src, RAW), raw_mib * MIB),
            "settings": (os.path.join(self.src, "edit.xmp"), 20000),
            "proxy": (os.path.join(self.src, "preview.jpg"), 2 * MIB),
            "lcc": (os.path.join(self.src, "wide.lcc"), 300000),
            "icc": (os.path.join(self.src, "display.icc"), 4000),
            "mask": (os.path.join(self.src, "mask.msk"), 200000),
        }
        for seed, (path, size) in enumerate(self.files.values()):
            write_random(path, size, seed)
        self.new_settings = os.path.join(self.src, "edit2.xmp")
        write_random(self.new_settings, 18000, 99)

    def path(self, name):
        return os.path.join(self.root, name)

    def create_args(self, qob, package):
        f = {k: v[0] for k, v in self.files.items()}
        return [qob, "create", package, "--raw", f["raw"], "--settings", f["settings"],
                "--proxy", f["proxy"], "--lcc", "WIDE=" + f["lcc"], "--icc",
                "sRGB=" + f["icc"], "--mask", f["mask"]]


def measure(qob, lib, raw_mib):
    rows = []
    memory = {}
    unflushed = without_flushes()

    def twice(args, prepare, cwd=None):
        """qob's time as it is, and without device flushes (None without eatmydata)."""
        durable = median_seconds(command(*args, cwd=cwd), prepare)
        if unflushed is None:
            return durable, None
        return durable, median_seconds(command(*args, cwd=cwd, env=unflushed), prepare)
    with tempfile.TemporaryDirectory(prefix="qob-compare-") as root:
        ws = Workspace(root, raw_mib)
        template = ws.path("template.qob")
        subprocess.run(ws.create_args(qob, template), check=True, stdout=subprocess.DEVNULL)
        # The same entries as loose files, for the other tools to pack.
        tree = ws.path("tree")
        with zipfile.ZipFile(template) as z:
            z.extractall(tree)
        entries = sorted(os.path.relpath(os.path.join(d, n), tree)
                         for d, _, names in os.walk(tree) for n in names)
        target = ws.path("out.qob")

        def fresh(name=target):
            def prepare():
                if os.path.exists(name):
                    os.remove(name)
            return prepare

        def copy_of(source, name):
            # Flushed, so that a command that flushes the file pays for its own writes only.
            def prepare():
                shutil.copyfile(source, name)
                with open(name, "rb") as copy:
                    os.fsync(copy.fileno())
            return prepare

        # Create.
        cat = ("cat " + " ".join(f'"{p}"' for p, _ in ws.files.values())
               + f' > "{ws.path("cat.out")}"')
        floor = median_seconds(lambda: subprocess.run(cat, shell=True, check=True),
                               fresh(ws.path("cat.out")))
        durable_floor = median_seconds(lambda: subprocess.run(
            cat + f' && sync -d "{ws.path("cat.out")}"', shell=True, check=True),
            fresh(ws.path("cat.out")))
        ours = twice(ws.create_args(qob, target), fresh())
        fresh()()
        memory["create"] = peak_rss_mib(*ws.create_args(qob, target))
        others = {}
        if have("7z"):
            zipped = ws.path("7z.zip")
            others["7z a -mx0"] = median_seconds(
                command("7z", "a", "-tzip", "-mx0", zipped, *entries, cwd=tree), fresh(zipped))
        if have("zip"):
            zipped = ws.path("zip.zip")
            others["zip -0"] = median_seconds(command("zip", "-q", "-0", zipped, *entries,
                                                      cwd=tree), fresh(zipped))
        rows.append(("create a package (raw + 5 companions + 23 manifests)", ours, others,
                     [("cat", floor, ours[1]), ("cat, then sync -d", durable_floor, ours[0])]))

        # Replace the settings.
        zipped = ws.path("edit.zip")
        subprocess.run(["zip", "-q", "-0", zipped, *entries], cwd=tree, check=True)
        ours = twice([qob, "update", target, "--settings", ws.new_settings],
                     copy_of(template, target))
        others = {}
        if have("zip"):
            shutil.copyfile(ws.new_settings, os.path.join(tree, SETTINGS_ENTRY))
            others["zip -0"] = median_seconds(
                command("zip", "-q", "-0", ws.path("work.zip"), SETTINGS_ENTRY, cwd=tree),
                copy_of(zipped, ws.path("work.zip")))
        rows.append(("replace the settings (18 KB)", ours, others, None))

        # Removals.
        force = ["--force"] if b"--force" in subprocess.run(
            [qob, "rm", "--help"], capture_output=True).stdout else []
        for label, entry in (("remove the first entry (the raw image)", RAW),
                             ("remove the proxy", PROXY_ENTRY)):
            ours = twice([qob, "rm", *force, target, entry], copy_of(template, target))
            others = {}
            if have("zip"):
                others["zip -d"] = median_seconds(command("zip", "-q", "-d", ws.path("work.zip"),
                                                          entry), copy_of(zipped, ws.path("work.zip")))
            rows.append((label, ours, others, None))

        # Package info, per call, in one process.
        ours = None
        if lib:
            qoblib = ctypes.CDLL(lib)
            # Lines go to a sink that drops them, installed before any other call.
            silence = ctypes.CFUNCTYPE(None, ctypes.c_int, ctypes.c_char_p, ctypes.c_void_p)(
                lambda *_: None)
            for name in ("_Z12QOB_SetLogFnPFviPKcPvES1_", "QOB_SetLogFn"):
                if hasattr(qoblib, name):
                    getattr(qoblib, name)(silence, None)
                    break
            record = ctypes.create_string_buffer(PACKAGE_INFO_SIZE)
            qoblib.QOB_Constructor(record, 0)
            record[: len(template) + 1] = template.encode() + b"\0"
            calls = 300

            def info_calls():
                for _ in range(calls):
                    if qoblib.QOB_GetPackageInfo(record) != 0:
                        raise RuntimeError("QOB_GetPackageInfo failed")
            ours = (median_seconds(info_calls) / calls, None)
            qoblib.QOB_Destructor(record, 0)

        def python_calls(calls=300):
            for _ in range(calls):
                with zipfile.ZipFile(template) as z:
                    ElementTree.fromstring(z.read("manifest.xml").rstrip(b"\0"))
        python = median_seconds(python_calls) / 300
        if ours is not None:
            rows.append(("package info, per call, in one process", ours,
                         {"Python zipfile + ElementTree, manifest.xml only": python}, None))

        # Extract all.
        out = ws.path("x")

        def clean():
            shutil.rmtree(out, ignore_errors=True)
        ours = (median_seconds(command(qob, "extract", template, out), clean), None)
        clean()
        memory["extract"] = peak_rss_mib(qob, "extract", template, out)
        others = {}
        if have("7z"):
            others["7z x"] = median_seconds(command("7z", "x", "-y", "-o" + out, template), clean)
        if have("bsdtar"):
            def bsdtar():
                os.makedirs(out, exist_ok=True)
                subprocess.run(["bsdtar", "-xf", template, "-C", out], check=True,
                               stderr=subprocess.DEVNULL)
            others["bsdtar"] = median_seconds(bsdtar, clean)
        rows.append(("extract all", ours, others, None))
    return rows, memory


def show(seconds):
    if seconds < 1e-3:
        return f"{seconds * 1e6:.0f} µs"
    if seconds < 1:
        return f"{seconds * 1e3:.1f} ms"
    return f"{seconds:.3f} s"


def table(rows, memory, raw_mib):
    lines = [f"| work ({raw_mib} MiB raw) | qob | qob without device flushes | the best other "
             "tool | qob / best | without flushes / best | floor |",
             "|---|---|---|---|---|---|---|"]
    for label, (ours, unflushed), others, floors in rows:
        best_name, best = min(others.items(), key=lambda kv: kv[1]) if others else ("-", None)
        ratio = f"{ours / best:.2f}x" if best else "-"
        unflushed_ratio = f"{unflushed / best:.2f}x" if best and unflushed else "-"
        floor_text = "; ".join(f"`{name}` {show(seconds)}: qob is {mine / seconds:.2f}x"
                               for name, seconds, mine in floors or [] if mine)
        best_text = f"`{best_name}` {show(best)}" if best else "-"
        lines.append(f"| {label} | {show(ours)} | {show(unflushed) if unflushed else '-'} | "
                     f"{best_text} | {ratio} | {unflushed_ratio} | {floor_text} |")
    lines.append("")
    lines.append("Peak resident memory of one whole `qob` process: "
                 + ", ".join(f"{work} {mib:.1f} MiB" for work, mib in memory.items()) + ".")
    return "\n".join(lines)


def chart(rows, path):
    if not have("gnuplot"):
        print("compare: gnuplot not found, no chart", file=sys.stderr)
        return False
    data = path + ".dat"
    with open(data, "w") as out:
        for label, (ours, unflushed), others, _ in rows:
            best = min(others.values()) if others else ours
            out.write(f'"{label.split(" (")[0]}" {ours / best:.3f} '
                      f'{(unflushed or ours) / best:.3f}\n')
    script = f"""
set terminal svg size 900,420 font "sans,12"
set output "{path}"
set style data histograms
set style histogram cluster gap 1
set style fill solid 0.8
set ylabel "qob time / best other tool (lower is better)"
set yrange [0:*]
set xtics rotate by -20
set grid ytics
set key top left
plot "{data}" using 2:xtic(1) title "durable (as shipped)" lc rgb "#3b6ea5", \\
     "" using 3 title "without device flushes" lc rgb "#8fb3d9", \\
     1 with lines lc rgb "#b03030" dt 2 notitle
"""
    subprocess.run(["gnuplot"], input=script.encode(), check=True)
    os.remove(data)
    return True


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    here = os.path.dirname(os.path.abspath(__file__))
    parser.add_argument("--qob", default=os.path.join(here, "..", "build", "release", "bin", "qob"))
    parser.add_argument("--lib", default=os.path.join(here, "..", "build", "release", "lib",
                                                       "libqob.so"))
    parser.add_argument("--raw-mib", type=int, default=100)
    parser.add_argument("--write", action="store_true",
                        help="rewrite the generated table and chart in docs/")
    args = parser.parse_args()
    lib = args.lib if os.path.exists(args.lib) else None
    rows, memory = measure(os.path.abspath(args.qob), lib, args.raw_mib)
    text = table(rows, memory, args.raw_mib)
    print(text)
    if args.write:
        docs = os.path.join(here, "..", "docs")
        with_chart = chart(rows, os.path.join(docs, "performance.svg"))
        page = os.path.join(docs, "performance.md")
        begin, end = "<!-- compare.py: begin -->", "<!-- compare.py: end -->"
        with open(page) as f:
            content = f.read()
        generated = begin + "\n" + text + "\n"
        if with_chart:
            generated += "\n![qob time over the best other tool](performance.svg)\n"
        generated += end
        head, _, rest = content.partition(begin)
        _, _, tail = rest.partition(end)
        with open(page, "w") as f:
            f.write(head + generated + tail)


if __name__ == "__main__":
    main()
