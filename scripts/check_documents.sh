#!/usr/bin/env bash
# Every link of the installed documents leads to an installed file.
# usage: check_documents.sh DIRECTORY
set -euo pipefail
cd "${1:?usage: $0 DIRECTORY}"
links=0 dead=0
while IFS=: read -r page target; do
    links=$((links + 1))
    file=${target%%#*}
    if [ -n "$file" ] && [ ! -e "$(dirname "$page")/$file" ]; then
        echo "$page: no file for $target" >&2
        dead=$((dead + 1))
    fi
done < <(for page in $(find . -name '*.md'); do
    sed '/^```/,/^```/d' "$page" | { grep -oE '\]\([^) ]+\)' || true; } | sed -E 's/^..(.*).$/\1/' |
        { grep -v '^[a-z]*:' || true; } | sed "s|^|$page:|"
done)
[ "$links" -gt 20 ] || { echo "documents: only $links links found in $1" >&2; exit 1; }
[ "$dead" -eq 0 ] || exit 1
echo "documents: $links links lead to installed files"
