#!/bin/sh
# Builds and runs every test suite, with warnings as errors (the ci-* presets):
#   1. host Debug build, all tests;
#   2. the same suite under AddressSanitizer and UndefinedBehaviorSanitizer;
#   3. the concurrency tests (label "tsan") under ThreadSanitizer;
#   4. a 32-bit ARM cross build, all tests under qemu-user;
#   5. the handset backend of the platform layer, built on the host against Debian's liblog
#      and libcutils with the engine library, and its own test;
#   6. a Release build with g++ (optimiser-only warnings), and a Release build of the whole
#      tree, tests included, with clang++ and its thread-safety analysis (-Wthread-safety,
#      -Wthread-safety-beta): the lock annotations are checked; building is the check;
#   7. the package: cmake --install into a temporary prefix, checked file by file (no build
#      path, relative run paths, manual pages, --help and --version), the example in
#      examples/ built against it with find_package and run, the package's components, and
#      a file that includes TavoMBBMSEngine.h compiled with pkg-config's flags; and the
#      handset build's Android.bp (formatted, every source present and listed);
#   8. the benchmarks as a quick smoke (tiny counts; figures mean nothing here);
#   9. every fuzz target (clang, libFuzzer, ASan, UBSan) for a bounded time, failing on any
#      finding.
# Build trees go to ./out/ (or $TAVO_OUT). Installs missing Debian packages first.
set -eu
cd "$(dirname "$0")/.."
root=$(pwd)
out=${TAVO_OUT:-$root/out}
jobs=$(nproc)

sh scripts/install_dependencies.sh --arm

# configure <preset> <build dir under out/>
configure() {
    cmake --preset "$1" -S "$root" -B "$out/$2" >"$out/$2.configure.log" 2>&1 ||
        { cat "$out/$2.configure.log"; exit 1; }
}

build() {
    dir=$1
    target=$2
    cmake --build "$out/$dir" -j "$jobs" --target $target >"$out/$dir.build.log" 2>&1 ||
        { tail -60 "$out/$dir.build.log"; exit 1; }
}

run_suite() {
    name=$1
    dir=$2
    target=$3
    shift 3
    echo "==== $name"
    started=$(date +%s)
    build "$dir" "$target"
    ctest --test-dir "$out/$dir" -j "$jobs" --output-on-failure "$@"
    echo "==== $name: $(($(date +%s) - started)) s"
}

mkdir -p "$out"

configure ci-host-debug host
run_suite "host" host all

configure ci-asan-ubsan asan
ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1 \
    run_suite "AddressSanitizer + UndefinedBehaviorSanitizer" asan all

configure ci-tsan tsan
TSAN_OPTIONS=halt_on_error=1 run_suite "ThreadSanitizer" tsan tavo_tsan_tests -L tsan

configure ci-arm arm
run_suite "32-bit ARM under qemu-user" arm all

configure ci-android-host-check android
run_suite "handset backend (host check)" android "tavombbms android_backend_test"

echo "==== Release builds (g++; clang++ with the lock annotations checked)"
configure ci-release ci-release
build ci-release all
configure ci-thread-safety ci-thread-safety
build ci-thread-safety all

echo "==== installed package"
sh scripts/check_package.sh "$out/ci-release" "$out/package"

echo "==== handset build (Android.bp)"
sh scripts/check_android_bp.sh "$out/ci-release"

echo "==== benchmarks (smoke)"
TAVO_BENCH_PRESET=ci-release sh scripts/run_benchmarks.sh --smoke >/dev/null

echo "==== fuzzing"
TAVO_FUZZ_BUILD_DIR="$out/fuzz" TAVO_FUZZ_NICE=0 sh fuzz/ci.sh

echo "All suites passed."
