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
expect 0 '^done$' "$velmora" unpack p.zip unpacked
expect 0 '^systems: 0001 0A1B$' "$velmora" info unpacked
expect 0 '^BMC$' "$velmora" purpose unpacked
expected=$("$velmora" info --json unpacked | grep -o '[0-9a-f]\{64\}')
expect 0 "^$expected\$" "$velmora" digest unpacked/payload
expect 0 "^$(sha256sum <files/a | cut -c1-64)\$" "$velmora" digest files/a
mkdir unpacked/payload/sub
expect 0 ': 1 entry is not covered: sub$' "$velmora" digest unpacked/payload
rm -r unpacked/payload/sub

echo changed >unpacked/payload/a
expect 1 "refused: the payload's digest" "$velmora" validate unpacked
"$pack" "${package[@]}" --payload files/a --system-id 1 -o other.zip
expect 1 'refused: made for 0001, this machine is 0A1B' "$velmora" validate other.zip
head -c 100 p.zip >cut.zip
expect 1 'refused: the package: is no ZIP, or is cut short' "$velmora" validate cut.zip
expect 3 '"verdict": "unchecked"' "$velmora" --json validate none.zip
sed -i 's/systemID="[^"]*"/systemID="zz"/' unpacked/package.xml
expect 1 'a systemID of the descriptor is no number, or too large: zz' "$velmora" validate unpacked
expect 3 'platform service gave no identifier: .*; there is no system bus' env \
    DBUS_SYSTEM_BUS_ADDRESS=unix:path=/none "$velmora" validate p.zip
expect 3 'could not be checked: Invalid crypto engine' env PATH=/none "$velmora" validate p.zip
# Several at once: a line each, a list in JSON, the worst status.
expect 3 '^3 packages: 1 accepted, 1 refused, 1 could not be checked$' \
    "$velmora" validate p.zip cut.zip none.zip
expect 1 '^\[' "$velmora" --json validate p.zip cut.zip
expect 2 'there is no command valdate ' "$velmora" valdate x
expect 3 'standard output: No space' sh -c '"$0" --version >/dev/full' "$velmora"
# Whoever started it may not care for children, which are waited for here.
mkdir crc
sed 's/payload.aone/payload\/a0ne/' p.zip >crc.zip
expect 1 'exit code 2' env --ignore-signal=CHLD "$velmora" unpack crc.zip crc

# What a key in the keyring has against it.
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
gpg --homedir old --export | gpg --homedir /etc/gpg/secupkey/.gnupg --quiet --import 2>/dev/null
expect 1 'refused: .*: the key expired on 2024-01-31: Old, TEST, ' \
    "$velmora" validate expired

# Text that looks like the log, a name that is a pattern, no room.
fake='Line: 1 [INFO e.what(): sd_bus_call: org.freedesktop.DBus.Error.NoReply: x]'
cp -r unpacked fake
printf '<a>\n%s' "$fake" >fake/package.xml
expect 1 'is not well-formed, or is beyond a limit' "$velmora" validate fake
cp p.zip p1.zip
cp other.zip 'p[1].zip'
expect 1 'made for 0001' "$velmora" validate 'p[1].zip'
expect 2 'put ./ in front' "$velmora" validate '[p.zip]'
head -c 200000 /dev/urandom >files/big
"$pack" "${package[@]}" --payload files -o big.zip
rm files/big
mkdir small
full=(bwrap --dev-bind / / --size 65536 --tmpfs "$PWD/small")
if "${full[@]}" true; then
    expect 3 'could not be checked: no room is left' "${full[@]}" \
        env TMPDIR="$PWD/small" "$velmora" validate big.zip
fi
expect 3 'exit code 50' bash -c 'ulimit -f 8; exec "$@"' - "$velmora" validate big.zip

expect 0 '^accepted' "$velmora" validate --min-version 1.2 p.zip
for lowest in 1.10 1.2.0 1.2-rc1; do
    expect 1 "refused: its version 1.2 is lower than $lowest" "$velmora" validate \
        --min-version $lowest p.zip
done

# What is looked at before anything is unpacked.
expect 1 'refused: it has more than 2000 bytes' "$velmora" validate \
    --max-size 2000 big.zip
expect 2 'no size: 1x; it is a number of bytes, or one with KiB' "$velmora" validate \
    --max-size 1x p.zip
expect 1 'refused: its descriptor names no Model' "$velmora" validate --strict big.zip
unzip -q p.zip -d good
# add NAME: a member more in made.zip.
add() { python3 -W ignore -c 'import sys, zipfile
zipfile.ZipFile("made.zip", "a").writestr(sys.argv[1], "x")' "$1"; }
# strict REFUSAL COMMAND...: of what a command makes of a good package.
strict() {
    cp p.zip made.zip
    rm -rf made
    cp -r good made
    "${@:2}"
    expect 1 "refused: $1" "$velmora" validate --strict "$made"
}
made=made.zip
for name in PACKAGE.XML /tmp/x ../payload/x payload/sub/x install.sh; do
    strict "1 entry is not covered: $name$" add "$name"
done
expect 0 '; 1 entry is not covered: install.sh$' "$velmora" validate made.zip
strict 'it has more than 1000 directories' add "payload/$(printf 'd\\%.0s' {1..1001})x"
strict '.*: package.xml .a second time' add package.xml
strict 'payload/a differs from another name in case only' add payload/A
strict 'something stands behind its end record' eval 'echo x >>made.zip'
strict 'something stands in front' eval '(printf "PK\3\4x"; cat p.zip) >made.zip
    zip -qA made.zip'
strict 'it has a comment' eval 'echo x | zip -qz made.zip >/dev/null'
strict '.*: package.xml .a link' eval 'cd made; ln -sf /etc/passwd package.xml
    zip -qy ../made.zip package.xml; cd ..'
expect 1 'refused: package.xml: it is a link' "$velmora" validate made.zip
strict 'package.xml.sign has more than 64 KiB' eval 'cd made
    truncate -s 65537 package.xml.sign; zip -q ../made.zip package.xml.sign; cd ..'
# A compressed packet behind the signature, which could hold thousands more.
strict 'package.xml.sign is not just binary' eval 'made=made
    printf "\310\1\1" >>made/package.xml.sign'
made=made.zip
strict '.*: payload/c .encrypted' eval 'cd made; cp payload/a payload/c
    zip -qP x ../made.zip payload/c; cd ..'
# own OFFSET BYTE...: changes the own header of payload/a.
own() { python3 -c 'import sys
with open("made.zip", "r+b") as made:
    start = made.read().index(b"payload/a") - 30
    for place, byte in zip(sys.argv[1::2], sys.argv[2::2]):
        made.seek(start + int(place))
        made.write(bytes([int(byte)]))' "$@"; }
# with_extra FIELD: a member that has an extra field.
with_extra() { python3 -c 'import sys, zipfile
info = zipfile.ZipInfo("payload/x")
info.extra = bytes.fromhex(sys.argv[1])
zipfile.ZipFile("made.zip", "a").writestr(info, "x")' "$1"; }
# Another name behind the same, and the type of a link.
strict 'payload/x: it has two names' with_extra \
    75700e0001000000007061796c6f61642f7875700600010000000079
strict 'payload/x: an extra field gives it a type of its own' with_extra \
    6e750e0000000000ffa10000000000000000
# Its checksum, its name, and a size although it says that that follows.
for change in '14 1' '30 80' '6 8 22 9'; do
    # shellcheck disable=SC2086 # Several words.
    strict 'payload/a: its own header says otherwise' own $change
done
# A megabyte that says it is 9 bytes, which strict or not is not unpacked.
bomb() {
    truncate -s 1M made/payload/z
    (cd made && zip -qFS ../made.zip payload/z)
    LC_ALL=C sed -i 's/\x00\x00\x10\x00/\x09\x00\x00\x00/g' made.zip
}
strict 'payload/z: its content is not as long' bomb
expect 1 'refused: payload/z: its content is not as long' "$velmora" validate made.zip
# The directory says stored; the member, which would grow, that it is deflated.
LC_ALL=C sed -i 's/\(PK\x01\x02.\{6\}\)\x08/\1\x00/' made.zip
expect 1 'payload/z: its own header says otherwise' "$velmora" unpack made.zip unpacked
expect 1 '^$' compgen -G 'unpacked/payload/z'
# Data descriptors and Zip64.
for option in -fd -fz; do
    (cd good && zip -qr $option ../other$option.zip .)
    expect 0 '^accepted' "$velmora" validate --strict other$option.zip
done
made=made
strict '1 entry is not covered: payload2' mkdir made/payload2
strict '1 entry is not covered: package.xml.old' touch made/package.xml.old
strict '1 entry is not covered: payload/pipe' mkfifo made/payload/pipe
strict '1 entry is not covered: payload/a .a link' ln -sf ../../good/payload/a made/payload/a
expect 0 '^accepted: .*; 1 entry is not covered' "$velmora" validate made
rm made/package.xml.sign
mkfifo made/package.xml.sign
expect 1 'signature file is missing or no regular file' "$velmora" validate made
env --default-signal "$velmora" -v validate p.zip 2>&1 | head -n 1 >/dev/null || true
if compgen -G '/tmp/velmora-*' >/dev/null; then
    fail "velmora leaves its temporary directory"
fi

# Images and payloads.
head -c 100000 /dev/urandom >content
"$pack" manifest --release 1 -o manifest
"$pack" image content --key "$keys/image-signer.pem" -o image
expect 0 '^accepted$' "$velmora" verify-image image manifest
expect 1 'refused: the image.s signature does not verify' "$velmora" verify-image content manifest
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

# Inventory.
path=/xyz/openbmc_project/inventory/system/x
add=(inventory add "$path" --detail1 M --detail2 2 --purpose CPLD)
expect 0 '^done$' "$velmora" "${add[@]}"
expect 1 'refused: .* it answered with an error: ' "$velmora" "${add[@]}"
expect 0 '^M$' "$velmora" inventory model "$path"
expect 0 '^done$' "$velmora" inventory remove "$path"
expect 2 'no inventory path' "$velmora" inventory model "$path/"
sed -i 's/componentID="[^"]*"/componentID="7"/' unpacked/package.xml
expect 0 '^TPM$' "$velmora" purpose unpacked

# Terminals and signals.
sed -i $'s/componentID="[^"]*"/componentID="\u009b\u202ex\u00e4y"/' unpacked/package.xml
expect 0 $'^model: \\\\xc2\\\\x9b\\\\xe2\\\\x80\\\\xaex\u00e4y$' "$velmora" info unpacked
expect 3 '^velmora: a.x0ab.xff.xed.xa0.x80: could' "$velmora" digest \
    $'a\nb\xff\xed\xa0\x80'
# Large enough to be under way when the signal comes.
truncate -s 1G large
ulimit -c 0
for signal in INT:130 TERM:143; do
    expect "${signal#*:}" '' sh -c 'env --default-signal "$0" digest large &
        sleep 0.1; kill -s "$1" $!; wait $!' "$velmora" "${signal%:*}"
done
mkdir tmp
truncate -s 512M unpacked/payload/large
(cd unpacked && zip -qr0 ../large.zip .)
expect 1 ' [1-9][0-9]* %' script -qec "'$velmora' validate large.zip" /dev/null
expect 1 '^$' sh -c 'script -qec "$0 --quiet validate large.zip" /dev/null | grep %' "$velmora"
TMPDIR=$PWD/tmp "$velmora" validate large.zip &
until compgen -G 'tmp/*/payload/large' >/dev/null; do sleep 0.01; done
kill -HUP $!
wait $! || status=$?
expect 0 '^129$' echo "$status"
expect 1 '^$' compgen -G 'tmp/*'
# Somebody ends the extractor, such as the kernel when memory is out.
"$velmora" unpack large.zip tmp >ended 2>&1 &
until compgen -G 'tmp/payload/large' >/dev/null; do sleep 0.01; done
kill -KILL "$(cat /proc/$!/task/$!/children)"
wait $! || status=$?
expect 0 '^3$' echo "$status"
expect 0 'payload/.*: is not there as it is listed' cat ended
rm -r tmp/*

finish
