#include "linkindicator.h"

#include <QCursor>
#include <QIcon>
#include <QPushButton>
#include <QToolTip>

namespace {

const char* const whiteLiveIcon = ":/icons/WHITE_LIVE.png";
const char* const redLiveIcon = ":/icons/RED_LIVE.png";
constexpr int halfPeriodMs = 500;

QString percent(double share) {
    return QString::number(share * 100, 'f', 1) + " %";
}

} // namespace

LinkIndicator::LinkIndicator(QPushButton* liveButton, std::function<LinkSnapshot()> link)
    : QObject(liveButton), button(liveButton), linkNow(std::move(link)) {
    connect(&timer, &QTimer::timeout, this, &LinkIndicator::poll);
    timer.start(halfPeriodMs);
}

QString LinkIndicator::describe(const LinkSnapshot& link) {
    if (link.down)
        return QStringLiteral("Link lost: reconnecting");
    if (!link.measured)
        return QStringLiteral("Link: starting at %1 kbit/s").arg(link.targetKbps);
    return QStringLiteral("Link: %1 kbit/s, round trip %2 ms\n"
                          "last seconds: %3 of packets sent again, %4 lost")
        .arg(link.targetKbps)
        .arg(qRound(link.rttMs))
        .arg(percent(link.retransmittedShare), percent(link.lostShare));
}

void LinkIndicator::poll() {
    const bool live = button->isChecked();
    const LinkSnapshot link = linkNow();
    showLink(link, live);
    if (live && link.down) {
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

void LinkIndicator::showLink(const LinkSnapshot& link, bool live) {
    const QString text = live ? describe(link) : QString();
    if (text == button->toolTip())
        return;
    button->setToolTip(text);
    // A tooltip already open shows the old text until the pointer moves: it is told anew.
    if (QToolTip::isVisible() && button->underMouse())
        QToolTip::showText(QCursor::pos(), text, button);
}
