#!/usr/bin/env bash
# The man pages against each program's --help and the library's exports.
# Arguments: directory of the pages' sources, library, programs.
set -euo pipefail
pages=$1
library=$2
shift 2
failures=0
helps=

fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

# Options that a text names, sorted; but --help, which is the same everywhere.
options() {
    grep -oE -- '(^|[^[:alnum:]-])-([a-z]\b|-[a-z][a-z0-9-]*)' |
        grep -oE -- '-.*' | grep -vxE -- '-h|--help' | sort -u
}

# defined PAGE HEADING: the options that are explained below a heading.
defined() {
    awk -v heading="$2" '/^#/ { on = $0 == heading }
        on && /^\t/ && last ~ /^\*-/ { print last } { last = $0 }' "$1" | options
}

# agree PAGE HEADING COMMAND...
agree() {
    local page=$1 heading=$2 difference
    shift 2
    difference=$(diff <("$@" --help | awk '/^ +-/ { print $1, ($1 ~ /,$/ ? $2 : "") }' | options) \
        <(defined "$page" "$heading")) ||
        fail "$page, \"$heading\" against $* --help:" "$difference"
}

# The last commands of COMMAND, one a line, without its own name.
leaves() {
    local name
    for name in $("$@" --help |
        awk 'tolower($0) ~ /^subcommands:/ { on = 1; next }
            /^[^ ]/ { on = 0 } on && /^  [^ ]/ { print $1 }'); do
        if "$@" "$name" --help | grep -qi '^subcommands:'; then
            leaves "$@" "$name" | sed "s/^/$name /"
        else
            echo "$name"
        fi
    done
}

for program; do
    page=$pages/${program##*/}.1.scd
    agree "$page" '# OPTIONS' "$program"
    commands=$(leaves "$program")
    while read -r command; do
        [ -n "$command" ] || continue
        read -ra words <<<"$command"
        agree "$page" "## $command" "$program" "${words[@]}"
    done <<<"$commands"
    difference=$(diff <(sort <<<"$commands" | sed '/^$/d') \
        <(sed -n 's/^## //p' "$page" | sort)) ||
        fail "$page, commands:" "$difference"
    helps+=$("$program" --help; while read -ra words; do
        "$program" "${words[@]}" --help
    done <<<"$commands")
done
for page in "$pages"/*.1.scd; do
    unknown=$(comm -23 <(options <"$page") <(options <<<"$helps"))
    [ -z "$unknown" ] || fail "$page names what --help does not:" "$unknown"
done

exports=$(nm -D --defined-only "$library" | c++filt |
    sed -E 's/^[0-9a-f]* . //; s/[[(].*//; s/.*:://; /^_/d')
for name in ${exports:?}; do
    grep -qF "*$name*" "$pages/libvelmora.3.scd" ||
        fail "libvelmora(3) does not name $name"
done

if command -v scdoc >/dev/null && command -v man >/dev/null; then
    for page in "$pages"/*.scd; do
        warnings=$({ scdoc <"$page" | man --warnings=all -l -; } \
            2>&1 >/dev/null) || true
        [ -z "$warnings" ] || fail "$page does not render:" "$warnings"
    done
else
    echo "scdoc or man is missing: the pages are not rendered"
fi

[ "$failures" -eq 0 ] || exit 1
echo "all as expected"
