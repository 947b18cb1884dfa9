#pragma once

#include <QTimer>
#include <QWidget>
#include <cstdint>

// A clock that a picture of the screen carries: the milliseconds of CLOCK_MONOTONIC (the
// low 32 bits, one clock for every process on the machine) drawn as two rows of 32 black and
// white blocks, the second row the bitwise inverse of the first, so that a picture caught in
// the middle of a redraw is recognised and left out. Laid over the top tenth of the area a
// stream shows, whatever it is stretched to.
class ScreenClock : public QWidget {
public:
    static constexpr int bits = 32;
    // The band's share of the streamed area's height, from its top.
    static constexpr double bandFraction = 0.1;

    // area: the rectangle that is streamed; the clock covers its top band.
    explicit ScreenClock(QRect area);

    // Reads the clock back from the luma plane of a decoded picture of the whole area;
    // false when the two rows disagree.
    static bool read(const uint8_t* luma, int stride, int width, int height, uint32_t& ms);
    static uint32_t nowMs();

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QTimer timer;
};
