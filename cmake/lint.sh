#!/usr/bin/env bash
# Runs clang-tidy over the library and the tool, one process per processor. A file without findings is checked
# again when it, a header, the set of checks or a compile command has changed.
set -euo pipefail

root=${1:?usage: $0 ROOT BUILD_DIR}
build=${2:?usage: $0 ROOT BUILD_DIR}
cd "$root"

stamps=$build/lint
mkdir -p "$stamps"
# Clang cannot read the headers that the compiler has precompiled.
sed -E 's# -Winvalid-pch -include [^ ]*/cmake_pch\.hxx##' "$build/compile_commands.json" >"$stamps/compile_commands.json"

# The tool is compiled as one unit: most of the time goes into headers that its sources share.
mapfile -t sources < <(
    find util -name '*.cpp' ! -name 'windows*.cpp' | sort
    find "$build/tools" -path '*/Unity/unity_*.cxx' | sort)
if [ "${#sources[@]}" -eq 0 ]; then
    echo "no source file found below $root" >&2
    exit 1
fi

common=$({ clang-tidy --version
           cat .clang-tidy "$stamps/compile_commands.json"
           find util tools \( -name '*.h' -o -path 'tools/*.cpp' \) -print0 | sort -z | xargs -0 -r cat
         } | sha256sum | cut -d' ' -f1)

# Measured: the deep mode of the analyzer takes most of the time and finds nothing more here.
lint_one() {
    local shallow=(-Xclang -analyzer-config -Xclang mode=shallow)
    local source=$1 key log
    key=$({ echo "$common $source"; cat "$source"; } | sha256sum | cut -d' ' -f1)
    [ ! -e "$stamps/$key" ] || return 0
    log=$(mktemp)
    if clang-tidy -p "$stamps" --quiet "${shallow[@]/#/--extra-arg=}" "$source" >"$log" 2>&1; then
        : >"$stamps/$key"
        rm -f "$log"
    else
        grep -vE '^[0-9]+ warnings? generated\.$' "$log" >&2 || true
        rm -f "$log"
        return 1
    fi
}
export -f lint_one
export common build stamps

# shellcheck disable=SC2016  # expanded by the inner shell
printf '%s\0' "${sources[@]}" | xargs -0 -P "$(nproc)" -n 1 bash -c 'lint_one "$1"' lint
echo "lint: ${#sources[@]} files without findings"
