#pragma once

#include "sender.h"

#include <QApplication>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct Measurement {
    bool ok = false;
    std::string error;
    double seconds = 0; // the measured window, after the warm-up
    int frames = 0;     // frames the listener received in it
    int missed = 0;     // ticks of 25 a second in it that brought no frame: gaps in the time
                        // stamps, or where those are unknown, frames short of the window's ticks
    double cpuMsPerFrame = 0;
    double residentMb[3] = {0, 0, 0}; // at the window's start, middle and end
    double peakMb = 0;
    double clockPerWall = 0;     // span of the frames' time stamps over the span of arrivals
    std::vector<double> latency; // milliseconds, one per picture whose clock was readable
    int unreadable = 0;
    std::string encoder; // libx264's settings as written into the stream; empty if none
    // Frames that arrived damaged or follow one before the next key frame, in the window and
    // in the warm-up before it; in decode mode only.
    int damaged = 0;
    int damagedEarly = 0;
    double lastDamageS = -1;           // seconds after the first frame; -1: none
    std::vector<double> damageStartsS; // where each run of damaged frames began, the same way
    double receivedKbps = 0;           // the video's own bytes in the window
    std::string srtCounts;             // the receiver's libsrt counts, as it printed them

    double framesPerSecond() const { return seconds > 0 ? frames / seconds : 0; }
};

// Starts bench_receiver (beside the running program) on a free port, lets the sender stream
// to it, and after a warm-up measures for `seconds`; decode also decodes every picture and
// reads the screen clock from it. `route`, when given, puts something between the two: it is
// handed the receiver's port and answers the port the sender is to call.
Measurement measureSender(Sender& sender, int seconds, int latencyMs, bool decode,
                          const std::function<uint16_t(uint16_t)>& route = {});

// Runs the event loop for ms milliseconds, asleep while nothing happens.
void turnEventLoop(int ms);

// Runs the event loop until the condition holds or the time is up, asleep between looks; the
// milliseconds it took.
qint64 runUntil(const std::function<bool()>& done, int timeoutMs);

// The bench's application in the program's own look, so that its windows stand where the
// executable's will; the program's log lines on the debug channel and the encoder's notes would
// bury the figures, so only warnings and errors show.
void quietBenchApplication(QApplication& application);

double percentile(std::vector<double> values, double fraction);
