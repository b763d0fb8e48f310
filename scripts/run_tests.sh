#!/bin/sh
# Builds and runs every test suite:
#   1. host build, all tests;
#   2. the same suite under AddressSanitizer and UndefinedBehaviorSanitizer;
#   3. the concurrency tests (label "tsan") under ThreadSanitizer;
#   4. a 32-bit ARM cross build, all tests under qemu-user.
# Build trees go to ./out/ (or $TAVO_OUT). Installs missing Debian packages first.
set -eu
cd "$(dirname "$0")/.."
root=$(pwd)
out=${TAVO_OUT:-$root/out}
jobs=$(nproc)

sh scripts/install_dependencies.sh --arm

configure() {
    dir=$1
    shift
    cmake -S "$root" -B "$out/$dir" -G Ninja -DCMAKE_BUILD_TYPE=Debug "$@" >"$out/$dir.configure.log" 2>&1 ||
        { cat "$out/$dir.configure.log"; exit 1; }
}

run_suite() {
    name=$1
    dir=$2
    target=$3
    shift 3
    echo "==== $name"
    started=$(date +%s)
    cmake --build "$out/$dir" -j "$jobs" --target "$target" >"$out/$dir.build.log" 2>&1 ||
        { tail -60 "$out/$dir.build.log"; exit 1; }
    ctest --test-dir "$out/$dir" -j "$jobs" --output-on-failure "$@"
    echo "==== $name: $(($(date +%s) - started)) s"
}

mkdir -p "$out"

configure host
run_suite "host" host all

configure asan -DTAVO_SANITIZE=address,undefined
ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1 \
    run_suite "AddressSanitizer + UndefinedBehaviorSanitizer" asan all

configure tsan -DTAVO_SANITIZE=thread
TSAN_OPTIONS=halt_on_error=1 run_suite "ThreadSanitizer" tsan tavo_tsan_tests -L tsan

configure arm -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-arm-linux-gnueabihf.cmake"
run_suite "32-bit ARM under qemu-user" arm all

echo "All suites passed."
