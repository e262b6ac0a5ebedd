#!/usr/bin/env bash
# Code for one system stays in util/runtime/os, and programs include exported headers only. (That no layer includes
# a header of a higher one is a matter of the build: each layer compiles with its own include directories.)
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

findings=$(
    grep -rnE --include='*.h' --include='*.cpp' \
        '^[[:space:]]*#[[:space:]]*(el)?if.*(_WIN32|_WIN64|__linux__|__unix__|__APPLE__)' \
        util tools examples tests bench fuzz | grep -vE '^util/runtime/(os/|RtExport\.h:)' || true
    grep -rnE --include='*.h' --include='*.cpp' \
        '#include "(os/Rt|util/|.*filemanager/|RtEventQueue|RtSendTicket)' tools examples || true
)
if [ -n "$findings" ]; then
    echo "$findings" >&2
    echo "platform: code for one system, or an internal header, in the wrong place" >&2
    exit 1
fi
echo "platform: code for one system is in util/runtime/os only"
