#include "screengrab.h"

namespace platform {

// Windows grabs through the toolkit, as designed for it.
struct ScreenGrab::Display {};

ScreenGrab::ScreenGrab() = default;

ScreenGrab::~ScreenGrab() = default;

bool ScreenGrab::open() {
    error = "No shared-memory screen grab on this system";
    return false;
}

bool ScreenGrab::grab(int, int, int, int, GrabbedPicture&) {
    error = "No shared-memory screen grab on this system";
    return false;
}

bool ScreenGrab::changedSinceGrab(int, int, int, int) {
    return true;
}

} // namespace platform
