#!/usr/bin/env bash
# Installs a built tree into a temporary prefix, then builds and runs a small host against it
# twice: through find_package(qob) and through pkg-config.
# usage: install_test.sh BUILD_DIR CONSUMER_SOURCE_DIR C_COMPILER
set -euo pipefail

build=$1
consumer=$2
cc=$3
name=install_test
source "${BASH_SOURCE%/*}/../common/install_prefix.sh"
[[ -f $prefix/include/qob/qob.h && -f $prefix/include/qob/qob_ext.h ]] || fail "headers not installed"
pc=$(find "$prefix" -name qob.pc -path '*/pkgconfig/*')
[[ -n $pc ]] || fail "qob.pc not installed"
libdir=$(dirname "$(dirname "$pc")")
[[ -e $libdir/libqob.so && -e $libdir/libqob.so.0 ]] || fail "library not installed in $libdir"
[[ -f $libdir/cmake/qob/qobConfig.cmake && -f $libdir/cmake/qob/qobConfigVersion.cmake ]] \
  || fail "CMake package files not installed"
for file in include/qob/qob_ext.h share/man/man1/qob.1 share/doc/qob/LICENSE \
  share/doc/qob/copyright; do
  [[ -f $prefix/$file ]] || fail "$file not installed"
done
cmp -s "$libdir/cmake/qob/LICENSE" "$prefix/share/doc/qob/LICENSE" \
  || fail "the CMake package has no licence"

# The installed tool finds the installed library.
answer=$("$prefix/bin/qob" check "$work/absent.qob" 2>&1 || true)
[[ $answer == *"No such file or directory"* ]] || fail "installed qob: $answer"

echo "--- cpack"
(cd "$build" && cpack -G TGZ -B "$work/pack" >/dev/null) || fail "cpack failed"
tarball=$(find "$work/pack" -maxdepth 1 -name 'qob-*.tar.gz')
[[ -n $tarball ]] || fail "no .tar.gz"
listing=$(tar -tzf "$tarball")
for file in include/qob/qob.h include/qob/qob_ext.h lib/libqob.so lib/cmake/qob/qobConfig.cmake bin/qob; do
  grep -q "^\(\./\)\?$file\$" <<<"$listing" || fail "$file missing from the .tar.gz: $listing"
done

echo "--- cpack -G DEB"
(cd "$build" && cpack -G DEB -B "$work/deb" >/dev/null) || fail "cpack -G DEB failed"
deb=$(find "$work/deb" -maxdepth 1 -name 'qob_*.deb')
[[ -n $deb ]] || fail "no .deb"
for field in Maintainer Depends Description; do
  [[ -n $(dpkg-deb -f "$deb" "$field") ]] || fail "the .deb has no $field"
done
depends=$(dpkg-deb -f "$deb" Depends)
[[ $depends == *libc6* && $depends == *zlib1g* ]] || fail "the .deb depends on: $depends"
contents=$(dpkg-deb -c "$deb")
for file in usr/bin/qob usr/include/qob/qob_ext.h usr/share/man/man1/qob.1 \
  usr/share/doc/qob/copyright; do
  grep -q "\./$file\$" <<<"$contents" || fail "$file missing from the .deb: $contents"
done
grep -q "libqob\.so\.0" <<<"$contents" || fail "no libqob.so.0 in the .deb"
# Installable: dpkg unpacks and configures it into a root of its own, with an empty package
# database there (so its dependencies count as missing, which is forced).
root=$work/root
mkdir -p "$root/var/lib/dpkg/updates" "$root/var/lib/dpkg/info"
touch "$root/var/lib/dpkg/status"
dpkg --root="$root" --force-depends --force-not-root --force-script-chrootless \
  --log=/dev/null -i "$deb" >/dev/null || fail "dpkg -i failed"
[[ -x $root/usr/bin/qob ]] || fail "dpkg installed no qob"
answer=$(LD_LIBRARY_PATH="$root/usr/lib" "$root/usr/bin/qob" check "$work/absent.qob" 2>&1 || true)
[[ $answer == *"No such file or directory"* ]] || fail "qob from the .deb: $answer"

echo "--- find_package(qob)"
cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
"$work/cmake-build/consumer" "$work"

echo "--- pkg-config"
export PKG_CONFIG_PATH=$libdir/pkgconfig
[[ $(pkg-config --modversion qob) == "$(sed -n 's/^Version: //p' "$pc")" ]] || fail "pkg-config"
# The .pc file's paths are relative to its own place, so the flags name the temporary prefix.
# pkg-config escapes the spaces in them with backslashes: let the shell undo that.
eval "flags=($(pkg-config --cflags --libs qob))"
[[ " ${flags[*]} " == *" -I"*"/include "* ]] || fail "no include flag: ${flags[*]}"
"$cc" -std=c11 -Wall -Wextra -Werror -o "$work/pc-consumer" "$consumer/../../c/c_host.c" \
  "$consumer/../../c/host_ext.c" "$consumer/../../c/host_names.c" "$consumer/../../c/host_system.c" \
  "${flags[@]}" \
  -Wl,-rpath,"$libdir"
"$work/pc-consumer" "$work"
