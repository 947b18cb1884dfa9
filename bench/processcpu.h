#pragma once

#include <ctime>

// CPU time the whole process has used, all its threads together, in seconds.
inline double processCpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}
