#!/usr/bin/env bash
# What operators rely on: files in use stay, every changed byte is found, disk budgets are kept, and statuses and
# messages are the same in all verbs.
# usage: fmcache_upkeep_test.sh FMCACHE BUILD_DIR
source "$(dirname "${BASH_SOURCE[0]}")/support_fmcache.sh"
export FMCACHE_DIR=cache

put() { "$fmcache" put "$@"; }
exists() { [ -e "cache/sdstore/$1.sdi" ] && [ -e "cache/sdstore/$1.sdd" ]; }
stems() { find cache -name "*.$1" -printf '%f\n' | sed 's/\.sd.$//' | sort; }
# on_disk [ID]: the bytes that all files, or those of ID, take on the disk.
on_disk() { find cache/sdstore -name "${1:-}*.sd?" -print0 | du -cB1 --files0-from=- | tail -1 | cut -f1; }
head -c 20000 /dev/urandom >odd

# --- standard input, stored names, identifiers
id=$(put - --name n <odd)
run 0 get "$id" -o - && cmp stdout odd
json 0 "j['name'] == 'stdin' and j['size'] == 20000 and j['slots'] == 1" put - <odd
run 0 get n && says '^n$' && cmp n odd
fails 3 "'n' exists; -o names another file" get n
json 0 "j['output'] == 'copy' and j['size'] == 20000" get "${id:1:8}" -o copy && cmp copy odd
fails 2 'requires --output' get n --force
mkdir below
for name in ../up /tmp/up 'C:\up'; do
    up=$(put odd --name "$name")
    (cd below && FMCACHE_DIR=../cache run 0 get "$up" && [ "$(cat stdout)" = up ] && cmp up ../odd && rm up std*)
done
for name in .. a/ $'a\tb'; do fails 3 'cannot be used for a file; -o names one' get "$(put odd --name "$name")"; done
if [ -z "$emulated" ]; then # put leaves nothing if it cannot read its input or print the identifier
    before=$(find cache -type f | wc -l)
    exec {pipe}> >(exec true) && wait $! # a pipe that no process reads
    for verb in 'put - >&-' 'put - <&-' "put - >&$pipe" '--version >/dev/full'; do
        eval "$fmcache $verb" <odd 2>stderr && fail "$verb succeeds" || [ $? -eq 3 ] || fail "$verb: status $?"
        complains 'cannot (read|write)'
    done
    exec {pipe}>&-
    [ "$(find cache -type f | wc -l)" -eq "$before" ] || fail "a refused put has left something"
fi
twin=$(put odd --name n)
fails 3 "'n' matches 2 files: " rm n
run 0 rm "$(tr A-F a-f <<<"${twin:1:36}")"
exists "$id" || fail "rm has removed another file"

# --- wrong command lines
fails 2 "unknown verb 'verfy'; did you mean 'verify'" verfy
fails 2 "unknown option '--sotr'; did you mean '--sort'" ls --sotr age
fails 2 "unknown verb 'blub'; see fmcache --help" blub
fails 2 "'--json' has to follow the verb; see fmcache clear --help" --json clear
fails 2 "unexpected argument 'x'; see fmcache ls --help" ls x
fails 2 '^fmcache: --sort needs a value; see fmcache ls --help' ls --sort
fails 2 '^fmcache: --json takes no value' ls --json=x
fails 2 '^fmcache: --days is given twice' ls --days 1 --days 2
for verb in get show verify rm; do fails 2 'the identifier is empty' $verb ''; done
fails 2 '^fmcache: --days, --max-size or --min-free is required' housekeep
fails 2 'is not a size' housekeep --min-free lots
fails 2 'the disk has only' housekeep --min-free 4000000T
fails 2 'not a number of days' housekeep --days 010
for share in 101% -1%; do fails 2 'not a share' housekeep --min-free "$share"; done
mapfile -t verbs < <("$fmcache" --help | sed -n '/^Subcommands:/,$s/^  \([a-z]*\)  .*/\1/p')
[ "${#verbs[@]}" -eq 9 ] || fail "other verbs: ${verbs[*]}"
for verb in "${verbs[@]}"; do run 0 "$verb" -h && says "^Usage: fmcache $verb "; done

# --- files in use
if [ -z "$emulated" ]; then
    exec {lock}<"cache/sdstore/$id.sdd" && flock "$lock" # as a process that has the file open
    fails 3 'in use by another process' get "$id" -o out
    fails 3 'in use by another process; --force' rm "$id"
    run 3 clear --yes && says "^left $id: in use by another process$" && complains '1 \(in use by another process\)$'
    run 1 housekeep --max-size 1 && says ' kept +open \(by another process\) +n$' && complains 'exceeded by'
    exists "$id" && [ "$(find cache -name '*.sdd' | wc -l)" -eq 1 ] || fail "the open file, or another one"
    run 0 rm "$id" --force && ! exists "$id" || fail "rm --force has removed nothing"
    exec {lock}<&-
    if script -qec true /dev/null >/dev/null 2>&1; then
        id=$(put odd --name n)
        script -qec "$fmcache clear" /dev/null <<<n >stdout 2>&1 && fail "cleared after 'n'"
        says 'Remove 1 cached file' && exists "$id" || fail "clear has not asked"
        script -qec "$fmcache clear" /dev/null <<<y >stdout 2>&1 && ! exists "$id" || fail "not cleared after 'y'"
    fi
fi
rm -rf cache

# --- contents: 1,000 changed bytes, 1,000 found
if "$fmcache" verify --help | grep -q -- --sums; then
    head -c 1200000 /dev/urandom >many
    id=$(put many --block 1000)
    fails 2 'outside the store' verify --write-sums cache/sdstore/sums
    for option in --sums --write-sums; do fails 2 "^fmcache: $option takes a file, not" verify $option -; done
    [ "$emulated" ] || fails 3 "cannot read 'cache': Is a directory" verify --sums cache
    run 0 verify --write-sums sums && says '^checked: structure; sums written, 1200 blocks read$'
    fails 3 'exists; --force' verify --write-sums sums
    other=$(put odd) && run 0 verify --write-sums sums --force && run 0 rm "$other"
    run 0 verify --sums sums && says '1200 compared with their sums; 1 file with sums no longer in the store$'
    python3 -S - "cache/sdstore/$id.sdd" <<'END'
import random, sys
with open(sys.argv[1], "r+b") as file:
    for block in random.sample(range(1200), 1000):
        at = 1000 * block + random.randrange(1000)
        file.seek(at)
        byte = file.read(1)[0]
        file.seek(at)
        file.write(bytes([byte ^ 1 << random.randrange(8)]))
END
    run 0 verify && says '^checked: structure only; the format has no checksums$'
    json 1 "j['sound'] is False and j['files'][0]['faults'] == 1000 and j['blocksRead'] == j['blocksCompared'] == 1200" verify --sums sums
    head -c -9 sums >short && fails 3 'line [0-9]+ is damaged' verify --sums short
    if [ -z "$emulated" ]; then # Wine shows a link of the host system as a file
        ln -s "cache/sdstore/$id.sdd" link && fails 2 'outside the store' verify --write-sums link --force
        # Opened and changed while its blocks are read.
        truncate -s 64M slow && id=$(put slow) && run 0 verify --write-sums sums --force
        checking=none
        until grep -qsE '^pos:.*[0-9]{7}' "/proc/$checking/fdinfo/"[3-9]; do # again, if it has ended before that was seen
            kill -0 "$checking" 2>/dev/null && continue
            nice "$fmcache" verify "$id" --sums sums </dev/null >stdout 2>stderr &
            checking=$!
        done
        kill -STOP "$checking"
        printf x | dd of="cache/sdstore/$id.sdd" bs=1 seek=67108863 conv=notrunc status=none
        while_open "$id" sh -c "kill -CONT $checking && tail --pid=$checking -f /dev/null"
        wait "$checking" || fail "a live file is reported as damaged: $(cat stdout)"
        says '0 damaged, 1 open'
    fi
    echo >sums && fails 3 'not a file of verify' verify --sums sums
fi
rm -rf cache

# --- the disk budget: a flood of small files, and a clock that was moved. One letter as name, see clone.
kept=$(put odd --name k) && age "$kept" 400 && poke "$kept" $FLAG '\x04'
temporary=$(put odd --name t) && poke "$temporary" $FLAG '\x01'
old=$(put odd --name o) && age "$old" 300
future=$(put odd --name f) && age "$future" -5000
new=$(put odd --name s)
clone "$new" 60 3600
total=$(on_disk) && one=$(on_disk "$new")
run 0 housekeep --days 7 --dry-run && says '^older than 7 days: removed from day 9 on$'
json 0 "{'when': 'unknown', 'reason': '0 days old'} in [f['housekeeping'] for f in j['files']]" housekeep --min-free 1
for budget in $((total - 1)) $((total - 2 * one)) $((20 * one)) $((2 * one)); do
    run 0 housekeep --max-size "$budget" --dry-run
    { grep -E ' remove  ' stdout || fail "nothing goes for $budget of $total bytes"; } | cut -d' ' -f1 | sort >planned
    stems sdi >before
    run 0 housekeep --max-size "$budget"
    stems sdi | comm -23 before - | diff planned - || fail "another plan"
    [ "$(on_disk)" -le "$budget" ] && [ "$(on_disk)" -gt $((budget - one)) ] || fail "$(on_disk) of $budget bytes"
    ! exists "$temporary" || fail "the temporary file is not the first"
    [ "$budget" -gt $((total - 2 * one)) ] || ! exists "$old" || fail "the oldest file is not the next"
done
exists "$kept" && exists "$future" && ! exists "$new" || fail "other files than the kept and the newest one"
run 1 housekeep --max-size 1 --days 7 && complains 'budget is exceeded by [0-9.]+ KiB' && says 'on disk; [0-9.]+ KiB remain$'
exists "$kept" || fail "housekeep has removed a kept file"
json 1 "j['removed'] == 0 and j['overBudget'] > 1 and j['files'][0]['kept']" housekeep --min-free 100%
json 1 "j['overBudget'] == $one - 1" housekeep --max-size 1

# --- 10,000 files take less than two seconds each. An emulator is too slow for more than a few.
[ -z "$emulated" ] || { echo "all is well, 10,000 files left out"; exit 0; }
files=10000
[ -z "$sanitized" ] || files=1000
rm -rf cache && new=$(put odd --name s) && clone "$new" $((files - 1)) 10
timed() {
    local took
    took=$({ TIMEFORMAT='%U %S'; time "$fmcache" "$@" >stdout; } 2>&1 | awk '{ print int(1000 * ($1 + $2)) }')
    echo "$*: $took ms of CPU"
    [ "$took" -lt 2000 ] || [ "$sanitized" ] || fail "$* is slow"
}
timed ls && timed verify && timed housekeep --days 1 --max-size 1G --dry-run && timed housekeep --days 1 && timed report
# --- progress, and interruption in the middle of the work
interrupt reading clear --yes
interrupt housekeeping housekeep --max-size 1M
[ "$(stems sdd | wc -l)" -lt $files ] || fail "an interrupted housekeep has removed nothing"
stems sdi | diff - <(stems sdd) || fail "half a cached file after an interruption"
timed housekeep --max-size 1M
echo "all is well"
