#!/usr/bin/env bash
# What is installed, as another project meets it; run inside the simulated
# BMC. Arguments: build directory, example, velmora, velmora-pack, test keys,
# whether there are man pages (true, false), emulator or nothing, compiler with
# its options.
set -euo pipefail
build=$1 example=$2 keys=$5 man_pages=$6
velmora=$(readlink -f "$3")
pack=$(readlink -f "$4")
read -ra daemon <<<"$7 ./update_daemon"
shift 7
failures=0
cd "$(mktemp -d)"
# An agent of its own: another sandbox's would end with that.
cp -r "$keys" keys
keys=$PWD/keys
root=$PWD/root

fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

expect() {
    local status=0 output expected=$1 pattern=$2
    shift 2
    output=$("$@" 2>&1) || status=$?
    if [ "$status" -ne "$expected" ] || ! grep -qE -- "$pattern" <<<"$output"; then
        fail "$* gives status $status and: $output"
    fi
}

meson install -C "$build" --no-rebuild --quiet --destdir "$root"

pc=$(find "$root" -name velmora.pc)
[ -n "$pc" ] || { fail "no velmora.pc"; exit 1; }
export PKG_CONFIG_LIBDIR=${pc%/*}
prefix=$root$(pkg-config --variable=prefix velmora)
libdir=$root$(pkg-config --variable=libdir velmora)
installed=("$libdir"/libvelmora.so{,.1} "$prefix/include/velmora.hpp"
    "$prefix"/bin/{velmora,velmora-pack,bmc-sim})
if "$man_pages"; then
    installed+=("$prefix"/share/man/man1/{velmora,velmora-pack,bmc-sim}.1
        "$prefix/share/man/man3/libvelmora.3")
fi
for file in "${installed[@]}"; do
    [ -s "$file" ] || fail "not installed: ${file#"$root"}"
done

read -ra flags <<<"$(PKG_CONFIG_SYSROOT_DIR=$root \
    pkg-config --cflags --libs velmora)"
"$@" -std=c++20 -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror \
    "$example" "${flags[@]}" -Wl,-rpath-link,"$libdir" -o update_daemon
# libquorlin.so.9 lies beside the library where the stand-in is used.
export LD_LIBRARY_PATH=$libdir

mkdir state files
export STATE_DIRECTORY=$PWD/state
echo firmware >files/image
package=("$pack" package --payload files --version 1.2 --gpg-home "$keys/gnupg"
    --key "$(cat "$keys/fingerprint")")
"${package[@]}" --model 113440 -o good.zip >/dev/null
"${package[@]}" --model 113440 --system-id 1 -o other.zip >/dev/null
model=("$velmora" inventory model /xyz/openbmc_project/inventory/system/113440)
cp good.zip linked.zip
mkdir payload
ln -s /etc/passwd payload/image
zip -qy linked.zip payload/image
cp good.zip more.zip
echo more >payload-more
zip -q more.zip payload-more

expect 2 'usage' "${daemon[@]}"
expect 1 'refused: .*not for this system' "${daemon[@]}" other.zip
expect 1 'refused: the payload holds' "${daemon[@]}" linked.zip
expect 1 'refused: the package holds' "${daemon[@]}" more.zip
expect 3 'none.zip' "${daemon[@]}" none.zip
expect 1 . "${model[@]}"
expect 0 '^accepted: model 113440, version 1.2$' "${daemon[@]}" good.zip
expect 0 '^accepted' "${daemon[@]}" good.zip
expect 0 '^113440$' "${model[@]}"
[ -z "$(ls -A state)" ] || fail "the example leaves $(ls -A state)"

[ "$failures" -eq 0 ] || exit 1
echo "all as expected"
