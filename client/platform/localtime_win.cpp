#include "localtime.h"

#include <windows.h>

namespace platform {

WallClock localTime() {
    SYSTEMTIME now;
    GetLocalTime(&now);
    WallClock clock;
    clock.year = now.wYear;
    clock.month = now.wMonth;
    clock.day = now.wDay;
    clock.hour = now.wHour;
    clock.minute = now.wMinute;
    clock.second = now.wSecond;
    return clock;
}

} // namespace platform
