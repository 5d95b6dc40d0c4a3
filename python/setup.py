"""Build hooks pyproject.toml cannot express.

- A copy of the library inside qob/ (libqob.so.0, qob.dll) makes the wheel a platform wheel,
  tagged py3-none-<platform>: the Python code runs on any Python 3, the library on one system.
- Building writes nothing into the source tree: setuptools' build/ and qob.egg-info/ go to a
  scratch directory, removed when the build ends.
"""
import atexit
import shutil
import tempfile
from pathlib import Path

from setuptools import Distribution, setup

try:
    from wheel.bdist_wheel import bdist_wheel
except ImportError:  # building without the wheel package: no wheel to tag
    bdist_wheel = None

HERE = Path(__file__).resolve().parent
BUNDLED = [p for pattern in ("libqob.so*", "qob.dll") for p in (HERE / "qob").glob(pattern)]

scratch = Path(tempfile.mkdtemp(prefix="qob-python-build-"))
atexit.register(shutil.rmtree, scratch, True)
options = {"build": {"build_base": str(scratch / "build")},
           "egg_info": {"egg_base": str(scratch)}}
commands = {}



class LibraryDistribution(Distribution):
    """With a bundled library the package is installed as platform code, whole."""

    def has_ext_modules(self):
        return bool(BUNDLED)


if bdist_wheel is not None:
    class PlatformWheel(bdist_wheel):
        """py3-none-<platform> when a library is bundled, py3-none-any otherwise."""

        def get_tag(self):
            python, abi, platform = super().get_tag()
            return ("py3", "none", platform) if BUNDLED else (python, abi, platform)

    commands["bdist_wheel"] = PlatformWheel

setup(distclass=LibraryDistribution, cmdclass=commands, options=options)
