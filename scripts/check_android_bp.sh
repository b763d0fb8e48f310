#!/bin/sh
# Checks Android.bp, the handset build, which cannot be run here:
#   1. it is formatted as bpfmt formats it (bpfmt -d prints no difference);
#   2. every file and folder it names exists;
#   3. it builds every source file of the engine's subsystem folders and of tavo_repair into
#      its modules, so a file added to the CMake build is not forgotten there;
#   4. its version header generator gives the header CMake generated (with a build dir).
#
#   sh scripts/check_android_bp.sh [<build dir>]
set -eu
cd "$(dirname "$0")/.."
bp=Android.bp
status=0

difference=$(bpfmt -d "$bp")
if [ -n "$difference" ]; then
    echo "$bp is not formatted as bpfmt formats it:"
    echo "$difference"
    status=1
fi

# The entries of every list of paths: sources, include folders and tool files.
named=$(awk '
    /^[ \t]*(srcs|local_include_dirs|export_include_dirs|tool_files):/ { inlist = 1 }
    inlist {
        line = $0
        sub(/^[^:]*:/, "", line)
        while (match(line, /"[^"]*"/)) {
            print substr(line, RSTART + 1, RLENGTH - 2)
            line = substr(line, RSTART + RLENGTH)
        }
    }
    inlist && /\]/ { inlist = 0 }' "$bp" | sort -u)
if [ -z "$named" ]; then
    echo "no paths found in $bp"
    status=1
fi
for path in $named; do
    if [ ! -e "$path" ]; then
        echo "$bp names $path, which does not exist"
        status=1
    fi
done

for source in engine/*.cpp session/*.cpp sharedbuffer/*.cpp playengine/*.cpp recording/*.cpp \
    mp4writer/*.cpp sdk/*.cpp tools/repair/*.cpp; do
    if ! grep -q "\"$source\"" "$bp"; then
        echo "$bp does not build $source"
        status=1
    fi
done

if [ $# -ge 1 ]; then
    generated=$(mktemp)
    sh cmake/version_header.sh CMakeLists.txt include/TavoMBBMSVersion.h.in >"$generated"
    if ! cmp -s "$generated" "$1/include/TavoMBBMSVersion.h"; then
        echo "the handset build's TavoMBBMSVersion.h differs from CMake's:"
        diff "$generated" "$1/include/TavoMBBMSVersion.h" || true
        status=1
    fi
    rm -f "$generated"
fi

[ $status -eq 0 ] && echo "$bp: formatted, every source present and listed"
exit $status
