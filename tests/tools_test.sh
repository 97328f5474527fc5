#!/usr/bin/env bash
# The command-line tools as a user meets them, inside the simulated BMC with
# its own services. Arguments: velmora, velmora-pack, directory of test keys.
# shellcheck disable=SC2016 # Expanded by another shell.
set -euo pipefail
velmora=$(readlink -f "$1")
pack=$(readlink -f "$2")
keys=$3
root_ca=/var/run/obmcupdate/OpenBMCSecureBootRootCA.pem
failures=0
cd "$(mktemp -d)"
# An agent of its own: another sandbox's would end with that.
cp -r "$keys" keys
keys=$PWD/keys

# expect STATUS PATTERN COMMAND...: status, and a line of output that matches.
expect() {
    local status=0 output
    local expected=$1 pattern=$2
    shift 2
    output=$("$@" 2>&1) || status=$?
    if [ "$status" -ne "$expected" ] || ! grep -qE -- "$pattern" <<<"$output"; then
        printf 'FAIL: %s\n  status %d, expected %d and "%s"\n%s\n' "$*" \
            "$status" "$expected" "$pattern" "$output"
        failures=$((failures + 1))
    fi
}

# One clear line on stderr that names the file, and nothing left behind.
fails() {
    local named=$1 before
    shift
    before=$(ls -A)
    expect 1 "^velmora-pack: .*$named" "$pack" "$@"
    if [ "$("$pack" "$@" 2>&1 >/dev/null | wc -l)" -ne 1 ]; then
        echo "FAIL: more than one line from: $*"
        failures=$((failures + 1))
    fi
    if [ "$(ls -A)" != "$before" ]; then
        echo "FAIL: something left behind by: $*"
        failures=$((failures + 1))
    fi
}

package=(package --model 113440 --version 1.2 --gpg-home "$keys/gnupg"
    --key "$(cat "$keys/fingerprint")")
mkdir files unpacked
echo one >files/a
echo two >files/b

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
expect 1 'refused: .*: the key has expired \(2024-01-31\): Old, TEST, ' \
    "$velmora" validate expired

# Hostile input: text in the log, a name that is a pattern, no room.
"$velmora" -v validate expired >/dev/null 2>log || true
expect 0 'signature status: Key expired' "$velmora" explain log
expect 0 "^refused: the descriptor's signature is not valid +descriptor_signature.cpp:[0-9]+\$" \
    "$velmora" explain <(sed 's/^/Jan 01 00:00:00 bmc daemon[7]: /' log)
expect 0 '"number": [0-9]+' sh -c '"$0" --json explain log | python3 -m json.tool' "$velmora"
expect 3 'Line: 1 |1 of [0-9]+ failures are not in .*build-id' "$velmora" explain \
    <(cat log; echo 'Line: 1 [FAILURE]')
sed '1i Line: 1 [FAILURE]' log >longer
expect 0 'signature status: Key expired' sh -c '(read -r _; exec "$0" explain) <longer' "$velmora"
"$velmora" -v validate p.zip >/dev/null 2>>longer
expect 0 '^passed' sh -c '"$0" explain longer | grep -E "^(refused|passed)" | tail -n 1' "$velmora"
expect 3 'log: holds no causes' "$velmora" explain --library log log
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
    echo "FAIL: velmora leaves its temporary directory"
    failures=$((failures + 1))
fi

SOURCE_DATE_EPOCH=1700000000 "$pack" "${package[@]}" --payload files -o 1.zip
touch files/*
SOURCE_DATE_EPOCH=1700000000 "$pack" "${package[@]}" --payload files -o 2.zip
expect 0 '^$' cmp 1.zip 2.zip
"$pack" package --model 113440 --version 1.2 --payload files \
    --to-be-signed descriptor
# With a part that is so long that its length takes two octets.
gpg --homedir "$keys/gnupg" --batch --quiet --detach-sign -o sig \
    --sig-notation "long@velmora.invalid=$(printf 'x%.0s' {1..250})" descriptor
expect 0 '^remarks: none$' "$pack" inspect sig
expect 0 . "$pack" package --model 113440 --version 1.2 --payload files \
    --gpg-home "$keys/gnupg" --signature sig -o elsewhere.zip
expect 0 '^accepted: signed by' "$velmora" validate elsewhere.zip
expect 0 '"componentID"|componentID|113440' "$pack" inspect p.zip

mkdir -p nested/sub
echo x >nested/a
fails nested "${package[@]}" --payload nested -o x.zip
mkdir foreign
echo x >$'foreign/\xc3\xa4'
fails foreign "${package[@]}" --payload foreign -o x.zip
fails none "${package[@]}" --payload none -o x.zip
touch void
fails 'void: is empty' "${package[@]}" --payload void -o x.zip
fails 0000 package --model 1 --version 1 --payload files \
    --gpg-home "$keys/gnupg" --key 0000000000000000000000000000000000000000 \
    -o x.zip
expect 2 'system-id' "$pack" "${package[@]}" --payload files --system-id wrong \
    -o x.zip

# What would surprise, or the machine would refuse.
touch files/.DS_Store
expect 0 'warning: files/.DS_Store: looks like' "$pack" "${package[@]}" \
    --payload files -o left.zip
rm files/.DS_Store
fails 'left.zip: exists; --force' "${package[@]}" --payload files -o left.zip
fails "files/x: lies in the payload's" "${package[@]}" --payload files -o files/x
expect 2 'there is no command packge; the nearest is package' "$pack" packge
expect 2 'there is no option --bogus' "$pack" --bogus
expect 2 'larger than FFFF: 12345' "$pack" "${package[@]}" --payload files \
    -o none.zip --system-id 12345
mkdir -m 700 stranger
gpg --homedir stranger --batch --quiet --passphrase '' \
    --quick-generate-key Stranger ed25519 sign 10d 2>/dev/null
gpg --homedir stranger --export >stranger.pub
stranger=(package --payload files --model 1 --version 1 --gpg-home stranger
    --key "$(gpg --homedir stranger --with-colons --list-keys |
        sed -n 's/^fpr:*//; T; s/:$//p; q')" --keyring)
fails 'keyring.asc: gives no good signature: No public key' "${stranger[@]}" \
    "$keys/keyring.asc" -o x.zip
fails 'stranger.pub: key .* expires within 30 days' "${stranger[@]}" \
    stranger.pub -o x.zip
expect 0 . "$pack" "${stranger[@]}" stranger.pub --min-days 5 -o stranger.zip
fails 'chain.pem: holds no OpenPGP public key' "${stranger[@]}" \
    "$keys/chain.pem" -o x.zip
mkdir -m 700 locked
gpg --homedir locked --batch --quiet --passphrase x --pinentry-mode loopback \
    --quick-generate-key Locked ed25519 sign 2>/dev/null
gpgconf --homedir locked --kill all
expect 1 'cannot sign .* GPG_TTY=.* gpg-preset-passphrase' setsid "$pack" \
    package --payload files --model 1 --version 1 --gpg-home locked \
    --key "$(gpg --homedir locked --with-colons --list-keys |
        sed -n 's/^fpr:*//; T; s/:$//p; q')" -o x.zip

mkdir secret
cp "$keys/image-signer.pem" secret/a
fails secret/a "${package[@]}" --payload secret -o x.zip

# Images.
head -c 100000 /dev/urandom >content
touch empty
"$pack" manifest --release 1 --prefix files/a -o manifest
expect 0 '^    release: 1$' "$pack" inspect manifest/image-ktb
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
openssl dgst -sha512 -sign "$keys/image-signer.pem" -out der content
"$pack" image content --signature der \
    --public-key "$keys/image-signer.pub.pem" -o image2
expect 0 'r' "$pack" inspect --as image image2
fails 'empty: is empty' image empty --key "$keys/image-signer.pem" -o x
fails 'two files; name a directory' manifest -o -
fails 'nodir/x: there is no directory' image content --key "$keys/image-signer.pem" -o nodir/x
expect 1 '^velmora-pack: standard output: No space left' sh -c \
    '"$1" image content --key "$2/image-signer.pem" -o - >/dev/full' - "$pack" "$keys"
"$pack" image content --key "$keys/image-signer.pem" -o - >piped
expect 0 '^100096$' stat -c %s piped
fails payload-signer "image" content --key "$keys/payload-signer.pem" -o x
cp "$keys/image-signer.pem" own-key
fails own-key "image" content --key own-key -o own-key
echo x >pin
fails 'pin: is also an input' image content --key own-key \
    --passphrase-file pin --force -o pin
fails own-key "image" own-key --key "$keys/image-signer.pem" -o x
fails content "image" content --signature content \
    --public-key "$keys/image-signer.pub.pem" -o x

# Payloads.
payload=(payload content --chain "$keys/chain.pem")
for algorithm in PS256 PS384 PS512; do
    "$pack" "${payload[@]}" --key "$keys/payload-signer.pem" \
        --alg "$algorithm" --force -o signed
    cp "$keys/root-ca.pem" "$root_ca"
    expect 0 '^accepted: signed by CN=.* payload signer' "$velmora" verify-payload signed
    expect 0 "$algorithm" "$pack" inspect signed
done
"$pack" payload p.zip --chain "$keys/chain.pem" \
    --key "$keys/payload-signer.pem" --alg PS256 --timestamp 1000000000 -o zip
expect 0 '^kind: signed payload' "$pack" inspect zip
expect 0 '^kind: package' "$pack" inspect p.zip
expect 1 'is not a binary OpenPGP signature' "$pack" inspect --as signature p.zip
expect 0 '^kind: detached OpenPGP signature' "$pack" inspect sig
cat "$keys/chain.pem" "$keys/foreign-root.pem" >long
expect 0 'warning.*foreign.* not the issuer' "$pack" payload content \
    --chain long --key "$keys/payload-signer.pem" --alg PS256 -o warned
expect 0 'warning.* not at the timestamp 1000000000' "$pack" payload content \
    --chain "$keys/chain.pem" --key "$keys/payload-signer.pem" --alg PS256 \
    --timestamp 1000000000 --force -o warned
checked=(payload content --key "$keys/payload-signer.pem" --alg PS256 -o x)
fails 'empty: is empty' "${checked[@]}" --chain empty
fails 'foreign-root.pem: does not vouch .* unable to get local issuer' \
    "${checked[@]}" --chain "$keys/chain.pem" --root-ca "$keys/foreign-root.pem"
fails 'root-ca.pem: does not vouch .* has expired' \
    "${checked[@]}" --chain "$keys/expired-chain.pem" --root-ca "$keys/root-ca.pem"
fails 'does not vouch for the chain at the timestamp 5: .* not yet valid' \
    "${checked[@]}" --chain "$keys/chain.pem" --root-ca "$keys/root-ca.pem" \
    --timestamp 5
fails 'chain.pem: certificate .* expires within 36500 days' "${checked[@]}" \
    --chain "$keys/chain.pem" --root-ca "$keys/root-ca.pem" --min-days 36500
openssl pkey -in "$keys/image-signer.pem" -aes256 -passout pass:abc -out locked.pem
expect 1 'locked.pem: needs a passphrase or PIN, and there is no terminal' \
    setsid "$pack" image content --key locked.pem -o x
echo wrong >wrong
fails 'locked.pem: no private key .* with that passphrase' image content \
    --key locked.pem --passphrase-file wrong -o x
fails 'nothere: No such file' image content --key locked.pem --passphrase-file nothere -o x
fails 'empty: no passphrase' image content --key locked.pem --passphrase-file empty -o x
cp p.zip twice.zip
python3 - twice.zip <<'PY'
import sys, warnings, zipfile
warnings.simplefilter("ignore")
with zipfile.ZipFile(sys.argv[1], "a") as package:
    package.writestr("package.xml", "<Package/>")
    package.writestr("payload\\x", "")
    package.writestr("payload/e\u0301", "")
PY
expect 0 'payload.*x: extractors differ' "$pack" inspect twice.zip
expect 0 'payload/e.u0301"' "$pack" inspect --json twice.zip
expect 0 'package.xml is there more than once' "$pack" inspect twice.zip
expect 3 'OpenBMCSecureBootRootCA.pem: No such file' "$velmora" verify-payload signed
cp "$keys/foreign-root.pem" "$root_ca"
expect 1 'unable to get local issuer' "$velmora" verify-payload signed
cp "$keys/root-ca.pem" "$root_ca"
expect 1 'the payload is not larger than its trailer' "$velmora" verify-payload --strict \
    files/a
"$pack" "${payload[@]}" --alg PS256 --key "$keys/payload-signer.pem" -o bare
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
fails image-signer "${payload[@]}" --key "$keys/image-signer.pem" --alg PS256 -o x
fails foreign payload content --chain "$keys/foreign-root.pem" \
    --key "$keys/payload-signer.pem" --alg PS256 -o x
"$pack" "${payload[@]}" --alg PS512 --timestamp 1800000000 --to-be-signed range
openssl dgst -sha512 -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:-1 \
    -sign "$keys/payload-signer.pem" -out pss range
expect 0 . "$pack" "${payload[@]}" --alg PS512 --timestamp 1800000000 \
    --signature pss -o signed2
expect 0 '"sts"|1800000000' "$pack" inspect --json signed2
for file in files/a content /dev/null "$keys" none; do
    expect '1' '^velmora-pack: ' "$pack" inspect "$file"
done

# Inspect.
printf '$KTBx' >short
expect 0 '^  - the header is not complete$' "$pack" inspect short
expect 1 'standard output: No space' sh -c '"$0" inspect short >/dev/full' "$pack"
python3 - <<'PY'
import zipfile
with zipfile.ZipFile("p.zip") as package:
    good = {name: package.read(name) for name in package.namelist()}
def make(name, changes, method=zipfile.ZIP_STORED):
    with zipfile.ZipFile(name, "w", method) as package:
        for member, content in (good | changes).items():
            package.writestr(member, content)
make("utf8.zip", {"payload/\u00e4": b"x", "payload/Z": b"y"})
make("lzma.zip", {}, zipfile.ZIP_LZMA)
make("unsigned.zip", {"package.xml.sign": b"", "payload/a;1": b"x"})
make("empty.zip", {"payload/a": b"", "payload/b": b""})
def change(source, target, *changes):
    content = open(source, "rb").read()
    for old, new in changes:
        assert old in content, old
        content = content.replace(old, new)
    open(target, "wb").write(content)
change("p.zip", "crc.zip", (b"one\n", b"0ne\n"))
with open("upper.xml", "wb") as file:
    file.write(good["package.xml"].replace(b"0001", b"zz").replace(
        b"0A1B", b"12345").replace(b'hash="', b'hash="A').replace(b"113440", b""))
change("signed", "unnamed", (b'"PS512"', b'"RS512"'), (b'"sts"', b'"stz"'))
PY
remarks() {
    expect 0 "^  - .*$2" "$pack" inspect "$1"
    expect 1 "^velmora-pack: $1: has remarks" "$pack" inspect --strict "$1"
}
expect 0 '^remarks: none$' "$pack" inspect --strict p.zip
expect 0 '^    createdDate: 20..-' "$pack" inspect sig
unzip -q utf8.zip -d utf8
expect 0 "^payloadDigest: $("$velmora" digest utf8/payload)\$" "$pack" inspect utf8.zip
remarks utf8.zip "digest is not the one"
remarks lzma.zip 'payload/a: not every extractor can read .*lzma'
remarks unsigned.zip 'the signature is empty'
remarks unsigned.zip 'a;1 is extracted under another name'
remarks empty.zip 'the payload is empty'
remarks crc.zip 'payload/a: ZIP bad CRC'
remarks twice.zip 'package.xml is there more than once'
remarks upper.xml 'systemID on line [0-9]+ is no number, and'
remarks upper.xml 'systemID on line [0-9]+ is not a 16-bit number'
remarks upper.xml 'hash is not 64 lower-case'
remarks upper.xml 'states no componentID'
remarks unnamed 'names no known algorithm'
remarks unnamed 'has no timestamp'
remarks unnamed 'signature does not fit'
remarks zip 'so not at the timestamp'
expect 1 '^3 files: 1 with remarks, 1 could not' "$pack" inspect p.zip none crc.zip
expect 1 '^velmora-pack: none: ' "$pack" inspect p.zip none
expect 1 '^crc.zip: package, 2 remarks$' "$pack" inspect --strict p.zip crc.zip
expect 0 '^p.zip 0 none: No such' python3 -c 'import json, os
files = json.load(os.popen("'"$pack"' inspect --json p.zip sig none 2>&-"))
print(files[0]["file"], len(files[1]["remarks"]), files[2]["error"])'

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
for signal in HUP QUIT; do
    env --default-signal "$pack" image large --key "$keys/image-signer.pem" \
        -o signed-large 2>interrupted &
    until compgen -G '.velmora-pack-*' >/dev/null; do sleep 0.01; done
    kill -s "$signal" $!
    wait $! || true
    expect 0 '^velmora-pack: interrupted' cat interrupted
    expect 1 '^$' compgen -G '.velmora-pack-*'
done

[ "$failures" -eq 0 ] || exit 1
echo "all as expected"
