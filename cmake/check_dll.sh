#!/usr/bin/env bash
# The Windows library exports exactly what its list names, the list leaves nothing out that a header marks,
# and the library and the programs need no DLL but the system's own.
# usage: check_dll.sh OBJDUMP DEF_FILE DLL PROGRAM...
set -euo pipefail
objdump=${1:?usage: $0 OBJDUMP DEF_FILE DLL PROGRAM...} def=$2 dll=$3
shift 2

listed=$(sed -nE '1,/^EXPORTS/d; s/^ +([^ ]+).*/\1/p' "$def" | sort)
exported=$("$objdump" -p "$dll" |
    sed -nE '/^\[Ordinal\/Name Pointer\] Table/,/^$/s/^[[:space:]]*\[ *[0-9]+\] (.*[^[:space:]])[[:space:]]*$/\1/p' | sort)
if ! diff <(echo "$listed") <(echo "$exported") >&2; then
    echo "$dll exports something else than $def lists (< listed, > exported)" >&2
    exit 1
fi

# Functions by their names; of a class at least one member.
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
marked=$(sed -nE 's/^ *(class|struct) RT_EXPORT ([A-Za-z]+).*/\2::/p
                  s/^RT_EXPORT [^(]*[ *&](\w+|operator<)\(.*/\1(/p' "$root"/util/h/*.h "$root"/util/runtime/*.h)
[ -n "$marked" ] || { echo "no header marks anything: not looked at rightly" >&2; exit 1; }
names=$(c++filt <<<"$listed")
while read -r name; do
    grep -qF -- "$name" <<<"$names" || { echo "$def leaves out $name, which a header marks" >&2; exit 1; }
done <<<"$marked"

system='^(kernel32|msvcrt|ole32|shell32|filemanager)\.dll$'
for file in "$@"; do
    needed=$("$objdump" -p "$file" | sed -n 's/^[[:space:]]*DLL Name: //p')
    [ -n "$needed" ] || { echo "$file needs no DLL at all: not looked at rightly" >&2; exit 1; }
    if grep -ivE "$system" <<<"$needed" >&2; then
        echo "$file needs a DLL that is not the system's" >&2
        exit 1
    fi
done
echo "dll: $(wc -l <<<"$exported") names exported, all of them listed, $(wc -l <<<"$marked") marks; $# files need the system's DLLs alone"
