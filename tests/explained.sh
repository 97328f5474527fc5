#!/usr/bin/env bash
# The library's tests, and whether every failure that they made it log is among
# the causes that it carries. Arguments: velmora, the tests. They put operations
# of their own in the library's place, so the log must name the build.
set -euo pipefail
log=$(mktemp)
export VELMORA_TEST_LOG=$log
"$2"
sed -i "1i $("$1" --version)" "$log"
if ! "$1" explain "$log" >"$log.explained"; then
    grep 'nothing is known' "$log.explained"
    exit 1
fi
echo "explained: $(grep -cE '^(refused|failed): ' "$log.explained") failures of" \
    "$(grep -E '^(refused|failed): ' "$log.explained" | sort -u | wc -l) causes"
