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
    while grep -qsz "^BMC_SIM_TEST=$$\$" /proc/[0-9]*/environ; do
        # Those of a run that was killed need a moment to notice.
        if [ $((++tries)) -gt 100 ]; then
            fail "$1 leaves processes"
            break
        fi
        sleep 0.1
    done
}

# Where the kernel forbids namespaces, each run says that it works in place.
silent='^$'
if [[ $("${sim[@]}" -- true 2>&1) == *"in place"* ]]; then
    silent='in place'
    echo "no new namespaces here: an ordinary user's run is not tried"
fi

# Expanded in the sandbox.
# shellcheck disable=SC2016
get='busctl --address=$DBUS_SYSTEM_BUS_ADDRESS'
id="$get get-property com.vorn.bmc.smad /xyz/openbmc_project/smad/oem \
    xyz.openbmc_project.Inventory.Item.Oem BaseSystemId"
expect 0 "$silent" "${sim[@]}" -- true
expect 7 "$silent" "${sim[@]}" -- sh -c 'exit 7'
expect 143 "$silent" "${sim[@]}" -- sh -c 'kill -TERM $$'
expect 127 'none' "${sim[@]}" -- none
expect 126 'denied' "${sim[@]}" -- /etc/passwd
expect 127 '--bind' "${sim[@]}" -- sh -c /tmp/none
expect 2 . "${sim[@]}" --system-id wrong -- true
expect 2 'COMMAND is missing' "${sim[@]}" --verbose
expect 2 'takes no COMMAND' "${sim[@]}" --serve platform -- true
expect 125 'passwd: no certificate' "${sim[@]}" --root-ca /etc/passwd -- true
expect 125 'bmc-sim: .*nokey' "${sim[@]}" --keyring nokey -- true
expect 125 'bmc-sim: .*nokey' "${sim[@]}" --signer-key nokey -- true
expect 0 '^out$' "${sim[@]}" -- sh -c 'echo out > here; cat here'
expect 0 '^out$' cat here
# Opened only. What is written there would run on the host.
expect 0 '^closed$' "${sim[@]}" -- sh -c \
    '(: >> /proc/sys/kernel/core_pattern) 2>/dev/null || echo closed'
expect 0 '^700$' "${sim[@]}" -- stat -c %a /etc/gpg/secupkey/.gnupg
expect 0 "$silent" "${sim[@]}" -- sh -c 'cd /var/run/velmora/Zarnholt && cd \
    /var/run/obmcupdate && echo 1 > /tmp/ingressRelease'
expect 0 'ay 2 28 10' "${sim[@]}" --system-id 0A1C -- sh -c "$id"
expect 1 'ot' "${sim[@]}" --without platform -- sh -c "$id"
manager=xyz.openbmc_project.Software.Installed.Inventory
version=xyz.openbmc_project.Software.Version
expect 0 '/xyz/openbmc_project/software/a/b' "${sim[@]}" -- sh -c "$get call $manager \
    /xyz/openbmc_project/software $manager addSWInventory sssss \
    /xyz/openbmc_project/software/a/b M 1 $version.VersionPurpose.BMC \
    $version.ReleaseType.Other && $get tree $manager"
# Expanded there; the name is taken when the service owns it.
# shellcheck disable=SC2016
expect 0 'ay 2 28 10' "${sim[@]}" --without platform -- sh -c '"$0" --serve platform \
    --system-id 0A1C & for i in 1 2 3 4 5 6 7 8 9; do sleep 0.2; '"$id && break; done" "${sim[2]}"
nothing_left "a sandbox"

interrupted() {
    # The run before has left one that says so already.
    : >started
    "${sim[@]}" "$@" -- sh -c 'echo started; sleep 60' >started 2>&1 &
    until grep -q started started; do
        sleep 0.05
    done
    kill -TERM $!
    wait $! || true
    nothing_left "an interrupted run $*"
}
interrupted
# Killed at any time, it takes the sandbox with it; in place it could not.
for delay in 0.01 0.02 0.03 0.05 0.1 0.2; do
    [ "$silent" = '^$' ] || break
    "${sim[@]}" -- sleep 60 &
    sleep "$delay"
    kill -KILL $!
    wait $! 2>/dev/null || true
done
nothing_left "a killed run"

if [ "$(id -u)" -eq 0 ]; then
    if [ -n "$before" ]; then
        echo "this machine has files in the library's places: working in" \
            "place is not tried"
    else
        expect 3 'in place' "${sim[@]}" --in-place -- \
            sh -c 'ls /run/obmcupdate && exit 3'
        nothing_left "a run in place"
        interrupted --in-place
        mkdir -p /run/velmora/Zarnholt
        touch /run/velmora/Zarnholt/mine
        expect 125 'bmc-sim: .*Zarnholt' "${sim[@]}" --in-place -- true
        rm -r /run/velmora
    fi
    [ "$silent" != '^$' ] || expect 32 'permission|superuser' \
        "${sim[@]}" -- mount -t tmpfs none /mnt
    # An ordinary user, with a copy that he can reach.
    cp "${sim[2]}" "$work/bmc-sim"
    chmod 755 "$work"
    user=(env "BMC_SIM_TEST=$$" setpriv --reuid=65534 --regid=65534 --clear-groups)
    [ "$silent" != '^$' ] || expect 0 '^65534$' "${user[@]}" "$work/bmc-sim" -- id -u
    expect 125 'root' "${user[@]}" "$work/bmc-sim" --in-place -- true
    nothing_left "an ordinary user's run"
else
    echo "not root: working in place is not tried"
fi

finish
