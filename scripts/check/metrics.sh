#!/usr/bin/env bash
# Checks docs/alerts.yml and docs/operations.md: util/filemanager/metrics.cpp exports every figure that they name, and
# the page explains every alert. If promtool is available, it checks and tests the alerts.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

alerts=docs/alerts.yml page=docs/operations.md source=util/filemanager/metrics.cpp

fail() {
    echo "metrics: $*" >&2
    exit 1
}

names() { grep -oE '\bfilemanager_[a-z_]+' "$1" | sort -u; }

histograms=$(names "$source" | grep '_seconds$')
values=$(names "$source" | grep -v '_seconds$'
    for name in $histograms; do printf "${name}_%s\n" bucket sum count; done)
# An alert on the bare name of a histogram never fires: only the names with a suffix have values.
unknown=$({ names "$alerts"; names "$page" | grep -vxF "$histograms"; } | grep -vxF "$values" | sort -u | xargs) || true
[ -z "$unknown" ] || fail "$source does not export what $alerts or $page names: $unknown"

mapfile -t rules < <(sed -nE 's/^ *- alert: *//p' "$alerts")
[ "${#rules[@]}" -gt 0 ] || fail "$alerts has no alert"
for rule in "${rules[@]}"; do
    grep -qF "\`$rule\`" "$page" || fail "$page does not explain the alert $rule"
done
echo "metrics: ${#rules[@]} alerts are explained, and the library exports their figures"

promtool=$(scripts/check/promtool.sh --no-download)
if [ -z "$promtool" ]; then
    echo "promtool: skipped, not available: the alerts and the text of the figures"
    exit
fi
for arguments in "check rules $alerts" "test rules tests/alerts_test.yml"; do
    # shellcheck disable=SC2086  # a list of words
    log=$("$promtool" $arguments 2>&1) || fail "promtool $arguments: $log"
done
echo "promtool: the alerts are valid and their tests pass"
