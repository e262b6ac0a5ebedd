#!/usr/bin/env bash
# Runs clang-tidy over the library and the tool, one process per processor. A unit without findings is checked
# again when one of its sources, a header, the set of checks or a compile command has changed.
set -euo pipefail

root=${1:?usage: $0 ROOT BUILD_DIR}
build=${2:?usage: $0 ROOT BUILD_DIR}
cd "$root"

# Sources are checked several at a time, because most of the time goes into headers that they share.
cmake --preset plain -B "$build" -DCMAKE_UNITY_BUILD=ON -DCMAKE_UNITY_BUILD_BATCH_SIZE=9 \
    -DFILEMANAGER_PRECOMPILE=OFF -DFILEMANAGER_BUILD_TESTS=OFF -DFILEMANAGER_BUILD_EXAMPLES=OFF \
    -DFILEMANAGER_BUILD_BENCH=OFF >"$build.log" || { cat "$build.log" >&2; exit 1; }
stamps=$build/stamps
mkdir -p "$stamps"
mapfile -t units < <(find "$build" -path '*/Unity/unity_*.cxx' | sort -r) # the tool takes longest
[ "${#units[@]}" -gt 0 ] || { echo "no source file found below $root" >&2; exit 1; }

common=$({ clang-tidy --version
           cat "${BASH_SOURCE[0]}" .clang-tidy "$build/compile_commands.json"
           find util tools -name '*.h' -print0 | sort -z | xargs -0 cat
         } | sha256sum | cut -d' ' -f1)

# Measured: the deep mode of the analyzer takes most of the time and finds nothing more here. Without the last option
# it would follow no path through the sources, which a unit includes.
lint_one() {
    local options=(-Xclang -analyzer-config -Xclang mode=shallow -Xclang -analyzer-opt-analyze-headers)
    local unit=$1 key log
    # In the tool it would also follow the paths of other libraries' headers, which takes minutes.
    [[ $unit != */tools/* ]] || options=("${options[@]:0:4}")
    key=$({ echo "$common $unit"; sed -n 's/^#include "\(.*\)"/\1/p' "$unit" | xargs cat; } | sha256sum | cut -d' ' -f1)
    [ ! -e "$stamps/$key" ] || return 0
    log=$(mktemp)
    if clang-tidy -p "$build" --quiet "${options[@]/#/--extra-arg=}" "$unit" >"$log" 2>&1; then
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
printf '%s\0' "${units[@]}" | xargs -0 -P "$(nproc)" -n 1 bash -c 'lint_one "$1"' lint
echo "lint: $(sed -n 's/^#include "\(.*\)"/\1/p' "${units[@]}" | wc -l) files without findings"
