#!/usr/bin/env bash
# Builds the Debian packages below build/package, lets lintian judge them, and checks that they install the
# expected files and that a program builds and runs against them.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$root/build/package
cd "$root"

# Debian's flags, so that the packages are hardened. The flags of the build type come after them: optimized as the
# preset release is, because some warnings appear with this optimization only.
eval "$(dpkg-buildflags --export=sh)"
export SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct 2>/dev/null || date +%s)}
libdir=lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
mkdir -p "$build"
rm -rf "$build"/*.deb "$build"/*.ddeb "$build/_CPack_Packages" "$build/root"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
    -DCMAKE_INSTALL_LIBDIR="$libdir" -DCMAKE_INSTALL_DOCDIR=share/doc/libfilemanager-dev \
    -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O3 -g -DNDEBUG" -DCMAKE_CXX_FLAGS="${CXXFLAGS-} ${CPPFLAGS-} -ffile-prefix-map=$root=." \
    -DCMAKE_SHARED_LINKER_FLAGS="${LDFLAGS-} -Wl,--build-id" \
    -DCMAKE_EXE_LINKER_FLAGS="${LDFLAGS-} -Wl,--build-id" -DCMAKE_SKIP_INSTALL_RPATH=ON \
    -DFILEMANAGER_DEBIAN=ON -DFILEMANAGER_PRECOMPILE=ON -DFILEMANAGER_BUILD_TOOLS=ON -DFILEMANAGER_BUILD_EXAMPLES=OFF \
    -DFILEMANAGER_BUILD_TESTS=OFF >"$build/cmake.log" 2>&1 ||
    { cat "$build/cmake.log" >&2; exit 1; }
if [ -t 1 ]; then
    NINJA_STATUS="[%f/%t] " cmake --build "$build"
else
    cmake --build "$build" -- --quiet | { grep -vx 'ninja: no work to do.' || true; }
    echo "package: built"
fi
(cd "$build" && cpack >cpack.log 2>&1) || { cat "$build/cpack.log" >&2; exit 1; }

version=$(sed -nE 's/^CMAKE_PROJECT_VERSION:STATIC=(.*)/\1/p' "$build/CMakeCache.txt")
shopt -s nullglob
debs=("$build"/*.deb) symbols=("$build"/*-dbgsym_*.ddeb)
fail() { echo "package: $*" >&2; exit 1; }
[ "${#debs[@]}" -eq 3 ] || fail "expected 3 packages, found ${debs[*]##*/}"
[ "${#symbols[@]}" -eq 2 ] || fail "expected 2 packages of debug symbols, found ${symbols[*]##*/}"

# No finding is accepted, except: nothing is uploaded to Debian; cpack writes maintainer scripts that call
# ldconfig; README.md links CHANGELOG.md.
accepted=initial-upload-closes-no-bugs,maintscript-calls-ldconfig,wrong-name-for-upstream-changelog
lintian --allow-root --fail-on error,warning --suppress-tags "$accepted" --tag-display-limit 0 "${debs[@]}"
echo "lintian: ${#debs[@]} packages without findings"

for deb in "${debs[@]}" "${symbols[@]}"; do
    [ "$(dpkg-deb -f "$deb" Version)" = "$version-1" ] || fail "$deb has another version than $version-1"
    dpkg-deb -x "$deb" "$build/root"
done
usr=$build/root/usr major=${version%%.*}
for file in "$libdir/libfilemanager.so.$version" "$libdir/libfilemanager.so.$major" "$libdir/libfilemanager.so" \
    "$libdir/pkgconfig/filemanager.pc" "$libdir/cmake/filemanager/filemanagerConfig.cmake" \
    include/filemanager/IFileManager.h include/filemanager/FMVersion.h bin/fmcache \
    share/man/man1/fmcache.1.gz share/bash-completion/completions/fmcache share/zsh/vendor-completions/_fmcache \
    share/doc/libfilemanager-dev/{README.md,examples/minimal/minimal.cpp,copyright,changelog.Debian.gz}; do
    [ -e "$usr/$file" ] || fail "no package contains /usr/$file"
done
[ "$(objdump -p "$usr/$libdir/libfilemanager.so" | awk '/SONAME/ {print $2}')" = "libfilemanager.so.$major" ] ||
    fail "the SONAME does not end in $major"
said=$(LD_LIBRARY_PATH=$usr/$libdir "$usr/bin/fmcache" --version)
[[ $said == *"$version" ]] || fail "fmcache --version prints '$said', not $version"

export PKG_CONFIG_PATH=$usr/$libdir/pkgconfig
read -r -a flags <<<"$(pkg-config --cflags --libs filemanager)"
c++ -std=c++20 "$usr/share/doc/libfilemanager-dev/examples/minimal/minimal.cpp" "${flags[@]}" -o "$build/root/minimal"
[ "$(cd "$build/root" && LD_LIBRARY_PATH=$usr/$libdir ./minimal)" = 'read back: Hello, cache!' ] ||
    fail "the first program prints something else"
scripts/check_documents.sh "$usr/share/doc/libfilemanager-dev"
printf 'package: %s\n' "${debs[@]#"$root/"}" "${symbols[@]#"$root/"}"
