#include "tickwait.h"

#include <windows.h>

namespace platform {

// Sleep ends on the system's timer tick, up to a tick late: waking a millisecond early and
// yielding through the last one keeps the beat exact.
void waitUntil(std::chrono::steady_clock::time_point due) {
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(due - std::chrono::steady_clock::now())
                .count();
        if (left <= 0)
            return;
        Sleep(static_cast<DWORD>(left - 1));
    }
}

} // namespace platform
