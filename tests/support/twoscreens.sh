#!/usr/bin/env bash
# Runs a program on an X server of its own with two outputs, as on a desk with a second
# monitor: the primary, 1920x1080 at +1280+0, and a 1280x720 monitor to its left at +0+0.
# Xorg's dummy driver gives real RandR outputs, which Xvfb does not.
set -euo pipefail
work=$(mktemp -d)
xorg=""
finish() {
    [[ -n "$xorg" ]] && kill "$xorg" 2>/dev/null && wait "$xorg" 2>/dev/null
    rm -rf "$work"
}
trap finish EXIT

# No input devices and no console: the server must never take the machine's keyboard or screen.
cat >"$work/xorg.conf" <<'EOF'
Section "ServerFlags"
    Option "AutoAddDevices" "false"
    Option "AutoEnableDevices" "false"
    Option "DontVTSwitch" "true"
EndSection
Section "Device"
    Identifier "dummy"
    Driver "dummy"
    VideoRam 64000
EndSection
Section "Screen"
    Identifier "screen"
    Device "dummy"
    DefaultDepth 24
    SubSection "Display"
        Depth 24
        Virtual 3200 1080
    EndSubSection
EndSection
EOF
mkfifo "$work/display"
/usr/lib/xorg/Xorg -displayfd 3 -config "$work/xorg.conf" -logfile "$work/xorg.log" \
    -nolisten tcp -noreset -novtswitch -sharevts 3>"$work/display" >/dev/null 2>&1 &
xorg=$!
read -r -t 30 display <"$work/display"
export DISPLAY=":$display"
xrandr --newmode 1920x1080 148.50 1920 2008 2052 2200 1080 1084 1089 1125 +hsync +vsync
xrandr --newmode 1280x720 74.25 1280 1390 1430 1650 720 725 730 750 +hsync +vsync
xrandr --addmode DUMMY0 1920x1080
xrandr --addmode DUMMY1 1280x720
xrandr --output DUMMY0 --mode 1920x1080 --pos 1280x0 --primary \
    --output DUMMY1 --mode 1280x720 --pos 0x0
# Until a full query probes the outputs again, the second one still counts as disconnected.
xrandr --query >/dev/null
"$@"
