#pragma once

namespace platform {

struct WallClock {
    int year = 0;
    int month = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
};

// One reading of the local wall-clock time.
WallClock localTime();

} // namespace platform
