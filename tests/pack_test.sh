#!/usr/bin/env bash
# velmora-pack as a user meets it; the library judges what it makes.
# Arguments: velmora, velmora-pack, directory of test keys.
# shellcheck disable=SC2016 # Expanded by another shell.
set -euo pipefail
# shellcheck source=tests/support.sh
. "$(dirname "$0")/support.sh"
begin_tools "$@"

root_ca=/var/run/obmcupdate/OpenBMCSecureBootRootCA.pem

# One clear line on stderr that names the file, and nothing left behind.
fails() {
    local named=$1 before said status=0
    shift
    before=$(ls -A)
    said=$("$pack" "$@" 2>&1 >/dev/null </dev/null) || status=$?
    if [[ $status -ne 1 || ! $said =~ ^velmora-pack:\ .*$named ||
        $said == *$'\n'* || $(ls -A) != "$before" ]]; then
        fail "$* gives status $status, leaves $(ls -A), and says: $said"
    fi
}

# Packages. A user's own options for gpg change nothing.
export TMPDIR=$PWD/temporary
mkdir temporary case
echo armor >"$keys/gnupg/gpg.conf"
"$pack" "${package[@]}" --payload files --system-id 1 --system-id 0a1b -o p.zip
# The same in another folder, zone and locale, and to a second look.
mkdir other
cp -r files other
SOURCE_DATE_EPOCH=1700000000 "$pack" "${package[@]}" --payload files -o 1.zip
expect 0 . env -C other SOURCE_DATE_EPOCH=1700000000 TZ=Asia/Tokyo \
    LC_ALL=C.UTF-8 "$pack" "${package[@]}" --payload files -o 1.zip
expect 0 '^$' cmp 1.zip other/1.zip
expect 0 '^$' diff <("$pack" inspect --json 1.zip) \
    <("$pack" inspect --json "$PWD/other/1.zip")
unzip -p p.zip package.xml.sign >sig
expect 0 '^remarks: none$' "$pack" inspect sig

mkdir nested
touch empty 'back\slash'
mkfifo nested/pipe
fails 'has a name with a backslash' "${package[@]}" --payload 'back\slash' -o x.zip
fails 'empty: is empty' "${package[@]}" --payload empty -o x.zip
fails 'nested/pipe: is not a regular file' "${package[@]}" --payload nested -o x.zip
echo x | tee case/{a,A} >/dev/null
fails 'x.zip: is not made: member payload/a is there twice' "${package[@]}" --payload case -o x.zip
fails 'not made: package.xml: is larger than 262144' package "${package[@]:5}" --payload files \
    --model 1 --version "$(printf '&%.0s' {1..60000})" -o x.zip
expect 1 '^velmora-pack: gpg: cannot be run' env PATH=/none "$pack" "${package[@]}" \
    --payload files -o x.zip
expect 2 'keyring: must not be empty' "$pack" "${package[@]}" --payload files --keyring '' -o x.zip
TMPDIR=/none fails '/none: is no directory for temporary' inspect sig
fails 0000 package --model 1 --version 1 --payload files \
    --gpg-home "$keys/gnupg" --key 0000000000000000000000000000000000000000 \
    -o x.zip

# What would surprise, or the machine would refuse.
fails '1.zip: exists; --force' "${package[@]}" --payload files -o 1.zip
fails 'none/: names a directory' "${package[@]}" --payload files -o none/
fails 'files/x: lies in files, which is' "${package[@]}" --payload files -o files/x
fails 'kbx: lies in .*gnupg, which is' "${package[@]}" --payload files --force -o "$keys/gnupg/pubring.kbx"
ln -s ../1.zip nested/soft
rm nested/pipe
fails '1.zip: is also an input' "${package[@]}" --payload nested --force -o 1.zip
expect 0 'signed and checked' sh -c 'exec "$@" 0<&-' - "$pack" "${package[@]}" \
    --payload files --keyring "$keys/keyring.asc" -o closed.zip
truncate -s 9G huge
fails 'huge: has more than 8 GiB' "${package[@]}" --payload huge -o x.zip
rm huge
expect 2 'not a number of 1 to 4 hexadecimal digits: 12345' "$pack" "${package[@]}" --payload files \
    -o none.zip --system-id 12345
# Keys of packages: a primary key with two subkeys, and one of 2024.
mkdir -m 700 owner locked
gpg_of() { gpg --homedir "$1" --batch --quiet --passphrase '' "${@:2}" 2>/dev/null; }
gpg_of owner --quick-generate-key "Owner, TEST" ed25519 sign never
fingerprints() {
    gpg_of "$1" --with-colons --list-keys | sed -n 's/^fpr:*//; T; s/:$//p'
}
gpg_of owner --quick-add-key "$(fingerprints owner)" ed25519 sign 10d
gpg_of owner --quick-add-key "$(fingerprints owner | head -n 1)" ed25519 sign never
gpg_of owner --faked-system-time 20240101T000000 \
    --quick-generate-key Old ed25519 sign 2024-01-31
mapfile -t owned < <(fingerprints owner)
gpg_of owner --export "${owned[0]}" >owner.pub
owner=(package --payload files --model 1 --version 1 --gpg-home owner)
fails 'keyring.asc: gives no good signature: no public key' "${owner[@]}" \
    --key "${owned[0]}" --keyring "$keys/keyring.asc" -o x.zip
fails "owner.pub: key ${owned[0]}, subkey ${owned[1]} expires within 30 days" \
    "${owner[@]}" --key "${owned[1]}" --keyring owner.pub -o x.zip
"$pack" "${owner[@]}" --key "${owned[1],,}" --keyring owner.pub --min-days 5 -o sub.zip
gpg_of /etc/gpg/secupkey/.gnupg --import owner.pub
expect 1 "not .* fully valid: Owner, TEST, ${owned[0]}, subkey ${owned[1]}\$" \
    "$velmora" validate sub.zip
# One lasts, so that the machine accepts the package for as long.
"$pack" "${owner[@]}" --key "${owned[1]}" --key "${owned[0]}!" --keyring owner.pub \
    -o both.zip
expect 0 "fingerprint: ${owned[0]}" "$pack" inspect both.zip
expect 0 "fingerprint: ${owned[1]}" "$pack" inspect both.zip

echo default-sig-expire 3d >owner/gpg.conf
fails "owner.pub: the signature of key ${owned[0]} expires within 30 days" \
    "${owner[@]}" --key "${owned[0]}!" --keyring owner.pub -o x.zip
rm owner/gpg.conf
SOURCE_DATE_EPOCH=2000000000 fails "expires on 20.*, before the time of SOURCE_DATE_EPOCH" \
    "${owner[@]}" --key "${owned[1]}" -o x.zip

# Signed again: all but the signature stays as it is.
again=(--gpg-home owner --key "${owned[0]}" -o x.zip)
expect 0 "model 113440, version 1.2, was signed before by $(cat "$keys/fingerprint") on 20.*no public key" \
    "$pack" resign p.zip --gpg-home owner --key "${owned[1]}" --keyring owner.pub \
    --min-days 5 -o replaced.zip
"$pack" resign p.zip --gpg-home owner --key "${owned[0]}" --add \
    --keyring "$keys/keyring.asc" -o added.zip
expect 0 '^accepted: signed by TEST' "$velmora" validate added.zip
expect 1 "no public key|fully valid: Owner" "$velmora" validate replaced.zip
for made in p replaced added; do
    mkdir "un-$made"
    (cd "un-$made" && unzip -q "../$made.zip" && mv package.xml.sign "../$made.sig")
done
expect 0 '^$' diff -r un-p un-replaced
expect 0 '^$' diff -r un-p un-added
expect 0 '^$' cmp -n "$(stat -c %s p.sig)" p.sig added.sig
"$pack" resign p.zip --to-be-signed again.xml
expect 0 '^$' cmp again.xml un-p/package.xml
gpg_of owner --detach-sign --local-user "${owned[0]}!" -o again.sig again.xml
expect 0 'package, signed and checked' "$pack" resign p.zip --signature again.sig --gpg-home owner \
    --force -o replaced.zip
# The old signature must not vouch for a new one that nobody knows.
fails 'no good signature' resign p.zip --add --signature again.sig \
    --gpg-home "$keys/gnupg" -o x.zip
echo changed >un-p/payload/a
cp p.sig un-p/package.xml.sign
(cd un-p && zip -qr ../changed.zip .)
fails 'changed.zip: is not signed again: the payload.s digest' resign changed.zip "${again[@]}"
(cd un-added && sed -i 's/113440/113033/' package.xml && cp ../p.sig package.xml.sign &&
    zip -qr ../forged.zip .)
fails 'is not signed again: the descriptor is not what' resign forged.zip \
    "${package[@]:5}" -o x.zip
expect 2 '--chain: means nothing for this package' \
    "$pack" resign p.zip --chain x "${again[@]}"
expect 2 'excludes --add' "$pack" resign p.zip --add --to-be-signed x

fails "${owned[3]}: the key expired on 2024-01-31" "${owner[@]}" --key "${owned[3]}" \
    -o x.zip
SOURCE_DATE_EPOCH=1700000000 fails 'after the time of SOURCE_DATE_EPOCH' \
    "${owner[@]}" --key "${owned[0]}" -o x.zip
echo disable | gpg --homedir owner --command-fd 0 --no-tty --edit-key Owner 2>/dev/null
fails 'the key is disabled' "${owner[@]}" --key "${owned[2]}" -o x.zip
sed -i 's/^:---/---/' owner/openpgp-revocs.d/*.rev
gpg_of owner --import "owner/openpgp-revocs.d/${owned[0]}.rev"
fails "its primary key ${owned[0]} was revoked on 20" "${owner[@]}" --key "${owned[2]}" \
    -o x.zip
fails 'chain.pem: holds no OpenPGP public key' "${package[@]}" --payload files \
    --keyring "$keys/chain.pem" -o x.zip
gpg --homedir locked --batch --quiet --passphrase x --pinentry-mode loopback \
    --quick-generate-key Locked ed25519 sign 2>/dev/null
gpgconf --homedir locked --kill all
expect 1 'cannot sign .* GPG_TTY=.* gpg-preset-passphrase' setsid "$pack" \
    package --payload files --model 1 --version 1 --gpg-home locked \
    --key "$(fingerprints locked)" -o x.zip

fails 'holds a private key' "${package[@]}" --payload "$keys/image-signer.pem" -o x.zip

# Images.
# It begins like a signature.
printf '\x88\x3\x4' >content
head -c 50000 /dev/urandom >>content
"$pack" manifest --release 1 -o manifest
fails 'manifest: exists and is not an empty directory' manifest -o manifest
expect 0 '^    release: 1$' "$pack" inspect manifest/image-ktb
expect 0 '^kind: manifest signature$' "$pack" inspect --strict manifest/image-ktb.sig
"$pack" image content --key "$keys/image-signer.pem" -o image
openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-384 -out next.pem 2>/dev/null
openssl pkey -in next.pem -pubout -out next.pub
again=(resign image --key next.pem --old-public-key)
expect 0 'signed before by .*image-signer' "$pack" "${again[@]}" \
    "$keys/image-signer.pub.pem" -o next
expect 0 '^$' cmp -n 50003 image next
fails 'does not fit the content and the key' "${again[@]}" next.pub -o x
expect 2 '--min-days: means nothing for this image' "$pack" "${again[@]}" next.pub --min-days 1 -o x
"$pack" resign image --old-public-key "$keys/image-signer.pub.pem" --to-be-signed content2
expect 0 '^$' cmp content2 content
fails 'needs --public-key with --signature' image content --signature content -o x
fails 'an image needs --old-public-key' resign image --key x -o x
ln -s /dev/null link
fails 'link: exists and is not a regular' image content --key "$keys/image-signer.pem" \
    --force -o link
expect 2 'version is not for this command' "$pack" image content \
    --key "$keys/image-signer.pem" -o x --version 1
fails 'empty: is empty' image empty --key "$keys/image-signer.pem" -o x
fails 'nodir/x: there is no directory' image content --key "$keys/image-signer.pem" -o nodir/x
# As a full disk does.
expect 1 '^velmora-pack: x.zip: .*File too large' bash -c 'ulimit -f 8; exec "$@"' - \
    "$pack" "${package[@]}" --payload content -o x.zip
fails payload-signer "image" content --key "$keys/payload-signer.pem" -o x
echo x >pin
fails 'pin: is also an input' image content --key x --passphrase-file pin --force -o pin
fails content "image" content --signature content \
    --public-key "$keys/image-signer.pub.pem" -o x

# Payloads.
payload=(payload content --chain "$keys/chain.pem")
for algorithm in PS256 PS384 PS512; do
    "$pack" "${payload[@]}" --key "$keys/payload-signer.pem" \
        --alg "$algorithm" --force -o signed
    cp "$keys/root-ca.pem" "$root_ca"
    expect 0 '^accepted: signed by CN=.* payload signer' "$velmora" verify-payload signed
done
expect 0 'warning.* not at the timestamp 1000000000' "$pack" payload p.zip \
    --chain "$keys/chain.pem" --key "$keys/payload-signer.pem" --alg PS256 \
    --timestamp 1000000000 -o zip
expect 0 '^kind: signed payload' "$pack" inspect zip
expect 1 'is not at most 100 binary ones' "$pack" inspect --as signature p.zip
expect 0 'payload with PS512 signature and timestamp 1600000000' "$pack" resign signed \
    --key "$keys/payload-signer.pem" --timestamp 1600000000 -o signed-again
cp "$keys/root-ca.pem" "$root_ca"
expect 0 '^accepted: signed by' "$velmora" verify-payload signed-again
expect 0 '^$' cmp -n 50003 signed signed-again
cp signed odd
echo changed | dd of=odd bs=1 conv=notrunc status=none
fails 'odd: the signature does not fit' resign odd --key "$keys/payload-signer.pem" -o x
checked=(payload content --key "$keys/payload-signer.pem" --alg PS256 -o x)
fails 'empty: holds no certificate' "${checked[@]}" --chain empty
openssl x509 -trustout -in "$keys/root-ca.pem" | cat "$keys/chain.pem" - >trusted
fails 'trusted: holds a trusted certificate' "${checked[@]}" --chain trusted
fails 'foreign-root.pem: does not vouch .* unable to get local issuer' \
    "${checked[@]}" --chain "$keys/chain.pem" --root-ca "$keys/foreign-root.pem"
fails 'does not vouch for the chain at the timestamp 10: .* not yet valid' \
    "${checked[@]}" --chain "$keys/chain.pem" --root-ca "$keys/root-ca.pem" \
    --timestamp 010
fails 'certificate .* so not in 36500 days' "${checked[@]}" \
    --chain "$keys/chain.pem" --root-ca "$keys/root-ca.pem" --min-days 36500
openssl pkey -in "$keys/image-signer.pem" -aes256 -passout pass:a-secret -out locked.pem
echo wrong >wrong
expect 1 'locked.pem: needs a passphrase or PIN, and there is no terminal' \
    setsid "$pack" image content --key locked.pem -o x
# What it cannot be is told before a token counts a try.
printf 'a-secret\r\n' >carriage
printf 'a-secret\ndef\n' >lines
for file in wrong:'no private key .* with that passphrase' empty:'no passphrase' \
    nothere:'No such file' /dev/zero:'more than the one line' carriage:'has a carriage return' lines:'more than the one line'; do
    fails "${file#*:}" image content --key locked.pem --passphrase-file "${file%:*}" -o x
done
for query in "pin-source=file:$PWD/carriage" "a=b&pin-source=$PWD/lines" pin-value=1; do
    fails 'carriage return|more than the one|shows the PIN' image content \
        --key "pkcs11:object=x?$query" -o x
done

# Inspect.
printf '$KTBx' >short
expect 0 '^  - the header is not complete$' "$pack" inspect short
expect 1 'standard output: No space' sh -c '"$0" inspect short >/dev/full' "$pack"
python3 - <<'PY'
import zipfile
with zipfile.ZipFile("p.zip") as package:
    good = {name: package.read(name) for name in package.namelist()}
def make(name, changes):
    with zipfile.ZipFile(name, "w") as package:
        for member, content in (good | changes).items():
            package.writestr(member, content)
make("utf8.zip", {"payload/\u00e4": b"x", "payload/Z": b"y"})
make("odd.zip", {"payload\\x": b"", "payload/e\u0301": b"", "PACKAGE.XML": b"<Package/>"})
make("unsigned.zip", {"package.xml.sign": b"", "payload/a;1": b"x"})
make("sigs.zip", {"package.xml.sign": good["package.xml.sign"] * 600})
make("many.zip", {"package.xml.sign": b"\xc2\0" * 101})
with zipfile.ZipFile("over.zip", "w") as package:
    package.writestr("payload/a", b"x" * 1000)
    package.filelist *= 2
make("empty.zip", {"payload/a": b"", "payload/b": b""})
def change(source, target, *changes):
    content = open(source, "rb").read()
    for old, new in changes:
        assert old in content, old
        content = content.replace(old, new)
    open(target, "wb").write(content)
change("odd.zip", "odd.zip", (b"PACKAGE.XML", b"package.xml"))
change("p.zip", "crc.zip", (b"one\n", b"0ne\n"))
change("p.zip", "deflate64.zip", (b"PK\3\4\x0a\0\0\0\0", b"PK\3\4\x0a\0\0\0\x09"),
       (b"PK\1\2\x3f\3\x0a\0\0\0\0", b"PK\1\2\x3f\3\x0a\0\0\0\x09"))
with open("typed.xml", "w") as file:
    file.write("<!DOCTYPE a [<!ENTITY % a0 ''>" + "".join(
        f"<!ENTITY % a{i} '&#37;a{i - 1};&#37;a{i - 1};'>" for i in range(1, 30))
        + "%a29;]><a/>")
with open("upper.xml", "wb") as file:
    attributes = "".join(f'a{i}="" ' for i in range(1001)).encode()
    file.write(good["package.xml"].replace(b"0001", b"zz").replace(
        b"0A1B", b"12345").replace(b'hash="', b'hash="A').replace(
        b'componentID="113440"', attributes).replace(
        b"</Package>", b'<Model systemID="%01025d"/></Package>' % 1))
change("signed", "unnamed", (b'"PS512"', b'"RS512"'), (b'"sts"', b'"stz"'))
PY
remarks() {
    expect 0 "^  - .*$2" "$pack" inspect "$1"
    expect 1 "^velmora-pack: $1: has remarks" "$pack" inspect --strict "$1"
}
expect 0 '^remarks: none$' "$pack" inspect --strict p.zip
unzip -q utf8.zip -d utf8
expect 0 "^payloadDigest: $("$velmora" digest utf8/payload)\$" "$pack" inspect utf8.zip
remarks utf8.zip "digest is not the one"
remarks deflate64.zip 'package.xml is compressed with Deflate64'
cat p.zip sig >behind.zip
remarks behind.zip 'something stands behind its end record'
remarks upper.xml 'an element has more than 1000 attributes'
remarks upper.xml 'systemID .* is longer than 1024 bytes'
remarks typed.xml 'takes at most 8192 bytes, and this has [0-9]+;'
remarks unsigned.zip 'OpenPGP signature: is not at most 100'
remarks unsigned.zip 'a;1 has a name that ends with a semicolon'
remarks many.zip 'OpenPGP signature: is not at most 100'
expect 1 'over.zip: .* its members lie over one another' "$pack" inspect over.zip
remarks sigs.zip 'OpenPGP signature: is larger than 65536 bytes'
remarks empty.zip 'the payload is empty'
remarks crc.zip 'payload/a cannot be read: CRC error'
remarks odd.zip 'package.xml is there twice'
remarks odd.zip 'payload.*x has a name with a backslash'
expect 0 'payload/e.u0301"' "$pack" inspect --json odd.zip
remarks upper.xml 'systemID "zz" is no number, and'
remarks upper.xml 'systemID "12345" is not a 16-bit number'
remarks upper.xml 'hash is not 64 lower-case'
remarks upper.xml 'states no componentID'
remarks image 'a signed image always needs --as image'
remarks unnamed 'names no known algorithm'
remarks unnamed 'has no timestamp'
remarks unnamed 'signature does not fit'
remarks zip 'so not at the timestamp'
expect 1 '^3 files: 1 with remarks, 1 could not' "$pack" inspect p.zip none crc.zip files
expect 1 'only directories' "$pack" inspect --json files nested
expect 2 'put ./ in front' "$pack" inspect '[p.zip,sig]'
expect 1 '"error": "none: No such file' "$pack" inspect --json p.zip sig none

# While something large is under way: a bar, another file, signals.
truncate -s 256M large
expect 0 ' 50 %' script -qec "'$pack' inspect --as image large" /dev/null
expect 1 '^$' sh -c 'script -qec "$0 inspect --quiet --as image large" /dev/null |
    grep %' "$pack"
image=("$pack" image large --key "$keys/image-signer.pem" -o signed-large)
begin_large() {
    env --default-signal "${image[@]}" 2>interrupted &
    until compgen -G '.velmora-pack-*' >/dev/null; do sleep 0.01; done
}
begin_large
echo mine >signed-large
wait $! || true
expect 0 '^velmora-pack: signed-large: File exists' cat interrupted
expect 0 '^mine$' cat signed-large
rm signed-large
ulimit -S -c hard
# Another signal comes while what is temporary is removed.
mkdir shim
printf '#!/bin/sh\nkill -s TERM $PPID\nexec /bin/mv "$@"\n' >shim/mv
chmod +x shim/mv
PATH=$PWD/shim:$PATH begin_large
kill -s QUIT $!
wait $! || status=$?
rm shim/mv
expect 0 '^131$' echo "$status"
expect 1 '^$' compgen -G '.velmora-pack-*'

# No child gets a PIN, no core dump or log holds it, and nobody sees it in the
# environment or the arguments of the process.
printf '#!/bin/sh\nenv >%s\necho "$@" >>%s\nexit 1\n' "$PWD/child"{,} >shim/openssl
chmod +x shim/openssl
VELMORA_PACK_PIN=a-secret PATH=$PWD/shim:$PATH expect 1 'keys cannot be made' \
    "$pack" test-keys none
expect 1 '^0$' grep -cE 'VELMORA_PACK_PIN|a-secret' child
(
    export VELMORA_PACK_PIN=a-secret
    "$pack" image large --key locked.pem -o x 2>&1 &
    until compgen -G '.velmora-pack-*' >/dev/null; do sleep 0.01; done
    cat "/proc/$!/environ" "/proc/$!/cmdline" | tr '\0' '\n'
    kill -s ABRT $!
    wait $!
) >aborted 2>&1 || true
expect 1 '^0$' grep -acE 'a-secret|core dumped' aborted

expect 0 '^$' ls -A temporary
finish
