#include "patternwindow.h"

#include <QPainter>
#include <algorithm>
#include <cstdlib>

const QColor PatternWindow::topLeft(220, 40, 40);
const QColor PatternWindow::topRight(40, 200, 60);
const QColor PatternWindow::bottomLeft(40, 60, 220);
const QColor PatternWindow::bottomRight(230, 210, 40);

PatternWindow::PatternWindow(QRect area)
    : QWidget(nullptr, Qt::FramelessWindowHint | Qt::WindowDoesNotAcceptFocus) {
    setGeometry(area);
    show();
    lower();
}

void PatternWindow::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    const int halfWidth = width() / 2;
    const int halfHeight = height() / 2;
    painter.fillRect(0, 0, halfWidth, halfHeight, topLeft);
    painter.fillRect(halfWidth, 0, width() - halfWidth, halfHeight, topRight);
    painter.fillRect(0, halfHeight, halfWidth, height() - halfHeight, bottomLeft);
    painter.fillRect(halfWidth, halfHeight, width() - halfWidth, height() - halfHeight,
                     bottomRight);
}

int PatternWindow::worstQuadrantError(const QImage& picture) {
    const struct {
        double x, y;
        QColor colour;
    } centres[] = {{0.25, 0.25, topLeft},
                   {0.75, 0.25, topRight},
                   {0.25, 0.75, bottomLeft},
                   {0.75, 0.75, bottomRight}};
    int worst = 0;
    for (const auto& centre : centres) {
        const QColor seen =
            picture.pixelColor(int(centre.x * picture.width()), int(centre.y * picture.height()));
        worst = std::max({worst, std::abs(seen.red() - centre.colour.red()),
                          std::abs(seen.green() - centre.colour.green()),
                          std::abs(seen.blue() - centre.colour.blue())});
    }
    return worst;
}
