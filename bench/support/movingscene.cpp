#include "movingscene.h"

#include <QPainter>

MovingScene::MovingScene() : QWidget(nullptr, Qt::FramelessWindowHint) {
    connect(&timer, &QTimer::timeout, this, [this] {
        ++step;
        update();
    });
    timer.start(20);
}

void MovingScene::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    for (int x = -(step % 64); x < width(); x += 32)
        painter.fillRect(x, 0, 16, height(), QColor(30 + x % 200, 90, 160));
    painter.fillRect((step * 7) % width(), 200 + (step * 3) % 300, 420, 260, QColor(250, 250, 245));
    painter.setPen(Qt::black);
    for (int line = 0; line < 12; ++line)
        painter.drawText((step * 7) % width() + 20, 230 + (step * 3) % 300 + line * 18,
                         QString("Quarterly figures, row %1: %2").arg(line).arg(step * line));
}
