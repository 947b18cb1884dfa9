#pragma once

#include <QTimer>
#include <QWidget>

// Screen content that changes every frame: scrolling stripes, a moving window, text. Shown
// full-screen by a process of its own, so that its drawing is not counted to a sender.
class MovingScene : public QWidget {
public:
    MovingScene();

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QTimer timer;
    int step = 0;
};
