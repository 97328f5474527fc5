#!/usr/bin/env bash
# Whether a library exports exactly the names of src/libvelmora.map.
# Argument: the library.
set -euo pipefail
map=$(dirname "$(readlink -f "$0")")/../src/libvelmora.map
exported=$(nm -D --defined-only "$1" | awk '{ print $3 }' | sort)
diff <(grep -oE '\b_Z\w+' "$map" | sort) - <<<"$exported"
echo "$(wc -l <<<"$exported") names, those of $(basename "$map")"
