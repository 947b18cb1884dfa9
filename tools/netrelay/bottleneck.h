#pragma once

#include <cstdint>
#include <deque>
#include <random>
#include <vector>

// One direction of a link: datagrams are lost at random on the way in, then wait in a
// drop-tail queue in front of a bottleneck of a given rate, then travel for a fixed delay.
// Times are microseconds on any one clock the caller chooses.
class Bottleneck {
public:
    static constexpr int64_t lateUs = 10000;

    struct Counters {
        int64_t forwarded = 0;
        int64_t queueDrops = 0;
        int64_t lossDrops = 0;
        int64_t bytes = 0;
        // Datagrams sent on more than lateUs after they were due (the relay itself waited for
        // the processor), and the most any of them waited.
        int64_t late = 0;
        int64_t worstLateUs = 0;
    };

    Bottleneck(int64_t delayUs, double lossShare, int64_t queueUs, uint32_t seed)
        : delayUs(delayUs), lossShare(lossShare), queueUs(queueUs), random(seed) {}

    // 0: no bottleneck at all. A change applies to datagrams that arrive from now on.
    void setRate(int64_t bitsPerSecond) { rate = bitsPerSecond; }
    // Takes the datagram or drops it (lost, or no room in the queue).
    void arrive(const char* data, int size, int64_t nowUs);
    // When the next datagram is due out; -1 when none waits.
    int64_t nextDueUs() const { return waiting.empty() ? -1 : waiting.front().dueUs; }
    // The first waiting datagram once it is due: true and its bytes, which stay valid until
    // the next call.
    bool take(int64_t nowUs, std::vector<char>& datagram);
    const Counters& counters() const { return counts; }

private:
    struct Waiting {
        int64_t dueUs;
        std::vector<char> bytes;
    };

    int64_t delayUs;
    double lossShare;
    int64_t queueUs;
    int64_t rate = 0;
    // When the bottleneck finishes sending what it already holds.
    int64_t busyUntilUs = 0;
    std::mt19937 random;
    std::uniform_real_distribution<double> chance{0.0, 1.0};
    std::deque<Waiting> waiting;
    Counters counts;
};
