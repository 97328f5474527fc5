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

# No PIN in the arguments or the environment of the process, nor in what it says,
# also of one that the token refuses.
export PKCS11_MODULE_PATH=/usr/lib/softhsm/libsofthsm2.so
export SOFTHSM2_CONF=$work/softhsm2.conf
truncate -s 256M large
key="pkcs11:token=release;object=image"
velmora-pack image large --key "$key?pin-source=file:$work/pin" -o y >said 2>&1 &
until compgen -G '.velmora-pack-*' >/dev/null; do sleep 0.01; done
cat "/proc/$!/cmdline" >>said
# Of a process that leaves no core dump, only root may read it.
cat "/proc/$!/environ" >>said 2>&1 || [ "$(id -u)" -ne 0 ]
wait $!
printf 654321 >pin
! velmora-pack image x --key "$key?pin-source=$work/pin" -o z >>said 2>&1 || exit
grep -q 'no private key .* with that passphrase or PIN' said
[ "$(grep -acE '123456|654321' said)" -eq 0 ]

# What stops leaves nothing in the way of the next.
mkdir files
! "$example" files out || exit
[ "$(compgen -G 'out*')" = "" ]
echo firmware >files/image-bmc
"$example" files out | tee log
[ "$(grep -c '^accepted' log)" -eq 3 ]
