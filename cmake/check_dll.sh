#!/usr/bin/env bash
# The Windows library and programs need the system's DLLs and filemanager.dll only, and have the system's protection
# against attacks. The library is a release, has a version, opens no console, and has its symbols in a file of their own.
# usage: check_dll.sh OBJDUMP VERSION FILE...
set -euo pipefail
objdump=${1:?usage: $0 OBJDUMP VERSION FILE...}
version=${2:?usage: $0 OBJDUMP VERSION FILE...}
shift 2

fail() {
    echo "$1" >&2
    exit 1
}

system='^(kernel32|msvcrt|ole32|shell32|filemanager)\.dll$'
for file in "$@"; do
    headers=$("$objdump" -p "$file")
    needed=$(sed -n 's/^[[:space:]]*DLL Name: //p' <<<"$headers")
    [ -n "$needed" ] || fail "$file: $objdump lists no DLL"
    if grep -ivE "$system" <<<"$needed" >&2; then
        fail "$file needs a DLL that is not the system's"
    fi
    for protection in DYNAMIC_BASE NX_COMPAT; do
        grep -qw "$protection" <<<"$headers" || fail "$file lacks $protection"
    done
    sections=$("$objdump" -h "$file")
    grep -qw '\.reloc' <<<"$sections" || fail "$file has no relocations, so its address cannot be randomized"
    [[ $file == *.dll ]] || continue

    grep -q '^Subsystem.*(Windows GUI)' <<<"$headers" || fail "$file is a console program"
    if grep -wE 'AllocConsole|AttachConsole|CreateProcess[AW]|ShellExecute[AW]' <<<"$headers" >&2; then
        fail "$file can open a console"
    fi
    if grep -w '_assert' <<<"$headers" >&2; then
        fail "$file is no release: it contains assertions"
    fi
    # The strings of the resource are in UTF-16: without the zeros, name and value follow each other.
    resource=$(tr -d '\0' <"$file" | grep -aoE 'ProductVersion[0-9.]+' || true)
    [ "$resource" = "ProductVersion$version" ] || fail "$file does not have the version $version"
    if grep -w '\.debug_info' <<<"$sections" >&2; then
        fail "$file contains debug information"
    fi
    grep -qw '\.gnu_debuglink' <<<"$sections" || fail "$file does not name the file of its symbols"
    symbols=$("$objdump" -t "$file.debug")
    grep -q 'CFileManager' <<<"$symbols" || fail "$file.debug has no symbols"
    grep -aq 'util/filemanager' "$file.debug" || fail "$file.debug has no line numbers of the library"
done
echo "dll: $# files need the system's DLLs only and are protected; the library has version $version"
