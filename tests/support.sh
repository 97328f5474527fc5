# shellcheck shell=bash
# What the tests that are scripts share.
failures=0
# What a version manager puts in front of python3 takes half a second a call.
python3() { /usr/bin/python3 "$@"; }

fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

# expect STATUS PATTERN COMMAND...: status, and a line of output that matches.
expect() {
    local status=0 output expected=$1 pattern=$2
    shift 2
    output=$("$@" 2>&1 </dev/null) || status=$?
    if [ "$status" -ne "$expected" ] || ! grep -qE -- "$pattern" <<<"$output"; then
        fail "$* gives status $status and: $output"
    fi
}

# What the tests of tools begin with: the tools, keys, and a payload to pack.
# shellcheck disable=SC2034 # They are used by those that source this.
begin_tools() {
    velmora=$(readlink -f "$1")
    pack=$(readlink -f "$2")
    cd "$(mktemp -d)" || exit
    # An agent of its own: another sandbox's would end with that.
    cp -r "$3" keys
    keys=$PWD/keys
    package=(package --model 113440 --version 1.2 --gpg-home "$keys/gnupg"
        --key "$(cat "$keys/fingerprint")")
    mkdir files unpacked
    echo one >files/a
    echo two >files/b
}

finish() {
    [ "$failures" -eq 0 ] || exit 1
    echo "all as expected"
}
