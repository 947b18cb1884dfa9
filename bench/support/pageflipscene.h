#pragma once

#include <QTimer>
#include <QWidget>

// A presenter's page of program text, turned to the next page every four seconds and still in
// between. Shown full-screen by a process of its own, so that its drawing is not counted to a
// sender.
class PageFlipScene : public QWidget {
public:
    PageFlipScene();

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QTimer timer;
    int page = 0;
};
