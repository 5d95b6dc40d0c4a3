#!/usr/bin/env bash
# Installs the Windows build into a temporary prefix, then builds the MSVC-mode host against
# the installed qob.lib, as C and as C++, and runs both under Wine beside the installed DLL.
# usage: msvc_host_test.sh BUILD_DIR SOURCE_DIR CLANG LLD_LINK DLLTOOL WINE_RUNNER
set -euo pipefail

build=$1
source=$2
clang=$3
lld_link=$4
dlltool=$5
wine_run=$6
name=msvc_host_test
source "${BASH_SOURCE%/*}/../common/install_prefix.sh"
[[ -f $prefix/lib/qob.lib ]] || fail "qob.lib not installed"
[[ -f $prefix/bin/qob.dll ]] || fail "qob.dll not installed"
"$dlltool" -m i386:x86-64 -d "$source/kernel32.def" -l "$work/kernel32.lib"

for language in c c++; do
  echo "--- host compiled as $language"
  run=$work/run-$language
  mkdir -p "$run"
  standard=(-std=c11)
  [[ $language == c++ ]] && standard=(-std=c++20 -fno-exceptions -fno-rtti)
  "$clang" --target=x86_64-pc-windows-msvc -x "$language" "${standard[@]}" -ffreestanding \
    -fno-stack-protector -O1 -Wall -Wextra -Wpedantic -Werror -I "$prefix/include" \
    -c "$source/msvc_host.c" -o "$work/host-$language.obj"
  "$lld_link" -nologo -entry:HostMain -subsystem:console -nodefaultlib \
    -out:"$run/msvc_host.exe" "$work/host-$language.obj" "$prefix/lib/qob.lib" \
    "$work/kernel32.lib"
  cp "$prefix/bin/qob.dll" "$run/"
  (cd "$run" && "$wine_run" ./msvc_host.exe) | tee "$work/output" \
    || fail "the host compiled as $language failed"
  grep -q "all checks passed" "$work/output" || fail "the host compiled as $language stopped early"
done
