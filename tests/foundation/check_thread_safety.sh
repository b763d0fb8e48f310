#!/bin/sh
# Compiles each case in thread_safety/ with clang's thread-safety analysis as errors, and
# checks that it fails with the diagnostic its first line names ("// expect: TEXT"), or
# compiles cleanly ("// expect: clean").
# Usage: check_thread_safety.sh CLANGXX CASE_DIR -I... (include flags)
set -u
compiler=$1
cases=$2
shift 2
failed=0
for source in "$cases"/*.cpp; do
    expected=$(sed -n '1s|^// expect: ||p' "$source")
    output=$("$compiler" -std=c++17 -fsyntax-only -Wthread-safety -Wthread-safety-beta -Werror \
        "$@" "$source" 2>&1)
    status=$?
    name=$(basename "$source")
    if [ "$expected" = "clean" ]; then
        if [ $status -ne 0 ]; then
            echo "FAIL $name: expected a clean compile, got:"
            echo "$output"
            failed=1
        else
            echo "ok   $name"
        fi
    elif [ $status -eq 0 ]; then
        echo "FAIL $name: compiled, expected \"$expected\""
        failed=1
    elif ! printf '%s\n' "$output" | grep -q -- "$expected"; then
        echo "FAIL $name: expected \"$expected\", got:"
        echo "$output"
        failed=1
    else
        echo "ok   $name"
    fi
done
exit $failed
