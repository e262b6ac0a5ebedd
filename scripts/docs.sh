#!/usr/bin/env bash
# Builds the API reference of the exported headers into build/docs/html and checks the man page. Any
# warning is an error. Needs doxygen and mandoc.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

version=$(sed -n 's/^#define FILEMANAGER_VERSION_[MP][A-Z]* \([0-9]*\)$/\1/p' util/h/FMVersion.h | paste -sd.)
[[ $version =~ ^[0-9]+\.[0-9]+\.[0-9]+$ ]] || { echo "docs: no version in util/h/FMVersion.h" >&2; exit 1; }
# The list in CMakeLists.txt, and the one header of os/ that the others include.
mapfile -t headers < <(find util/h util/runtime -maxdepth 1 -name '*.h' |
    grep -vE '/Rt(EventQueue|Parts|SendTicket)\.h$' | sort)

rm -rf build/docs
mkdir -p build/docs
doxygen - <<END
@INCLUDE = docs/api/Doxyfile
PROJECT_NUMBER = $version
OUTPUT_DIRECTORY = build/docs
USE_MDFILE_AS_MAINPAGE = docs/api/mainpage.md
LAYOUT_FILE = docs/api/layout.xml
INPUT = docs/api/mainpage.md util/h/IFileManager.h util/h/IFMFile.h util/runtime/os/RtGuid.h ${headers[*]}
END
mandoc -T lint -W warning docs/fmcache.1
echo "docs: build/docs/html/index.html"
