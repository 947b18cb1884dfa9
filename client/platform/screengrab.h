#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace platform {

// The order of a pixel's bytes in memory. The padding byte X is never read. X2rgb10 and
// X2bgr10 are little-endian 32-bit words of three 10-bit channels, red or blue highest;
// Rgb565 and Rgb555 little-endian 16-bit words.
enum class PixelLayout { None, Bgrx, Xrgb, X2rgb10, X2bgr10, Rgb, Bgr, Rgb565, Rgb555 };

// A grabbed picture as it lies in memory: one plane of packed pixels, rows `stride` bytes
// apart. The memory belongs to whoever grabbed it and stays valid until its next grab.
struct GrabbedPicture {
    const uint8_t* data = nullptr;
    PixelLayout layout = PixelLayout::None;
    int width = 0;
    int height = 0;
    int stride = 0;
};

// The operating system's fast screen grab: straight from the display server into memory that
// is kept across grabs. Where there is none, open() says so and the caller grabs through the
// toolkit instead. One thread at a time.
class ScreenGrab {
public:
    ScreenGrab();
    ~ScreenGrab();
    ScreenGrab(const ScreenGrab&) = delete;
    ScreenGrab& operator=(const ScreenGrab&) = delete;

    // Connects to the display; false, with the reason in lastError(), where this grab is not
    // available.
    bool open();
    // Grabs an area given in the coordinates of the display's root window. False with the
    // reason in lastError() when the area cannot be grabbed (for example when it reaches
    // beyond the screen); the grab stays usable for other areas.
    bool grab(int x, int y, int width, int height, GrabbedPicture& picture);
    // False only when the display reports that nothing in the area changed since the last
    // successful grab, which took this same area: the picture that grab gave is still the
    // screen's and stays valid. True wherever the display does not report its changes.
    bool changedSinceGrab(int x, int y, int width, int height);
    const std::string& lastError() const { return error; }

private:
    struct Display;
    std::unique_ptr<Display> display;
    std::string error;
};

} // namespace platform
