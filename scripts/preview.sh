#!/usr/bin/env bash
# A local SRT receiver that plays the incoming stream in a window. It listens again after each
# stream ends, so that every START is shown. The window stays small and to the right of where
# the capture frame first appears, so that it does not end up in the stream it shows.
# The player shows the first picture at once instead of studying the stream for seconds:
# the stream's first packet says all it needs to know. It keeps the packets it looked at
# (no "-fflags nobuffer"), since dropping them would drop the first key frame and leave the
# window waiting for the next one.
set -u
port=${1:-9000}
while true; do
    ffplay -hide_banner -loglevel error -probesize 32 -analyzeduration 0 -flags low_delay \
        -framedrop -sync ext \
        -autoexit -x 540 -y 304 -left 1370 -top 40 -window_title "Brindlewave preview - srt://127.0.0.1:$port" \
        "srt://127.0.0.1:$port?mode=listener" || sleep 1
done
