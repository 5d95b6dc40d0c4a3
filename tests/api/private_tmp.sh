#!/bin/sh
# Runs a program with a lock of its own where the system allows a mount namespace: a fresh
# tmpfs, private to the namespace, becomes the user's runtime directory and so holds the
# per-user lock; the program's many calls then contend with nobody else on the machine.
# (/tmp itself stays as it is: the build may live there.)
dir=$(mktemp -d) || exit 1
trap 'rm -rf "$dir"' EXIT
if unshare -m sh -c 'mount -t tmpfs -o mode=700 tmpfs "$1"' sh "$dir" 2>/dev/null; then
  unshare -m sh -c 'mount -t tmpfs -o mode=700 tmpfs "$1" && shift &&
    XDG_RUNTIME_DIR="$0" exec "$@"' "$dir" "$dir" "$@"
  exit $?
fi
echo "no private mount namespace here: the lock lives in a fresh directory instead" >&2
XDG_RUNTIME_DIR="$dir" "$@"
