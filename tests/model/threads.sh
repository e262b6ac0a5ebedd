#!/usr/bin/env bash
# Checks threads.pml: no state of it violates an assertion or is a deadlock, and without any one of its rules one does.
# Prints the states, the seconds and the memory of each search. Exits with 77 if spin or gcc is missing.
set -euo pipefail
for program in spin gcc; do
    command -v $program >/dev/null || { echo "skipped, not installed: $program"; exit 77; }
done
model=$(cd "${BASH_SOURCE[0]%/*}" && pwd)/threads.pml
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
# Two objects on the path, with a failing disk and housekeeping, or with one operation more; two blocks in one object,
# which a batch may store together.
searches=("-DFILES=2 -DBLOCKS=1 -DOPS=4 -DFAULTS=1 -DHOUSE=1" "-DFILES=2 -DBLOCKS=1 -DOPS=5 -DFAULTS=0 -DHOUSE=0"
    "-DFILES=1 -DBLOCKS=2 -DOPS=4 -DFAULTS=1 -DHOUSE=0")

# The rule that is left out: its number.
echo '#include <stdlib.h>
int without;
__attribute__((constructor)) static void select_rule(void) { without = atoi(getenv("WITHOUT")); }' >without.c

# search NUMBER RULE: searches all states, or until the first violation, which becomes `found`.
search() {
    WITHOUT=$2 "./search$1" -n -m10000 >output
    # A search that reaches a limit would be incomplete.
    if grep -E 'max search depth|out of memory|resource' output; then return 1; fi
    found=$(sed -nE 's/^pan:1: (.*) \(at depth.*/\1/p' output)
    figures=$(sed -nE 's/^ *([0-9]+) states, stored.*/\1 states/p; s/^ *([0-9.]+)\ttotal actual memory.*/\1 MB/p
        s/^pan: elapsed time (.*) seconds/\1 s/p' output | paste -sd ' ')
    [ -n "$figures" ]
}

for number in "${!searches[@]}"; do
    # shellcheck disable=SC2086  # a list of words
    spin -a ${searches[number]} "$model"
    # -O0, because optimizing takes longer than it saves.
    gcc -O0 -w -DSAFETY -DCOLLAPSE -DMEMLIM=500 -o "search$number" pan.c without.c
    search "$number" 0
    echo "${searches[number]}: ${found:-no violation}, $figures"
    [ -z "$found" ] || exit 1
done

rules=$(sed -nE 's/^#define ([A-Z_]+) ([458][0-9]) .*/\1=\2/p' "$model")
[ "$(wc -w <<<"$rules")" -ge 16 ]
for rule in $rules; do
    for number in "${!searches[@]}"; do
        search "$number" "${rule#*=}"
        [ -z "$found" ] || break
    done
    echo "without ${rule%=*}: ${found:-NO VIOLATION}, $figures"
    [ -n "$found" ] || exit 1
done
