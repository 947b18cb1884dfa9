#pragma once

#include <QObject>
#include <QTimer>
#include <functional>

class QPushButton;

// Lets the presenter see a cut-off audience: while the live button is checked and the link
// is down, its icon flashes between red and white once a second; once the link is back it is
// steady red again. Clicks on the button are left alone, so live can be switched off meanwhile.
class LinkIndicator : public QObject {
    Q_OBJECT

public:
    // linkDown is asked on the interface thread; the button becomes the indicator's parent.
    LinkIndicator(QPushButton* liveButton, std::function<bool()> linkDown);

private:
    void poll();

    QPushButton* button;
    std::function<bool()> isDown;
    QTimer timer;
    bool flashing = false;
    bool redShown = true;
};
