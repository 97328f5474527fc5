# shellcheck shell=bash
# Completes velmora, velmora-pack and bmc-sim with what their --help names, and
# with files.

# The names in a help text: options, then commands with their heading.
_velmora_names() {
    sed -nE 's/^ +(-[^ ]*(, +-[^ ]*)?).*/\1/p' <<<"$1" | tr -s ', ' '\n'
    awk 'tolower($0) ~ /^subcommands:/ { on = 1; next } /^[^ ]/ { on = 0 }
         on && /^  [a-z]/ { print $1 }' <<<"$1"
}

_velmora() {
    local word names command=("$1")
    COMPREPLY=()
    names=$(_velmora_names "$("${command[@]}" --help 2>/dev/null)")
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        # Behind it stands the command that bmc-sim runs.
        [ "$word" != -- ] || return 0
        if [[ $word != -* ]] && grep -qxFe "$word" <<<"$names"; then
            command+=("$word")
            names=$(_velmora_names "$("${command[@]}" --help 2>/dev/null)")
        fi
    done
    word=${COMP_WORDS[COMP_CWORD]}
    # Options only where one is begun: a file may be meant.
    [[ $word == -* ]] || names=$(grep -v '^-' <<<"$names") || true
    mapfile -t COMPREPLY < <(compgen -W "$names" -- "$word")
}

# Where no name fits, a file is meant.
complete -o default -F _velmora velmora velmora-pack bmc-sim
