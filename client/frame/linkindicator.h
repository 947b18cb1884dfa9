#pragma once

#include "linkstats.h"

#include <QObject>
#include <QTimer>
#include <functional>

class QPushButton;

// Lets the presenter see a cut-off audience: while the live button is checked and the link
// is down, its icon flashes between red and white once a second; once the link is back it is
// steady red again. Clicks on the button are left alone, so live can be switched off meanwhile.
// While live, the button's tooltip tells how the link is doing now (target bitrate, round
// trip, packets sent again and lost), kept current while it is shown.
class LinkIndicator : public QObject {
    Q_OBJECT

public:
    // link is asked on the interface thread; the button becomes the indicator's parent.
    LinkIndicator(QPushButton* liveButton, std::function<LinkSnapshot()> link);

    // The tooltip's text for a snapshot of the link.
    static QString describe(const LinkSnapshot& link);

private:
    void poll();
    void showLink(const LinkSnapshot& link, bool live);

    QPushButton* button;
    std::function<LinkSnapshot()> linkNow;
    QTimer timer;
    bool flashing = false;
    bool redShown = true;
};
