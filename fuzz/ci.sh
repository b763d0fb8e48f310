#!/bin/sh
# CI entry point: every fuzz target for a bounded time (TAVO_FUZZ_CI_SECONDS, default 30 s
# each); fails on any finding, including the repair target passing its memory limits
# (-malloc_limit_mb, -rss_limit_mb; see target_options in run.sh).
exec "$(dirname "$0")/run.sh" "${TAVO_FUZZ_CI_SECONDS:-30}"
