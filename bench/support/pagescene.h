#pragma once

#include <QTimer>
#include <QWidget>

// A page of dense program text that flips to the next page every four seconds, as a presenter
// scrolls through code: nothing moves between flips, and each flip changes nearly every block.
class PageScene : public QWidget {
public:
    PageScene();

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QTimer timer;
    int page = 0;
};
