#!/usr/bin/env bash
# A release from a folder of files: package, image and payload, signed with
# keys in a token, checked, inspected, and judged by the library on a simulated
# BMC. Arguments: the folder with the firmware's files, and a directory to make.
# velmora, velmora-pack and bmc-sim must be on the path.
set -euo pipefail
if [ $# -ne 2 ]; then
    echo "usage: release.sh FOLDER NEW_DIRECTORY" >&2
    exit 2
fi
files=$(readlink -f "$1")
target=$(realpath "$2")
if [ -e "$target" ]; then
    echo "release.sh: $2 exists already" >&2
    exit 1
fi
# Made beside it, so that a release that stops leaves nothing in the way.
work=$(mktemp -d "$target.XXXXXX")
end() {
    # Timeouts send their signal twice, the second one while this runs.
    trap '' HUP INT TERM
    if [ -d "$work/keys" ]; then
        gpgconf --homedir "$work/keys/gnupg" --kill all
    fi
    rm -rf "$work"
}
trap end EXIT
cd "$work"

# The same time in all that is made: that of the last commit, in a pipeline.
export SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(date +%s)}
model=113440
version=1.2.3
system=0A1B

# Keys.
# A real release has its keys already, and only names them here. This one makes
# some for a try and puts them into a token of SoftHSM.
velmora-pack test-keys keys
export PKCS11_MODULE_PATH=${PKCS11_MODULE_PATH:-/usr/lib/softhsm/libsofthsm2.so}
export SOFTHSM2_CONF=$PWD/softhsm2.conf
export VELMORA_PACK_PIN=123456
mkdir tokens
echo "directories.tokendir = $PWD/tokens" >softhsm2.conf
softhsm2-util --init-token --free --label release --so-pin 123456 \
    --pin "$VELMORA_PACK_PIN"
for key in image:01 payload:02; do
    name=${key%:*}
    softhsm2-util --import "keys/$name-signer.pem" --token release \
        --pin "$VELMORA_PACK_PIN" --label "$name" --id "${key#*:}"
    rm "keys/$name-signer.pem"
done
image_key="pkcs11:token=release;object=image"
payload_key="pkcs11:token=release;object=payload"
keyring=keys/keyring.asc
root_ca=keys/root-ca.pem
# The key of packages is about to change: machines of the field know the old one.
old_key=$(cat keys/fingerprint)
# It is no younger than what it signs.
gpg --homedir keys/gnupg --batch --quiet --passphrase '' \
    --faked-system-time "$SOURCE_DATE_EPOCH!" --quick-generate-key \
    "TEST, do not trust: next" ed25519 sign never
new_key=$(gpg --homedir keys/gnupg --with-colons --list-keys next |
    sed -n 's/^fpr:*\([0-9A-F]*\):$/\1/p')
gpg --homedir keys/gnupg --export "$new_key" >keys/next-keyring

# Make.
# --keyring and --root-ca: nothing is made that the machine would refuse.
velmora-pack package --payload "$files" --model "$model" --version "$version" \
    --system-id "$system" --gpg-home keys/gnupg --key "$old_key" \
    --key "$new_key" --keyring "$keyring" -o update.zip
# The same package for when every machine has the new keyring.
velmora-pack resign update.zip --gpg-home keys/gnupg --key "$new_key" \
    --keyring keys/next-keyring -o update-next.zip
tar --sort=name --mtime="@$SOURCE_DATE_EPOCH" --owner=0 --group=0 \
    --numeric-owner -cf content -C "$files" .
velmora-pack image content --key "$image_key" -o image
velmora-pack payload content --chain keys/chain.pem --alg PS384 \
    --key "$payload_key" --root-ca "$root_ca" -o payload

# Look.
# --strict: a remark ends the release.
velmora-pack inspect --strict update.zip
velmora-pack inspect --strict update-next.zip
velmora-pack inspect --strict --as image image
velmora-pack inspect --strict payload

# Judge.
# The machine's security service is simulated too: it needs a manifest.
velmora-pack manifest -o manifest
bmc-sim --system-id "$system" --keyring "$keyring" --root-ca "$root_ca" \
    --signer-key keys/image-signer.pub.pem --bind "$PWD" -- sh -euc '
        velmora validate --min-version 1.2.0 update.zip
        velmora verify-image image manifest
        velmora verify-payload payload'

sha256sum update.zip update-next.zip image payload
# While gpg's agent can still be found by where its home is.
gpgconf --homedir "$work/keys/gnupg" --kill all
chmod 755 "$work"
mv -T "$work" "$target"
