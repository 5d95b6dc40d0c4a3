#!/bin/sh
# Runs a program in its own mount namespace where the system allows it, with a private,
# empty /tmp (and /run/user), and without XDG_RUNTIME_DIR: the per-user lock then lives in
# the private /tmp, so the program's many calls contend for it with nobody else.
private='mount -t tmpfs tmpfs /tmp && { [ ! -d /run/user ] || mount -t tmpfs tmpfs /run/user; }'
if unshare -m sh -c "$private" 2>/dev/null; then
  exec unshare -m sh -c "$private"' && unset XDG_RUNTIME_DIR && exec "$@"' sh "$@"
fi
echo "no private mount namespace here: running with the shared /tmp" >&2
exec "$@"
