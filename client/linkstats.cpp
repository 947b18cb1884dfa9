#include "linkstats.h"

#include "logfile.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr int64_t lineIntervalNs = 10000000000;
// The controller's readings: often enough to step down before a 200 ms queue in front of a
// slow link overflows, seldom enough that each reading holds some tens of packets.
constexpr int64_t sampleIntervalNs = 250000000;
// A change of target worth a line of its own, and the least time between two such lines: a
// fall over several readings is told about once, not at each step.
constexpr double reportedChange = 0.25;
constexpr int64_t reportIntervalNs = 3000000000;

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

void LinkStats::configure(int32_t ceilingKbps, int32_t otherKbps, bool canAdapt) {
    controller = RateController(ceilingKbps, otherKbps);
    fixedKbps = canAdapt ? 0 : ceilingKbps;
}

void LinkStats::connected() {
    const int64_t now = steadyNanoseconds();
    if (!running) {
        running = true;
        interval = totals = sinceSample = Counts();
        recent.fill(Counts());
        fedBytes = refusedChunks = 0;
        rttMs = 0;
        reconnects = 0;
        lineAt = sampleAt = reportedAt = now;
        reportedKbps = videoTargetKbps();
        reportedBurstKbps = 0;
    } else if (linkDown) {
        ++reconnects;
        logLine("SRT link back after ", seconds(now - downSince));
    }
    controller.restart();
    linkDown = false;
    const std::lock_guard<std::mutex> lock(snapshotMutex);
    shown.down = false;
    shown.targetKbps = videoTargetKbps();
}

void LinkStats::sent(SRTSOCKET socket, std::size_t bytes) {
    if (!running)
        return;
    fedBytes += static_cast<int64_t>(bytes);
    // Read after every chunk: a socket that breaks refuses to report what it counted.
    take(socket);
    const int64_t now = steadyNanoseconds();
    if (now - sampleAt >= sampleIntervalNs)
        sample(now);
    if (now - lineAt < lineIntervalNs)
        return;
    const double elapsed = static_cast<double>(now - lineAt) / 1e9;
    logLine("SRT link: rtt=", oneDecimal(rttMs),
            " ms, send rate=", oneDecimal(static_cast<double>(interval.bytes) * 8 / elapsed / 1e6),
            " Mbit/s, target=", videoTargetKbps(), " kbit/s, packets sent=", interval.sent,
            ", lost=", interval.lost, ", retransmitted=", interval.retransmitted,
            ", dropped=", interval.dropped, " in the last ", seconds(now - lineAt));
    interval = Counts();
    lineAt = now;
}

void LinkStats::sample(int64_t now) {
    RateController::Sample reading;
    reading.nowMs = now / 1000000;
    reading.rttMs = rttMs;
    reading.sent = sinceSample.sent;
    reading.retransmitted = sinceSample.retransmitted;
    reading.lost = sinceSample.lost;
    reading.dropped = sinceSample.dropped + refusedChunks;
    reading.bufferedMs = bufferedMs;
    reading.estimateKbps = estimateKbps;
    reading.fedKbps =
        static_cast<int32_t>(fedBytes * 8 * 1000000 / std::max<int64_t>(1, now - sampleAt));
    const int32_t target = fixedKbps > 0 ? fixedKbps : controller.update(reading);
    recent[recentNext] = sinceSample;
    recentNext = (recentNext + 1) % recent.size();
    sinceSample = Counts();
    fedBytes = refusedChunks = 0;
    sampleAt = now;
    reportTarget(target, now);
    if (burstKbps() != reportedBurstKbps) {
        reportedBurstKbps = burstKbps();
        if (reportedBurstKbps > 0)
            logLine("SRT link: ample, bursts paced at ", reportedBurstKbps, " kbit/s");
        else
            logLine("SRT link: paced at the target again");
    }

    Counts window;
    for (const Counts& counts : recent) {
        window.sent += counts.sent;
        window.lost += counts.lost;
        window.retransmitted += counts.retransmitted;
    }
    const double packets = static_cast<double>(std::max<int64_t>(1, window.sent));
    const std::lock_guard<std::mutex> lock(snapshotMutex);
    shown.measured = true;
    shown.targetKbps = target;
    shown.rttMs = rttMs;
    shown.retransmittedShare = static_cast<double>(window.retransmitted) / packets;
    shown.lostShare = static_cast<double>(window.lost) / packets;
}

void LinkStats::reportTarget(int32_t targetKbps, int64_t now) {
    if (std::abs(targetKbps - reportedKbps) < reportedChange * reportedKbps ||
        now - reportedAt < reportIntervalNs)
        return;
    logLine("SRT link: target bitrate ", targetKbps, " kbit/s, was ", reportedKbps, " kbit/s");
    reportedKbps = targetKbps;
    reportedAt = now;
}

LinkSnapshot LinkStats::snapshot() const {
    const std::lock_guard<std::mutex> lock(snapshotMutex);
    LinkSnapshot copy = shown;
    copy.down = linkDown;
    return copy;
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
    const std::lock_guard<std::mutex> lock(snapshotMutex);
    shown = LinkSnapshot();
}

void LinkStats::take(SRTSOCKET socket) {
    SRT_TRACEBSTATS stats{};
    // Cleared on reading: each reading holds what happened since the one before.
    if (srt_bstats(socket, &stats, 1) == SRT_ERROR)
        return;
    if (stats.msRTT > 0)
        rttMs = stats.msRTT;
    bufferedMs = stats.msSndBuf;
    estimateKbps = static_cast<int32_t>(stats.mbpsBandwidth * 1000);
    for (Counts* counts : {&interval, &totals, &sinceSample}) {
        counts->sent += stats.pktSent;
        counts->lost += stats.pktSndLoss;
        counts->retransmitted += stats.pktRetrans;
        counts->dropped += stats.pktSndDrop;
        counts->bytes += stats.byteSent;
    }
}
