#!/usr/bin/env bash
# Starts the local SRT preview receiver on 127.0.0.1 and the client beside it.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
port=${BRINDLE_PREVIEW_PORT:-9000}

setsid "$root/scripts/preview.sh" "$port" &
preview=$!
trap 'kill -- -$preview 2>/dev/null || true' EXIT

echo "Preview receiver listening on srt://127.0.0.1:$port"
echo "In the form, type 127.0.0.1:$port and press START."
"$root/build/client/brindlewave"
