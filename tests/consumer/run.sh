#!/usr/bin/env bash
# Installs a build, shared or static, into a temporary prefix and uses it as a caller does: through the
# CMake package, through pkg-config, and header by header. The links of installed documents are checked.
set -euo pipefail

if [ $# -ne 6 ] && [ $# -ne 8 ]; then
    echo "usage: $0 BUILD_DIR CONSUMER_DIR CMAKE GENERATOR COMPILER CONFIG [TOOLCHAIN EMULATOR]" >&2
    exit 2
fi
build=$1 consumer=$2 cmake=$3 generator=$4 compiler=$5 config=$6 toolchain=${7:-} emulator=${8:-}

# The emulator reaches the files of the build directory only.
if [ -n "$emulator" ]; then work=$(mktemp -d "$build/consumer.XXXXXX"); else work=$(mktemp -d); fi
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

# A copy outside the source tree finds installed headers only.
mkdir "$work/consumer"
cp "$consumer/CMakeLists.txt" "$consumer/consumer.cpp" "$work/consumer/"

"$cmake" --install "$build" --prefix "$prefix" --config "$config" >"$work/install.log"

# runs PROGRAM: everything that the program queued must be on disk after it ended.
runs() {
    local command=("$1") id
    if [ -n "$emulator" ]; then # Windows finds the DLL beside the program
        mv "$1.exe" "$prefix/bin"
        command=("$emulator" "$prefix/bin/${1##*/}.exe")
    fi
    id=$(cd "$work" && "${command[@]}") && id=${id%$'\r'}
    [ "$(cat "$work/cache/sdstore/$id.sdd")" = hello ] && [ -s "$work/cache/sdstore/$id.sdi" ] ||
        { echo "not stored by $1: '$id'" >&2; exit 1; }
    echo "$id"
}

echo "== through find_package"
"$cmake" -S "$work/consumer" -B "$work/build" -G "$generator" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_BUILD_TYPE=Release \
    ${toolchain:+-DCMAKE_TOOLCHAIN_FILE="$toolchain"} >"$work/configure.log"
"$cmake" --build "$work/build"
runs "$work/build/consumer"

echo "== through pkg-config"
pc=$(find "$prefix" -name filemanager.pc)
export PKG_CONFIG_PATH=${pc%/*}
read -r -a flags <<<"$(pkg-config --cflags filemanager)"
static=()
[ -z "$(find "$prefix" -name libfilemanager.a)" ] || static=(--static)
read -r -a libs <<<"$(pkg-config "${static[@]}" --libs filemanager)"
if [ -n "$emulator" ]; then # only the DLL is linked dynamically
    libs=(-static -Wl,-Bdynamic "${libs[@]}" -Wl,-Bstatic)
fi
"$compiler" -std=c++20 "${flags[@]}" "$work/consumer/consumer.cpp" "${libs[@]}" -o "$work/plain"
LD_LIBRARY_PATH=$(pkg-config --variable=libdir filemanager) runs "$work/plain"

# A static library comes with the same headers, and the test of it builds no tool.
if [ ${#static[@]} -eq 0 ]; then
    if [ -z "$emulator" ]; then # the headers are the same for every system
        echo "== every installed header alone"
        includedir=$(pkg-config --variable=includedir filemanager)
        found=0
        for header in "$includedir"/*.h; do
            found=$((found + 1))
            printf '#include <%s>\n#include <%s>\n' "${header##*/}" "${header##*/}" |
                "$compiler" -std=c++20 -Wall -Wextra -Wpedantic -Werror "${flags[@]}" \
                    -fsyntax-only -x c++ - || { echo "not usable alone: ${header##*/}" >&2; exit 1; }
        done
        echo "$found headers"

        echo "== an installed example"
        "$cmake" -S "$prefix/share/doc/filemanager/examples/loops" -B "$work/loops" -G "$generator" \
            -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$compiler" >"$work/configure.log"
        "$cmake" --build "$work/loops" --target poll # the others take seconds to compile
        [ -n "$(printf hello | "$work/loops/poll" store "$work/cache")" ]
    fi

    echo "== the installed tool starts without help from the environment"
    if [ -n "$emulator" ]; then
        "$emulator" "$prefix/bin/fmcache.exe" --help >/dev/null
    else
        env -u LD_LIBRARY_PATH "$prefix/bin/fmcache" --help >/dev/null
    fi
fi

echo "== the installed documents"
"${BASH_SOURCE[0]%/*}/../../scripts/check_documents.sh" "$prefix/share/doc/filemanager"
