#pragma once

#include "sender.h"

#include <string>
#include <vector>

struct Measurement {
    bool ok = false;
    std::string error;
    double seconds = 0; // the measured window, after the warm-up
    int frames = 0;     // frames the listener received in it
    int missed = 0;     // ticks of 25 a second that fell due in it without a frame
    double cpuMsPerFrame = 0;
    double residentMb[3] = {0, 0, 0}; // at the window's start, middle and end
    double peakMb = 0;
    double clockPerWall = 0;     // span of the frames' time stamps over the span of arrivals
    std::vector<double> latency; // milliseconds, one per picture whose clock was readable
    int unreadable = 0;
    std::string encoder; // libx264's settings as written into the stream; empty if none

    double framesPerSecond() const { return seconds > 0 ? frames / seconds : 0; }
};

// Starts bench_receiver (beside the running program) on a free port, lets the sender stream
// to it, and after a warm-up measures for `seconds`; decode also decodes every picture and
// reads the screen clock from it.
Measurement measureSender(Sender& sender, int seconds, int latencyMs, bool decode);

// Runs the event loop for ms milliseconds, asleep while nothing happens.
void turnEventLoop(int ms);

double percentile(std::vector<double> values, double fraction);
