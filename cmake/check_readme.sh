#!/usr/bin/env bash
# Checks the pages for readers: the README shows the example that the tests compile and run, every link
# leads to a file and a heading of the tree, and code in a link's text is found where the link leads.
# shellcheck disable=SC2016  # the backquotes are part of the text
set -euo pipefail

root=${1:?usage: $0 ROOT}
cd "$root"
if ! diff -u examples/minimal/minimal.cpp <(sed -n '/^```cpp$/,/^```$/p' README.md | sed '1d;$d'); then
    echo "README.md shows another example than examples/minimal/minimal.cpp" >&2
    exit 1
fi

# The names that links use for the headings of a page.
anchors() {
    sed -nE '/^```/,/^```/d; s/^#+ //p' "$1" | tr '[:upper:]' '[:lower:]' | sed 's/[^a-z0-9 _-]//g; s/ /-/g'
}

links=0 failures=0
complain() {
    echo "$*" >&2
    failures=$((failures + 1))
}

# check_link PAGE TEXT TARGET
check_link() {
    local page=$1 text=$2 target=$3 file=$1 anchor='' where
    [[ $target != http*://* ]] || return 0
    links=$((links + 1))
    [[ $target != *'#'* ]] || anchor=${target#*#}
    [ -z "${target%%#*}" ] || file=$(dirname "$page")/${target%%#*}
    if [ ! -e "$file" ]; then
        complain "$page: no file for $target"
        return
    fi
    if [[ $file == *.md && -n $anchor ]]; then
        anchors "$file" | grep -qxF -- "$anchor" || complain "$page: no heading for $target"
    fi
    [[ $text == '`'*'`' ]] || return 0
    text=${text:1:-1} where='1,$'
    [[ ! $anchor =~ ^L[0-9]+$ ]] || where=${anchor#L}
    if ! sed -n "${where}p" "$file" | grep -F -- "$text" >/dev/null; then
        complain "$page: no '$text' in $target"
        grep -nF -- "$text" "$file" >&2 || true
    fi
}

for page in *.md docs/*.md; do
    while IFS=$'\t' read -r text target; do
        check_link "$page" "$text" "$target"
    done < <(sed '/^```/,/^```/d' "$page" | grep -oE '\[(`[^`]+`|[^]`]*)\]\([^)]+\)' |
        sed -E 's/^\[(.*)\]\(([^)]+)\)$/\1\t\2/')
done
if [ "$failures" -gt 0 ]; then
    echo "readme: $failures of $links links are wrong" >&2
    exit 1
fi
echo "readme: the example is the one that is compiled, $links links are right"
