#!/bin/sh
# usage: docs_test.sh DOXYGEN DOXYFILE
# The build's own configuration, written into a scratch directory: the headers must give no
# warning, and a header with an undocumented function must fail the run.
doxygen=$1 doxyfile=$2
fail() { echo "docs_test: $*" >&2; exit 1; }
work=$(mktemp -d) || exit 1
trap 'rm -rf "$work"' EXIT

{ cat "$doxyfile"; echo "OUTPUT_DIRECTORY = $work/out"; } > "$work/Doxyfile"
"$doxygen" "$work/Doxyfile" > "$work/log" 2>&1 || fail "the headers fail: $(cat "$work/log")"
[ ! -s "$work/log" ] || fail "the headers give warnings: $(cat "$work/log")"
[ -f "$work/out/html/index.html" ] || fail "no index.html"
[ -f "$work/out/html/qob_8h.html" ] || fail "no page for qob.h"
grep -q QOBX_SetProgressFn "$work/out/html/qob__ext_8h.html" 2>/dev/null ||
  fail "no page for qob_ext.h, or it leaves out QOBX_SetProgressFn"

mkdir "$work/extra"
printf '/** @file extra.h\n * @brief x */\nint undocumented(int a);\n' > "$work/extra/extra.h"
{ cat "$work/Doxyfile"; echo "INPUT += $work/extra"; } > "$work/Failing"
if "$doxygen" "$work/Failing" > "$work/log" 2>&1; then
  fail "an undocumented function did not fail the run"
fi
grep -q "undocumented" "$work/log" || fail "no warning named it: $(cat "$work/log")"
echo "docs_test: no warnings; a warning fails the run"
