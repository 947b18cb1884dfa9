#include "pagescene.h"

#include <QFontDatabase>
#include <QPainter>

namespace {

constexpr int flipMs = 4000;

// A line of made-up code, different on every line of every page.
QString codeLine(int page, int line) {
    const int n = page * 131 + line * 17;
    static const char* const verbs[] = {"update", "measure", "resolve", "encode", "flush"};
    return QString("    if (%1_%2 > limit[%3]) { total += %4(frame, %5 * index); }  // %6 %7 %8")
        .arg(verbs[n % 5])
        .arg(n % 97)
        .arg(n % 13)
        .arg(verbs[(n / 5) % 5])
        .arg(n % 251)
        .arg(QString::number(n * 2654435761u, 16))
        .arg(line + page * 1000)
        .arg(QString("x").repeated(n % 23));
}

} // namespace

PageScene::PageScene() : QWidget(nullptr, Qt::FramelessWindowHint) {
    connect(&timer, &QTimer::timeout, this, [this] {
        ++page;
        update();
    });
    timer.start(flipMs);
}

void PageScene::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.fillRect(rect(), QColor(253, 253, 250));
    QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    font.setPixelSize(12);
    painter.setFont(font);
    painter.setPen(QColor(20, 20, 30));
    const int lineHeight = 14;
    for (int line = 0; line * lineHeight < height(); ++line)
        for (int column = 0; column < 2; ++column)
            painter.drawText(8 + column * width() / 2, (line + 1) * lineHeight,
                             codeLine(page, line * 2 + column));
}
