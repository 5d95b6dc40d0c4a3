#!/bin/sh
# Runs the C host's checks of a prepared system in a private mount namespace with a fresh /tmp:
# a 1 MiB tmpfs to fill, and files of root's that a second user (a real uid, through setpriv)
# may not read or write into. Needs root; exits 77 (skipped) without it or without namespaces.
# usage: host_system_test.sh HOST
host=$1
if [ "$(id -u)" != 0 ] || ! command -v unshare >/dev/null || ! command -v setpriv >/dev/null; then
  echo "skipped: needs root, unshare and setpriv"
  exit 77
fi
if ! unshare -m true 2>/dev/null; then
  echo "skipped: no mount namespace allowed here"
  exit 77
fi
case $host in
/tmp/*)
  echo "skipped: the build is under /tmp, which the namespace replaces"
  exit 77
  ;;
esac
exec unshare -m sh -eu -c '
  host=$1
  mount -t tmpfs -o mode=1777 tmpfs /tmp
  unset XDG_RUNTIME_DIR
  cd /tmp
  mkdir full
  mount -t tmpfs -o size=1m,mode=1777 tmpfs full
  "$host" --disk-full full

  mkdir -m 755 denied
  "$host" --make denied/private.qob
  chmod 600 denied/private.qob
  "$host" --make denied/public.qob
  setpriv --reuid 65534 --regid 65534 --clear-groups "$host" --denied denied
' sh "$host"
