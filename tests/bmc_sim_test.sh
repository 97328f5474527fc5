#!/usr/bin/env bash
# The simulated BMC from outside: what it gives, what it answers, and that
# nothing of it stays. Argument: bmc-sim.
set -euo pipefail
# Marks the processes of this test, which others may look like.
sim=(env "BMC_SIM_TEST=$$" "$(readlink -f "$1")")
# shellcheck source=tests/support.sh
. "$(dirname "$0")/support.sh"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# A BMC, or a machine that was one, has some of them itself.
places() {
    find /etc/gpg /run/velmora /run/obmcupdate /run/bmc-sim /tmp/ingressRelease \
        -printf '%p %t\n' 2>/dev/null | sort || true
}
before=$(places)
nothing_left() {
    [ "$(places)" = "$before" ] || fail "$1 leaves: $(places)"
    local tries=0
    # Those of a run that was killed need a moment to notice.
    while grep -qsz "^BMC_SIM_TEST=$$\$" /proc/[0-9]*/environ; do
        [ $((tries++)) -lt 100 ] || { fail "$1 leaves processes" && break; }
        sleep 0.1
    done
}

# Where the kernel forbids namespaces, each run says that it works in place.
silent='^$'
if [[ $("${sim[@]}" -- true 2>&1) == *"in place"* ]]; then
    silent='in place'
fi

# Expanded in the sandbox.
# shellcheck disable=SC2016
get='busctl --address=$DBUS_SYSTEM_BUS_ADDRESS'
id="$get get-property com.vorn.bmc.smad /xyz/openbmc_project/smad/oem \
    xyz.openbmc_project.Inventory.Item.Oem BaseSystemId"
expect 7 "$silent" "${sim[@]}" -- sh -c 'exit 7'
expect 143 "$silent" "${sim[@]}" -- sh -c 'kill -TERM $$'
expect 127 'none' "${sim[@]}" -- none
expect 126 'denied' "${sim[@]}" -- /etc/passwd
expect 2 '--system-id' "${sim[@]}" --system-id wrong -- true
expect 2 'no such option: --none' "${sim[@]}" --none -- true
expect 2 'without: no service' "${sim[@]}" --without '' -- true
expect 125 'version cannot be written' sh -c '"$@" --version >/dev/full' - "${sim[@]}"
expect 125 'passwd: no certificate' "${sim[@]}" --root-ca /etc/passwd -- true
expect 125 'bmc-sim: .*nokey' "${sim[@]}" --signer-key nokey -- true
expect 0 '^out$' "${sim[@]}" -- sh -c 'echo out > here; cat here'
expect 0 '^out$' cat here
# What is written there would run on the host.
expect 2 'Permission|Read-only' "${sim[@]}" -- sh -c ': >>/proc/sys/kernel/core_pattern || exit 1'
expect 0 '^700$' "${sim[@]}" -- stat -c %a /etc/gpg/secupkey/.gnupg
expect 0 "$silent" "${sim[@]}" -- sh -c 'cd /var/run/velmora/Zarnholt && cd \
    /var/run/obmcupdate && echo 1 > /tmp/ingressRelease'
expect 0 'ay 2 28 10' "${sim[@]}" --system-id 0A1C -- sh -c "$id"
expect 1 'ot' "${sim[@]}" --without platform -- sh -c "$id"
object=/xyz/openbmc_project/software
manager=xyz.openbmc_project.Software.Installed.Inventory
version=xyz.openbmc_project.Software.Version
expect 0 '"M"' "${sim[@]}" -- sh -c "$get call $manager $object $manager \
    addSWInventory sssss $object/a M 1 $version.VersionPurpose.BMC \
    $version.ReleaseType.Other && $get get-property $manager $object/a \
    xyz.openbmc_project.Software.Model Model"
nothing_left "a sandbox"

# What is typed so would be run by the shell behind COMMAND. Ctrl-C reaches
# COMMAND alone; when it has ended, so has all.
cat >terminal.py <<'PY'
import os, pty, sys
child, terminal = pty.fork()
if child == 0:
    os.execvp(sys.argv[1], sys.argv[1:])
output = b""
try:
    while part := os.read(terminal, 4096):
        output += part
        if b"typed" in part:
            os.write(terminal, b"\x03")
except OSError:
    print(output, os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
PY
# shellcheck disable=SC2016
typing='trap "echo interrupted; exit 9" INT; perl -e "\$| = 1; for (0x5412, 0x541c) {
    ioctl(STDOUT, \$_, \$x = q(x)); print \$!{EPERM} ? 1 : 0 } print q(typed)"; sleep 60 & wait'
if [ "$silent" = '^$' ]; then
    expect 0 "^b'11typed.*interrupted.* 9$" python3 terminal.py "${sim[@]}" \
        -- sh -c "$typing"
    expect 0 "^b'11typed[^i]* -2$" python3 terminal.py sh -c \
        'exec "$@" </dev/null' - "${sim[@]}" -- sh -c "$typing"
fi

interrupted() {
    : >started
    "$@" -- sh -c 'echo started; setsid sleep 60' >started 2>&1 &
    until grep -q started started; do
        sleep 0.05
    done
    kill -TERM $!
    wait $! || true
    nothing_left "an interrupted run of $*"
}
interrupted "${sim[@]}"
# Killed at any time, it takes the sandbox with it; in place it could not.
for delay in 0.01 0.02 0.03 0.05 0.1 0.2; do
    [ "$silent" = '^$' ] || break
    "${sim[@]}" -- sleep 60 &
    sleep "$delay"
    kill -KILL $!
    wait $! 2>/dev/null || true
done
nothing_left "a killed run"

if [ "$(id -u)" -ne 0 ] || [ -n "$before" ]; then
    echo "not root, or files in the library's places: in place is not tried"
    finish
    exit
fi
# As if the kernel forbade a sandbox.
mkdir bin
printf '#!/bin/sh\necho no sandbox >&2; exit 1\n' >bin/bwrap
chmod -R 755 "$work"
without=(env "PATH=$work/bin:$PATH" "${sim[@]}")
expect 3 'no sandbox; working in place' "${without[@]}" -- \
    sh -c 'ls /run/obmcupdate && exit 3'
nothing_left "a run in place"
interrupted "${without[@]}"
mkdir -p /run/velmora/Zarnholt
touch /run/velmora/Zarnholt/mine
expect 125 'bmc-sim: .*Zarnholt' "${without[@]}" -- true
rm -r /run/velmora
# An ordinary user, with a copy that he can reach.
cp "${sim[2]}" "$(dirname "${sim[2]}")/bmc-services" "$work"
user=(setpriv --reuid=65534 --regid=65534 --clear-groups env "BMC_SIM_TEST=$$")
expect 125 'no sandbox; only root' "${user[@]}" "PATH=$work/bin:$PATH" \
    "$work/bmc-sim" -- true
if [ "$silent" = '^$' ]; then
    expect 0 '^65534$' "${user[@]}" "$work/bmc-sim" -- id -u
    expect 32 'permission|superuser' "${sim[@]}" -- mount -t tmpfs none /mnt
fi
nothing_left "an ordinary user's run"
finish
