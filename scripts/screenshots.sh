#!/usr/bin/env bash
# Takes the README's pictures of the capture apparatus (docs/screenshots/) on an X server of
# its own, so that they come out the same on every machine.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="${1:-build}"

cmake -S "$root" -B "$root/$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/$build" -j "$(nproc)" --target brindle_screenshots

source "$root/scripts/xvfb.sh"
start_xvfb

mkdir -p "$root/docs/screenshots"
# The program's own log and settings stay out of the user's folders.
scratch=$(mktemp -d)
trap 'stop_xvfb; rm -rf "$scratch"' EXIT
QT_QPA_PLATFORM=xcb XDG_CONFIG_HOME="$scratch" BRINDLEWAVE_DATA_DIR="$scratch" \
    "$root/$build/tools/screenshots/brindle_screenshots" "$root/docs/screenshots"
