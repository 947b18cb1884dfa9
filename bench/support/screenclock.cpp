#include "screenclock.h"

#include "processstats.h"

#include <QPainter>
#include <algorithm>

ScreenClock::ScreenClock(QRect area)
    : QWidget(nullptr, Qt::FramelessWindowHint | Qt::X11BypassWindowManagerHint) {
    setGeometry(area.x(), area.y(), area.width(),
                std::max(2, static_cast<int>(area.height() * bandFraction)));
    setAttribute(Qt::WA_OpaquePaintEvent);
    // Redrawn far more often than a frame is taken: the reading is late by at most a period.
    timer.setTimerType(Qt::PreciseTimer);
    connect(&timer, &QTimer::timeout, this, [this] { repaint(); });
    timer.start(2);
}

uint32_t ScreenClock::nowMs() {
    return static_cast<uint32_t>(monotonicMicros() / 1000);
}

void ScreenClock::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    const uint32_t value = nowMs();
    const int rowHeight = height() / 2;
    for (int row = 0; row < 2; ++row) {
        const uint32_t coded = row == 0 ? value : ~value;
        for (int bit = 0; bit < bits; ++bit) {
            const int left = bit * width() / bits;
            const int right = (bit + 1) * width() / bits;
            const bool one = (coded >> (bits - 1 - bit)) & 1u;
            painter.fillRect(left, row * rowHeight, right - left, rowHeight,
                             one ? Qt::white : Qt::black);
        }
    }
}

bool ScreenClock::read(const uint8_t* luma, int stride, int width, int height, uint32_t& ms) {
    // Too small a picture to hold the blocks with room around their middles.
    if (width < bits * 8 || height < 200)
        return false;
    uint32_t rows[2] = {0, 0};
    for (int row = 0; row < 2; ++row) {
        const int y = static_cast<int>((row + 0.5) / 2 * bandFraction * height);
        for (int bit = 0; bit < bits; ++bit) {
            const int x = static_cast<int>((bit + 0.5) * width / bits);
            // The middle of a block, well away from its edges, which the stretch and the
            // encoder blur.
            int sum = 0;
            for (int dy = -2; dy <= 2; ++dy)
                for (int dx = -2; dx <= 2; ++dx)
                    sum += luma[static_cast<std::size_t>(y + dy) * stride + x + dx];
            rows[row] = (rows[row] << 1) | (sum > 128 * 25 ? 1u : 0u);
        }
    }
    ms = rows[0];
    return rows[1] == ~rows[0];
}
