#!/usr/bin/env bash
# The library's tests, and whether every failure that they made it log is among
# the causes that it carries. Arguments: velmora, the tests, the library. The
# tests put operations of their own in its place, so the log must name the build.
set -euo pipefail
log=$(mktemp)
# Each source has a block of numbers of its own. objcopy would not read a library
# for another processor; explain reads what else a record must be.
readelf -p .velmora.causes "$3" | sed 's/^ *\[ *[0-9a-f]*\] *//' | awk '
    $1 !~ /\.cpp$/ { next }
    (block[$1] && block[$1] != $2) || (file[$2] && file[$2] != $1) {
        print "not alone: " $0; bad = 1 }
    { block[$1] = $2; file[$2] = $1; ++count }
    split($4, kind, ":") == 2 { passed[kind[2] ".cpp"] }
    END { for (name in passed)
              if (!(name in block)) { print "no source: " name; bad = 1 }
          exit bad || count < 80 }'
export VELMORA_TEST_LOG=$log
# Another program in its place could end well, too.
"$2" "--gtest_output=json:$log.json"
test -s "$log.json"
# Some that are picked by name log nothing that could be explained.
[ -z "${GTEST_FILTER:-}" ] || exit 0
sed -i "1i $("$1" --version)" "$log"
"$1" explain "$log" | grep -E '^(unknown|refused|failed): ' | sort | uniq -c
