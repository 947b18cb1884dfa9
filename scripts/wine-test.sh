#!/usr/bin/env bash
# Runs a Windows test program under Wine in a fresh Wine prefix of its own, never the user's,
# and removes the prefix afterwards. The program's exit code is the script's.
set -euo pipefail
program=$1
shift

prefix=$(mktemp -d "${TMPDIR:-/tmp}/brindle-wine.XXXXXX")
cleanup() {
    WINEPREFIX=$prefix /usr/lib/wine/wineserver -k 2>/dev/null || true
    rm -rf "$prefix"
}
trap cleanup EXIT

# No windows, no Mono or Gecko installers, no Wine debug chatter; the ANSI code page follows
# from the locale (1252 for this one). The prefix is made first, its own messages kept out of
# the test's output.
unset DISPLAY WAYLAND_DISPLAY
export WINEPREFIX=$prefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" LC_ALL=C.UTF-8
/usr/lib/wine/wine64 wineboot --init >/dev/null 2>&1
/usr/lib/wine/wine64 "$program" "$@"
