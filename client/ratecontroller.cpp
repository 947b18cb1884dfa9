#include "ratecontroller.h"

#include <algorithm>

namespace {

// Chosen by bench_link through tools/netrelay (see the README's link section).
//
// A queue of this many milliseconds beyond the least round trip means the link is full: above
// the jitter of libsrt's smoothed round trip through a relay on a quiet machine (a few ms),
// and short enough that a resend waiting behind it still reaches a receiver whose latency is
// four round trips. At 40 ms the target kept climbing back into a 4 Mbit/s link until the
// queue reached that, and 5 % of frames broke there (bench_link, both scenes); at 20 ms none
// did in 20 s runs. A route that grows longer by more than this is taken for a queue until
// the least round trip is learnt anew (two windows).
constexpr double fullQueueMs = 20;
// Below this the link has room to climb into.
constexpr double emptyQueueMs = 10;
// One step down removes the excess of a link that halved at once within three readings.
constexpr double decreaseFactor = 0.75;
// A queue this long is a link that fell far below the target (8 to 1.5 Mbit/s: the round trip
// went from 43 to 198 ms within half a second): half the target at once, again after a
// shorter hold while it lasts, so that the queue stops growing within a second instead of
// the three that steps of a quarter took, which left the picture broken for two seconds.
constexpr double severeQueueMs = 100;
constexpr double severeDecreaseFactor = 0.5;
constexpr int64_t severeHoldMs = 500;
// The link needs a round trip and libsrt's smoothing to show the effect of a step down.
constexpr int64_t holdAfterDecreaseMs = 750;
// No climb for this long after a step down: the link just proved where its edge is.
constexpr int64_t calmAfterDecreaseMs = 2000;
// Climbing: this share of the target per second, at least the fixed step; from 1.5 to
// 5 Mbit/s in about 9 s. Until the link has first shown its edge, twice as fast.
constexpr double climbPerSecond = 0.15;
constexpr double firstClimbPerSecond = 0.3;
constexpr double climbStepKbpsPerSecond = 100;
// Climbing back towards the target it last fell from, the last tenth below it goes at this
// share per second only (at least the fixed step): the link broke there, and a probe that
// creeps into it builds a queue of a few milliseconds before the round trip shows it, where
// one at the full climb piled up tens, long enough for a resend to reach a 4 Mbit/s link's
// receiver too late (bench_link, moving scene: one such event a minute). Past that target the
// link has shown more room; a tenth past it, the link is taken to have changed (8 back from
// 1.5 Mbit/s) and is probed as at the start, which brings the target back to the ceiling
// within 10 s where the usual pace took 13.
constexpr double nearEdgeShare = 0.9;
constexpr double nearEdgeClimbPerSecond = 0.03;
constexpr double pastEdgeShare = 1.1;
// The encoder uses less than this share of its target: the link has not been tried.
constexpr double appLimitedShare = 0.5;
// A stream starts at this share of the ceiling and climbs while the link allows: 1.5 Mbit/s
// of the form's 5, below the slowest uplink a presenter is likely to have. A ceiling lower
// than that is itself the start.
constexpr double startShare = 0.3;
constexpr int32_t startKbps = 1500;
// The least round trip is the least of the current window and the one before, so that a
// route that got longer is learnt within two windows.
constexpr int64_t rttWindowMs = 5000;
// libsrt estimates the link's capacity from pairs of packets sent back to back. Through the
// bench's relay it read 6-12 Mbit/s at 8, 3.4-4.1 at 4 and 1.0-1.6 at 1.5; where nothing limits
// the rate it holds its starting 10-13 for the first three seconds, then passes 100 within a
// reading and reads 400-1600. Eight ceilings' worth for a second is taken for a link with room
// to burst into; bursts are paced at six ceilings (`roomyPacing`), and the estimate falling
// below that ends them. With them libx264 spends 0.92 of the target on a picture that moves
// everywhere over 60 s, 0.84 without (bench_link, README; see VideoEncoder).
constexpr int32_t roomyShare = 8;
constexpr int64_t roomyAfterMs = 1000;

} // namespace

RateController::RateController(int32_t ceilingKbps, int32_t otherKbps)
    : ceiling(std::max(floorKbps, ceilingKbps) + std::max(0, otherKbps)),
      other(std::max(0, otherKbps)),
      total(std::min(ceiling, other + std::max(startKbps, static_cast<int32_t>((ceiling - other) *
                                                                               startShare)))) {}

void RateController::restart() {
    minRttMs = windowMinRttMs = 0;
    windowStartMs = lastMs = decreasedAtMs = roomySinceMs = -1;
    bursting = false;
}

int32_t RateController::videoKbps() const {
    return std::max(floorKbps, total - other);
}

void RateController::forgetOldRtt(int64_t nowMs) {
    if (windowStartMs < 0) {
        windowStartMs = nowMs;
        return;
    }
    if (nowMs - windowStartMs < rttWindowMs)
        return;
    minRttMs = windowMinRttMs;
    windowMinRttMs = 0;
    windowStartMs = nowMs;
}

bool RateController::congested(const Sample& sample, double queueMs) const {
    if (sample.dropped > 0 || queueMs > fullQueueMs)
        return true;
    // Unacknowledged data older than the round trip and a full queue: the link is behind.
    return minRttMs > 0 && sample.bufferedMs > minRttMs + 2 * fullQueueMs;
}

int32_t RateController::update(const Sample& sample) {
    forgetOldRtt(sample.nowMs);
    if (sample.rttMs > 0) {
        if (windowMinRttMs <= 0 || sample.rttMs < windowMinRttMs)
            windowMinRttMs = sample.rttMs;
        if (minRttMs <= 0 || sample.rttMs < minRttMs)
            minRttMs = sample.rttMs;
    }
    const double queueMs = minRttMs > 0 ? sample.rttMs - minRttMs : 0;
    const int64_t elapsedMs = lastMs < 0 ? 0 : std::max<int64_t>(0, sample.nowMs - lastMs);
    lastMs = sample.nowMs;
    const int32_t least = floorKbps + other;

    if (congested(sample, queueMs)) {
        const bool severe = queueMs > severeQueueMs;
        if (decreasedAtMs < 0 ||
            sample.nowMs - decreasedAtMs >= (severe ? severeHoldMs : holdAfterDecreaseMs)) {
            const double factor = severe ? severeDecreaseFactor : decreaseFactor;
            edge = total;
            exploring = false;
            total = std::max(least, static_cast<int32_t>(total * factor));
            decreasedAtMs = sample.nowMs;
        }
        judgeRoom(sample);
        return videoKbps();
    }
    const bool calm = decreasedAtMs < 0 || sample.nowMs - decreasedAtMs >= calmAfterDecreaseMs;
    const bool used = sample.fedKbps >= appLimitedShare * total;
    if (calm && used && queueMs < emptyQueueMs && elapsedMs > 0) {
        const double seconds = static_cast<double>(elapsedMs) / 1000;
        exploring = exploring || total > pastEdgeShare * edge;
        const bool nearEdge = total >= nearEdgeShare * edge && total < edge;
        const double share = exploring  ? firstClimbPerSecond
                             : nearEdge ? nearEdgeClimbPerSecond
                                        : climbPerSecond;
        const double step = std::max(climbStepKbpsPerSecond, share * total) * seconds;
        total = std::min(ceiling, total + static_cast<int32_t>(step));
    }
    judgeRoom(sample);
    return videoKbps();
}

void RateController::judgeRoom(const Sample& sample) {
    // A link that pushed back once on this stream is never taken for an ample one again.
    const int32_t least = (bursting ? roomyPacing : roomyShare) * ceiling;
    if (edge > 0 || sample.estimateKbps < least) {
        roomySinceMs = -1;
        bursting = false;
        return;
    }
    if (roomySinceMs < 0)
        roomySinceMs = sample.nowMs;
    bursting = sample.nowMs - roomySinceMs >= roomyAfterMs;
    // Such a link has been probed enough: no climb towards the ceiling is needed.
    if (bursting)
        total = ceiling;
}
