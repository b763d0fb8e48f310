#!/bin/sh
# Builds the Release preset, runs every benchmark program and prints one Markdown table of
# their results, each against a baseline measured in the same run.
#
#   sh scripts/run_benchmarks.sh [--smoke]     (--smoke: tiny counts, only checks they run)
#
# Writes out/bench/results.md (the table), out/bench/<program>.log (each program's output)
# and out/bench/wake-latency.png (histogram of the cross-process wake-up, with gnuplot).
#
# The programs are those declared with tavo_add_benchmark() in bench/*/CMakeLists.txt; the
# build lists them in <build>/bench/benchmarks.txt. A program reports each result as one line
#   bench-row|<what is measured>|<engine figure>|<baseline name>|<baseline figure>|<unit>
# (lower is better unless the unit ends in "/s") and accepts --smoke.
set -eu
cd "$(dirname "$0")/.."
root=$(pwd)
out=${TAVO_OUT:-$root/out}
smoke=""
if [ "${1:-}" = "--smoke" ]; then
    smoke="--smoke"
fi

sh scripts/install_dependencies.sh
if ! command -v gnuplot >/dev/null 2>&1; then
    SUDO=""
    [ "$(id -u)" -ne 0 ] && SUDO="sudo"
    echo "Installing: gnuplot-nox"
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq gnuplot-nox >/dev/null
fi

mkdir -p "$out"
# CI passes its own Release preset (ci-release) to reuse that build.
preset=${TAVO_BENCH_PRESET:-release}
build="$out/$preset"
cmake --preset "$preset" -S "$root" -B "$build" >"$build.configure.log" 2>&1 ||
    { cat "$build.configure.log"; exit 1; }
cmake --build "$build" -j "$(nproc)" --target tavo_benchmarks >"$build.bench-build.log" 2>&1 ||
    { tail -60 "$build.bench-build.log"; exit 1; }

results="$out/bench"
mkdir -p "$results"
rows="$results/rows.txt"
: >"$rows"
while read -r program; do
    [ -n "$program" ] || continue
    name=$(basename "$program")
    echo "running $name $smoke" >&2
    if ! TAVO_BENCH_OUT_DIR="$results" "$program" $smoke >"$results/$name.log" 2>&1; then
        cat "$results/$name.log" >&2
        echo "$name failed" >&2
        exit 1
    fi
    grep '^bench-row|' "$results/$name.log" >>"$rows" || true
done <"$build/bench/benchmarks.txt"

awk -F'|' '
    BEGIN {
        print "| Measured | This engine | Baseline | Baseline figure | Unit | Engine / baseline |"
        print "|---|---:|---|---:|---|---:|"
    }
    {
        ratio = ($5 + 0 != 0) ? sprintf("%.2f", $3 / $5) : "n/a"
        printf "| %s | %s | %s | %s | %s | %s |\n", $2, $3, $4, $5, $6, ratio
    }
    END {
        print ""
        print "Lower is better, except for units per second (/s), where higher is better."
    }' "$rows" >"$results/results.md"
cat "$results/results.md"

latency="$results/wake-latency.dat"
if [ -s "$latency" ]; then
    # Range: up to the 99.5th percentile of all samples, about 60 bins.
    xmax=$(grep -v '^#' "$latency" | tr ' ' '\n' | sort -g |
        awk '{ v[NR] = $1 } END { x = v[int(NR * 0.995)]; print (x > 0 ? x : 1) }')
    gnuplot <<GNUPLOT
set terminal pngcairo size 900,500
set output "$results/wake-latency.png"
set title "Frame end to reader awake in another process (one round each)"
set xlabel "microseconds"
set ylabel "rounds (log scale)"
set logscale y
set yrange [0.8:*]
set xrange [0:$xmax]
binwidth = $xmax / 60.0
bin(x) = binwidth * floor(x / binwidth) + binwidth / 2
set boxwidth binwidth
set style fill transparent solid 0.5 noborder
plot "$latency" using (bin(\$1)):(1.0) smooth freq with boxes lc rgb "#1f77b4" title "engine (onOutputAVEnd to mutexDataAvailable)", \
     "$latency" using (bin(\$2)):(1.0) smooth freq with boxes lc rgb "#ff7f0e" title "bare futex wake"
GNUPLOT
    echo "histogram: $results/wake-latency.png" >&2
fi
