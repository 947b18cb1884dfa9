#!/usr/bin/env bash
# Runs the test suite of every build folder given, on an X server of our own when none is set.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

xvfb_pid=""
cleanup() { [[ -n "$xvfb_pid" ]] && kill "$xvfb_pid" 2>/dev/null || true; }
trap cleanup EXIT

if [[ -z "${DISPLAY:-}" ]]; then
    fifo=$(mktemp -u)
    mkfifo "$fifo"
    Xvfb -displayfd 3 -screen 0 1920x1080x24 -nolisten tcp 3>"$fifo" >/dev/null 2>&1 &
    xvfb_pid=$!
    read -r -t 20 display <"$fifo"
    rm -f "$fifo"
    export DISPLAY=":$display"
    echo "X server on $DISPLAY"
fi
export QT_QPA_PLATFORM=xcb
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export LSAN_OPTIONS="suppressions=$root/tests/lsan.supp:print_suppressions=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$root/tests/tsan.supp"

status=0
for build in "$@"; do
    echo "== Tests of $build =="
    ctest --test-dir "$root/$build" --output-on-failure -j "$(nproc)" || status=1
done
exit $status
