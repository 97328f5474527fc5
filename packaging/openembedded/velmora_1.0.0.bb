SUMMARY = "Firmware-package validation for a BMC's update daemon"
# The project states no licence yet.
LICENSE = "CLOSED"

# Where a layer keeps its sources is for its own configuration to say.
VELMORA_SRC_URI ??= "git:///srv/git/velmora.git;protocol=file;branch=main"
SRC_URI = "${VELMORA_SRC_URI}"
SRCREV ??= "${AUTOREV}"
S = "${WORKDIR}/git"

DEPENDS = "gpgme libxml2 openssl quorlin sdbusplus systemd"

inherit meson pkgconfig

# A stand-in has no place on a BMC: without the platform's own libraries the
# build fails.
EXTRA_OEMESON = " \
    -Dsdbusplus=enabled \
    -Dquorlin=enabled \
    -Dbmc_files=true \
    -Dtests=disabled \
    -Ddocs=disabled \
"

# The tools, for a service shell. bmc-sim is for workstations.
PACKAGECONFIG ??= ""
PACKAGECONFIG[tools] = "-Dtools=enabled,-Dtools=disabled,cli11 elfutils libseccomp libzip nlohmann-json zlib"

PACKAGE_BEFORE_PN = "${PN}-sim ${PN}-tools"
FILES:${PN}-sim = "${bindir}/bmc-sim ${libexecdir}/velmora ${datadir}/bash-completion/completions/bmc-sim"
FILES:${PN}-tools = "${bindir} ${datadir}/bash-completion"
FILES:${PN} += "${nonarch_libdir}/tmpfiles.d ${datadir}/dbus-1/system.d"

# They are started, not linked.
RDEPENDS:${PN} = "gnupg unzip"
RDEPENDS:${PN}-sim = "bash bubblewrap coreutils dbus findutils gnupg openssl-bin util-linux-flock"
RDEPENDS:${PN}-tools = "gnupg openssl-bin"
