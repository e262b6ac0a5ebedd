#!/usr/bin/env bash
# Runs a Windows program under Wine with two drives: C: is a directory that the first use creates, Z: is this tree.
# No other file of the machine is on a drive.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
export WINEPREFIX=${FILEMANAGER_WINEPREFIX:-$root/build/windows/wine}
export WINEARCH=win32 WINEDEBUG=-all LC_ALL=C.UTF-8
export WINEDLLOVERRIDES='mscoree=;mshtml=;winemenubuilder.exe=d'
unset DISPLAY

if [ ! -e "$WINEPREFIX/made" ]; then
    mkdir -p "$WINEPREFIX"
    exec {lock}>"$WINEPREFIX/lock"
    flock "$lock"
    if [ ! -e "$WINEPREFIX/made" ]; then
        wineboot --init >/dev/null 2>&1 {lock}>&-
        wineserver --wait {lock}>&-
        ln -sfn "$root" "$WINEPREFIX/dosdevices/z:"
        touch "$WINEPREFIX/made"
    fi
    exec {lock}>&-
fi
mkdir -p "$WINEPREFIX/dosdevices/unc/server/share" # \\server\share
exec wine "$@"
