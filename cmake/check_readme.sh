#!/usr/bin/env bash
# The example that the README shows is the one that the tests compile and run.
set -euo pipefail

root=${1:?usage: $0 ROOT}
if ! diff -u "$root/examples/minimal/minimal.cpp" \
        <(sed -n '/^```cpp$/,/^```$/p' "$root/README.md" | sed '1d;$d'); then
    echo "README.md shows another example than examples/minimal/minimal.cpp" >&2
    exit 1
fi
echo "readme: shows the example that is compiled"
