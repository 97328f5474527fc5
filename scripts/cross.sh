# shellcheck shell=bash
# What builds for another processor and machines of it share; sourced in the
# top directory after common.sh.
# shellcheck disable=SC2034 # Those that source this use the names.

# cross_target ARCHITECTURE: sets, for one of Debian's, the compiler's triplet
# and that of its libraries, the build directory, the emulator, and what Meson
# calls the processor.
cross_target() {
    architecture=$1
    build=build-$architecture
    case "$architecture" in
        armhf)
            triplet=arm-linux-gnueabihf machine=(arm armv7 little)
            build=build-arm emulator=(qemu-arm)
            ;;
        arm64)
            triplet=aarch64-linux-gnu machine=(aarch64 armv8 little)
            emulator=(qemu-aarch64)
            ;;
        i386)
            triplet=i686-linux-gnu machine=(x86 i686 little)
            emulator=(qemu-i386)
            ;;
        s390x)
            triplet=s390x-linux-gnu machine=(s390x s390x big)
            emulator=(qemu-s390x)
            ;;
        *)
            echo "$architecture is none of armhf, arm64, i386, s390x" >&2
            exit 2
            ;;
    esac
    library_triplet=${triplet/i686/i386}
    sysroot=$PWD/$build/sysroot
    emulator+=(-L "$sysroot")
    cross_packages=("g++-$triplet" qemu-user)
}

# A development package stands for its library, whose name differs from one
# release to the next.
library_packages=(libssl-dev libgpgme-dev libxml2-dev libsystemd-dev
    libelf-dev libseccomp-dev libzip-dev zlib1g-dev)
# libc-bin has the locale C.UTF-8: the host's may have another byte order.
target_packages=("${library_packages[@]}" libcli11-dev nlohmann-json3-dev
    libgtest-dev libgmock-dev libc-bin)

# apt with a state of its own below DIR: the host's sources and keys, but no
# package installed and none of the host's hooks.
private_apt() {
    local dir=$1
    shift
    apt-get -c "$dir/apt.conf" -q "$@" >>"$dir/log" 2>&1
}

# download TREE PACKAGE...: the target's packages with all that they depend on,
# to TREE.apt/archives, for a TREE that is to be made anew.
download() {
    local dir=$1.apt
    say "making $1 of Debian's $architecture packages"
    rm -rf "$1" "$1.whole" "$dir"
    shift
    mkdir -p "$dir"/{lists,archives}/partial
    touch "$dir/status"
    cat >"$dir/apt.conf" <<CONF
#clear APT::Update::Pre-Invoke;
#clear APT::Update::Post-Invoke;
#clear APT::Update::Post-Invoke-Success;
#clear DPkg::Pre-Invoke;
#clear DPkg::Post-Invoke;
#clear APT::Architectures;
APT::Architecture "$architecture";
APT::Architectures { "$architecture"; };
APT::Install-Recommends "false";
Dir::State "$dir";
Dir::State::status "$dir/status";
Dir::Cache "$dir";
Debug::NoLocking "true";
CONF
    # The packages may well be in the indexes that could be fetched.
    private_apt "$dir" update || grep '^E: ' "$dir/log" >&2 || true
    if ! private_apt "$dir" install -y --download-only "$@"; then
        cat "$dir/log" >&2
        exit 1
    fi
}

# unpack_packages ROOT PACKAGE_FILE...: their files, with no script of theirs
# run.
unpack_packages() {
    local root=$1 package
    shift
    for package in "$@"; do
        dpkg-deb --fsys-tarfile "$package" |
            tar -x -C "$root" --no-same-owner --keep-directory-symlink
    done
}

# The list beside a tree tells that it is whole, and of what packages.
is_whole() {
    [ "$(cat "$1.whole" 2>/dev/null)" = "$2" ]
}

mark_whole() {
    printf '%s\n' "$2" >"$1.whole"
    say "$(find "$1.apt/archives" -name '*.deb' | wc -l) packages unpacked"
    rm -rf "$1.apt"
}

# Unpacks headers and libraries: all that compiling and running need.
make_sysroot() {
    local link
    if is_whole "$sysroot" "${target_packages[*]}"; then
        return
    fi
    download "$sysroot" "${target_packages[@]}"
    mkdir -p "$sysroot/usr/lib"
    ln -s usr/lib "$sysroot/lib"
    unpack_packages "$sysroot" "$sysroot.apt"/archives/*.deb
    # What is left out is the host's where an emulated program looks for it.
    find "$sysroot" -mindepth 1 -maxdepth 3 \( -path "$sysroot/lib" -o \
        -path "$sysroot/usr" -o -path "$sysroot/usr/share" -o \
        -path "$sysroot/usr/include*" -o -path "$sysroot/usr/lib*" -o \
        -path "$sysroot/usr/share/pkgconfig" \) -o -prune -exec rm -rf {} +
    # Links that are meant from the target's own root.
    while IFS= read -r link; do
        ln -sfr "$sysroot$(readlink "$link")" "$link"
    done < <(find "$sysroot" -lname '/*')
    mark_whole "$sysroot" "${target_packages[*]}"
}

# cross_file OPTION...: Meson's, with more options for the compiler. GCC 7
# changed how a few types are passed: that is of interest only where objects of
# both are linked.
cross_file() {
    local wrapper options
    wrapper=$(printf ", '%s'" "${emulator[@]}")
    options=$(printf ", '%s'" "--sysroot=$sysroot" -Wno-psabi "$@")
    cat <<INI
[binaries]
c = '$triplet-gcc'
cpp = '$triplet-g++'
ar = '$triplet-ar'
strip = '$triplet-strip'
pkgconfig = 'pkg-config'
exe_wrapper = [${wrapper#, }]

[properties]
emulator = [${wrapper#, }]
sys_root = '$sysroot'
pkg_config_libdir = ['$sysroot/usr/lib/$library_triplet/pkgconfig', '$sysroot/usr/share/pkgconfig']

[built-in options]
cpp_args = [${options#, }]
cpp_link_args = ['--sysroot=$sysroot']

[host_machine]
system = 'linux'
cpu_family = '${machine[0]}'
cpu = '${machine[1]}'
endian = '${machine[2]}'
INI
}

# configure_cross DIR OPTION...: the library, its tools and its tests for the
# target, with more options for the compiler.
configure_cross() {
    local dir=$1
    shift
    # shellcheck disable=SC2154 # They are those of common.sh.
    need "${build_packages[@]}" "${test_packages[@]}" "${cross_packages[@]}"
    make_sysroot
    mkdir -p "$dir"
    if ! cross_file "$@" | cmp -s - "$dir/cross.ini"; then
        cross_file "$@" >"$dir/cross.ini"
    fi
    configure "$dir" --cross-file="$PWD/$dir/cross.ini" -Dtools=enabled \
        -Dtests=enabled -Dinstall_stand_ins=true
}

# build_cross DIR OPTION...: the same, compiled.
build_cross() {
    configure_cross "$@"
    compile_targets "$1"
}
