#!/usr/bin/env bash
# The example daemon, in the simulated BMC.
# Arguments: velmora, velmora-pack, directory of test keys, the daemon.
set -euo pipefail
# shellcheck source=tests/support.sh
. "$(dirname "$0")/support.sh"
daemon=$(readlink -f "$4")
begin_tools "$@"
PATH=$(dirname "$velmora"):$PATH
mkdir state
export STATE_DIRECTORY=$PWD/state
inventory=/xyz/openbmc_project/inventory/system
model=("$velmora" inventory model)
# make FILE VERSION OPTION...
make() {
    "$pack" "${package[@]/#1.2/$2}" --payload files "${@:3}" -o "$1" >/dev/null
}
# What the last update left for other services.
result() {
    python3 -c 'import json, sys
print(json.load(open("state/result.json"))[sys.argv[1]])' "$1"
}

make good.zip 1.2 --system-id 0A1B
make any.zip 1.2
make other.zip 1.2 --system-id 0BAD
make newer.zip 1.10 --system-id 0A1B
make lost.zip 1.11 --system-id 0A1B
python3 - <<'PY'
import zipfile
def variant(name, members, method=zipfile.ZIP_STORED):
    with zipfile.ZipFile("good.zip") as good, \
            zipfile.ZipFile(name, "w", method) as out:
        for member in good.namelist():
            if member not in members:
                out.writestr(good.getinfo(member), good.read(member))
        for member, (mode, content) in members.items():
            info = zipfile.ZipInfo(member)
            info.external_attr = mode << 16
            info.compress_type = method
            out.writestr(info, content)
with zipfile.ZipFile("good.zip") as good:
    descriptor = good.read("package.xml")
variant("hostile.zip", {"package.xml": (0o100644, descriptor.replace(b"0A1B", b"zz"))})
variant("linked.zip", {"payload/c": (0o120777, "/etc/passwd")})
variant("nested.zip", {"payload/locked/": (0o40000, b"")})
variant("more.zip", {"install.sh": (0o100755, b"x")})
variant("flood.zip", {"package.xml.sign": (0o100644, bytes(65537))})
variant("bomb.zip", {"payload/" + name: (0o100644, bytes(140 << 20)) for name in "cd"},
        zipfile.ZIP_DEFLATED)
# Its sizes are listed in front of the member and at the end, and are changed below.
variant("lying.zip", {"payload/c": (0o100644, bytes(0x01020304))}, zipfile.ZIP_DEFLATED)
PY
LC_ALL=C sed -i 's/\x04\x03\x02\x01/\x04\x00\x00\x00/g' lying.zip
truncate -s 257M large.zip
# As a run that was killed leaves it.
mkdir -p state/unpacked/payload/q/r
chmod 0 state/unpacked/payload/q state/unpacked/payload

refuses() {
    expect 1 "^refused: .*$2" "$daemon" "$1"
    expect 0 '^refused$' result verdict
}
expect 2 'usage' "$daemon"
refuses other.zip 'this machine is 0A1B'
expect 0 'this machine is 0A1B' result reason
refuses linked.zip 'holds something besides'
refuses nested.zip 'holds something besides'
refuses more.zip 'holds something besides'
refuses flood.zip 'signature file is larger than 64 KiB'
refuses bomb.zip 'unpacked it is larger than 256 MiB'
refuses lying.zip 'unpack'
refuses large.zip 'larger than 256 MiB'
refuses any.zip 'the descriptor names no Model'
refuses hostile.zip 'lists a system that is no 16-bit number'
expect 3 'none.zip' "$daemon" none.zip
expect 3 "^could not be checked: nobody could tell this machine's system" \
    env DBUS_SYSTEM_BUS_ADDRESS=unix:path=/none "$daemon" good.zip
expect 0 'the platform service gave no identifier' result cause

full=(bwrap --dev-bind / / --size 8192 --tmpfs "$PWD/state/unpacked")
if "${full[@]}" true; then
    expect 3 'could not be checked: no room is left' "${full[@]}" "$daemon" good.zip
fi
expect 0 '^accepted: model 113440, version 1.2$' "$daemon" good.zip
expect 0 '^113440$' "${model[@]}" "$inventory/113440/1_2e2"
expect 0 '^accepted' "$daemon" good.zip
expect 0 '^accepted: .*version 1.10' "$daemon" newer.zip
expect 0 '^113440$' "${model[@]}" "$inventory/113440/1_2e10"
expect 1 . "${model[@]}" "$inventory/113440/1_2e2"
refuses good.zip '1.2 is older than 1.10'

# The inventory has that object already, from somebody else.
"$velmora" inventory add "$inventory/113440/1_2e11" --purpose BMC >/dev/null
expect 4 '^accepted and not published: ' "$daemon" lost.zip
expect 0 '^113440$' "${model[@]}" "$inventory/113440/1_2e10"
"$velmora" inventory remove "$inventory/113440/1_2e11" >/dev/null
expect 0 '^accepted: .*version 1.11' "$daemon" lost.zip
expect 1 . "${model[@]}" "$inventory/113440/1_2e10"
# A run was killed when it had just published.
make last.zip 1.12 --system-id 0A1B
"$velmora" inventory add "$inventory/113440/1_2e12" --detail1 x --purpose BMC >/dev/null
sed -i "s|\"next\": \"|&$inventory/113440/1_2e12|" state/models/113440.json
expect 0 '^accepted: .*version 1.12' "$daemon" last.zip
expect 1 . "${model[@]}" "$inventory/113440/1_2e11"
"$velmora" inventory add "$inventory/113440/1_2e13" --detail1 x --purpose BMC >/dev/null
sed -i "s|\"next\": \"|&$inventory/113440/1_2e13|" state/models/113440.json
expect 0 '^accepted: .*version 1.12' "$daemon" last.zip
expect 1 . "${model[@]}" "$inventory/113440/1_2e13"
cp state/models/113440.json kept
echo x >state/models/113440.json
expect 3 '113440.json is damaged: restore it' "$daemon" last.zip
mv kept state/models/113440.json
mkdir state/models/113440.json.new
expect 5 '^accepted and not remembered: .*113440.json.new' "$daemon" last.zip
rmdir state/models/113440.json.new
touch state/allow-older
if [ "$(stat -c %u state/allow-older)" -eq 0 ]; then
    expect 0 '^accepted: .*version 1.10' "$daemon" newer.zip
else
    refuses newer.zip 'is older than'
fi
refuses good.zip 'is older than'
[ -z "$(find state/incoming/ state/unpacked/ -mindepth 1)" ] ||
    fail "the example leaves $(find state)"

finish
