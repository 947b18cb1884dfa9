#include "patternwindow.h"

#include <QPainter>
#include <algorithm>
#include <cstdlib>

const QColor PatternWindow::colours[4] = {
    {220, 40, 40}, {40, 200, 60}, {40, 60, 220}, {230, 210, 40}};

PatternWindow::PatternWindow(QRect area)
    : QWidget(nullptr, Qt::FramelessWindowHint | Qt::WindowDoesNotAcceptFocus) {
    setGeometry(area);
    show();
    lower();
}

void PatternWindow::paint(QPaintDevice* device, bool turned) {
    QPainter painter(device);
    const double width = device->width() * 0.5, height = device->height() * 0.5;
    for (int quadrant = 0; quadrant < 4; ++quadrant)
        painter.fillRect(QRectF(quadrant % 2 * width, quadrant / 2 * height, width, height),
                         colours[turned ? 3 - quadrant : quadrant]);
}

int PatternWindow::worstError(const QImage& picture, int inset) {
    int worst = 0;
    for (int quadrant = 0; quadrant < 8; ++quadrant) {
        const int column = quadrant % 2;
        const int row = quadrant / 2 % 2;
        const QPoint at = quadrant < 4 ? QPoint((column * 2 + 1) * picture.width() / 4,
                                                (row * 2 + 1) * picture.height() / 4)
                                       : QPoint(column ? picture.width() - 1 - inset : inset,
                                                row ? picture.height() - 1 - inset : inset);
        const QColor seen = picture.pixelColor(at);
        const QColor& shown = colours[quadrant % 4];
        worst = std::max({worst, std::abs(seen.red() - shown.red()),
                          std::abs(seen.green() - shown.green()),
                          std::abs(seen.blue() - shown.blue())});
    }
    return worst;
}
