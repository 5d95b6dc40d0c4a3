"""The Python package against the real library (QOB_LIBRARY names it; QOB_PYTHON_SOURCE is
the package's source directory; QOB_WHEEL_DIR, when set, holds the wheel the build made)."""
import datetime
import errno
import json
import logging
import os
import pathlib
import random
import shutil
import subprocess
import sys
import tempfile
import zipfile

import pytest

SOURCE = pathlib.Path(os.environ.get("QOB_PYTHON_SOURCE",
                                     pathlib.Path(__file__).parents[2] / "python"))
sys.path.insert(0, str(SOURCE))
import qob  # noqa: E402
from qob import _native  # noqa: E402

RAW = "IMG ü 0001.CR3"
NOBODY = 65534


@pytest.fixture
def sources(tmp_path):
    rng = random.Random(11)
    files = {RAW: rng.randbytes(70000), "edit.xmp": b"<x>" + b"s" * 500 + b"</x>",
             "preview.jpg": rng.randbytes(3000), "a.lcc": b"profile A",
             "b.lcc": b"profile BB", "wide.icc": b"icc", "m.msk": b"mask" * 30,
             "h.hmsk": b"hair"}
    for name, data in files.items():
        (tmp_path / name).write_bytes(data)
    return files


@pytest.fixture
def package(tmp_path, sources):
    path = tmp_path / "pkg é.qob"
    qob.create(path, raw=tmp_path / RAW, settings=tmp_path / "edit.xmp",
               proxy=tmp_path / "preview.jpg",
               lcc={"LA": tmp_path / "a.lcc", "LB": tmp_path / "b.lcc"},
               icc={"Wide": tmp_path / "wide.icc"}, mask=tmp_path / "m.msk",
               hair=tmp_path / "h.hmsk", reserve={"settings": 4096, "proxy": 100})
    return path


def test_round_trip(tmp_path, sources, package):
    info = qob.info(package)
    by_source = {RAW: info.raw, "edit.xmp": info.settings, "preview.jpg": info.proxy,
                 "a.lcc": info.lccs[0], "b.lcc": info.lccs[1], "wide.icc": info.iccs[0],
                 "m.msk": info.mask, "h.hmsk": info.hair}
    assert [e.identifier for e in info.lccs + info.iccs] == ["LA", "LB", "Wide"]
    assert (info.settings.reserved, info.proxy.reserved, info.mask.reserved) == (4096, 100, 0)
    assert len(info.manifests) == len(qob.MANIFEST_NAMES)
    now = datetime.datetime.now(datetime.timezone.utc)
    for name, entry in by_source.items():
        assert entry.size == len(sources[name]), name
        assert entry.time.tzinfo is not None and abs(entry.time - now).total_seconds() < 3600
        assert qob.read(package, entry.path) == sources[name], name
        with pytest.raises(KeyError):  # names are exact: letter case counts
            qob.read(package, entry.path.upper())

    profile = qob.lcc(package, "LB")
    assert profile == info.lccs[1]

    qob.extract(package, tmp_path / "out")
    extracted = {p.name: p.read_bytes() for p in (tmp_path / "out").rglob("*") if p.is_file()}
    assert sorted(extracted.values()) == sorted(sources.values())

    # In place, then grown past its space; a new profile is added.
    for settings in (b"<x>short</x>", b"<x>" + b"g" * 9000 + b"</x>"):
        (tmp_path / "edit.xmp").write_bytes(settings)
        (tmp_path / "c.lcc").write_bytes(b"profile C")
        qob.update(package, settings=tmp_path / "edit.xmp", lcc={"LC": tmp_path / "c.lcc"})
        after = qob.info(package)
        assert qob.read(package, after.settings.path) == settings
        assert after.raw.offset == info.raw.offset
        assert [e.identifier for e in after.lccs] == ["LA", "LB", "LC"]

    qob.remove(package, info.proxy.path)
    assert qob.info(package).proxy is None
    assert qob.read(package, info.raw.path) == sources[RAW]


def test_package_reads_like_zipfile(tmp_path, sources):
    # ASCII names: zipfile's append mode would write a non-ASCII name of ours back in its own
    # encoding. An entry zipfile adds, deflated, sits beside the library's stored ones.
    raw = tmp_path / "IMG_0001.CR3"
    raw.write_bytes(sources[RAW])
    package = tmp_path / "z.qob"
    qob.create(package, raw=raw, settings=tmp_path / "edit.xmp", lcc={"LA": tmp_path / "a.lcc"})
    stray = random.Random(5).randbytes(100000) + bytes(300000)
    with zipfile.ZipFile(package, "a", zipfile.ZIP_DEFLATED) as archive:
        archive.writestr("stray.bin", stray)
    with zipfile.ZipFile(package) as archive:
        theirs = {i.filename: i for i in archive.infolist()}
        stored = {name: archive.read(name) for name in theirs}  # content and zero padding
    with qob.Package(package) as pkg:
        assert repr(pkg).startswith("<qob.Package")
        assert pkg.namelist() == list(theirs)
        for ours in pkg.infolist():
            zip_info = theirs[ours.filename]
            assert (ours.allocated_size, ours.CRC, ours.compress_type) == \
                (zip_info.file_size, zip_info.CRC, zip_info.compress_type)
            assert ours.time.tzinfo is not None and ours.time.timetuple()[:5] == \
                zip_info.date_time[:5]
            content = pkg.read(ours.filename)
            assert len(content) == ours.file_size
            assert stored[ours.filename] == content + bytes(ours.allocated_size - len(content))
        assert pkg.getinfo("stray.bin").file_size == len(stray)
        assert pkg.info().raw.path == raw.name and pkg.lcc("LA").identifier == "LA"
        # open(): a streaming, seekable file object.
        with pkg.open(raw.name) as stream:
            assert stream.read(1000) == sources[RAW][:1000] and stream.tell() == 1000
            stream.seek(-10, os.SEEK_END)
            assert stream.read() == sources[RAW][-10:]
            stream.seek(5)
            assert stream.read(3) == sources[RAW][5:8]
        with pkg.open("stray.bin") as stream:
            assert b"".join(iter(lambda: stream.read(65536), b"")) == stray
        with pytest.raises(KeyError):
            pkg.getinfo("absent")
        with pytest.raises(ValueError):
            pkg.open(raw.name, "w")
        pkg.extractall(tmp_path / "all")
    with pytest.raises(ValueError):  # closed
        pkg.namelist()


# (what to call, the builtin exception it also is, result code name, errno or None)
def failures(tmp_path, package):
    plain = tmp_path / "plain.zip"
    with zipfile.ZipFile(plain, "w") as archive:
        archive.writestr("a.txt", "text")
    (tmp_path / "noise.qob").write_bytes(random.Random(3).randbytes(5000))
    absent = tmp_path / "absent.qob"
    return [
        ("missing package", lambda: qob.info(absent), FileNotFoundError, "PACKAGE_NOT_FOUND",
         None),
        ("missing package (Package)", lambda: qob.Package(absent), FileNotFoundError,
         "PACKAGE_NOT_FOUND", None),
        ("a directory", lambda: qob.info(tmp_path), OSError, None, None),
        ("not a zip", lambda: qob.info(tmp_path / "noise.qob"), OSError, None, None),
        ("a plain zip", lambda: qob.info(plain), OSError, None, None),
        ("missing entry", lambda: qob.read(package, "no/such/entry"), KeyError,
         "FILE_NOT_IN_PACKAGE", None),
        ("missing LCC", lambda: qob.lcc(package, "la"), KeyError, "FILE_NOT_IN_PACKAGE", None),
        ("removing a missing entry", lambda: qob.remove(package, "no/such/entry"), KeyError,
         "FILE_NOT_IN_PACKAGE", None),
        ("destination is a file", lambda: qob.extract(package, tmp_path / "plain.zip"),
         NotADirectoryError, None, errno.ENOTDIR),
    ]


def test_failures_raise_errors_that_are_also_the_builtin_ones(tmp_path, package):
    for what, call, builtin, name, number in failures(tmp_path, package):
        with pytest.raises(qob.Error) as caught:
            call()
        error = caught.value
        assert isinstance(error, builtin) and isinstance(error, OSError), what
        assert error.code < 0 and error.name == qob.code_name(error.code), what
        assert name is None or error.name == name, (what, error.name)
        assert number is None or (error.errno, error.strerror) == (number, os.strerror(number))
        assert error.message and error.message in str(error), what
        # A success afterwards empties the record again.
        assert qob.is_package(package)
        assert qob._lib().last_error().code == 0 and not qob._lib().last_error().message
    # Mistakes Python sees first never reach the library.
    for call, exception in [(lambda: qob.update(package), ValueError),
                            (lambda: qob.create(tmp_path / "n.qob", raw=tmp_path / "absent"),
                             FileNotFoundError),
                            (lambda: qob.info("x" * 300), ValueError),
                            (lambda: qob.create(tmp_path / "n.qob", raw=tmp_path / RAW,
                                                reserve=-1), ValueError)]:
        with pytest.raises(exception):
            call()
    assert not (tmp_path / "n.qob").exists()


def test_is_package(tmp_path, package):
    (tmp_path / "noise.qob").write_bytes(random.Random(3).randbytes(5000))
    (tmp_path / "empty.qob").write_bytes(b"")
    answers = {package: True, tmp_path / "noise.qob": False, tmp_path / "empty.qob": False,
               tmp_path / "absent.qob": False, tmp_path: False}
    for path, expected in answers.items():
        assert qob.is_package(path) is expected, path


def test_version_code_names_and_progress(tmp_path, sources):
    assert qob.library_version().count(".") == 2
    names = {0: "SUCCESS", -2: "FILE_NOT_IN_PACKAGE", -8: "PACKAGE_NOT_FOUND",
             -15: "INTERNAL_INCONSISTENCY", -100: "FUNC_NOT_IMPL", -16: "UNKNOWN", 1: "UNKNOWN"}
    assert {code: qob.code_name(code) for code in names} == names
    big = tmp_path / "big.raw"
    big.write_bytes(random.Random(1).randbytes(4 << 20))
    for action in ("create", "extract", "remove"):
        seen = []
        if action == "create":
            qob.create(tmp_path / "p.qob", raw=big, settings=tmp_path / "edit.xmp",
                       progress=lambda done, total: seen.append((done, total)))
        elif action == "extract":
            qob.extract(tmp_path / "p.qob", tmp_path / "out", progress=lambda *a: seen.append(a))
        else:
            qob.remove(tmp_path / "p.qob", "big.raw", progress=lambda *a: seen.append(a))
        assert seen and seen[-1][0] == seen[-1][1] > 0, action
        assert all(a <= b for (a, _), (b, _) in zip(seen, seen[1:])), action
    # Off again after the call: nothing more is reported.
    seen.clear()
    qob.extract(tmp_path / "p.qob", tmp_path / "out2")
    assert seen == []


def test_log_lines_reach_logging_and_the_builtin_sink_has_a_threshold(tmp_path, capfd, caplog):
    caplog.set_level(qob.TRACE, logger="qob")
    assert not qob.is_package(tmp_path / "absent.qob")
    levels = {r.levelno for r in caplog.records if r.name == "qob"}
    assert {logging.ERROR, logging.DEBUG, qob.TRACE} <= levels
    assert any(r.getMessage() == "call: QOB_IsQob" for r in caplog.records)
    assert not any(r.getMessage().startswith("[QOB]") for r in caplog.records)
    # The built-in sink (standard output) prints up to the level set, every line by default.
    lib = qob._lib()
    lib.set_log(_native.LogFn(), None)
    try:
        printed = {}
        for level in (1, 5):
            lib.QOBX_SetLogLevel(level)
            capfd.readouterr()
            qob.is_package(tmp_path / "absent.qob")
            printed[level] = {line[:12] for line in capfd.readouterr().out.splitlines()}
        assert printed[1] == {"[QOB][ERROR]"}
        assert {"[QOB][ERROR]", "[QOB][TRACE]"} <= printed[5]
    finally:
        lib.QOBX_SetLogLevel(5)
        lib.set_log(lib._sink, None)


CHILD = """
import json, sys
sys.path.insert(0, sys.argv[1])
import qob
try:
    getattr(qob, sys.argv[2])(*sys.argv[3:])
    print(json.dumps(None))
except qob.Error as e:
    print(json.dumps([type(e).__mro__[2].__name__, e.name, e.errno, e.strerror, e.filename]))
"""


def run_child(wrap, *call):
    out = subprocess.run([*wrap, sys.executable, "-c", CHILD, str(SOURCE), *map(str, call)],
                         capture_output=True, text=True, timeout=120, check=True).stdout
    return json.loads(out.splitlines()[-1])


def root_with_namespaces():
    return hasattr(os, "geteuid") and os.geteuid() == 0 and shutil.which("unshare") and \
        shutil.which("setpriv") and subprocess.run(["unshare", "-m", "true"]).returncode == 0


@pytest.mark.skipif(not root_with_namespaces(), reason="needs root, unshare and setpriv")
def test_the_system_reason_reaches_python():
    # A place a second, unprivileged user can reach: pytest's own directories are private.
    place = pathlib.Path(tempfile.mkdtemp(prefix="qob-python-"))
    try:
        place.chmod(0o755)
        raw = place / "raw.bin"
        raw.write_bytes(random.Random(2).randbytes(3 << 20))
        qob.create(place / "p.qob", raw=raw)
        (place / "tiny").mkdir()
        full = run_child(["unshare", "-m", "sh", "-c",
                          'mount -t tmpfs -o size=1m tmpfs "$0" && exec "$@"', place / "tiny"],
                         "create", place / "tiny" / "p.qob", raw)
        assert full[2:4] == [errno.ENOSPC, os.strerror(errno.ENOSPC)]
        nobody = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"]
        denied = run_child(nobody, "remove", place / "p.qob", "raw.bin")
        assert denied[0] == "PermissionError" and denied[2] == errno.EACCES
        assert str(place / "p.qob") in denied[4]
    finally:
        shutil.rmtree(place)


def test_pip_install_offline_leaves_the_source_tree_clean(tmp_path, package):
    # A copy of the source tree with the library beside the package, as the README says.
    tree = tmp_path / "src"
    shutil.copytree(SOURCE, tree, ignore=shutil.ignore_patterns("__pycache__"))
    bundled = "qob.dll" if os.name == "nt" else "libqob.so.0"
    shutil.copy(os.environ["QOB_LIBRARY"], tree / "qob" / bundled)
    before = sorted(p.relative_to(tree) for p in tree.rglob("*"))
    target = tmp_path / "site"
    subprocess.run([sys.executable, "-m", "pip", "install", "--quiet", "--no-index",
                    "--no-build-isolation", "--target", str(target), str(tree)],
                   check=True, capture_output=True, timeout=300)
    assert sorted(p.relative_to(tree) for p in tree.rglob("*")) == before
    assert import_from(target, package) == [str(target / "qob" / bundled), RAW]


def import_from(site, package):
    """Imports the package installed at site, without QOB_LIBRARY: (library path, raw image)."""
    environment = {k: v for k, v in os.environ.items() if k != "QOB_LIBRARY"}
    environment["PYTHONPATH"] = str(site)
    return subprocess.run([sys.executable, "-c", "import qob, sys; "
                           "print(qob.library_path()); print(qob.info(sys.argv[1]).raw.path)",
                           str(package)], check=True, capture_output=True, text=True,
                          env=environment, cwd=site.parent, timeout=60).stdout.splitlines()


@pytest.mark.skipif(not os.environ.get("QOB_WHEEL_DIR"), reason="the build made no wheel")
def test_the_platform_wheel_bundles_the_library(tmp_path, package):
    wheels = list(pathlib.Path(os.environ["QOB_WHEEL_DIR"]).glob("qob-*.whl"))
    assert len(wheels) == 1 and wheels[0].name.endswith("-py3-none-linux_x86_64.whl")
    with zipfile.ZipFile(wheels[0]) as wheel:
        names = wheel.namelist()
    assert "qob/libqob.so.0" in names and "qob/py.typed" in names
    assert any(n.endswith(".dist-info/LICENSE") for n in names)
    target = tmp_path / "site"
    subprocess.run([sys.executable, "-m", "pip", "install", "--quiet", "--no-index",
                    "--target", str(target), str(wheels[0])],
                   check=True, capture_output=True, timeout=300)
    assert import_from(target, package) == [str(target / "qob" / "libqob.so.0"), RAW]

