#!/bin/sh
# Installs the Debian packages the build, the tests and the demo need, when missing; also the
# package checks' tools: groff and man for the manual pages, bpfmt (blueprint-tools) for
# Android.bp, binutils (readelf) for the installed programs' run paths.
# Usage: install_dependencies.sh [--arm]   (--arm adds the 32-bit ARM cross compiler and qemu)
set -eu
packages="cmake g++ make ninja-build libgtest-dev libgmock-dev googletest pkg-config ffmpeg mediainfo libavcodec-dev libavutil-dev libswscale-dev android-liblog-dev android-libcutils-dev groff-base man-db blueprint-tools binutils"
# GStreamer plays every recorded file in the recording tests (h264parse is in plugins-bad).
packages="$packages gstreamer1.0-tools gstreamer1.0-plugins-good gstreamer1.0-plugins-bad gstreamer1.0-libav"
if [ "${1:-}" = "--arm" ]; then
    packages="$packages g++-arm-linux-gnueabihf qemu-user"
fi
missing=""
for package in $packages; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
        missing="$missing $package"
done
if [ -n "$missing" ]; then
    echo "Installing:$missing"
    SUDO=""
    [ "$(id -u)" -ne 0 ] && SUDO="sudo"
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq $missing >/dev/null
fi
