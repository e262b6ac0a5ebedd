#!/usr/bin/env bash
# The tool of each system verifies and reads the cached files that the other system's tool has written.
# usage: support_both_systems.sh FMCACHE OTHER_FMCACHE BUILD_DIR
set -euo pipefail
here=${1:?usage: $0 FMCACHE OTHER_FMCACHE BUILD_DIR} there=${2:?} build=${3:?}
work=$(mktemp -d "$build/both_systems.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work"

# Names that are not ASCII are the same on both.
head -c 3000017 /dev/urandom >Maße
: >empty
for pair in "$here|$there" "$there|$here"; do
    first=${pair%|*} second=${pair#*|}
    for file in Maße empty; do
        id=$("$first" put --dir Büro "$file" --block 65521)
        "$second" verify --dir Büro "$id" >/dev/null
        "$second" get --dir Büro "$id" -o back --force
        cmp "$file" back
    done
done
# Both tools print the same details.
for verb in 'ls --dir Büro --json' "show --dir Büro $id --json" 'verify --dir Büro --json'; do
    # shellcheck disable=SC2086  # words
    cmp <("$here" $verb | sed 's/"store": *"[^"]*"//') <("$there" $verb | sed 's/"store": *"[^"]*"//')
done
"$here" rm --dir Büro "$id"
! "$there" show --dir Büro "$id" 2>/dev/null
echo "cached files of both systems are the same to both"
