#!/usr/bin/env bash
# Checks which layer includes which, and that code for one system stays in util/runtime/os:
#
#   util/runtime        includes itself only
#   util/h              includes itself and util/runtime
#   util/filemanager    includes util
#   tools, examples     include their own directory and exported headers
#
# Exported headers include exported headers only.
set -euo pipefail

root=${1:?usage: $0 ROOT}
cd "$root"

failures=0
complain() {
    echo "$1:$2: $3" >&2
    failures=$((failures + 1))
}

# Prints the file of the tree that an include names, or nothing. util/filemanager is searched, too, so that an
# include without a directory cannot reach it unnoticed.
resolve() {
    local from=$1 name=$2 dir
    for dir in "${from%/*}" util/h util/runtime . util util/filemanager util/runtime/os; do
        if [ -f "$dir/$name" ]; then
            realpath --relative-to=. "$dir/$name"
            return
        fi
    done
}

layer() {
    case $1 in
        util/runtime/os/RtGuid.h) echo runtime ;; # exported
        util/runtime/os/*) echo os ;;
        util/runtime/*) echo runtime ;;
        util/h/*) echo shared ;;
        util/filemanager/*) echo manager ;;
        *) echo "${1%/*}" ;;
    esac
}

allowed() {
    local from=$1 to=$2
    case $(layer "$from") in
        os) [[ $to =~ ^(os|runtime)$ ]] ;;
        runtime)
            if [[ $from == *.h ]]; then [[ $to == runtime ]]; else [[ $to =~ ^(os|runtime)$ ]]; fi ;;
        shared) [[ $to =~ ^(shared|runtime)$ ]] ;;
        manager) [[ $to =~ ^(manager|shared|runtime|os)$ ]] ;;
        *) [[ $to == "${from%/*}" || $to =~ ^(shared|runtime)$ ]] ;;
    esac
}

files=0
while IFS= read -r file; do
    files=$((files + 1))
    while IFS=: read -r line name; do
        target=$(resolve "$file" "$name")
        [ -n "$target" ] || continue
        to=$(layer "$target")
        allowed "$file" "$to" || complain "$file" "$line" "must not include $target"
    done < <(sed -nE '/^[[:space:]]*#[[:space:]]*include[[:space:]]*[<"][^>"]+[>"]/ {
                 =; s/^[^<"]*[<"]([^>"]+)[>"].*$/\1/; p }' "$file" | paste -d: - -)
done < <(find util/runtime util/h util/filemanager tools examples \
             -type f \( -name '*.h' -o -name '*.cpp' \) | sort)

if [ "$files" -eq 0 ]; then
    echo "no source file found below $root" >&2
    exit 1
fi

while IFS=: read -r file line text; do
    complain "$file" "$line" "code for one system outside util/runtime/os/: $text"
done < <(grep -rnE --include='*.h' --include='*.cpp' \
             '^[[:space:]]*#[[:space:]]*(el)?if.*(_WIN32|_WIN64|__linux__|__unix__|__APPLE__)' \
             util tools examples tests bench fuzz 2>/dev/null |
         grep -vE '^util/runtime/(os/|RtExport\.h:)' || true)

if [ "$failures" -gt 0 ]; then
    echo "layers: $failures violations in $files files" >&2
    exit 1
fi
echo "layers: $files files include their own and lower layers only"
