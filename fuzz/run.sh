#!/bin/sh
# Builds the fuzz targets (clang, libFuzzer, ASan and UBSan) and runs each one for a while.
#
#   fuzz/run.sh [seconds]    seconds per target, default 60
#
# Each target starts from its committed seeds (fuzz/corpus/<target>/) and a working corpus
# kept under the build directory (out/fuzz-corpus/<target>/), so repeated runs build on
# earlier ones without touching the committed seeds. An input that crashes, trips a
# sanitizer or fails a target's checks is saved as out/fuzz-findings/<target>-crash-<hash>
# (replay it with out/fuzz/fuzz/fuzz_<target> <file>); the script then exits with 1.
#
# Environment: TAVO_FUZZ_BUILD_DIR (default out/fuzz), TAVO_FUZZ_TARGETS (space-separated
# target names, default every folder of fuzz/corpus), TAVO_FUZZ_NICE (default 19).
set -eu

seconds=${1:-60}
root=$(cd "$(dirname "$0")/.." && pwd)
build=${TAVO_FUZZ_BUILD_DIR:-$root/out/fuzz}
corpora=$root/out/fuzz-corpus
findings=$root/out/fuzz-findings
niceness=${TAVO_FUZZ_NICE:-19}

# clang and its libFuzzer runtime (Debian: clang, libclang-rt-dev).
fuzzer_runtime() {
    resource=$(clang++ -print-resource-dir 2>/dev/null) || return 1
    ls "$resource"/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1
}
if ! command -v clang++ >/dev/null 2>&1 || ! fuzzer_runtime; then
    echo "run.sh: installing clang and its libFuzzer runtime" >&2
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq clang libclang-rt-dev >/dev/null
fi

if [ ! -f "$build/CMakeCache.txt" ]; then
    CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DTAVO_FUZZ=ON -DTAVO_WERROR=OFF -DTAVO_SANITIZE=fuzzer-no-link,address,undefined >/dev/null
fi
nice -n 10 cmake --build "$build" -j2 --target tavo_fuzzers

# Limits per target. The repair must keep its memory a small multiple of its input, so its
# inputs may grow to 4 MiB while one allocation may not pass 16 MiB nor the process 160 MiB:
# thirty times a 4 MiB input fails either limit. ASan's quarantine of freed blocks is kept to
# 16 MiB for it, which holds the process at about 75 MiB on its own.
target_options() {
    case $1 in
        repair) echo "-max_len=4194304 -malloc_limit_mb=16 -rss_limit_mb=160" ;;
        *) echo "-rss_limit_mb=2048" ;;
    esac
}
target_asan_options() {
    case $1 in
        repair) echo "quarantine_size_mb=16" ;;
        *) echo "" ;;
    esac
}

targets=${TAVO_FUZZ_TARGETS:-$(cd "$root/fuzz/corpus" && ls)}
mkdir -p "$findings"
failed=""
summary=""
for target in $targets; do
    binary=$build/fuzz/fuzz_$target
    work=$corpora/$target
    mkdir -p "$work"
    log=$build/fuzz-$target.log
    echo "== $target: ${seconds} s"
    status=0
    # shellcheck disable=SC2046 # the options are words
    asan=$(target_asan_options "$target")
    ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}$asan" nice -n "$niceness" "$binary" \
        -max_total_time="$seconds" -timeout=60 $(target_options "$target") \
        -print_final_stats=1 -artifact_prefix="$findings/$target-" \
        "$work" "$root/fuzz/corpus/$target" >"$log" 2>&1 || status=$?
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
    summary="$summary$target: ${runs:-?} executions, ${rate:-?} per second, exit $status
"
    if [ "$status" -ne 0 ]; then
        failed="$failed $target"
        grep -E 'fuzz finding|inconsistent|ERROR|runtime error|SUMMARY|out-of-memory|Test unit written' "$log" >&2 || true
    fi
done
printf '%s' "$summary"
if [ -n "$failed" ]; then
    echo "run.sh: findings in:$failed (inputs in $findings, logs in $build)" >&2
    exit 1
fi
