#!/usr/bin/env bash
# Sets up a fresh machine and runs every test: the native build, the Windows build under
# Wine, and the native build again under AddressSanitizer and UndefinedBehaviorSanitizer.
# Then it builds (without running) the Release configuration and the fuzzers (clang), so
# that the ways people build keep building. Warnings are errors throughout.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${QOB_BUILD_DIR:-$root/build}
jobs=${QOB_JOBS:-$(nproc)}

QOB_WITH_FUZZ=1 "$root/scripts/install-deps.sh"

export WINEPREFIX=${WINEPREFIX:-$build/wineprefix}
export CTEST_OUTPUT_ON_FAILURE=1

configure_and_build() {
  local dir=$1
  shift
  cmake -S "$root" -B "$dir" -DQOB_BUILD_TESTS=ON -DQOB_WERROR=ON "$@"
  cmake --build "$dir" -j "$jobs"
}

failed=()
# Extra arguments go to ctest. Packages past 2 GiB (label big) run on their own, below.
run_suite() {
  local name=$1 dir=$2
  shift 2
  local selection=("$@")
  ((${#selection[@]} > 0)) || selection=(-j "$jobs" -LE big)
  echo "=== $name ==="
  ctest --test-dir "$dir" --timeout 900 "${selection[@]}" || failed+=("$name")
}

configure_and_build "$build/native"
run_suite "native (Linux, libqob.so)" "$build/native"

configure_and_build "$build/windows" \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake"
WINEDEBUG=-all wineboot --init >/dev/null 2>&1 || true
run_suite "windows (qob.dll under Wine)" "$build/windows"

configure_and_build "$build/sanitize" -DQOB_SANITIZE=ON
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  run_suite "native with address,undefined sanitizers" "$build/sanitize"

echo "=== Release build ==="
configure_and_build "$build/release" -DCMAKE_BUILD_TYPE=Release || failed+=("Release build")
echo "=== fuzz build (clang, libFuzzer) ==="
configure_and_build "$build/fuzz" -DQOB_FUZZ=ON -DCMAKE_C_COMPILER=clang \
  -DCMAKE_CXX_COMPILER=clang++ || failed+=("fuzz build")

# One at a time: each writes about 5 GiB.
run_suite "packages past 2 GiB, Linux" "$build/native" -L big
run_suite "packages past 2 GiB, Windows under Wine" "$build/windows" -L big

if ((${#failed[@]} > 0)); then
  printf 'FAILED suite: %s\n' "${failed[@]}" >&2
  exit 1
fi
