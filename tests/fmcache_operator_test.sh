#!/usr/bin/env bash
# The verbs for operators of a cache, on stores that put has created and that are then damaged.
# usage: fmcache_operator_test.sh FMCACHE BUILD_DIR
source "$(dirname "${BASH_SOURCE[0]}")/support_fmcache.sh"

put() { "$fmcache" put --dir cache odd --name "$1" --block 4096 "${@:2}"; }
entry() { echo $((53 + 16 * ($1 - 1) + $2)); } # BLOCK FIELD: 0 identifier, 4 length, 8 offset
listing() { find . -path ./cache\* -printf '%p %y %s %m %i %T@ %C@\n' | sort; find cache -type f -exec sha256sum {} + | sort; }

head -c 20000 /dev/urandom >odd # five blocks
sound=$(put s) old=$(put o) grace=$(put g) kept=$(put k) temporary=$(put t)
age "$old" 9; age "$grace" 8; age "$kept" 99; poke "$kept" $FLAG '\x04'; poke "$temporary" $FLAG '\x01'
strange=$(put $'a\e[31m\xffb\n"\xe2\x80\xae')
if [ -n "$emulated" ]; then # an emulator's command line passes text only
    rm "cache/sdstore/$strange".* && strange=$(put 'abcdefghijklm')
    poke "$strange" 30 'a\x1b[31m\xffb\x0a"\xe2\x80\xae'
fi

# --- an undamaged store
run 0 verify --dir cache && says '^6 files verified, 6 sound, 0 damaged$'
! grep -q fault stdout || fail "a fault in: $(cat stdout)"
run 0 ls --store cache/sdstore
says "^$sound +19.5 KiB +5/5 +0d +sound +- +in 9 days +s$"
says "^$old .* 9d +sound +- +next run: 9 days old +o$"
says "^$grace .* 8d +sound +- +in 1 day +g$"
says "^$kept .* 99d +sound +kept +never: kept +k$"
says "^$temporary .* temporary +next run: temporary +t$"
says '^6 files, 117.2 KiB in blocks,'
LC_ALL=C sort -c <(grep '^{' stdout) || fail "ls is not sorted"
says 'a\\x1B\[31m\\xFFb\\x0A"\\xE2\\x80\\xAE$'
LC_ALL=C grep -q $'[\e\xff]' stdout && fail "control characters reach the terminal"
json 0 "[f['nameBytes'] for f in j['files'] if f['id'] == '$strange'] == ['611b5b33316dff620a22e280ae']" ls --dir cache
json 0 "j['name'] == 's' and [b['offset'] for b in j['blocks']] == [0, 4096, 8192, 12288, 16384]" show --dir cache "$sound"
run 0 ls --dir cache --sort age && [ "$(sed -n 2p stdout | cut -c1-38)" = "$kept" ] || fail "the oldest is not the first"
wide=$("$fmcache" put --dir cache odd --name w --block 4)
run 0 show --dir cache "$wide" && says '^ +1  #{74}$' && says '1 cell: 6 blocks'
[ "$(wc -L <stdout)" -le 80 ] || fail "wider than 80 columns"
if [ -z "$emulated" ] && script -qec true /dev/null >/dev/null 2>&1; then
    NO_COLOR='' script -qec "$fmcache show --dir cache $sound" stdout </dev/null >/dev/null; says $'\e\[32m#####\e\[0m'
    NO_COLOR=1 script -qec "$fmcache show --dir cache $sound" stdout </dev/null >/dev/null; says '  #####'
fi

# --- one kind of damage for each file
cut=$(put c) over=$(put v) hole=$(put h) far=$(put f) outside=$(put u) twice=$(put d) lost=$(put l)
early=$(put e) bad=$(put b) other=$(put x) data=$(put n) table=$(put z)
truncate -s 17000 "cache/sdstore/$cut.sdd"
poke "$over" "$(entry 3 8)" "$(u32 5000)"
poke "$hole" "$(entry 2 0)" "$(u32 2)$(u32 0)"
poke "$far" "$(entry 4 12)" "$(u32 0x80000000)"
poke "$outside" "$(entry 5 0)" "$(u32 77)"
poke "$twice" "$(entry 5 0)" "$(u32 1)"
rm "cache/sdstore/$lost.sdi" "cache/sdstore/$data.sdd"
poke "$early" 51 '\x09'; poke "$bad" 0 'JUNK'; poke "$other" 12 "\\x$(printf %02x $((0x${other:7:2} ^ 255)))"; poke "$table" 47 "$(u32 900000)"
echo note >cache/sdstore/notes.txt && cp odd cache/sdstore/stray.sdd
before=$(listing)
run 1 verify --dir cache
for line in "block 5 ends at byte 20000, the data file at 17000; loaded, but cannot be read" \
    "block 3 overlaps block 2 by 3192 bytes; both are loaded without data" "note: 3192 unreferenced bytes in the data file" \
    "note: 4096 unreferenced bytes in the data file" "block 4 has an impossible range, .*; loaded without data" \
    "block 77 is outside the table, which has 5 slots from 1; not loaded" "block 1 has two entries; the later entry" \
    "there is no information file; not loaded; housekeeping removes it" "block table ends early, after 5 slots" \
    "is not an information file, or is damaged; not loaded; housekeeping" "the description is that of .*; a load by this name" \
    "block 1 ends at byte 4096, and there is no data file" "damaged or missing block table; not loaded$" \
    "the name is not an identifier" "^notes.txt$" '^20 files verified, 8 sound, 12 damaged, 1 other entry$'; do says "$line"; done
damaged="$cut $over $far $outside $twice $lost $early $bad $other $data $table"
run 1 verify --dir cache "$cut" && run 0 verify --dir cache "$hole" # a block without data is not damaged
for id in $damaged; do run 0 show --dir cache "$id"; done
json 1 "{f['id'] for f in j['files'] if any(g['fault'] for g in f['findings'])} == {'stray', *'$damaged'.split()}" verify --dir cache
json 0 "j['present'] == 4 and j['blocks'][4]['state'] == 'beyond the data file'" show --dir cache "$cut"
json 0 "j['present'] == 3 and j['blocks'][2]['state'] == 'overlaps another block'" show --dir cache "$over"
run 0 show --dir cache "$cut" && says '^1  ####!$'
run 0 ls --dir cache
says "^$lost +- +- +- +damaged +- +next run: no information file +\(there is no information file\)$"
says "^$bad .*next run: damaged description +\(the information file is not"
json 0 "j['others'][0]['name'] == 'notes.txt'" ls --dir cache
run 0 housekeep --dir cache --days 7 --dry-run && says '^5 of 20 files would be removed'
if [ -z "$emulated" ]; then # open in another process: flock holds the lock of a server
    looks() { while_open "$lost" "$fmcache" "$1" --dir cache "${@:2}" >stdout || fail "$*"; }
    looks ls && says "^$lost +- +- +- +open +- +unknown: open +\(open \(by another process\)\)$"
    looks verify "$lost" && says "^$lost  open \(by another process\)$" && says '0 sound, 0 damaged, 1 open'
    looks show "$lost" && says '^state         open \(by another process\)$'
    looks housekeep --days 7 --dry-run && says '^4 of 20 files would be removed'
    looks ls --json && says '"state":"open"'
fi
[ "$(listing)" = "$before" ] || fail "looking has changed the cache"
# --- a read-only copy, used by another user
cp -a cache copy && cp "$fmcache" tool && chmod -R a+rX-w copy && chmod a+rx . tool
as=()
[ "$(id -u)" -ne 0 ] || as=(setpriv --reuid=65534 --regid=65534 --clear-groups)
look() { LD_LIBRARY_PATH=$build "${as[@]}" "$work/tool" "$1" --dir copy "${@:2}" 2>&1 || [[ $? =~ ^[13]$ ]]; }
if [ -z "$emulated" ] && look --help >/dev/null; then
    run 0 ls --dir cache && look ls | cmp - stdout || fail "ls of the copy"
    run 1 verify --dir cache && look verify | cmp - stdout || fail "verify of the copy"
    run 0 show --dir cache "$sound" && look show "$sound" | cmp - stdout || fail "show of the copy"
    [ ${#as[@]} -eq 0 ] || look rm "$sound" | grep -q 'is not removed: no write access' || fail "rm from the copy"
else
    echo "no other user can run the tool here"
fi
chmod -R u+w copy

# --- rm, housekeep, clear
fails 3 'no file' rm --dir cache none
run 0 rm --dir cache none --force
run 0 rm --dir cache "$wide" && says "^removed \\$wide,"
[ -z "$(find cache -name "$wide*")" ] || fail "rm has left something"
json 0 "[f['id'] for f in j['removed']] == ['$data']" rm --dir cache "$data"
run 0 housekeep --dir cache --days 7 && says '^5 of 18 files removed'
json 0 "j['removed'] == 0 and not any(f['action'] == 'removed' for f in j['files'])" housekeep --dir cache --days 7
gone() { [ -z "$(find cache -name "$1.*")" ] || fail "$1 is still there"; }
for id in "$old" "$temporary" "$lost" "$bad" stray; do gone "$id"; done
for id in "$sound" "$grace" "$kept" "$cut" "$table"; do [ -e "cache/sdstore/$id.sdd" ] || fail "$id is gone"; done
run 3 clear --dir cache --yes && says '^left notes.txt: not a cached file; --force removes it, too$'
[ "$(grep -c '^left .*: clear removes all entries or none$' stdout)" -eq 13 ] || fail "reasons: $(cat stdout)"
complains ': 14 entries left: 13 \(clear removes all entries or none\), 1 \(not a cached file'
rm cache/sdstore/notes.txt
fails 2 'clear removes 13 cached files, .*; --yes confirms this; see fmcache clear --help$' clear --dir cache
json 0 "j['removed'] == 13 and j['files'] == 26 and j['left'] == []" clear --dir cache --yes
[ -z "$(find cache -name '*.sd?')" ] || fail "clear has left something"

# --- missing caches and wrong arguments
mkdir -p none copy/confcache && mv copy/sdstore copy/confcache/4711
# shellcheck disable=SC2086  # a verb and its arguments
for verb in ls clear verify 'show x' 'rm x' 'housekeep --days 1'; do fails 3 'no cache in' $verb --dir none; done
fails 3 "--store 'copy.confcache.4711' opens the store of a client" ls --dir copy
fails 3 'no file' verify --store copy/confcache/4711 none
fails 2 'FMCACHE_DIR is not set; see fmcache put --help$' put odd
fails 2 'exclude each other; see fmcache ls --help$' ls --dir cache --store copy
fails 2 "'0' is not a number of days from 1 to 65535; see fmcache housekeep --help$" housekeep --dir cache --days 0
[ -z "$(ls -A none)" ] || fail "a refused verb has made something"
echo "all is well"
