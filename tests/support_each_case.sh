#!/usr/bin/env bash
# Runs each case of a test program in a separate process, under an emulator.
# usage: support_each_case.sh EMULATOR PROGRAM
set -euo pipefail
emulator=${1:?usage: $0 EMULATOR PROGRAM}
program=${2:?usage: $0 EMULATOR PROGRAM}

suite='' cases=()
while IFS= read -r line; do
    line=${line%$'\r'}
    line=${line%%  #*}
    case $line in
        '  '*) [[ $suite$line == *DISABLED_* ]] || cases+=("$suite${line#  }") ;;
        *.) suite=$line ;;
    esac
done < <("$emulator" "$program" --gtest_list_tests </dev/null)
[ "${#cases[@]}" -gt 0 ] || { echo "no case in $program" >&2; exit 1; }

failed=0
for case in "${cases[@]}"; do
    status=0
    said=$("$emulator" "$program" --gtest_color=no --gtest_filter="$case" </dev/null 2>&1) || status=$?
    if [ "$status" -eq 0 ] && result=$(grep -aEm1 '^\[ +(OK|SKIPPED) +\]' <<<"$said"); then
        echo "$result" | tr -d '\r'
        [[ $result != *SKIPPED* ]] || grep -aA1 ': Skipped' <<<"$said" | tail -n 1 # why
    else
        failed=$((failed + 1))
        printf '%s\nstatus %s: %s\n' "$said" "$status" "$case" >&2
    fi
done
echo "$((${#cases[@]} - failed)) of ${#cases[@]} cases passed"
[ "$failed" -eq 0 ]
