#!/bin/sh
# The tool holds no copy of the library: its unstripped binary defines no QOB:: symbol, and
# its link line names no static library (the shared library and the system's only).
# usage: tool_link_test.sh TOOL NM LINK_TXT
tool=$1 nm=$2 link=$3
fail() { echo "tool_link_test: $*" >&2; exit 1; }
[ -f "$link" ] || fail "no link line at $link"
symbols=$("$nm" -C "$tool" | grep -c 'QOB::')
[ "$symbols" -eq 0 ] || fail "$tool defines $symbols QOB:: symbols"
archives=$(tr ' ' '\n' < "$link" | grep '\.a$')
[ -z "$archives" ] || fail "static libraries on the link line: $archives"
grep -q 'libqob\.so' "$link" || fail "the tool does not link libqob.so: $(cat "$link")"
echo "tool_link_test: no QOB:: symbols, no static library, libqob.so linked"
