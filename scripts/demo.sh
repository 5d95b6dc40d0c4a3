#!/usr/bin/env bash
# A tour of qob: installs what is missing, builds the command-line tool, makes a few sample
# files and walks through create, info, an in-place edit, a profile look-up, extract and rm.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${QOB_BUILD_DIR:-$root/build}/demo

"$root/scripts/install-deps.sh" >/dev/null
cmake -S "$root" -B "$build" -DQOB_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target qob_tool >/dev/null
qob=$build/bin/qob

work=$(mktemp -d "${TMPDIR:-/tmp}/qob demo.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work"

step() { printf '\n$ %s\n' "$*"; }
run() {
  step "qob ${*}"
  "$qob" "$@"
}

# Sample files: a made-up raw image, its settings, a proxy, two LCC and one ICC profile, a mask.
head -c 200000 /dev/urandom >IMG_0001.CR3
printf '<x:xmpmeta><Exposure>+0.30</Exposure></x:xmpmeta>\n' >settings.xmp
head -c 30000 /dev/urandom >proxy.jpg
printf 'lens cast calibration, wide\n' >wide.lcc
printf 'lens cast calibration, tele\n' >tele.lcc
printf 'display profile\n' >display.icc
head -c 4000 /dev/zero | tr '\0' 'm' >mask.msk

run create photo.qob --raw IMG_0001.CR3 --settings settings.xmp --proxy proxy.jpg \
  --lcc WIDE=wide.lcc --lcc TELE=tele.lcc --icc sRGB=display.icc --mask mask.msk
run info photo.qob

# Offset and name of every entry but the manifests, from the listing meant for scripts (names
# may hold spaces: no splitting on them).
offsets() {
  "$qob" ls --json photo.qob | python3 -c '
import json, sys
for entry in json.load(sys.stdin)["entries"]:
    if not entry["name"].startswith("manifest"):
        print(entry["dataOffset"], entry["name"])'
}
run ls photo.qob
step "qob ls --json photo.qob | (offset and name of each file)   # and the package size, before"
offsets
before_offsets=$(offsets)
before_size=$(stat -c %s photo.qob)
echo "size: $before_size bytes"

printf '<x:xmpmeta><Exposure>+0.70</Exposure><Contrast>12</Contrast><Crop>0 0 1 1</Crop></x:xmpmeta>\n' >settings.xmp
run update photo.qob --settings settings.xmp
step "qob ls --json photo.qob | (offset and name of each file)   # after: the settings fit"
offsets
after_size=$(stat -c %s photo.qob)
echo "size: $after_size bytes"
if [[ $before_size == "$after_size" && $before_offsets == "$(offsets)" ]]; then
  echo "=> rewritten in place: same size, no entry moved"
else
  echo "=> the package changed shape" >&2
  exit 1
fi
run cat photo.qob Quillmarsh/Settings1680/IMG_0001.CR3.xmp

run lcc photo.qob TELE
run extract photo.qob out
step "find out -type f"
(cd out && find . -type f | sort)
run rm photo.qob Quillmarsh/Settings1680/IMG_0001.CR3.msk
step "qob rm photo.qob IMG_0001.CR3   # refused: the package would no longer open"
"$qob" rm photo.qob IMG_0001.CR3 2>&1 || echo "(exit status $?)"
run check photo.qob
run verify photo.qob
step "qob check settings.xmp   # a negative answer, on standard error"
"$qob" check settings.xmp 2>&1 || echo "(exit status $?)"
