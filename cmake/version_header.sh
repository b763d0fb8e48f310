#!/bin/sh
# Writes TavoMBBMSVersion.h to standard output from its template, with the version taken from
# the project() line of the top-level CMakeLists.txt: the same header that CMake's
# configure_file makes, for builds that do not run CMake (the handset's Android.bp).
#
#   sh cmake/version_header.sh CMakeLists.txt include/TavoMBBMSVersion.h.in > TavoMBBMSVersion.h
set -eu
version=$(sed -n 's/^project(TavoMBBMS VERSION \([0-9][0-9]*\.[0-9][0-9]*\.[0-9][0-9]*\).*/\1/p' "$1")
if [ -z "$version" ]; then
    echo "version_header.sh: no 'project(TavoMBBMS VERSION X.Y.Z' line in $1" >&2
    exit 1
fi
major=${version%%.*}
rest=${version#*.}
minor=${rest%%.*}
patch=${rest#*.}
sed -e "s/@PROJECT_VERSION_MAJOR@/$major/g" -e "s/@PROJECT_VERSION_MINOR@/$minor/g" \
    -e "s/@PROJECT_VERSION_PATCH@/$patch/g" "$2"
