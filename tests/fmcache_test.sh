#!/usr/bin/env bash
# The tool with real files: each verb runs in a separate process.
# usage: fmcache_test.sh FMCACHE BUILD_DIR
source "$(dirname "${BASH_SOURCE[0]}")/support_fmcache.sh"

# put ARGS...: expects exactly the identifier on standard output; stores it in $id.
put() {
    id=$("$fmcache" put --dir cache "$@" 2>stderr) || fail "put $* ($(cat stderr))"
    [[ $id =~ ^\{[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}\}$ ]] || fail "no identifier: '$id'"
    [ ! -s stderr ] || fail "put $* says: $(cat stderr)"
}

roundtrip() {
    put "$@"
    "$fmcache" get --dir cache "$id" -o back --force || fail "get after put $*"
    cmp "$1" back || fail "other bytes after put $*"
}

entries() { find "$1" -name '*.sd?' | wc -l; }
# Expects neither an output file nor a temporary one.
no_output() { [ -z "$(find . -name '*.part' -o -name out)" ] || fail "half-written output: $1"; }

# --- files are read back unchanged
: >empty
printf x >one
head -c $((4 * 262144)) /dev/urandom >exact
head -c 1234567 /dev/urandom >odd
head -c $((150 * 1048576 + 17)) /dev/urandom >large
head -c 51200 /dev/urandom >many
for file in one exact odd empty; do roundtrip "$file"; done
# Housekeeping examines data files, so that an empty cached file has one, too.
json 0 "(j['slots'], j['table'], j['faults'], j['housekeeping']['days']) == (0, 1, 0, 9)" show --dir cache "$id"
roundtrip odd --block 4099 --piece 777
roundtrip odd --block 16M --piece 2M --name "$(printf 'n%.0s' {1..3000})"
[ "$(od -An -tu4 -j4 -N4 "cache/sdstore/$id.sdi")" -eq 2048 ] || fail "the name was not cut"
roundtrip many --block 2
"$fmcache" get --dir cache "${id:1:36}" -o - | cmp - many || fail "standard output"

# --- more than the tool may keep in memory
measure=(/usr/bin/time -f %M -o kbytes)
if [ ! -x /usr/bin/time ] || [ "$sanitized" ]; then
    measure=() && echo 0 >kbytes && echo "memory is not measured here"
fi
small() { [ "$(cat kbytes)" -lt 112640 ] || fail "$1 took $(cat kbytes) KiB of memory"; }
id=$("${measure[@]}" "$fmcache" put --dir cache large) && small put
"${measure[@]}" "$fmcache" get --dir cache "$id" -o back --force && small get
cmp large back || fail "other bytes in the large file"
rm -f large back cache/sdstore/"$id".*

# --- inputs that put refuses
before=$(entries cache)
truncate -s 1073741825 giant
fails 3 "no such file: 'absent'" put --dir cache absent
fails 3 'is a directory' put --dir cache cache
[ "$emulated" ] || fails 3 'is not a regular file' put --dir cache /dev/null
fails 3 'limit .* is 1 GiB' put --dir cache giant
fails 3 'cannot create the directory' put --dir one/below odd
FMCACHE_DIR=cache fails 2 'is missing or empty' clear --yes --dir '' # never the default
fails 2 'at least 1 byte' put --dir cache odd --block 0
fails 2 'limit is 16.0 MiB' put --dir cache odd --block 16385K
fails 2 'is too large' put --dir cache odd --block 99999999999999999999
for size in 12x -5 x K 0x10 ' '; do fails 2 'is not a size' put --dir cache odd --block "$size"; done
fails 2 'smallest block size is 2; see fmcache put --help$' put --dir cache many --block 1
fails 2 'FILE is required' put --dir cache
fails 2 '^fmcache: a verb is required; see fmcache --help$' --verbose
[ "$(entries cache)" -eq "$before" ] || fail "a refused put has left something"

# --- inputs that get refuses without leaving a file
put odd
tree=$(ls -AR cache)
fails 3 'no cache in' get --dir nowhere "$id" -o out
[ ! -e nowhere ] || fail "get has made a directory"
fails 3 "no file 'zzz'" get --dir cache zzz -o out
fails 3 'exists; --force' get --dir cache "$id" -o one
fails 3 'is a directory' get --dir cache "$id" -o cache --force
[ "$emulated" ] || fails 3 'not a regular file' get --dir cache "$id" -o /dev/null --force
fails 3 'No such file' get --dir cache "$id" -o nowhere/out
[ "$(cat one)" = x ] && [ "$(ls -AR cache)" = "$tree" ] || fail "a refused get has changed something"

# --- damage. The first table entry is at offset 8 + 38 + 3 + 6: header, description, name, table header.
cp "cache/sdstore/$id.sdi" good
damaged() { cat >"cache/sdstore/$id.sdi" && fails 3 "$1" get --dir cache "$id" -o out; }
{ head -c 49 good; printf '\x46'; head -c 71 good | tail -c +51; head -c 4 /dev/zero; tail -c +88 good; } |
    damaged 'not complete: block 2 is missing'
{ head -c 75 good; head -c 4 /dev/zero; tail -c +80 good; } | damaged 'not complete: block 2 has no bytes'
head -c 100 good | damaged 'damaged or missing block table'
damaged 'not an information file' <odd
truncate -s -1 "cache/sdstore/$id.sdd"
damaged 'ends before the end of block 5' <good
no_output damage

# --- no space
put odd
before=$(entries cache)
[ "$emulated" ] || (ulimit -f 1000; fails 3 'cannot store .*limits' put --dir cache odd)
[ "$emulated" ] || (ulimit -f 100; fails 3 'cannot write .*File too large' get --dir cache "$id" -o out)
[ "$(entries cache)" -eq "$before" ] || fail "a put without room has left something"
mkdir tmpfs
if [ "$(id -u)" -eq 0 ] && mount -t tmpfs -o size=1m none tmpfs 2>/dev/null; then
    mounted=$work/tmpfs
    fails 3 "not enough space .* needs 1.2 MiB${emulated:+|cannot store}" put --dir tmpfs odd
    [ "$(entries tmpfs)" -eq 0 ] || fail "a full disk keeps a part of the file"
    fails 3 'cannot write .*No space left' get --dir cache "$id" -o tmpfs/out
else
    echo "no small disk can be mounted here"
fi
no_output 'no room'
[ -z "$emulated" ] || { echo "all is well, signals left out"; exit 0; }

# --- interrupted by the user
# stopped PATTERN VERB...: sends SIGTERM to the verb as soon as a file matches the pattern.
stopped() {
    "$fmcache" "${@:2}" >stdout 2>stderr &
    until compgen -G "$1" >/dev/null; do kill -0 $! || fail "no file $1"; done
    kill -TERM $! && wait $! && fail "$2 goes on" || [ $? -eq 130 ] || fail "$2: not status 130"
}
truncate -s 200M slow
stopped 'stopped/sdstore/*.sdd' put --dir stopped slow --block 64K --piece 16
[ "$(entries stopped)" -eq 0 ] && [ ! -s stdout ] || fail "a stopped put has left something"
put many --block 2
stopped '.fmcache-*.part' get --dir cache "$id" -o out
no_output 'stopped'
echo "all is well"
