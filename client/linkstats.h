#pragma once

#include "ratecontroller.h"

#include <srt/srt.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>

// The link as it is now, for the presenter: copied out under a lock, never read from libsrt by
// the thread that asks.
struct LinkSnapshot {
    bool down = false;
    bool measured = false; // false until the first reading of a stream
    int32_t targetKbps = 0;
    double rttMs = 0;
    double retransmittedShare = 0; // of the packets sent over the last few seconds
    double lostShare = 0;
};

// What the presenter's link does while live, written to the log: every ten seconds one line
// with the round-trip time, the send rate, the target bitrate and the packets sent, lost,
// retransmitted and dropped since the line before; one line when the link is lost and one when
// it is back; one when the target changes by much; the totals when the stream stops. Counts
// survive reconnects, which start each socket at zero. A few times a second the readings go to
// the rate controller, whose target the writer's encoder and the connection's pacing follow.
class LinkStats {
public:
    // Before a stream's first connect: the configured video bitrate, the share of the link
    // other streams take, and whether the encoder can follow a target at all.
    void configure(int32_t ceilingKbps, int32_t otherKbps, bool adaptive);
    // A connection is up: the first of a stream starts the counts, a later one ends an outage.
    void connected();
    // A chunk of `bytes` went out; reads the socket's counters, feeds the controller and
    // writes the periodic line when they are due.
    void sent(SRTSOCKET socket, std::size_t bytes);
    // The socket is about to close: what it counted since it was last read is kept, where
    // it still answers.
    void closing(SRTSOCKET socket);
    // The send buffer had no room for a chunk, which was dropped.
    void refused() { ++refusedChunks; }
    // A send failed: the link is down until the next connected().
    void lost();
    // The stream stopped: the totals line.
    void finish();
    // Read by the interface thread while the streaming thread writes.
    bool down() const { return linkDown; }
    LinkSnapshot snapshot() const;
    // The video bitrate to encode at, and what the connection feeds the link (video, other
    // streams), in kbit/s; asked on the streaming thread.
    int32_t videoTargetKbps() const { return fixedKbps > 0 ? fixedKbps : controller.videoKbps(); }
    int32_t linkTargetKbps() const {
        return fixedKbps > 0 ? fixedKbps + controller.otherKbps() : controller.linkKbps();
    }
    // The rate libsrt may send bursts at (0: it paces at the link target), and the room that
    // leaves beyond the target.
    int32_t burstKbps() const { return fixedKbps > 0 ? 0 : controller.burstKbps(); }
    int32_t roomKbps() const {
        return burstKbps() > 0 ? std::max(0, burstKbps() - linkTargetKbps()) : 0;
    }

private:
    struct Counts {
        int64_t sent = 0;
        int64_t lost = 0;
        int64_t retransmitted = 0;
        int64_t dropped = 0;
        uint64_t bytes = 0;
    };
    void take(SRTSOCKET socket);
    void sample(int64_t now);
    void reportTarget(int32_t targetKbps, int64_t now);

    Counts interval;
    Counts totals;
    Counts sinceSample;
    int64_t fedBytes = 0; // handed to the connection since the last reading
    int64_t refusedChunks = 0;
    double rttMs = 0;
    int32_t bufferedMs = 0;
    int32_t estimateKbps = 0;
    int64_t lineAt = 0; // steady-clock nanoseconds of the last periodic line or the start
    int64_t sampleAt = 0;
    int64_t downSince = 0;
    int32_t reconnects = 0;
    bool running = false;
    int32_t fixedKbps = 0; // the encoder cannot follow a target: it keeps the configured one
    std::atomic<bool> linkDown{false};
    RateController controller{5000, 0};
    int32_t reportedKbps = 0;
    int32_t reportedBurstKbps = 0;
    int64_t reportedAt = 0;
    // The readings of the last few seconds, for the presenter's view of losses.
    std::array<Counts, 16> recent{};
    std::size_t recentNext = 0;
    mutable std::mutex snapshotMutex;
    LinkSnapshot shown;
};
