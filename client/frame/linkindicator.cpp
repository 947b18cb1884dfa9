#include "linkindicator.h"

#include <QIcon>
#include <QPushButton>

namespace {

const char* const whiteLiveIcon = ":/icons/WHITE_LIVE.png";
const char* const redLiveIcon = ":/icons/RED_LIVE.png";
constexpr int halfPeriodMs = 500;

} // namespace

LinkIndicator::LinkIndicator(QPushButton* liveButton, std::function<bool()> linkDown)
    : QObject(liveButton), button(liveButton), isDown(std::move(linkDown)) {
    connect(&timer, &QTimer::timeout, this, &LinkIndicator::poll);
    timer.start(halfPeriodMs);
}

void LinkIndicator::poll() {
    const bool live = button->isChecked();
    if (live && isDown()) {
        flashing = true;
        redShown = !redShown;
        button->setIcon(QIcon(QString::fromUtf8(redShown ? redLiveIcon : whiteLiveIcon)));
        return;
    }
    // Switching live off has already made the button white.
    if (flashing && live)
        button->setIcon(QIcon(QString::fromUtf8(redLiveIcon)));
    flashing = false;
    redShown = true;
}
