# shellcheck shell=bash
# What the commands share; sourced in the top directory.
# shellcheck disable=SC2034 # The lists are used by those that source this.

build_packages=(meson ninja-build g++ pkg-config libssl-dev libgpgme-dev
    libxml2-dev libsystemd-dev libcli11-dev nlohmann-json3-dev libelf-dev
    libseccomp-dev libzip-dev zlib1g-dev scdoc)
run_packages=(bubblewrap dbus unzip zip gnupg openssl)
# OpenSSL's driver for tokens. Debian 12 has only one of the older kind.
token_driver=pkcs11-provider
! grep -qs '^VERSION_ID="12"' /etc/os-release ||
    token_driver=libengine-pkcs11-openssl
test_packages=(libgtest-dev libgmock-dev systemd abigail-tools valgrind man-db
    softhsm2 opensc "$token_driver")
# For sanitizers and fuzzers. The last turns addresses into lines.
clang_packages=(clang-19 libclang-rt-19-dev llvm-19)
# Without these something is left out, but the rest works: a release that is
# in the making may not have them all at the moment.
optional_packages=" scdoc abigail-tools valgrind man-db softhsm2 opensc \
$token_driver "

with_tools=(-Dtools=enabled -Dinstall_stand_ins=true
    # Their heavy templates compile in half the time.
    "-Dtools_args=-Og,-g1")

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

apt_install() {
    as_root env DEBIAN_FRONTEND=noninteractive apt-get -q install -y \
        --no-install-recommends "$@"
}

# Installs packages, with a fresh index and another try: an index may be older
# than what the mirror has.
install_packages() {
    local attempt package
    for attempt in 1 2 3; do
        as_root apt-get -q update || true
        if apt_install "$@"; then
            return
        fi
        sleep $((attempt * 5))
    done
    # If an optional package cannot be had, the others are still installed.
    local required=()
    for package in "$@"; do
        if [[ $optional_packages == *" $package "* ]]; then
            apt_install "$package" ||
                say "$package cannot be installed: going on without it" >&3
        else
            required+=("$package")
        fi
    done
    [ "${#required[@]}" -eq 0 ] || apt_install "${required[@]}"
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
    if ! install_packages "${missing[@]}" 3>&1 >"$log" 2>&1; then
        cat "$log" >&2
        rm -f "$log"
        exit 1
    fi
    rm -f "$log"
}

# Configures a build directory, again only when an option is new to it. Output
# is shown only after a failure.
configure() {
    local dir=$1 option log=$1.log new=()
    shift
    # What is installed for a try stays below the directory.
    for option in --prefix="$PWD/$dir/installed" --libdir=lib "$@"; do
        grep -qxF -e "$option" "$dir/dev-options" 2>/dev/null ||
            new+=("$option")
    done
    if [ -e "$dir/build.ninja" ] && [ "${#new[@]}" -eq 0 ]; then
        return
    fi
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
}

# compile_targets DIR TARGET...: all of them where none is named.
compile_targets() {
    local dir=$1 log=$1.log
    shift
    say "compiling $dir"
    # If Meson's files have changed, it configures again first.
    if ! ninja --quiet -C "$dir" build.ninja >"$log" 2>&1; then
        cat "$log" >&2
        exit 1
    fi
    rm -f "$log"
    ninja --quiet -C "$dir" "$@" | sed '/^ninja: no work to do\.$/d'
}

compile() {
    configure "$@"
    compile_targets "$1"
}
