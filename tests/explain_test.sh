#!/usr/bin/env bash
# The reader of logs as an operator meets it, and what its page shows.
# Arguments: velmora, velmora-pack, directory of test keys.
# shellcheck disable=SC2016 # Expanded by another shell.
set -euo pipefail
page=$(dirname "$(readlink -f "$0")")/../docs/reading-the-log.md
# shellcheck source=tests/support.sh
. "$(dirname "$0")/support.sh"
begin_tools "$@"

# The page's N-th block of code.
block() {
    awk -v wanted="$1" '/^```/ { ++fence; next }
        fence == 2 * wanted - 1 { print }' "$page"
}

# Numbers and columns differ between builds.
alike() {
    sed -E 's/[0-9a-f]{40}/ID/; s/[0-9]+/N/g; s/ +/ /g'
}

# shows N COMMAND...: what the page's N-th block shows.
shows() {
    local number=$1
    shift
    diff <(block "$number" | alike) <("$@" 2>&1 | alike) ||
        fail "block $number of the page is not what is printed"
}

"$pack" "${package[@]}" --payload files -o p.zip
"$velmora" unpack p.zip unpacked >/dev/null
cp -r unpacked changed
echo '<!-- -->' >>changed/package.xml
"$velmora" -v validate changed >/dev/null 2>log || true
expect 0 "^refused: the descriptor's signature is not valid: Bad signature +descriptor_signature.cpp:[0-9]+\$" \
    "$velmora" explain log
expect 0 '^build [0-9a-f]{40} wrote this:' "$velmora" explain log
expect 0 '"number": [0-9]+' sh -c '"$0" --json explain log | python3 -m json.tool' "$velmora"
expect 3 '^velmora: .*: not all of it is of .*build-id' "$velmora" explain \
    <(sed -E 's/build-id [0-9a-f]{40}/build-id 00/' log)
expect 3 'log: holds no causes' "$velmora" explain --library log log
echo 'INFO: step 3: done' >others
expect 3 '^velmora: others: holds no line of libvelmora' "$velmora" explain others

# The page: a missing signature, an archive without payload, another build.
rm unpacked/package.xml.sign
"$velmora" -v validate unpacked 2>&1 >/dev/null |
    sed '1d; s/^/Nov 25 04:10:31 bmc updated[412]: /' >missing || true
shows 4 grep -v INFO missing
shows 5 "$velmora" explain missing
(cd changed && zip -q ../payloadless.zip package.xml package.xml.sign)
"$velmora" -v unpack payloadless.zip changed 2>&1 >/dev/null | sed 1d >payloadless || true
shows 6 cat payloadless
shows 7 "$velmora" explain payloadless
library=$("$velmora" --version | sed 's/.*with \(.*\), build-id.*/\1/')
# A number that no integer holds.
LC_ALL=C sed 's/signer_files.cpp 12000/s 99999999999999999999/' "$library" >odd.so
expect 3 'odd.so: a record of its causes cannot be read: s 9999' "$velmora" explain \
    --library odd.so log
truncate -s 3G odd.so
expect 3 'odd.so: it is too large for a library' "$velmora" explain --library odd.so log
sed -nE 's/^\| `([^`]+)` \|.*/\1/p' "$page" >causes
[ "$(wc -l <causes)" -ge 20 ] || fail "the page lists too few refusals"
while read -r cause; do
    grep -qaF " cause $cause" "$library" || fail "no cause of the library: $cause"
done <causes
finish
