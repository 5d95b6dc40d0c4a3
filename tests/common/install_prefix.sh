# Sourced by the install tests after setting $build and $name: a scratch directory with a
# space in its path (removed on exit), fail(), and the build installed into $prefix.
work=$(mktemp -d "${TMPDIR:-/tmp}/qob $name.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
fail() {
  echo "$name: $*" >&2
  exit 1
}
cmake --install "$build" --prefix "$prefix" >/dev/null
