#!/bin/sh
# Runs a program with a private, empty /tmp in its own mount namespace where the system
# allows it, so that its many calls contend for the machine-wide lock with nobody else.
if unshare -m sh -c 'mount -t tmpfs tmpfs /tmp' 2>/dev/null; then
  exec unshare -m sh -c 'mount -t tmpfs tmpfs /tmp && exec "$@"' sh "$@"
fi
echo "no private mount namespace here: running with the shared /tmp" >&2
exec "$@"
