#include "bottleneck.h"

#include <algorithm>

void Bottleneck::arrive(const char* data, int size, int64_t nowUs) {
    if (lossShare > 0 && chance(random) < lossShare) {
        ++counts.lossDrops;
        return;
    }
    int64_t leavesUs = nowUs;
    if (rate > 0) {
        const int64_t startUs = std::max(nowUs, busyUntilUs);
        // What waits in front of the bottleneck, counted as the time it takes to drain: a
        // queue of queueUs holds that long a burst at the current rate, whatever the rate.
        if (startUs - nowUs > queueUs) {
            ++counts.queueDrops;
            return;
        }
        busyUntilUs = startUs + static_cast<int64_t>(size) * 8 * 1000000 / rate;
        leavesUs = busyUntilUs;
    }
    // The bottleneck sends in order, and the delay is the same for all: departures stay in
    // the order of arrival, so one queue in time order is enough.
    waiting.push_back({leavesUs + delayUs, std::vector<char>(data, data + size)});
}

bool Bottleneck::take(int64_t nowUs, std::vector<char>& datagram) {
    if (waiting.empty() || waiting.front().dueUs > nowUs)
        return false;
    const int64_t lateByUs = nowUs - waiting.front().dueUs;
    if (lateByUs > lateUs) {
        ++counts.late;
        counts.worstLateUs = std::max(counts.worstLateUs, lateByUs);
    }
    datagram.swap(waiting.front().bytes);
    waiting.pop_front();
    ++counts.forwarded;
    counts.bytes += static_cast<int64_t>(datagram.size());
    return true;
}
