SUMMARY = "Uploads the logs of a device"
DESCRIPTION = "Finds compressed logs below /tarv/data/logs, uploads each one and marks what was \
accepted by making it read-only."
SECTION = "base"
# For Yocto 5.0 (scarthgap). boost, openssl, zlib, systemd, psmisc and busybox come from oe-core,
# nlohmann-json from meta-oe.
# The source tree names no licence: its maintainers say on what terms it may be shipped.
LICENSE = "CLOSED"

# Where your copy of the tree is, and which commit of it.
LOG_CONSUMER_GIT ?= "git://git.example.com/log_consumer.git;protocol=https;branch=main"
SRC_URI = "${LOG_CONSUMER_GIT}"
SRCREV ?= "${AUTOREV}"
PV = "0.1.0+git"
S = "${WORKDIR}/git"

inherit cmake pkgconfig systemd useradd features_check
REQUIRED_DISTRO_FEATURES = "systemd"

DEPENDS = "boost openssl zlib systemd nlohmann-json"

EXTRA_OECMAKE = "-DLOG_CONSUMER_BUILD_TESTS=OFF -DLOG_CONSUMER_WERROR=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo"

# Both client libraries come with the tree as facades. A genuine installation, a folder in the
# sysroot with include/ and lib/, replaces one: PACKAGECONFIG:append = " genuine-mongoose". Its recipe
# is yours, too; name it in DEPENDS of a .bbappend.
PACKAGECONFIG ??= ""
PACKAGECONFIG[genuine-mongoose] = "-DLOG_CONSUMER_MONGOOSE=${STAGING_DIR_HOST}${prefix},-DLOG_CONSUMER_MONGOOSE=facade,mongoose"
PACKAGECONFIG[genuine-libjson] = "-DLOG_CONSUMER_LIBJSON=${STAGING_DIR_HOST}${prefix},-DLOG_CONSUMER_LIBJSON=facade,libjson"

SYSTEMD_SERVICE:${PN} = "log_consumer.service"
USERADD_PACKAGES = "${PN}"
USERADD_PARAM:${PN} = "--system --no-create-home --shell ${sbindir}/nologin --user-group log_consumer"

# fuser; BusyBox with its find; trust anchors for TLS.
RDEPENDS:${PN} = "psmisc busybox ca-certificates"

FILES:${PN} += "${nonarch_libdir}/tmpfiles.d ${nonarch_libdir}/sysusers.d \
    ${nonarch_libdir}/log_consumer ${datadir}/bash-completion"
CONFFILES:${PN} = "${sysconfdir}/default/log_consumer"

do_install:append() {
    # The private find is a link to where this image has BusyBox; FEATURE_FIND_PERM is on by default.
    ln -sfn ${base_bindir}/busybox ${D}${nonarch_libdir}/log_consumer/bin/find

    # Without merged /usr the units, and systemd.bbclass looks for them there alone, are in /lib.
    if [ ${systemd_system_unitdir} != ${nonarch_libdir}/systemd/system ]; then
        install -d ${D}${systemd_system_unitdir}
        mv ${D}${nonarch_libdir}/systemd/system/log_consumer.service ${D}${systemd_system_unitdir}/
        rmdir ${D}${nonarch_libdir}/systemd/system ${D}${nonarch_libdir}/systemd
    fi
}
