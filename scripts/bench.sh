#!/usr/bin/env bash
# Runs the benchmark programs, on an X server of our own when none is set.
# BENCH_SECONDS: length of each measured run of bench_capture and bench_sync (default 20; 60 for
# figures).
# BENCH_OUTAGE_SECONDS: how long the server stays away in bench_outage (default 60).
# BENCH_REFUSAL_SECONDS: how long the server refuses every handshake in bench_refusal (default 60).
# BENCH_SCENE_SECONDS: length of each measured run of bench_scenes (default 60).
# BENCH_LINK_SECONDS: length of each measured run of bench_link (default 60; 20 cases).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${BENCH_SECONDS:-20}

# Started again inside xvfb-run: a shell function would not survive its /bin/sh.
if [[ -z "${DISPLAY:-}" ]]; then
    exec xvfb-run -a -s "-screen 0 1920x1080x24 -nolisten tcp" "$0" "$@"
fi

"$root/build/bench/bench_outwriter" 250
"$root/build/bench/bench_scaler" 100
"$root/build/bench/bench_capture" "$seconds"
"$root/build/bench/bench_stillencoder" 500
"$root/build/bench/bench_scenes" "${BENCH_SCENE_SECONDS:-60}"
"$root/build/bench/bench_outage" "${BENCH_OUTAGE_SECONDS:-60}"
"$root/build/bench/bench_refusal" "${BENCH_REFUSAL_SECONDS:-60}"
"$root/build/bench/bench_sync" "$seconds"
"$root/build/bench/bench_link" "${BENCH_LINK_SECONDS:-60}"
