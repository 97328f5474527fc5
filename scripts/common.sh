# shellcheck shell=bash
# What the commands share; sourced in the top directory.
# shellcheck disable=SC2034 # The lists are used by those that source this.

build_packages=(meson ninja-build g++ pkg-config libssl-dev libgpgme-dev
    libxml2-dev libsystemd-dev libcli11-dev nlohmann-json3-dev libarchive-dev)
run_packages=(bubblewrap dbus unzip zip gnupg openssl)
test_packages=(libgtest-dev libgmock-dev systemd procps)

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

# Configures a build directory once, then compiles; the compiler's output is
# shown when it fails.
compile() {
    local dir=$1
    shift
    if [ ! -e "$dir/build.ninja" ]; then
        say "configuring $dir"
        meson setup "$dir" -Dwerror=true "$@" >"$dir.log" 2>&1 || {
            cat "$dir.log" >&2
            exit 1
        }
        rm -f "$dir.log"
    fi
    say "compiling $dir"
    ninja --quiet -C "$dir"
}
