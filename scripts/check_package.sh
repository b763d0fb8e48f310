#!/bin/sh
# Checks the installed package as an integrator gets it:
#   1. cmake --install of a configured and built tree into a fresh prefix, which is then
#      moved elsewhere, so that every later step also proves the installation relocatable;
#   2. the installed files are exactly the expected ones: nothing missing, nothing else;
#   3. nothing installed names the build or source tree, and every run path is
#      $ORIGIN-relative;
#   4. every tool answers --help and --version (the package's version), without
#      LD_LIBRARY_PATH, and its manual page formats without a warning;
#   5. examples/ configured against the prefix (find_package(TavoMBBMS COMPONENTS
#      Simulator)), built and run: it plays and records a simulated service through the
#      installed engine, simulator and reference play engine; then the installed
#      tavo_agentcheck checks the installed simulator, which must pass;
#   6. find_package components: present ones are found, a missing or unknown one fails with a
#      message that names it (also on a Runtime + Development install without the simulator);
#   7. a file that includes the installed headers compiled and linked with the flags of
#      pkg-config --cflags --libs tavombbms and run: the library's version matches the
#      header's, and the simulator, reached through a link in an android root, finds the
#      content installed beside it; the module's variables name installed files.
#
#   sh scripts/check_package.sh <build dir> <work dir>
set -eu
cd "$(dirname "$0")/.."
root=$(pwd)
build=$(cd "$1" && pwd)
work=$2

fail() {
    echo "check_package: $*" >&2
    exit 1
}

rm -rf "$work"
mkdir -p "$work"
work=$(cd "$work" && pwd)
staging="$work/staging"
prefix="$work/prefix"
version=$(sed -n 's/^#define TAVOMBBMS_VERSION_STRING "\(.*\)"$/\1/p' "$build/include/TavoMBBMSVersion.h")
[ -n "$version" ] || fail "no version in $build/include/TavoMBBMSVersion.h"
build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$build/CMakeCache.txt" | tr 'A-Z' 'a-z')

# --- 1. Install, then move ------------------------------------------------------------------
cmake --install "$build" --prefix "$staging" >"$work/install.log" 2>&1 ||
    { cat "$work/install.log"; exit 1; }
mv "$staging" "$prefix"
echo "installed $version into $staging, moved to $prefix"

# --- 2. The installed files -----------------------------------------------------------------
# Tools: the three always built, and any other the build placed in its bin/ (each installed
# with its manual page).
tools="tavo_demo tavo_playengine tavo_repair"
for built in "$build"/bin/*; do
    [ -e "$built" ] || continue
    name=$(basename "$built")
    case " $tools " in *" $name "*) ;; *) tools="$tools $name" ;; esac
done

expected="$work/expected.txt"
{
    for tool in $tools; do
        echo "bin/$tool"
        echo "share/man/man1/$tool.1"
    done
    echo "include/tavombbms/MBBMSAgent.h"
    echo "include/tavombbms/TavoMBBMSEngine.h"
    echo "include/tavombbms/TavoMBBMSEngineStatus.h"
    echo "include/tavombbms/TavoMBBMSVersion.h"
    echo "include/tavombbms/TavoRecordingRepair.h"
    echo "lib/libtavombbms.so"
    echo "lib/libtavombbms.so.${version%%.*}"
    echo "lib/libtavombbms.so.$version"
    echo "lib/cmake/TavoMBBMS/TavoMBBMSConfig.cmake"
    echo "lib/cmake/TavoMBBMS/TavoMBBMSConfigVersion.cmake"
    echo "lib/cmake/TavoMBBMS/TavoMBBMSTargets.cmake"
    echo "lib/cmake/TavoMBBMS/TavoMBBMSTargets-$build_type.cmake"
    echo "lib/pkgconfig/tavombbms.pc"
    echo "lib/tavombbms/libsimagent.so"
    echo "lib/tavombbms/libtavo_agentcheck_proxy.so"
    for content in "$root"/agents/sim/content/*.h264 "$root"/agents/sim/content/*.aac; do
        echo "share/tavombbms/sim/$(basename "$content")"
    done
    echo "share/doc/tavombbms/LICENSE"
    echo "share/doc/tavombbms/NOTICE"
    # The play-engine SDK, when the build has it (its headers belong in this list too).
    if [ -n "$(find "$build" -name 'libtavoplayengine.so*' -print -quit)" ]; then
        echo "lib/libtavoplayengine.so"
        echo "lib/libtavoplayengine.so.1"
        echo "lib/pkgconfig/tavoplayengine.pc"
        echo "include/tavombbms/TavoPlayEngine.h"
        echo "include/tavombbms/CmmbSharedBuffer.h"
        echo "include/tavombbms/CmmbSharedSemaphore.h"
        echo "include/tavombbms/PlayEngineProtocol.h"
    fi
} | sort >"$expected"
(cd "$prefix" && find . \( -type f -o -type l \) | sed 's|^\./||' | sort) >"$work/installed.txt"
missing=$(comm -23 "$expected" "$work/installed.txt")
unexpected=$(comm -13 "$expected" "$work/installed.txt" |
    grep -v -E '^lib/libtavoplayengine\.so\.[0-9.]+$' || true)
[ -z "$missing" ] || fail "not installed:
$missing"
[ -z "$unexpected" ] || fail "installed but not expected:
$unexpected"
echo "installed files: the $(wc -l <"$expected") expected, nothing else"

# --- 3. No build path, relative run paths -----------------------------------------------------
for tree in "$build" "$root"; do
    named=$(grep -r -l -F "$tree" "$prefix" || true)
    [ -z "$named" ] || fail "installed files name $tree:
$named"
done
for file in $(cd "$prefix" && find . -type f \( -path './bin/*' -o -name '*.so*' \)); do
    paths=$(readelf -d "$prefix/$file" | sed -n 's/.*(\(RPATH\|RUNPATH\)).*\[\(.*\)\]$/\2/p')
    for path in $(echo "$paths" | tr ':' ' '); do
        case "$path" in
            '$ORIGIN'*) ;;
            *) fail "$file has the run path $path, which is not \$ORIGIN-relative" ;;
        esac
    done
done
echo "no build or source path installed; run paths relative"

# --- 4. --help, --version and manual pages ----------------------------------------------------
for tool in $tools; do
    program="$prefix/bin/$tool"
    help=$(env -u LD_LIBRARY_PATH "$program" --help) || fail "$tool --help failed"
    echo "$help" | grep -q "$tool" || fail "$tool --help does not name the program"
    answer=$(env -u LD_LIBRARY_PATH "$program" --version) || fail "$tool --version failed"
    case "$answer" in
        "$tool $version"*) ;;
        *) fail "$tool --version says '$answer', not '$tool $version'" ;;
    esac
    page="$prefix/share/man/man1/$tool.1"
    warnings=$(LC_ALL=C.UTF-8 groff -man -Tutf8 -ww -z "$page" 2>&1)
    [ -z "$warnings" ] || fail "manual page of $tool:
$warnings"
    MANWIDTH=80 man -l "$page" 2>/dev/null | grep -q "$tool" ||
        fail "man -l $page does not show $tool"
done
echo "tools: $tools answer --help and --version $version; manual pages clean"

# --- 5. The example against the package -------------------------------------------------------
cmake -S "$root/examples" -B "$work/example" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_PREFIX_PATH="$prefix" >"$work/example.configure.log" 2>&1 ||
    { cat "$work/example.configure.log"; exit 1; }
cmake --build "$work/example" >"$work/example.build.log" 2>&1 ||
    { cat "$work/example.build.log"; exit 1; }
# A short run directory: the engine's socket path must fit in 107 bytes.
run=$(mktemp -d /tmp/tavo-example.XXXXXX)
if ! "$work/example/record_service" --speed 4 "$run" >"$work/example.run.log" 2>&1; then
    cat "$work/example.run.log"
    tail -30 "$run/engine.log" 2>/dev/null || true
    rm -rf "$run"
    exit 1
fi
tail -2 "$work/example.run.log"
rm -rf "$run"

# The installed tuner-library check on the installed simulator: it must pass, and say so in
# its JSON report.
env -u LD_LIBRARY_PATH "$prefix/bin/tavo_agentcheck" --seconds 2 --json \
    "$prefix/lib/tavombbms/libsimagent.so" >"$work/agentcheck.json" 2>"$work/agentcheck.log" ||
    { cat "$work/agentcheck.json" "$work/agentcheck.log"; fail "tavo_agentcheck did not pass the simulator"; }
grep -q '"result": "pass"' "$work/agentcheck.json" ||
    { cat "$work/agentcheck.json"; fail "tavo_agentcheck reported no pass"; }
echo "tavo_agentcheck: the installed simulator passes"

# --- 6. find_package components ---------------------------------------------------------------
mkdir -p "$work/components"
cat >"$work/components/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.16)
project(TavoMBBMSComponents LANGUAGES CXX)
find_package(TavoMBBMS REQUIRED COMPONENTS ${WANTED})
message(STATUS "simulator: '${TavoMBBMS_SIM_AGENT}'")
CMAKE
# find_components <prefix> <components> <expected: found | a text of the failure>
find_components() {
    dir="$work/components/build"
    rm -rf "$dir"
    if cmake -S "$work/components" -B "$dir" -DCMAKE_PREFIX_PATH="$1" -DWANTED="$2" \
        >"$work/components.log" 2>&1; then
        [ "$3" = found ] || fail "find_package(TavoMBBMS COMPONENTS $2) in $1 succeeded"
    else
        [ "$3" != found ] || { cat "$work/components.log"; fail "COMPONENTS $2 not found in $1"; }
        grep -q -F "$3" "$work/components.log" ||
            { cat "$work/components.log"; fail "COMPONENTS $2 failed without saying '$3'"; }
    fi
}
find_components "$prefix" "Simulator" found
grep -q -F "simulator: '$prefix/lib/tavombbms/libsimagent.so'" "$work/components.log" ||
    fail "TavoMBBMS_SIM_AGENT does not name the installed simulator"
if [ -e "$prefix/lib/libtavoplayengine.so.1" ]; then
    find_components "$prefix" "Simulator;PlayEngineSDK" found
else
    find_components "$prefix" "Simulator;PlayEngineSDK" "component PlayEngineSDK: the play-engine SDK"
fi
find_components "$prefix" "Simulator;Teletext" "component Teletext: unknown component"
slim="$work/slim-prefix"
for component in Runtime Development; do
    cmake --install "$build" --prefix "$slim" --component $component >>"$work/install.log" 2>&1 ||
        { cat "$work/install.log"; exit 1; }
done
# (lib/tavombbms also holds tavo_agentcheck's proxy, which is part of Runtime.)
[ ! -e "$slim/lib/tavombbms/libsimagent.so" ] && [ ! -e "$slim/share/tavombbms" ] ||
    fail "the Runtime and Development components hold the simulator"
find_components "$slim" "" found
find_components "$slim" "Simulator" "component Simulator: the broadcast simulator"
echo "find_package: components found when installed, a clear failure when missing or unknown"

# --- 7. pkg-config ----------------------------------------------------------------------------
cat >"$work/pkgconfig_check.cpp" <<'CPP'
#include <MBBMSAgent.h>  // the vendor agent contract, also installed
#include <TavoMBBMSEngine.h>
#include <TavoMBBMSVersion.h>
#include <TavoRecordingRepair.h>

#include <cstdio>
#include <cstring>

int main() {
    if (strcmp(tavo_mbbms_version(), TAVOMBBMS_VERSION_STRING) != 0) {
        fprintf(stderr, "library %s, header %s\n", tavo_mbbms_version(), TAVOMBBMS_VERSION_STRING);
        return 1;
    }
    int (*repair)(int, int, char*, size_t) = &tavo_repair_recording;
    return TavoMBBMSEngine::getInstance() != nullptr && repair != nullptr ? 0 : 1;
}
CPP
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
# shellcheck disable=SC2046
c++ -std=c++17 "$work/pkgconfig_check.cpp" -o "$work/pkgconfig_check" \
    $(pkg-config --cflags --libs tavombbms)
for variable in playengine simagent simcontentdir; do
    value=$(pkg-config --variable=$variable tavombbms)
    [ -e "$value" ] || fail "pkg-config variable $variable=$value names nothing installed"
done
# The simulator as an android root holds it: libsiano.so, a link to the installed library,
# and no content property, so it must find its content beside its own file.
android_root="$work/android-root"
mkdir -p "$android_root/system/lib"
ln -s "$(pkg-config --variable=simagent tavombbms)" "$android_root/system/lib/libsiano.so"
TAVO_ANDROID_ROOT="$android_root" TAVO_LOG_FILE="$work/pkgconfig_check.log" \
    LD_LIBRARY_PATH="$prefix/lib" "$work/pkgconfig_check" ||
    { cat "$work/pkgconfig_check.log"; fail "pkgconfig_check failed"; }
content=$(sed -n "s/.*broadcast simulator created: .*content '\(.*\)'$/\1/p" "$work/pkgconfig_check.log")
[ -n "$content" ] && [ "$(cd "$content" && pwd -P)" = "$(cd "$prefix/share/tavombbms/sim" && pwd -P)" ] ||
    { cat "$work/pkgconfig_check.log"; fail "the simulator did not find its installed content"; }
echo "pkg-config: $(pkg-config --cflags --libs tavombbms) compiles and links; variables name installed files"

# --- Play-engine SDK -----------------------------------------------------------------------
# examples/count_frames.c, a play engine in C on the installed SDK: built with CMake above
# (record_service_c runs the simulated service with it as the play engine) and with
# pkg-config here. The frames, NAL units and AAC frames it counts per session must be those
# the engine handed over ("session=S, channelID=C, nalCount=N, aacCount=M" at MAIN).
run=$(mktemp -d /tmp/tavo-sdk-example.XXXXXX)
if ! "$work/example/record_service_c" --speed 4 "$run" >"$work/sdk-example.run.log" 2>&1; then
    cat "$work/sdk-example.run.log"
    tail -30 "$run/engine.log" 2>/dev/null || true
    rm -rf "$run"
    exit 1
fi
for session in 0 1; do
    engine_counts=$(sed -n "s/.*session=$session, channelID=[0-9]*, nalCount=\([0-9]*\), aacCount=\([0-9]*\).*/\1 \2/p" \
        "$run/engine.log" | awk '{ f++; n += $1; a += $2 } END { printf "frames=%d nal=%d aac=%d bad=0", f, n, a }')
    reader_counts=$(sed -n "s/^session $session: //p" "$work/sdk-example.run.log")
    if [ "$engine_counts" != "$reader_counts" ]; then
        echo "count_frames session $session: '$reader_counts', engine handed over '$engine_counts'"
        rm -rf "$run"
        exit 1
    fi
    echo "count_frames session $session: $reader_counts, as the engine handed over"
done
case $(sed -n "s/^session 0: frames=\([0-9]*\) .*/\1/p" "$work/sdk-example.run.log") in
    '' | 0) echo "count_frames read no frame of session 0"; rm -rf "$run"; exit 1 ;;
esac
rm -rf "$run"

# shellcheck disable=SC2046
cc -std=c11 -Wall -Wextra -Werror -pthread "$root/examples/count_frames.c" \
    -o "$work/count_frames_pc" $(pkg-config --cflags --libs tavoplayengine)
# No engine listens: it waits, stops on SIGTERM and reports nothing read.
mkdir -p "$work/sdk-root"
TAVO_ANDROID_ROOT="$work/sdk-root" LD_LIBRARY_PATH="$prefix/lib" \
    "$work/count_frames_pc" >"$work/count_frames_pc.log" 2>&1 &
sdk_pid=$!
sleep 0.5
kill -TERM "$sdk_pid"
wait "$sdk_pid"
grep -q "^session 0: frames=0 nal=0 aac=0 bad=0$" "$work/count_frames_pc.log" ||
    { cat "$work/count_frames_pc.log"; exit 1; }
echo "pkg-config: $(pkg-config --cflags --libs tavoplayengine) builds count_frames"
