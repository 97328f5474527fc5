#!/usr/bin/env bash
# The library's tests, and whether every failure that they made it log is among
# the causes that it carries. Arguments: velmora, the tests, the library. The
# tests put operations of their own in its place, so the log must name the build.
set -euo pipefail
log=$(mktemp)
# A number stands for one statement, and each source has a block of its own.
# objcopy would not read a library for another processor.
readelf -p .velmora.causes "$3" | sed 's/^ *\[ *[0-9a-f]*\] *//' | awk '
    $1 !~ /\.cpp$/ { next }
    seen[$2 + $3]++ || $3 > 999 || (block[$1] && block[$1] != $2) ||
        (file[$2] && file[$2] != $1) { print "not alone: " $0; bad = 1 }
    $4 !~ /^(cause|note|success|answer|(echo|pardon):[a-z_]+)$/ { print; bad = 1 }
    { block[$1] = $2; file[$2] = $1; ++count }
    split($4, kind, ":") == 2 { passed[kind[2] ".cpp"] }
    END { for (name in passed)
              if (!(name in block)) { print "no source: " name; bad = 1 }
          exit bad || count < 80 }'
: >"$log"
export VELMORA_TEST_LOG=$log
"$2"
sed -i "1i $("$1" --version)" "$log"
if ! "$1" explain "$log" >"$log.explained"; then
    grep 'nothing is known' "$log.explained"
    exit 1
fi
echo "explained: $(grep -cE '^(refused|failed): ' "$log.explained") failures of" \
    "$(grep -E '^(refused|failed): ' "$log.explained" | sort -u | wc -l) causes"
