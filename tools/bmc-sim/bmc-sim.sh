#!/bin/bash
# Runs a command on a simulated BMC; usage() tells more. bubblewrap makes the
# sandbox, dbus-daemon the bus, and bmc-services what answers on it.
set -euo pipefail

# The places on a BMC that the library works with. It says /var/run, which is a
# link to /run.
keyring_home=/etc/gpg/secupkey/.gnupg
root_ca_place=/run/obmcupdate/OpenBMCSecureBootRootCA.pem
own_places=("$keyring_home" /run/velmora/Zarnholt /run/obmcupdate)
release_marker=/tmp/ingressRelease
# For the bus, within the sandbox.
sandbox_directory=/run/bmc-sim
# What root's COMMAND may still do: work on files as any owner, and act as
# another user. Everything else can undo the sandbox or change the host:
# mounting, making devices, opening files by handle, the network.
root_capabilities=(--cap-drop ALL --cap-add CAP_CHOWN --cap-add CAP_DAC_OVERRIDE
    --cap-add CAP_FOWNER --cap-add CAP_FSETID --cap-add CAP_KILL
    --cap-add CAP_SETGID --cap-add CAP_SETUID)

declare -A services=([platform]=1 [security]=1 [inventory]=1)
# Files are opened before the sandbox may hide them: names has what the user
# calls each, by the number of its descriptor.
names=() keyrings=() root_ca='' service_options=() shown=()

usage() {
    cat <<'TXT'
Usage: bmc-sim [OPTIONS] -- COMMAND [ARGS...]

Runs COMMAND on a simulated BMC: in a sandbox with fresh directories at the
library's places, a private system bus (DBUS_SYSTEM_BUS_ADDRESS names it) and
the services that the library asks. Of the host's files, COMMAND can write
only to the current directory's tree and the directories given with --bind.

Options; those with a star can be repeated:
  --system-id HEX    System identifier, 16 bits in hexadecimal [0A1B]
  --keyring FILE     Exported OpenPGP public keys to trust *
  --root-ca FILE     Secure-boot root CA, in PEM
  --signer-key FILE  Public or private key of the image signer, in PEM
  --purpose ID=NAME  Version purpose of a component ID, such as 7=BIOS *
  --without SERVICE  Leave out platform, security or inventory *
  --bind DIR         Directory of the host that COMMAND may write to *
  --version          Print the version and exit
  -h, --help         Print this help message and exit

The exit status is that of COMMAND, or 128 + N when signal N ended it. It is 2
after wrong usage, and 125 when bmc-sim itself failed.
TXT
}

# fail TEXT [STATUS]: its first line, in which nothing moves a cursor.
fail() {
    local text=${1%%$'\n'*}
    printf 'bmc-sim: %s\n' "${text//[^[:print:]]/?}" >&2
    exit "${2:-125}"
}

wrong_usage() {
    fail "$1 (--help tells more)" 2
}

open_input() {
    { [ -r "$1" ] && [ ! -d "$1" ]; } || fail "$1: no file that can be read"
    exec {input}<"$1"
    names[input]=$1
}

open_signer_key() {
    local key
    # Once: it may be a pipe.
    { key=$(cat -- "$1"); } 2>/dev/null || fail "$1: no file that can be read"
    exec {input}< <({ openssl pkey -pubin -outform DER <<<"$key" ||
        openssl pkey -passin pass: -pubout -outform DER <<<"$key"; } 2>/dev/null)
    wait $! || fail "$1: no public or private key in PEM"
    names[input]=$1
    service_options+=(--signer-key "/dev/fd/$input")
}

# Whether a directory, shown in the sandbox, would lie over what is made anew.
hides_place() {
    local place
    for place in "${own_places[@]}" "$sandbox_directory" /tmp /dev /proc; do
        [[ $place/ != "${1%/}"/* ]] || return 0
    done
    return 1
}

# Made first: bubblewrap would let only its own user into what is above it.
show_writable() {
    shown+=(--dir "$1" --bind "$1" "$1")
}

take_option() {
    local own
    case $1 in
        --system-id | --purpose) service_options+=("$1" "$2") ;;
        --keyring) open_input "$2" && keyrings+=("$input") ;;
        --root-ca) open_input "$2" && root_ca=$input ;;
        --signer-key) open_signer_key "$2" ;;
        --without)
            [[ -n $2 && -n ${services[$2]:-} ]] || wrong_usage "--without: no service $2"
            unset "services[$2]"
            ;;
        --bind)
            [ -d "$2" ] || fail "--bind $2: not a directory"
            own=$(realpath -- "$2")
            ! hides_place "$own" ||
                wrong_usage "--bind $2: holds a place that the sandbox makes anew"
            show_writable "$own"
            ;;
        *) wrong_usage "no such option: $1; COMMAND comes after --" ;;
    esac
}

# Leaves COMMAND in command.
parse() {
    while [ $# -gt 0 ] && [ "$1" != -- ]; do
        case $1 in
            -h | --help)
                usage || fail "the help cannot be written"
                exit
                ;;
            --version)
                "$program" --version | sed 's/^[^ ]*/bmc-sim/' ||
                    fail "the version cannot be written"
                exit
                ;;
            --*=*) set -- "${1%%=*}" "${1#*=}" "${@:2}" ;;
        esac
        [ $# -gt 1 ] || wrong_usage "$1: no such option, or its value is missing"
        take_option "$1" "$2"
        shift 2
    done
    command=("${@:2}")
    [ ${#command[@]} -gt 0 ] || wrong_usage "COMMAND is missing; it comes after --"
}

# The keys have ultimate trust, so that their signatures are fully valid.
place_keys() {
    local keyring said gpg=(gpg --homedir "$keyring_home" --batch --no-tty
        --quiet --no-autostart)
    for keyring in "${keyrings[@]}"; do
        said=$("${gpg[@]}" --import <&"$keyring" 2>&1) ||
            fail "${names[keyring]}: $said"
    done
    # The check now, so that gpg has nothing to update when the library verifies.
    said=$({ "${gpg[@]}" --list-keys --with-colons |
        sed -n 's/^fpr:*\([0-9A-F]*\):$/\1:6:/p' |
        "${gpg[@]}" --import-ownertrust && "${gpg[@]}" --check-trustdb; } 2>&1) ||
        fail "$keyring_home: $said"
}

# start_bmc DIRECTORY: all that COMMAND is to find; DIRECTORY is for the bus.
start_bmc() {
    local said input
    [ ${#keyrings[@]} -eq 0 ] || place_keys
    if [ -n "$root_ca" ]; then
        cat <&"$root_ca" >"$root_ca_place"
        openssl x509 -in "$root_ca_place" -noout 2>/dev/null ||
            fail "${names[root_ca]}: no certificate in PEM"
    fi
    # Nothing on this bus is started on demand: there is no service directory.
    export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$1/bus
    printf '%s\n' >"$1/bus.conf" '<busconfig>' '<type>system</type>' \
        '<auth>EXTERNAL</auth>' '<apparmor mode="disabled"/>' \
        '<policy context="default"><allow user="*"/><allow own="*"/>' \
        '<allow send_destination="*"/><allow receive_sender="*"/></policy>' \
        "<listen>$DBUS_SYSTEM_BUS_ADDRESS</listen>" '</busconfig>'
    # It goes on in the background when it listens.
    said=$(dbus-daemon --fork --nopidfile --config-file="$1/bus.conf" 2>&1) ||
        fail "dbus-daemon: $said"
    # The line comes when the services own their names. They are no children of
    # COMMAND's, which might wait for all that it has.
    [ ${#services[@]} -eq 0 ] ||
        read -r < <("$program" "${service_options[@]}" "${!services[@]}" &) ||
        fail "the services do not start"
    for input in "${!names[@]}"; do
        exec {input}<&-
    done
}

# Whether the bmc-sim outside still lives: it holds the other side of the pipe.
# bubblewrap takes note of its end only when the sandbox is made.
has_master() {
    local status=0
    read -r -t 0.001 -u "$line" || status=$?
    [ "$status" -gt 128 ]
}

# The first and the last that is done within the sandbox.
inside() {
    read -r -u "$line"
    has_master || exit 125
    start_bmc "$sandbox_directory"
    # The sandbox lasts as long as any process in it.
    has_master || { kill -KILL -1; exit 125; }
    exec {line}<&-
    exec env -- "$@"
}

# Finds out with what options a sandbox can be made here: a container may forbid
# a new /proc, or take from root what it would get back in a user namespace. The
# kernel's settings in /proc/sys ask for root alone, so they are read-only.
find_support() {
    local variant base=(--unshare-pid --die-with-parent --dev /dev)
    [ "$EUID" -ne 0 ] || base+=("${root_capabilities[@]}")
    for variant in '--proc /proc --ro-bind /proc/sys /proc/sys' \
        '--proc /proc --ro-bind /proc/sys /proc/sys --unshare-user' \
        '--ro-bind /proc /proc' '--ro-bind /proc /proc --unshare-user'; do
        # shellcheck disable=SC2206 # It is some words.
        support=("${base[@]}" $variant)
        complaint=$(bwrap --ro-bind / / "${support[@]}" true 2>&1) && return 0
    done
    return 1
}

# What the library is to find fresh, over the host's files. /etc has to be put
# together anew, because nothing can be mounted on a directory that the host
# does not have; a link to what is hidden is replaced by its target.
fresh_places() {
    find /etc -mindepth 1 -maxdepth 1 ! -name gpg \( \
        -type l ! -lname '*tmp/*' ! -lname '*run/*' ! -lname '*dev/*' \
        -printf '--symlink\0%l\0%p\0' -o -printf '--ro-bind-try\0%p\0%p\0' \)
    printf '%s\0' --dir "${keyring_home%/*}" --perms 0700 --tmpfs "$keyring_home" \
        --remount-ro /etc --perms 1777 --tmpfs /tmp --perms 1777 --tmpfs /dev/shm \
        --tmpfs /run --dir "${own_places[1]}" --dir "${own_places[2]}" \
        --dir "$sandbox_directory" --dir "${program%/*}" --ro-bind "$program" "$program"
}

# Returns where no sandbox can be made, with the reason in complaint.
in_sandbox() {
    local fresh list filter filter_process supported=1 line hold session=()
    # These two do their work while find_support does its own.
    exec {list}< <(fresh_places)
    exec {filter}< <("$program" --terminal-filter "${service_options[@]}")
    filter_process=$!
    find_support || supported=''
    wait "$filter_process" || exit
    mapfile -d '' -t fresh <&"$list"
    exec {list}<&-
    if [ -z "$supported" ]; then
        exec {filter}<&-
        return
    fi
    hides_place "$current" || show_writable "$current"
    # Where there is a terminal, COMMAND shares its session, so that job control
    # works, and Ctrl-C is between the two of them.
    if [ -t 0 ]; then
        trap '' INT QUIT
    else
        session=(--new-session)
    fi
    # A pipe: within, the line in it is taken first of all, and its end is seen
    # when this process, which alone holds the other side, is gone.
    exec {line}< <(:)
    exec {hold}>"/proc/self/fd/$line"
    echo >&"$hold"
    # Signals that are for all processes of a group are for this one; when it
    # ends, bubblewrap does.
    (
        trap '' HUP TERM
        exec bwrap --ro-bind / / "${support[@]}" --tmpfs /etc "${fresh[@]}" \
            "${session[@]}" "${shown[@]}" --chdir "$current" --seccomp "$filter" \
            env --default-signal=HUP,INT,QUIT,TERM bash -euo pipefail -c \
            "$(declare -p program services service_options names keyrings \
                root_ca line keyring_home root_ca_place sandbox_directory
            declare -f fail place_keys start_bmc has_master inside)"'; inside "$@"' \
            bmc-sim "${command[@]}"
    ) <&0 {hold}>&- &
    wait $! || {
        local status=$?
        ! read -r -t 0 -u "$line" || status=125
        exit "$status"
    }
    exit
}

# Kills every process that was started meanwhile: it has the address of our bus.
clean_up() {
    local mark=DBUS_SYSTEM_BUS_ADDRESS started
    while [ -n "${!mark:-}" ]; do
        # Its status tells nothing: processes end while it looks at them.
        started=$(env -u $mark grep -lszxF "$mark=${!mark}" /proc/[0-9]*/environ) || true
        [ -n "$started" ] || break
        # shellcheck disable=SC2086 # Numbers.
        kill -KILL ${started//[!0-9$'\n']/} 2>/dev/null || true
    done
    find "${own_places[@]}" -mindepth 1 -delete
    rm -rf "$release_marker" "$work"
    [ ${#made[@]} -eq 0 ] || rmdir "${made[@]}"
}

# The library's places are made on the host itself, if it does not use them.
in_place() {
    local used place lock
    made=() work=''
    # A lock that leaves no file behind.
    exec {lock}</etc
    flock "$lock"
    used=$(find "${own_places[@]}" "$release_marker" -maxdepth 0 \
        ! \( -type d -empty \) 2>/dev/null) || true
    [ -z "$used" ] || fail "${used%%$'\n'*}: in use on this host, not touched"
    unset DBUS_SYSTEM_BUS_ADDRESS
    trap clean_up EXIT
    trap 'exit 130' HUP INT QUIT TERM
    for place in /etc/gpg /etc/gpg/secupkey /run/velmora "${own_places[@]}"; do
        if [ ! -d "$place" ]; then
            mkdir -m 755 "$place"
            made=("$place" "${made[@]}")
        fi
    done
    chmod 700 "$keyring_home"
    # A COMMAND that gives up root still has to reach the bus.
    work=$(mktemp -d /tmp/bmc-sim-XXXXXX)
    chmod 755 "$work"
    start_bmc "$work"
    env --default-signal=INT,QUIT -- "${command[@]}" <&0 {lock}<&- &
    wait $!
}

cd -P .
current=$PWD
# In the build tree bmc-services lies beside this script.
own=$0
[ ! -L "$0" ] || own=$(readlink -f -- "$0")
cd -P -- "${own%/*}/"
[ -x bmc-services ] || cd -P @TO_LIBEXEC@
program=$PWD/bmc-services
cd -- "$current"
parse "$@"
for tool in bwrap dbus-daemon gpg openssl; do
    type -P $tool >/dev/null || fail "$tool: not found; bmc-sim needs it: install it"
done
in_sandbox
[ "$EUID" -eq 0 ] || fail "${complaint%%$'\n'*}; only root can work in place"
echo "bmc-sim: ${complaint%%$'\n'*}; working in place" >&2
in_place
