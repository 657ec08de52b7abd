SUMMARY = "Firmware-update service for a device's peripheral components"
DESCRIPTION = "Updates firmware modules from a USB stick or from packages, and reports over two message queues."
LICENSE = "Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=3b83ef96387f14655fc854ddc3c6bd57"

# Where your copy of the sources is.
SRC_URI = "git://git.example.com/quillon.git;protocol=https;branch=main"
SRCREV = "${AUTOREV}"
S = "${WORKDIR}/git"

inherit cmake pkgconfig python3native systemd useradd

DEPENDS = "boost glib-2.0 jsoncpp openssl"

# Other dependencies are optional; the end of do_configure's log lists disabled features. Without
# "tools" quillonctl and quillon-image are missing. "systemd" may be left out with "own-platform" only.
PACKAGECONFIG ?= "download systemd tools"
PACKAGECONFIG[download] = ",,curl"
PACKAGECONFIG[systemd] = ",,systemd"
PACKAGECONFIG[tools] = ",,cli11"
PACKAGECONFIG[trace] = ",,systemtap"

# A platform library of the device's own, from a recipe of its own: PACKAGECONFIG = "own-platform
# tools". The package quillon-platform-linux then holds the verifier and nothing else of the platform.
PACKAGECONFIG[own-platform] = "-DQUILLON_PLATFORM=device -DQUILLON_PLATFORM_LIBRARY=${STAGING_LIBDIR}/libdevice-platform.so,,device-platform"

EXTRA_OECMAKE = " \
    -DBUILD_TESTING=OFF \
    -DQUILLON_WERROR=OFF \
    -DQUILLON_SYSTEMD_UNIT_DIR=${systemd_system_unitdir} \
"

# quillon itself is empty and brings the two packages that a device needs.
PACKAGES =+ "quillon-service quillon-platform-linux quillon-tools quillon-sticks"
ALLOW_EMPTY:${PN} = "1"
RDEPENDS:${PN} = "quillon-service quillon-platform-linux"
RDEPENDS:${PN}-dev += "${PN}-staticdev"
RDEPENDS:quillon-sticks = "quillon-service quillon-tools udev util-linux-findmnt util-linux-mount util-linux-mountpoint"
RRECOMMENDS:quillon-tools = "squashfs-tools e2fsprogs-mke2fs"

FILES:quillon-service = " \
    ${sbindir}/quillon-service \
    ${libexecdir}/quillon/quillon-unit \
    ${systemd_system_unitdir}/quillon.service \
    ${nonarch_libdir}/sysusers.d \
    ${nonarch_libdir}/tmpfiles.d/quillon.conf \
    ${nonarch_libdir}/systemd/catalog \
    ${datadir}/quillon/systemd \
    ${prefix}/fwupdate \
"
FILES:quillon-platform-linux = " \
    ${libdir}/libquillon-platform.so.* \
    ${libdir}/quillon/*.so \
    /usr/lib/libkUEPUser.so \
    ${libexecdir}/quillon/quillon-privileged \
    ${libexecdir}/quillon/quillon-storage \
    ${systemd_system_unitdir}/quillon-privileged.* \
    ${systemd_system_unitdir}/quillon-storage* \
    ${datadir}/polkit-1 \
    ${datadir}/quillon/downloads.conf \
    ${sysconfdir}/quillon \
"
FILES:quillon-sticks = " \
    ${libexecdir}/quillon/quillon-stick \
    ${systemd_system_unitdir}/quillon-stick@.service \
    ${systemd_system_unitdir}/quillon-stick-* \
    ${nonarch_libdir}/udev/rules.d \
    ${nonarch_libdir}/tmpfiles.d/quillon-sticks.conf \
    ${datadir}/quillon/sticks.conf \
"
FILES:quillon-tools = " \
    ${bindir} \
    ${datadir}/bash-completion \
    ${datadir}/fish \
    ${datadir}/zsh \
"
FILES:${PN}-dev += " \
    ${libdir}/cmake \
    ${datadir}/quillon/client \
    ${libdir}/quillon/examples \
    ${datadir}/quillon/module-template \
"
# The service loads its verifier from this one place, whatever the library directory is called.
INSANE_SKIP:quillon-platform-linux += "libdir"

SYSTEMD_PACKAGES = "quillon-service ${@bb.utils.contains('PACKAGECONFIG', 'own-platform', '', 'quillon-platform-linux', d)}"
SYSTEMD_SERVICE:quillon-service = "quillon.service"
SYSTEMD_SERVICE:quillon-platform-linux = "quillon-privileged.socket quillon-storage.socket"

# In the image already, so that a read-only root file system needs nothing at its first boot.
USERADD_PACKAGES = "quillon-service quillon-platform-linux"
GROUPADD_PARAM:quillon-service = "--system quillon"
GROUPADD_PARAM:quillon-platform-linux = "--system quillon"
USERADD_PARAM:quillon-service = "--system --gid quillon --home-dir /var/lib/quillon --no-create-home --shell /sbin/nologin quillon"
