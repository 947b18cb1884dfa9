#!/usr/bin/env bash
# Takes the README's pictures of the capture apparatus (docs/screenshots/) on an X server of
# its own, so that they come out the same on every machine.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="${1:-build}"

cmake -S "$root" -B "$root/$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/$build" -j "$(nproc)" --target brindle_screenshots

xvfb_pid=""
cleanup() { [[ -n "$xvfb_pid" ]] && kill "$xvfb_pid" 2>/dev/null || true; }
trap cleanup EXIT

fifo=$(mktemp -u)
mkfifo "$fifo"
Xvfb -displayfd 3 -screen 0 1920x1080x24 -nolisten tcp 3>"$fifo" >/dev/null 2>&1 &
xvfb_pid=$!
read -r -t 20 display <"$fifo"
rm -f "$fifo"

mkdir -p "$root/docs/screenshots"
# The program's own log and settings stay out of the user's folders.
scratch=$(mktemp -d)
trap 'cleanup; rm -rf "$scratch"' EXIT
DISPLAY=":$display" QT_QPA_PLATFORM=xcb XDG_CONFIG_HOME="$scratch" BRINDLEWAVE_DATA_DIR="$scratch" \
    "$root/$build/tools/screenshots/brindle_screenshots" "$root/docs/screenshots"
