# Sourced by the scripts that need an X server of their own: start_xvfb starts Xvfb at
# 1920x1080x24 on a free display, exports DISPLAY, and stops the server when the script exits.
xvfb_pid=""
stop_xvfb() { [[ -n "$xvfb_pid" ]] && kill "$xvfb_pid" 2>/dev/null || true; }

start_xvfb() {
    local fifo display
    fifo=$(mktemp -u)
    mkfifo "$fifo"
    Xvfb -displayfd 3 -screen 0 1920x1080x24 -nolisten tcp 3>"$fifo" >/dev/null 2>&1 &
    xvfb_pid=$!
    trap stop_xvfb EXIT
    read -r -t 20 display <"$fifo"
    rm -f "$fifo"
    export DISPLAY=":$display"
}
