#!/usr/bin/env bash
# The commands of the page on signing, from top to bottom, and the example of a
# release. Arguments: the page, the example, velmora, velmora-pack, bmc-sim.
set -euo pipefail
page=$(readlink -f "$1")
example=$(readlink -f "$2")
shift 2
for program; do
    PATH=$(dirname "$(readlink -f "$program")"):$PATH
done
simulator=$(readlink -f "$program")
work=$(mktemp -d)
cleanup() {
    local home
    for home in "$work"/{keys,out/keys}/gnupg; do
        gpgconf --homedir "$home" --kill all || true
    done
    rm -rf "$work"
}
trap cleanup EXIT
cd "$work"
# What is built may lie below a directory that is fresh in the sandbox.
mkdir bin
printf '#!/bin/sh\nexec "%s" --bind "%s" "$@"\n' "$simulator" \
    "$(dirname "$simulator")/../.." >bin/bmc-sim
chmod +x bin/bmc-sim
PATH=$work/bin:$PATH

missing=
for program in softhsm2-util pkcs11-tool; do
    command -v "$program" >/dev/null || missing+=" $program"
done
echo x >x
said=$(velmora-pack image x --key 'pkcs11:token=none;object=x' -o y 2>&1) || true
[[ $said != *"cannot use tokens"* ]] || missing+=" a driver of OpenSSL for tokens"

awk -v hardware="${missing:-yes}" '/^```/ {
    on = $1 == "```sh" && ($2 != "hardware" || hardware == "yes"); next } on' \
    "$page" >commands
bash -eux commands
if [ -n "$missing" ]; then
    echo "skipped: keys in hardware, and the release, without$missing"
    exit
fi

# A PIN that the token refuses is not told.
export PKCS11_MODULE_PATH=/usr/lib/softhsm/libsofthsm2.so
export SOFTHSM2_CONF=$work/softhsm2.conf
printf 654321 >pin
key="pkcs11:token=release;object=image?pin-source=$work/pin"
! velmora-pack image x --key "$key" -o z >said 2>&1 || exit
grep -q 'no private key .* with that passphrase or PIN' said
[ "$(grep -ac 654321 said)" -eq 0 ]

# What stops leaves nothing in the way of the next.
mkdir files
! "$example" files out || exit
[ "$(compgen -G 'out*')" = "" ]
echo firmware >files/image-bmc
"$example" files out | tee log
[ "$(grep -c '^accepted' log)" -eq 3 ]
