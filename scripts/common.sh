# shellcheck shell=bash
# What the commands share; sourced in the top directory.
# shellcheck disable=SC2034 # The lists are used by those that source this.

build_packages=(meson ninja-build g++ pkg-config libssl-dev libgpgme-dev
    libxml2-dev libsystemd-dev libcli11-dev nlohmann-json3-dev libarchive-dev
    libelf-dev)
run_packages=(bubblewrap dbus unzip zip gnupg openssl)
test_packages=(libgtest-dev libgmock-dev systemd scdoc abigail-tools
    valgrind man-db)

say() {
    printf '%s\n' "-- $*"
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

# Installs those of the named Debian packages that are not there.
need() {
    local missing=() package
    for package in "$@"; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null |
            grep -q 'ok installed' || missing+=("$package")
    done
    if [ "${#missing[@]}" -eq 0 ]; then
        return
    fi
    say "installing with apt: ${missing[*]}"
    local log
    log=$(mktemp)
    if ! { as_root apt-get -q update &&
        as_root env DEBIAN_FRONTEND=noninteractive apt-get -q install -y \
            --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
        cat "$log" >&2
        rm -f "$log"
        exit 1
    fi
    rm -f "$log"
}

# Configures a build directory with options, again only for those that it has
# not been given before, then compiles; what was said is shown on a failure.
compile() {
    local dir=$1 option log=$1.log new=()
    shift
    for option in "$@"; do
        grep -qxF -e "$option" "$dir/dev-options" 2>/dev/null ||
            new+=("$option")
    done
    if [ ! -e "$dir/build.ninja" ] || [ "${#new[@]}" -gt 0 ]; then
        say "configuring $dir"
        local reconfigure=()
        [ ! -e "$dir/build.ninja" ] || reconfigure=(--reconfigure)
        if ! meson setup "${reconfigure[@]}" "$dir" -Dwerror=true \
            "${new[@]}" >"$log" 2>&1; then
            cat "$log" >&2
            exit 1
        fi
        rm -f "$log"
        printf '%s\n' "${new[@]}" >>"$dir/dev-options"
    fi
    say "compiling $dir"
    # First what Meson has to say anew after a change of its files.
    if ! ninja --quiet -C "$dir" build.ninja >"$log" 2>&1; then
        cat "$log" >&2
        exit 1
    fi
    rm -f "$log"
    ninja --quiet -C "$dir" | sed '/^ninja: no work to do\.$/d'
}
