# Sourced by the tests of fmcache: a work directory, expectations on the tool's status and output, and edits of
# information files. Expects the tool and the build directory as arguments.
# shellcheck shell=bash disable=SC2034
set -euo pipefail

fmcache=$(realpath "${1:?usage: $0 FMCACHE BUILD_DIR}")
build=$(realpath "${2:?usage: $0 FMCACHE BUILD_DIR}")
sources=$(realpath "$(dirname "${BASH_SOURCE[0]}")/..")
# An emulator does not support the signals, limits, locks and devices of the host, and many error texts differ.
emulated=${FILEMANAGER_EMULATED:-}
# A sanitizer makes the tool slow and large.
sanitized=$(sed -n 's/^FILEMANAGER_SANITIZE:[A-Z]*=//p' "$build/CMakeCache.txt")
work=$(mktemp -d "$build/$(basename "$0" .sh).XXXXXX")
mounted=
cleanup() {
    [ -z "$mounted" ] || umount "$mounted" || true
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
cd "$work"
unset FMCACHE_DIR

fail() { echo "FAILED: $*" >&2; exit 1; }

# run STATUS ARGS...: output in the files stdout and stderr.
run() {
    local status=0
    "$fmcache" "${@:2}" >stdout 2>stderr || status=$?
    [ "$status" -eq "$1" ] || fail "status $status instead of $1: ${*:2} ($(cat stdout stderr))"
}
says() { grep -qE -- "$1" stdout || fail "no '$1' in: $(cat stdout)"; }
# complains PATTERN: the last run wrote one error line. It names no class, source or result code, and, on POSIX, no path
# with a backslash.
complains() {
    [ "$(wc -l <stderr)" -eq 1 ] || fail "not one line: $(cat stderr)"
    grep -qE '^fmcache: ([^A-Z]|[A-Z]+:? )' stderr || fail "not an error line: $(cat stderr)"
    grep -qE -- "$1" stderr || fail "no '$1' in: $(cat stderr)"
    ! grep -qE 'CFM|CFile|CDisk|::|this=|100[0-9][0-9]' stderr || fail "internal words: $(cat stderr)"
    [ "$emulated" ] || ! grep -qF 'sdstore\' stderr || fail "a backslash in a path: $(cat stderr)"
}
# fails STATUS PATTERN ARGS...: as complains, without output.
fails() {
    run "$1" "${@:3}"
    [ ! -s stdout ] || fail "output from a failure: ${*:3}"
    complains "$2"
}
# json STATUS EXPRESSION ARGS...: the output is JSON in ASCII, and EXPRESSION is true for it, named j.
json() {
    run "$1" "${@:3}" --json
    python3 -Sc "import json,sys; j=json.loads(sys.stdin.buffer.read().decode('ascii')); sys.exit(not ($2))" \
        <stdout || fail "not so: $2 ($(cat stdout))"
}

# --- Information files. Names of one letter give all of them the same offsets.
CREATED=43 FLAG=31
poke() { printf '%b' "$3" | dd of="cache/sdstore/$1.sdi" bs=1 seek="$2" conv=notrunc status=none; }
u32() { printf '\\x%02x\\x%02x\\x%02x\\x%02x' $(($1 & 255)) $(($1 >> 8 & 255)) $(($1 >> 16 & 255)) $(($1 >> 24 & 255)); }
# age ID DAYS: negative for a creation time in the future.
age() { poke "$1" $CREATED "$(u32 $(($(date +%s) - $2 * 86400 - 60)))"; }
# clone ID NUMBER SECONDS: copies under new identifiers, each created SECONDS before the previous one.
clone() {
    python3 -S - "$@" <<'END'
import pathlib, struct, sys, uuid
store, stem = pathlib.Path("cache/sdstore"), sys.argv[1]
info, data = ((store / (stem + end)).read_bytes() for end in (".sdi", ".sdd"))
created, = struct.unpack_from("<I", info, 43)
for i in range(1, int(sys.argv[2]) + 1):
    new, time = uuid.uuid4(), struct.pack("<I", created - i * int(sys.argv[3]))
    path = store / ("{%s}.sdi" % str(new).upper())
    path.write_bytes(info[:12] + new.bytes_le + info[28:43] + time + info[47:])
    path.with_suffix(".sdd").write_bytes(data)
END
}
# The lock that a process holds on a file while it has the file open.
while_open() { flock "cache/sdstore/$1.sdd" "${@:2}"; }
# interrupt WORK VERB...: runs the verb on a terminal, and sends SIGTERM when the progress line of WORK is drawn.
interrupt() {
    python3 -S - "$fmcache" "$@" <<'END' || fail "no progress line, or not interrupted: $*"
import os, pty, signal, sys
program, work, *verb = sys.argv[1:]
process, terminal = pty.fork()
if process == 0:
    os.nice(19)  # under load, the signal arrives before the work is done
    os.execv(program, [program, *verb])
shown, drawn = b"", False
try:
    while part := os.read(terminal, 4096):
        shown += part
        if not drawn and f"{work} [".encode() in shown:
            drawn = True
            os.kill(process, signal.SIGTERM)
except OSError:  # the end of a terminal
    pass
status = os.waitpid(process, 0)[1]
sys.exit(not (drawn and os.WEXITSTATUS(status) == 130 and b"fmcache: interrupted" in shown))
END
}
