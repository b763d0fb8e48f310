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
