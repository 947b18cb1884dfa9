#include "screencolour.h"

#include <QGuiApplication>
#include <QImage>
#include <QPixmap>
#include <QScreen>

double shareOfScreenColour(QRect area, QColor colour) {
    const QImage image = QGuiApplication::screens()
                             .at(0)
                             ->grabWindow(0, area.x(), area.y(), area.width(), area.height())
                             .toImage()
                             .convertToFormat(QImage::Format_RGB32);
    if (image.isNull() || image.size() != area.size())
        return 0;
    qint64 same = 0;
    for (int y = 0; y < image.height(); ++y) {
        const auto* line = reinterpret_cast<const QRgb*>(image.constScanLine(y));
        for (int x = 0; x < image.width(); ++x)
            same += (line[x] & 0xFFFFFF) == (colour.rgb() & 0xFFFFFF);
    }
    return double(same) / (double(image.width()) * image.height());
}
