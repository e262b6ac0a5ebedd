#!/usr/bin/env bash
# Builds the static library, without optimization to save time and without precompiled headers, so that a source that
# does not include what it needs is found. Uses an installed copy of it. The build
# directory is kept, so that the next run compiles what has changed.
# usage: static.sh ROOT BUILD_DIR CMAKE GENERATOR COMPILER
set -euo pipefail
root=${1:?usage: $0 ROOT BUILD_DIR CMAKE GENERATOR COMPILER} build=$2/static cmake=$3 generator=$4 compiler=$5
mkdir -p "$build"
"$cmake" -S "$root" -B "$build" -G "$generator" -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_CXX_FLAGS_DEBUG=-O0 -DBUILD_SHARED_LIBS=OFF -DFILEMANAGER_BUILD_TOOLS=OFF \
    -DFILEMANAGER_BUILD_EXAMPLES=OFF -DFILEMANAGER_BUILD_TESTS=OFF >"$build/configure.log"
"$cmake" --build "$build"
"${BASH_SOURCE[0]%/*}/run.sh" "$build" "$root/tests/consumer" "$cmake" "$generator" "$compiler" Debug
