#!/usr/bin/env bash
# Runs the blocks of README.md that follow a line <!-- run: NAME -->: the first program prints what README
# says after each way of building it against an installed copy.
# usage: readme.sh ROOT BUILD_DIR CMAKE CONFIG
set -euo pipefail
root=${1:?usage: $0 ROOT BUILD_DIR CMAKE CONFIG} build=$2 cmake=$3 config=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() { echo "readme: $*" >&2; exit 1; }

block() {
    awk -v start="<!-- run: $1 -->" '
        $0 == start { wanted = 1; next }
        wanted && /^```/ { if (open) exit; open = 1; next }
        open' "$root/README.md" >"$work/$1"
    [ -s "$work/$1" ] || fail "README.md has no block '$1'"
}
for name in first-program expected-output build-pkg-config build-cmake-lists build-cmake; do
    block "$name"
done
for pair in first-program:minimal.cpp build-cmake-lists:CMakeLists.txt; do
    diff -u "$work/${pair%:*}" "$root/examples/minimal/${pair#*:}" ||
        fail "block '${pair%:*}' differs from examples/minimal/${pair#*:}"
done

# Instead of building a release, ./run install PREFIX installs the present build.
mkdir "$work/tree" "$work/home"
cat >"$work/tree/run" <<STUB
#!/bin/sh
[ "\$#" -eq 2 ] && [ "\$1" = install ] || exit 2
exec "$cmake" --install "$build" --config "$config" --prefix "\$2" >/dev/null
STUB
chmod +x "$work/tree/run"

# Both blocks in one shell, as a reader runs them; each ends by running the program.
cd "$work/tree"
{ echo 'set -eu'; cat "$work/build-pkg-config" "$work/build-cmake"; } >"$work/lines"
env -u LD_LIBRARY_PATH HOME="$work/home" bash "$work/lines" >"$work/printed" ||
    { cat "$work/printed" >&2; fail "the lines to build against an installed copy fail"; }
[ "$(grep -cFxf "$work/expected-output" "$work/printed")" -eq 2 ] ||
    { cat "$work/printed" >&2; fail "the first program prints something else"; }
echo "readme: the first program builds and prints what README says, in both ways"
