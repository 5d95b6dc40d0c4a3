#!/usr/bin/env bash
# Windows build: installs into a temporary prefix, checks what lands there and what the ZIP
# distribution holds, then builds a host with find_package(qob) and the MinGW toolchain and
# runs it, and the installed tool, under Wine.
# usage: windows_install_test.sh BUILD_DIR CONSUMER_SOURCE_DIR TOOLCHAIN_FILE WINE_RUNNER VERSION
set -euo pipefail

build=$1
consumer=$2
toolchain=$3
wine_run=$4
version=$5
name=windows_install_test
source "${BASH_SOURCE%/*}/../common/install_prefix.sh"
expected=(bin/qob.dll bin/qob.exe lib/qob.lib lib/libqob.dll.a include/qob/qob.h
  include/qob/qob_ext.h lib/cmake/qob/qobConfig.cmake lib/cmake/qob/qobConfigVersion.cmake
  lib/cmake/qob/qobTargets.cmake lib/cmake/qob/LICENSE README.md LICENSE)
for file in "${expected[@]}"; do
  [[ -f $prefix/$file ]] || fail "$file not installed"
done

echo "--- cpack"
(cd "$build" && cpack -G ZIP -B "$work/pack" >/dev/null) || fail "cpack failed"
zip=$work/pack/qob-$version-win64.zip
[[ -f $zip ]] || fail "no $(basename "$zip")"
listing=$(unzip -Z1 "$zip")
for file in "${expected[@]}"; do
  grep -qx "$file" <<<"$listing" || fail "$file missing from the ZIP: $listing"
done

echo "--- the installed tool"
status=0
answer=$(cd "$prefix/bin" && "$wine_run" ./qob.exe check absent.qob 2>&1) || status=$?
# Exit status 4: not found, and the reason in words.
[[ $status == 4 && $answer == *"absent.qob"* ]] || fail "installed qob.exe ($status): $answer"

echo "--- find_package(qob) with the MinGW toolchain"
# The toolchain confines package searches to the MinGW root: name the package directly.
cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
  -Dqob_DIR="$prefix/lib/cmake/qob" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
cp "$prefix/bin/qob.dll" "$work/cmake-build/"
output=$(cd "$work/cmake-build" && "$wine_run" ./consumer.exe .) || fail "consumer failed: $output"
echo "$output"
[[ $output == *"c host: wrote"* ]] || fail "consumer: $output"
