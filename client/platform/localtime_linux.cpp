#include "localtime.h"

#include <ctime>

namespace platform {

WallClock localTime() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    localtime_r(&now, &parts);
    WallClock clock;
    clock.year = parts.tm_year + 1900;
    clock.month = parts.tm_mon + 1;
    clock.day = parts.tm_mday;
    clock.hour = parts.tm_hour;
    clock.minute = parts.tm_min;
    clock.second = parts.tm_sec;
    return clock;
}

} // namespace platform
