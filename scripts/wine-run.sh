#!/bin/sh
# Runs a Windows test program under Wine with a private, quiet prefix.
: "${WINEPREFIX:=${TMPDIR:-/tmp}/qob-wineprefix}"
export WINEPREFIX
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml="
exec wine "$@"
