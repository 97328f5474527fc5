#!/usr/bin/env bash
# The reader of logs as an operator meets it.
# Arguments: velmora, velmora-pack, directory of test keys.
# shellcheck disable=SC2016 # Expanded by another shell.
set -euo pipefail
# shellcheck source=tests/support.sh
. "$(dirname "$0")/support.sh"
begin_tools "$@"

"$pack" "${package[@]}" --payload files -o p.zip
mkdir unsigned
(cd unsigned && unzip -q ../p.zip && echo x >>package.xml)
"$velmora" -v validate unsigned >/dev/null 2>log || true
expect 0 'signature status: Bad signature' "$velmora" explain log
expect 0 "^refused: the descriptor's signature is not valid +descriptor_signature.cpp:[0-9]+\$" \
    "$velmora" explain <(sed 's/^/Jan 01 00:00:00 bmc daemon[7]: /' log)
expect 0 '"number": [0-9]+' sh -c '"$0" --json explain log | python3 -m json.tool' "$velmora"
expect 3 'Line: 1 |1 of [0-9]+ failures are not in .*build-id' "$velmora" explain \
    <(cat log; echo 'Line: 1 [FAILURE]')
sed '1i Line: 1 [FAILURE]' log >longer
expect 0 'signature status: Bad signature' sh -c '(read -r _; exec "$0" explain) <longer' "$velmora"
"$velmora" -v validate p.zip >/dev/null 2>>longer
expect 0 '^passed' sh -c '"$0" explain longer | grep -E "^(refused|passed)" | tail -n 1' "$velmora"
expect 3 'log: holds no causes' "$velmora" explain --library log log

finish
