#!/bin/sh
# CI entry point: every fuzz target for a bounded time (TAVO_FUZZ_CI_SECONDS, default 30 s
# each); fails on any finding. See run.sh.
exec "$(dirname "$0")/run.sh" "${TAVO_FUZZ_CI_SECONDS:-30}"
