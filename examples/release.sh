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
mkdir "$2"
cd "$2"

# The same time in all that is made: that of the last commit, in a pipeline.
export SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(date +%s)}
model=113440
version=1.2.3
system=0A1B

# Keys.
# A real release has its keys already, and only names them here. This one makes
# some for a try and puts them into a token of SoftHSM.
velmora-pack test-keys keys
trap 'gpgconf --homedir keys/gnupg --kill all' EXIT
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

# Make.
# --keyring and --root-ca: nothing is made that the machine would refuse.
velmora-pack package --payload "$files" --model "$model" --version "$version" \
    --system-id "$system" --gpg-home keys/gnupg \
    --key "$(cat keys/fingerprint)" --keyring "$keyring" -o update.zip
tar --sort=name --mtime="@$SOURCE_DATE_EPOCH" --owner=0 --group=0 \
    --numeric-owner -cf content -C "$files" .
velmora-pack image content --key "$image_key" -o image
velmora-pack payload content --chain keys/chain.pem --alg PS384 \
    --key "$payload_key" --root-ca "$root_ca" -o payload

# Look.
# --strict: a remark ends the release.
velmora-pack inspect --strict update.zip
velmora-pack inspect --strict --as image image
velmora-pack inspect --strict payload

# Judge.
# The machine's security service is simulated too: it needs a manifest.
velmora-pack manifest -o manifest
bmc-sim --system-id "$system" --keyring "$keyring" --root-ca "$root_ca" \
    --signer-key keys/image-signer.pub.pem --bind "$PWD" -- sh -euc '
        velmora validate update.zip
        velmora verify-image image manifest
        velmora verify-payload payload'

sha256sum update.zip image payload
