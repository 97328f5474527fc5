#!/usr/bin/env bash
# What is installed in a private prefix by the lines of README.md, as another
# project meets it; run inside the simulated BMC. The build directory has its
# prefix below itself. Arguments: README.md, build directory, prefix, example,
# test keys, whether there are man pages (true, false), emulator or nothing,
# compiler with its options.
set -euo pipefail
readme=$1 build=$2 prefix=$3 example=$4 keys=$5 man_pages=$6
read -ra emulator <<<"$7"
shift 7
compiler=("$@")
# shellcheck source=tests/support.sh
. "$(dirname "$0")/support.sh"
# Meson would help the programs to find the library.
unset LD_LIBRARY_PATH
cd "$(mktemp -d)"
# An agent of its own: another sandbox's would end with that.
cp -r "$keys" keys
keys=$PWD/keys

# The compiler that README.md means by c++ is that of the build.
c++() {
    command "${compiler[@]}" -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror "$@"
}

# The lines for a private prefix, but for what has been done for the tests:
# the build directory is configured and compiled, the prefix is in its place.
lines=$(awk '/^meson setup build-private / { on = 1 } /^```$/ { on = 0 }
             on && !/^meson (setup|compile)/' "$readme")
for line in 'meson install' 'export PATH' 'c++ '; do
    grep -q "^$line" <<<"$lines" || fail "README.md has no line: $line"
done
# The reasons that it shows are the library's.
while IFS= read -r reason; do
    grep -qF "$reason" "$build/src/libvelmora.so.1" || fail "README.md shows: $reason"
done < <(sed -n 's/ *[a-z_]*\.cpp:[0-9]*$//; s/.*refused: //p' "$readme")
rm -rf "$prefix"
export HOME=$PWD
ln -s "$prefix" velmora
ln -s "$build" build-private
cp "$example" daemon.cpp
eval "$lines" >log 2>&1 || { cat log; fail "README.md's lines"; exit 1; }

# A script, which finds what it starts; that needs the emulator, if there is one.
simulator=("$HOME/velmora/bin/bmc-sim")
[ ${#emulator[@]} -eq 0 ] ||
    simulator=("${emulator[@]}" "$HOME/velmora/libexec/velmora/bmc-services")
for tool in velmora velmora-pack bmc-sim; do
    if "$man_pages" && ! man -w $tool >/dev/null; then
        fail "no man page: $tool"
    fi
done
id=$(LC_ALL=C readelf -n velmora/lib/libvelmora.so.1 | sed -n 's/.*Build ID: //p')
for tool in velmora velmora-pack; do
    expect 0 "^$tool [0-9.]+.* build-id ${id:?}$" "${emulator[@]}" \
        "$HOME/velmora/bin/$tool" --version
done
expect 0 "^bmc-[a-z]+ [0-9.]+.* build-id $id$" "${simulator[@]}" --version

# completes EXPECTED WORD...: EXPECTED is among the completions of the last.
completes() {
    local expected=$1
    shift
    COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
    _velmora "$1"
    [[ " ${COMPREPLY[*]} " == *" $expected "* ]] ||
        fail "no completion of $*: ${COMPREPLY[*]}"
}
if [ ${#emulator[@]} -eq 0 ]; then
    # shellcheck source=tools/completion.bash
    . velmora/share/bash-completion/completions/velmora-pack
    completes verify-image velmora ver
    completes --system-id velmora-pack package --payload f --sys
    completes '' bmc-sim -- ''
fi

pack=("${emulator[@]}" "$HOME/velmora/bin/velmora-pack")
mkdir files
echo firmware >files/image
"${pack[@]}" package --payload files --version 1.2 --gpg-home "$keys/gnupg" \
    --key "$(cat "$keys/fingerprint")" --model 113440 --system-id 0A1B -o good.zip \
    >/dev/null
mkdir fresh other
expect 0 '^accepted$' "${emulator[@]}" ./a.out good.zip fresh
expect 1 '^refused$' "${emulator[@]}" ./a.out none.zip other

finish
