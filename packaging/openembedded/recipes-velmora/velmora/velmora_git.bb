SUMMARY = "Firmware-package validation for a BMC's update daemon"
# The project states no licence yet: its owner names one here.
LICENSE = "LicenseRef-Velmora-CLOSED"

PV = "1.0+git"
# Where the sources are is for the platform's layer to say, in a bbappend.
VELMORA_SRC_URI ??= ""
SRC_URI = "${VELMORA_SRC_URI}"
SRCREV ??= "b187ba0c6535b48537e7402fdc20a830e250ca6f"

python () {
    if not (d.getVar("VELMORA_SRC_URI") or d.getVar("EXTERNALSRC")):
        raise bb.parse.SkipRecipe(
            "VELMORA_SRC_URI does not say where the sources are")
}

# The recipe that brings libquorlin.so.9.
VELMORA_CHAIN_VERIFIER ??= "quorlin"
DEPENDS = "gpgme libxml2 openssl sdbusplus systemd ${VELMORA_CHAIN_VERIFIER}"

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

# They are started, not linked. Without the tools, nothing asks for what only
# they need, which a platform need not have.
RDEPENDS:${PN} = "gnupg-gpg unzip"
RDEPENDS:${PN}-sim = "${@bb.utils.contains('PACKAGECONFIG', 'tools', 'bash bubblewrap coreutils dbus findutils gnupg openssl-bin util-linux-flock', '', d)}"
RDEPENDS:${PN}-tools = "${@bb.utils.contains('PACKAGECONFIG', 'tools', 'gnupg openssl-bin', '', d)}"
