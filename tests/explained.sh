#!/usr/bin/env bash
# The library's tests, and whether every failure that they made it log is among
# the causes that it carries. Arguments: velmora, the tests.
set -euo pipefail
log=$(mktemp)
export VELMORA_TEST_LOG=$log
"$2"
if ! "$1" explain "$log" >"$log.explained"; then
    grep 'nothing is known' "$log.explained"
    exit 1
fi
echo "explained: $(grep -c '^refused: ' "$log.explained") failures of" \
    "$(grep '^refused: ' "$log.explained" | sort -u | wc -l) causes"
