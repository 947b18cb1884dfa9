#pragma once

#include <chrono>

namespace platform {

// Returns once the steady clock has reached due, as close after it as the system's timers
// allow, without keeping a processor busy where they are precise enough to sleep through.
void waitUntil(std::chrono::steady_clock::time_point due);

} // namespace platform
