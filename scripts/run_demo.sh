#!/bin/sh
# The main job: installs what is missing, builds, and runs the end-to-end demo: a simulated
# broadcast played through the engine into two live sessions read by the reference play
# engine, a snapshot and a recording. Extra arguments go to the demo (see --help).
set -eu
cd "$(dirname "$0")/.."
root=$(pwd)
out=${TAVO_OUT:-$root/out}

sh scripts/install_dependencies.sh

mkdir -p "$out"
# The release preset (shared with the benchmarks); only the demo and what it runs are built.
cmake --preset release -S "$root" -B "$out/release" >"$out/release.configure.log" 2>&1 ||
    { cat "$out/release.configure.log"; exit 1; }
cmake --build "$out/release" -j "$(nproc)" --target tavo_demo >"$out/release.build.log" 2>&1 ||
    { tail -60 "$out/release.build.log"; exit 1; }

demo="$out/release/bin/tavo_demo"
if [ "$#" -eq 0 ]; then
    set -- --seconds 20 --speed 4 --out "$out/demo"
fi
exec "$demo" "$@"
