#!/bin/sh
# Checks the installed package as an integrator uses it:
#   1. cmake --install of a configured and built tree into a fresh prefix;
#   2. examples/ configured against that prefix (find_package(TavoMBBMS)), built and run: it
#      plays and records a simulated service through the installed engine, simulator and
#      reference play engine;
#   3. a file that includes TavoMBBMSEngine.h and MBBMSAgent.h compiled and linked with the flags of
#      pkg-config --cflags --libs tavombbms, and run.
#
#   sh scripts/check_package.sh <build dir> <work dir>
set -eu
cd "$(dirname "$0")/.."
root=$(pwd)
build=$1
work=$2

rm -rf "$work"
mkdir -p "$work"
work=$(cd "$work" && pwd)
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 ||
    { cat "$work/install.log"; exit 1; }
echo "installed into $prefix"

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

cat >"$work/pkgconfig_check.cpp" <<'CPP'
#include <MBBMSAgent.h>  // the vendor agent contract, also installed
#include <TavoMBBMSEngine.h>
int main() {
    return TavoMBBMSEngine::getInstance() != nullptr ? 0 : 1;
}
CPP
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
# shellcheck disable=SC2046
c++ -std=c++17 "$work/pkgconfig_check.cpp" -o "$work/pkgconfig_check" \
    $(pkg-config --cflags --libs tavombbms)
mkdir -p "$work/android-root"
TAVO_ANDROID_ROOT="$work/android-root" TAVO_LOG_FILE="$work/pkgconfig_check.log" \
    LD_LIBRARY_PATH="$prefix/lib" "$work/pkgconfig_check"
echo "pkg-config: $(pkg-config --cflags --libs tavombbms) compiles and links"

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
