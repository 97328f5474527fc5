# shellcheck shell=bash
# What the tests that are scripts share.
failures=0

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

finish() {
    [ "$failures" -eq 0 ] || exit 1
    echo "all as expected"
}
