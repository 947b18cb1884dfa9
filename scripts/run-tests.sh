#!/usr/bin/env bash
# Runs the test suite of every build folder given, on an X server of our own when none is set.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

source "$root/scripts/xvfb.sh"

if [[ -z "${DISPLAY:-}" ]]; then
    start_xvfb
    echo "X server on $DISPLAY"
fi
export QT_QPA_PLATFORM=xcb
# The program draws no OpenGL. Where Mesa's GLX is installed, Qt's xcb plugin loads it anyway,
# and Mesa's uninstrumented locks (taken in libxcb, released in Mesa, and at exit in its
# finalisers) read to ThreadSanitizer as unlocks of unlocked mutexes.
export QT_XCB_GL_INTEGRATION=none
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
