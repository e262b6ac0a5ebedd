#!/usr/bin/env bash
# The example that the README shows is the one that the tests compile and run, and a link to a line of
# code leads to the line that it quotes.
set -euo pipefail

root=${1:?usage: $0 ROOT}
cd "$root"
if ! diff -u examples/minimal/minimal.cpp <(sed -n '/^```cpp$/,/^```$/p' README.md | sed '1d;$d'); then
    echo "README.md shows another example than examples/minimal/minimal.cpp" >&2
    exit 1
fi

links=0
# shellcheck disable=SC2016  # the backquotes are the text's
while IFS=$'\t' read -r code file line; do
    links=$((links + 1))
    if ! sed -n "${line}p" "$file" | grep -qF -- "$code"; then
        echo "README.md: $file has no '$code' in line $line" >&2
        grep -nF -- "$code" "$file" >&2 || true
        exit 1
    fi
done < <(grep -oE '\[`[^`]+`\]\([^)#]+#L[0-9]+\)' README.md |
    sed -E 's/^\[`([^`]+)`\]\(([^)#]+)#L([0-9]+)\)$/\1\t\2\t\3/')
echo "readme: shows the example that is compiled, $links links lead to what they quote"
