#!/usr/bin/env bash
# Installs, from Debian's packages, whatever this machine lacks to build and test qob.
# Runs as root (or through sudo); idempotent; never asks anything.
set -euo pipefail

packages=(
  cmake make g++ pkg-config zlib1g-dev libdeflate-dev libgtest-dev googletest libbenchmark-dev
  g++-mingw-w64-x86-64-posix libz-mingw-w64-dev wine wine64
  python3 python3-pytest python3-setuptools python3-pip unzip zip p7zip-full libarchive-tools
  util-linux clang lld llvm # clang and lld: the MSVC-mode host of the Windows suite, qob.lib
  libcli11-dev nlohmann-json3-dev # the tool's arguments and JSON (header-only)
  doxygen dpkg-dev tmux # reference docs; cpack -G DEB; the tool's progress bar on a terminal
  strace # the power-loss replay records each changing call's system calls
)
if [[ "${QOB_WITH_FUZZ:-0}" == 1 ]]; then
  packages+=(libclang-rt-14-dev)
fi
if [[ "${QOB_WITH_BENCH:-0}" == 1 ]]; then
  # bench/compare.py: the chart, and runs without device flushes to set against the others
  packages+=(gnuplot-nox eatmydata)
fi

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$package")
  fi
done

if ((${#missing[@]} == 0)); then
  echo "install-deps: everything is installed"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
sudo=()
if [[ $(id -u) -ne 0 ]]; then
  sudo=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
# A partial index failure (a mirror in sync) must not stop us; the install says what is missing.
"${sudo[@]}" apt-get update -q || true
"${sudo[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
