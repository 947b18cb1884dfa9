#include "tickwait.h"

#include <cerrno>
#include <ctime>

namespace platform {

// The steady clock is CLOCK_MONOTONIC here, whose absolute sleeps end within the timer slack
// (50 microseconds by default) of their time: no spinning is needed for an exact beat.
void waitUntil(std::chrono::steady_clock::time_point due) {
    const auto sinceEpoch = due.time_since_epoch();
    const auto secondsPart = std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch);
    timespec until{};
    until.tv_sec = static_cast<time_t>(secondsPart.count());
    until.tv_nsec = static_cast<long>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch - secondsPart).count());
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

} // namespace platform
