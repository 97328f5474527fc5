#!/usr/bin/env bash
# velmora as a user meets it, in the simulated BMC with its own services.
# Arguments: velmora, velmora-pack, directory of test keys.
# shellcheck disable=SC2016 # Expanded by another shell.
set -euo pipefail
# shellcheck source=tests/support.sh
. "$(dirname "$0")/support.sh"
begin_tools "$@"

root_ca=/var/run/obmcupdate/OpenBMCSecureBootRootCA.pem

# Packages.
"$pack" "${package[@]}" --payload files --system-id 1 --system-id 0a1b -o p.zip
expect 0 "^accepted: signed by TEST.* $(cat "$keys/fingerprint")\$" "$velmora" validate p.zip
expect 0 '"verified": true' "$velmora" --json validate p.zip
expect 0 'Line: [0-9]+ \[SUCCESS\]' "$velmora" validate --verbose p.zip
expect 0 '^done$' "$velmora" unpack p.zip unpacked
expect 0 '^accepted: signed by' "$velmora" validate unpacked
expect 0 '^systems: 0001 0A1B$' "$velmora" info unpacked
expect 0 '^model: 113440$' "$velmora" info unpacked
expect 0 '^BMC$' "$velmora" purpose unpacked
expect 3 'package.xml: No such file' "$velmora" purpose files
expected=$("$velmora" info --json unpacked | grep -o '[0-9a-f]\{64\}')
expect 0 "^$expected\$" "$velmora" digest unpacked/payload
expect 0 "^$(sha256sum <files/a | cut -c1-64)\$" "$velmora" digest files/a
mkdir unpacked/payload/sub
expect 0 ': 1 entry is not covered: sub$' "$velmora" digest unpacked/payload
expect 0 '; 1 entry is not covered' "$velmora" validate unpacked
rm -r unpacked/payload/sub

echo changed >unpacked/payload/a
expect 1 "refused: the payload's digest" "$velmora" validate unpacked
"$pack" "${package[@]}" --payload files/a --system-id 1 -o other.zip
expect 1 'refused: no listed system is this one' "$velmora" validate other.zip
head -c 100 p.zip >cut.zip
expect 1 'refused: unzip failed .* exit code 9, not a ZIP file' "$velmora" validate cut.zip
expect 3 'none.zip: could not be checked' "$velmora" validate none.zip
expect 3 '"verdict": "unchecked"' "$velmora" --json validate none.zip
expect 2 '^velmora: PACKAGE is required' "$velmora" validate
expect 2 . "$velmora" inventory add x
sed -i 's/systemID="[^"]*"/systemID="zz"/' unpacked/package.xml
expect 1 'a systemID of the descriptor is no number: zz' "$velmora" validate unpacked
expect 3 'platform service gave no identifier: it did not answer' env \
    DBUS_SYSTEM_BUS_ADDRESS=unix:path=/none "$velmora" validate p.zip
# Several at once: a line each, a list in JSON, the worst status.
expect 3 '^3 packages: 1 accepted, 1 refused, 1 could not be checked$' \
    "$velmora" validate p.zip cut.zip none.zip
expect 3 '^none.zip: could not be checked: No such file' "$velmora" validate p.zip none.zip
expect 1 '^\[' "$velmora" --json validate p.zip cut.zip
expect 2 'there is no command valdate; the nearest is validate' "$velmora" valdate x
expect 2 'there is no option --bogus ' "$velmora" --bogus

# What a key in the keyring has against it.
keyring=/etc/gpg/secupkey/.gnupg
mkdir -m 700 old
expired=(gpg --homedir old --batch --quiet --passphrase ''
    --faked-system-time 20240101T000000)
"${expired[@]}" --quick-generate-key "Old, TEST" ed25519 sign 2024-01-31 2>/dev/null
cp -r unpacked expired
sed -i 's/systemID="zz"/systemID="0A1B"/' unpacked/package.xml expired/package.xml
expect 1 'refused: .*: the descriptor is not what was signed: ' "$velmora" validate unpacked
"${expired[@]}" --yes --detach-sign -o expired/package.xml.sign \
    expired/package.xml 2>/dev/null
expect 1 'refused: .*: no public key [0-9A-F]{40}$' "$velmora" validate expired
gpg --homedir old --export | gpg --homedir "$keyring" --quiet --import 2>/dev/null
expect 1 'refused: .*: the key expired on 2024-01-31: Old, TEST, ' \
    "$velmora" validate expired

# Text that looks like the log, a name that is a pattern, no room.
fake='Line: 1 [INFO e.what(): sd_bus_call: org.freedesktop.DBus.Error.NoReply: x]'
cp -r unpacked fake
printf '<a>\n%s' "$fake" >fake/package.xml
expect 1 'is not well-formed, or is beyond a limit$' "$velmora" validate fake
printf '<Model systemID="0A1B]&#10;%s&#10;Line: 1 [FAILURE]&#10;"/>' "$fake" \
    >fake/package.xml
expect 1 'refused: .* not what was signed' "$velmora" validate fake
cp p.zip p1.zip
cp other.zip 'p[1].zip'
expect 1 'no listed system is this one' "$velmora" validate 'p[1].zip'
head -c 200000 /dev/urandom >files/big
"$pack" "${package[@]}" --payload files -o big.zip
rm files/big
mkdir small
full=(bwrap --dev-bind / / --size 65536 --tmpfs "$PWD/small")
if "${full[@]}" true; then
    expect 3 'could not be checked: no room is left' "${full[@]}" \
        env TMPDIR="$PWD/small" "$velmora" validate big.zip
fi

# What only --strict refuses.
truncate -s 3M answers
expect 0 '^$' sh -c '"$0" -v validate --strict --max-size 2MiB p.zip >>answers 2>&1' \
    "$velmora"
expect 0 '^accepted' tail -n 1 answers
expect 1 'refused: it has more than 2000 bytes' "$velmora" validate --strict \
    --max-size 2000 big.zip
expect 1 'refused: its descriptor names no Model' "$velmora" validate --strict big.zip
strict() {
    rm -rf strict
    mkdir strict
    (cd strict && unzip -q ../p.zip && eval "$2")
    expect 0 '^accepted' "$velmora" validate strict
    expect 1 "refused: $1" "$velmora" validate --strict strict
}
strict '1 entry is not covered: payload2' 'mkdir payload2'
strict '1 entry is not covered: package.xml.old' 'touch package.xml.old'
strict '1 entry is not covered: payload/pipe' 'mkfifo payload/pipe'
strict '1 entry is not covered: payload/a .a link' \
    'mv payload/a ../a; ln -s ../../a payload/a'
if compgen -G '/tmp/velmora-*' >/dev/null; then
    fail "velmora leaves its temporary directory"
fi

# Images and payloads.
head -c 100000 /dev/urandom >content
"$pack" manifest --release 1 -o manifest
"$pack" image content --key "$keys/image-signer.pem" -o image
expect 0 '^accepted$' "$velmora" verify-image image manifest
expect 0 '^1$' cat /tmp/ingressRelease
expect 1 'refused: the image.s signature does not verify' "$velmora" verify-image content manifest
expect 3 'image-ktb: No such file' "$velmora" verify-image image files
head -c 512 /dev/zero >manifest/image-ktb.sig
expect 0 'accepted: NOT verified' "$velmora" verify-image image manifest
expect 0 '"verified": false' "$velmora" --json verify-image image manifest
expect 1 'refused: image-ktb.sig has the older' "$velmora" verify-image --strict \
    image manifest

payload=(payload content --chain "$keys/chain.pem" --alg PS256
    --key "$keys/payload-signer.pem")
"$pack" "${payload[@]}" -o signed
cp "$keys/root-ca.pem" "$root_ca"
expect 0 '^accepted: signed by CN=.* payload signer' "$velmora" verify-payload signed
expect 3 'OpenBMCSecureBootRootCA.pem: No such file' "$velmora" verify-payload signed
cp "$keys/foreign-root.pem" "$root_ca"
expect 1 'unable to get local issuer' "$velmora" verify-payload signed
cp "$keys/root-ca.pem" "$root_ca"
expect 1 'the payload is not larger than its trailer' "$velmora" verify-payload --strict \
    files/a
cp signed bare
printf '"ver": "1" "alg": "PS256" "sts"' |
    dd of=bare bs=1 seek=$((100000 + 24576)) conv=notrunc status=none
expect 1 'refused: the metadata block ' "$velmora" verify-payload --strict bare
# A value that looks like a bus that does not answer, in front of a failure.
printf '"ver": "1" "alg": "PS256" "sts": "1\n%s' "$fake" |
    dd of=bare bs=1 seek=$((100000 + 24576)) conv=notrunc status=none
expect 1 'refused: ' "$velmora" verify-payload --strict bare
cp "$keys/root-ca.pem" "$root_ca"
expect 1 'refused: it has more than 99 bytes' "$velmora" verify-payload \
    --strict --max-size 99 bare
expect 2 'max-size' "$velmora" verify-payload --strict --max-size -1 bare

# Inventory.
path=/xyz/openbmc_project/inventory/system/x
add=(inventory add "$path" --detail1 M --detail2 2 --purpose CPLD)
expect 0 '^done$' "$velmora" "${add[@]}"
expect 1 'refused: .* it answered with an error: ' "$velmora" "${add[@]}"
expect 0 '^M$' "$velmora" inventory model "$path"
expect 0 '"model": "M"' "$velmora" inventory model --json "$path"
expect 0 '^done$' "$velmora" inventory remove "$path"
expect 1 'refused: .* it answered with' "$velmora" inventory remove "$path"
expect 2 'no inventory path' "$velmora" inventory model short
expect 2 'None not in' "$velmora" inventory add "$path" --purpose None
expect 2 . "$velmora" "${add[@]}" --release-type None
sed -i 's/componentID="[^"]*"/componentID="7"/' unpacked/package.xml
expect 0 '^TPM$' "$velmora" purpose unpacked

# Terminals and signals.
sed -i $'s/componentID="[^"]*"/componentID="\u009b\u202ex\u00e4y"/' unpacked/package.xml
expect 0 $'^model: \\\\xc2\\\\x9b\\\\xe2\\\\x80\\\\xaex\u00e4y$' "$velmora" info unpacked
expect 3 '^velmora: a.x0ab.xff.xed.xa0.x80: could' "$velmora" digest \
    $'a\nb\xff\xed\xa0\x80'
# Large enough to be under way when the signal comes.
truncate -s 256M large
ulimit -c 0
expect 0 'digest|[0-9a-f]{64}' sh -c \
    'trap "" HUP; "$0" digest large & sleep 0.1; kill -HUP $!; wait $!' "$velmora"

finish
