#include "linkstats.h"

#include "logfile.h"

#include <chrono>
#include <cstdio>
#include <string>

namespace {

constexpr int64_t lineIntervalNs = 10000000000;

int64_t steadyNanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::string oneDecimal(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

std::string seconds(int64_t nanoseconds) {
    return oneDecimal(static_cast<double>(nanoseconds) / 1e9) + " s";
}

} // namespace

void LinkStats::connected() {
    const int64_t now = steadyNanoseconds();
    if (!running) {
        running = true;
        interval = totals = Counts();
        rttMs = 0;
        reconnects = 0;
        lineAt = now;
    } else if (linkDown) {
        ++reconnects;
        logLine("SRT link back after ", seconds(now - downSince));
    }
    linkDown = false;
}

void LinkStats::sent(SRTSOCKET socket) {
    if (!running)
        return;
    // Read after every chunk: a socket that breaks refuses to report what it counted.
    take(socket);
    const int64_t now = steadyNanoseconds();
    if (now - lineAt < lineIntervalNs)
        return;
    const double elapsed = static_cast<double>(now - lineAt) / 1e9;
    logLine("SRT link: rtt=", oneDecimal(rttMs),
            " ms, send rate=", oneDecimal(static_cast<double>(interval.bytes) * 8 / elapsed / 1e6),
            " Mbit/s, packets sent=", interval.sent, ", lost=", interval.lost,
            ", retransmitted=", interval.retransmitted, ", dropped=", interval.dropped,
            " in the last ", seconds(now - lineAt));
    interval = Counts();
    lineAt = now;
}

void LinkStats::closing(SRTSOCKET socket) {
    if (running)
        take(socket);
}

void LinkStats::lost() {
    if (!running || linkDown)
        return;
    downSince = steadyNanoseconds();
    linkDown = true;
    logLine("SRT link lost");
}

void LinkStats::finish() {
    if (!running)
        return;
    logLine("SRT link totals: packets sent=", totals.sent, ", lost=", totals.lost,
            ", retransmitted=", totals.retransmitted, ", dropped=", totals.dropped,
            ", reconnects=", reconnects);
    running = false;
    linkDown = false;
}

void LinkStats::take(SRTSOCKET socket) {
    SRT_TRACEBSTATS stats{};
    // Cleared on reading: each reading holds what happened since the one before.
    if (srt_bstats(socket, &stats, 1) == SRT_ERROR)
        return;
    if (stats.msRTT > 0)
        rttMs = stats.msRTT;
    for (Counts* counts : {&interval, &totals}) {
        counts->sent += stats.pktSent;
        counts->lost += stats.pktSndLoss;
        counts->retransmitted += stats.pktRetrans;
        counts->dropped += stats.pktSndDrop;
        counts->bytes += stats.byteSent;
    }
}
