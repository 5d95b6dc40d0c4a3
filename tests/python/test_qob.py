"""The Python package against the real library (QOB_LIBRARY names it; QOB_PYTHON_SOURCE is
the package's source directory)."""
import datetime
import logging
import os
import pathlib
import random
import shutil
import subprocess
import sys
import zipfile

import pytest

SOURCE = pathlib.Path(os.environ.get("QOB_PYTHON_SOURCE",
                                     pathlib.Path(__file__).parents[2] / "python"))
sys.path.insert(0, str(SOURCE))
import qob  # noqa: E402

RAW = "IMG ü 0001.CR3"
SETTINGS_DIR = "Quillmarsh/Settings1680/"


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
    now = datetime.datetime.now()
    for name, entry in by_source.items():
        assert entry.size == len(sources[name]), name
        assert abs((entry.time - now).total_seconds()) < 3600 * 24, name
        assert qob.read(package, entry.path) == sources[name], name
        ascii_upper = "".join(c.upper() if c.isascii() else c for c in entry.path)
        assert qob.read(package, ascii_upper) == sources[name], name

    # Entries the manifest does not name are read too, sized without help from the manifest.
    manifest = qob.read(package, "manifest.xml")
    with zipfile.ZipFile(package) as archive:
        stored = archive.read("manifest.xml")  # content and its zero padding
    assert manifest.endswith(b"</Manifest>") and stored == manifest.ljust(len(stored), b"\0")

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

    # An entry another tool added, larger than the first buffer tried for unnamed entries.
    stray = random.Random(5).randbytes(100000) + b"\0\0"
    with zipfile.ZipFile(package, "a") as archive:
        archive.writestr("stray.bin", stray)
    assert qob.read(package, "stray.bin") == stray


def test_failures_raise_error(tmp_path, sources, package):
    plain = tmp_path / "plain.zip"
    with zipfile.ZipFile(plain, "w") as archive:
        archive.writestr("a.txt", "text")
    cases = [
        (lambda: qob.info(tmp_path / "absent.qob"), "PACKAGE_NOT_FOUND"),
        (lambda: qob.info(plain), "CANNOT_READ_FILE_PCK"),
        (lambda: qob.lcc(package, "la"), "FILE_NOT_IN_PACKAGE"),
        (lambda: qob.read(package, "no/such/entry"), "FILE_NOT_IN_PACKAGE"),
        (lambda: qob.remove(package, "no/such/entry"), "FILE_NOT_IN_PACKAGE"),
        (lambda: qob.create(package, raw=tmp_path / RAW), "CANNOT_REMOVE_FILE"),
    ]
    for call, name in cases:
        with pytest.raises(qob.Error) as caught:
            call()
        error = caught.value
        assert (error.name, qob.RESULT_NAMES[error.code]) == (name, name)
        assert error.message and error.message in str(error) and error.path in str(error)
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


def test_log_lines_reach_logging(tmp_path, caplog):
    caplog.set_level(qob.TRACE, logger="qob")
    assert not qob.is_package(tmp_path / "absent.qob")
    levels = {r.levelno for r in caplog.records if r.name == "qob"}
    assert {logging.ERROR, logging.DEBUG, qob.TRACE} <= levels
    assert any(r.getMessage() == "call: QOB_IsQob" for r in caplog.records)
    assert not any(r.getMessage().startswith("[QOB]") for r in caplog.records)


def test_pip_install_offline(tmp_path, package):
    # The package with a copy of the library beside it, installed without a package index.
    tree = tmp_path / "src"
    shutil.copytree(SOURCE, tree, ignore=shutil.ignore_patterns("build", "*.egg-info",
                                                                 "__pycache__"))
    library = pathlib.Path(os.environ["QOB_LIBRARY"])
    bundled = "qob.dll" if os.name == "nt" else "libqob.so.0"
    shutil.copy(library, tree / "qob" / bundled)
    target = tmp_path / "site"
    subprocess.run([sys.executable, "-m", "pip", "install", "--quiet", "--no-index",
                    "--no-build-isolation", "--target", str(target), str(tree)],
                   check=True, capture_output=True, timeout=300)
    environment = {k: v for k, v in os.environ.items() if k != "QOB_LIBRARY"}
    environment["PYTHONPATH"] = str(target)
    out = subprocess.run([sys.executable, "-c", "import qob, sys; "
                          "print(qob.library_path()); print(qob.info(sys.argv[1]).raw.path)",
                          str(package)], check=True, capture_output=True, text=True,
                         env=environment, cwd=tmp_path, timeout=60).stdout.splitlines()
    assert out == [str(target / "qob" / bundled), RAW]
