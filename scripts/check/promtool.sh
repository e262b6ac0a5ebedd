#!/usr/bin/env bash
# Prints the path of promtool, which checks texts and rules for Prometheus; nothing if promtool is not available.
# usage: promtool.sh [--no-download]
#
# If promtool is not on PATH, the script extracts it from Debian's package prometheus into build/promtool. It does
# not install the package, because the package starts a server. Needs no root.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

directory=$PWD/build/promtool

# An interrupted download leaves no promtool: the file moves to its place when it is complete.
download() {
    local scratch=$directory/download
    rm -rf "$scratch"
    mkdir -p "$scratch" && cd "$scratch" &&
        timeout 120 apt-get -q -o Acquire::Retries=0 -o Acquire::http::Timeout=10 download prometheus &&
        dpkg-deb -x prometheus_*.deb . &&
        usr/bin/promtool --version &&
        mv usr/bin/promtool "$directory"
    rm -rf "$scratch"
}

if command -v promtool; then
    exit
fi
if [ ! -x "$directory/promtool" ] && [ "${1:-}" != --no-download ]; then
    download >/dev/null 2>&1 || true
fi
if [ -x "$directory/promtool" ]; then
    echo "$directory/promtool"
fi
