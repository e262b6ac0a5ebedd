#!/usr/bin/env bash
# The Windows library and programs need the system's DLLs and filemanager.dll only.
# usage: check_dll.sh OBJDUMP FILE...
set -euo pipefail
objdump=${1:?usage: $0 OBJDUMP FILE...}
shift

system='^(kernel32|msvcrt|ole32|shell32|filemanager)\.dll$'
for file in "$@"; do
    needed=$("$objdump" -p "$file" | sed -n 's/^[[:space:]]*DLL Name: //p')
    [ -n "$needed" ] || { echo "$file: $objdump lists no DLL" >&2; exit 1; }
    if grep -ivE "$system" <<<"$needed" >&2; then
        echo "$file needs a DLL that is not the system's" >&2
        exit 1
    fi
done
echo "dll: $# files need the system's DLLs only"
