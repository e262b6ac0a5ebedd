#!/usr/bin/env bash
# Compares the symbols that the shared library exports with a committed list, or writes that list.
# usage: exports.sh compare|update LIST LIBRARY [NM [OBJDUMP]]
#
# One line per symbol, demangled; ELF symbols are preceded by nm's letter for their type. Constructors and
# destructors have several symbols of one name, so a line can occur more than once.
set -euo pipefail
export LC_ALL=C
usage="usage: $0 compare|update LIST LIBRARY [NM [OBJDUMP]]"
mode=${1:?$usage} list=${2:?$usage} library=${3:?$usage} nm=${4:-nm} objdump=${5:-objdump}

case $library in
    *.dll)
        symbols=$("$objdump" -p "$library" | sed -nE '/^\[Ordinal\/Name Pointer\] Table/,/^$/ {
            s/^[[:space:]]*\[ *[0-9]+\] (.*[^[:space:]])[[:space:]]*$/\1/p }')
        ;;
    *) symbols=$("$nm" -D --defined-only "$library" | cut -d' ' -f2-) ;;
esac
exported=$(c++filt <<<"$symbols" | sort)
[ "$(wc -l <<<"$exported")" -gt 50 ] || { echo "exports: cannot read the symbols of $library" >&2; exit 1; }

# An update must not accept these: the standard library's templates, and symbols that are unique in the
# process (type u), which keep a library from being unloaded.
if grep -E '^u |^([A-Za-z] )?(.*(table|typeinfo|typeinfo name|guard variable) for )?(std|__gnu_cxx)::' \
    <<<"$exported" >&2; then
    echo "exports: $library exports what is not part of its interface" >&2
    exit 1
fi

case $mode in
    update)
        printf '%s\n' "$exported" >"$list"
        ;;
    compare)
        diff -u --label "$list" --label "$library" "$list" - <<<"$exported" >&2 || {
            echo "exports: if the change is intended, run: $0 update $list $library ${nm##*/} ${objdump##*/}" >&2
            exit 1
        }
        ;;
    *)
        echo "$usage" >&2
        exit 2
        ;;
esac
echo "exports: $(wc -l <<<"$exported") symbols, $mode $list"
