#include "pageflipscene.h"

#include <QFontDatabase>
#include <QPainter>

namespace {

constexpr int flipMs = 4000;

const char* const lines[] = {
    "bool OUTWriter::writePicture(const uint8_t* data, AVPixelFormat format, int width,",
    "    if (!active || !data || width < 1 || height < 1 || stride < 1 || dueMs < 0)",
    "        return false;",
    "    const int64_t pts = av_rescale_q(dueMs, AVRational{1, 1000}, codec->time_base);",
    "    for (std::size_t index = 0; index < rows.size(); ++index) {",
    "        total += rows[index].width * rows[index].height; // area of every row",
    "    }",
    "    logLine(\"OUTWriter scales \", width, \"x\", height, \" to 1920x1080\");",
    "}",
    "",
};

} // namespace

PageFlipScene::PageFlipScene() : QWidget(nullptr, Qt::FramelessWindowHint) {
    setAttribute(Qt::WA_OpaquePaintEvent);
    connect(&timer, &QTimer::timeout, this, [this] {
        ++page;
        update();
    });
    timer.start(flipMs);
}

void PageFlipScene::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.fillRect(rect(), QColor(253, 253, 250));
    QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    font.setPixelSize(17);
    painter.setFont(font);
    painter.setPen(QColor(30, 30, 40));
    const int lineHeight = 21;
    const int count = sizeof lines / sizeof *lines;
    // Each page starts elsewhere in the text and is indented differently: every flip changes
    // nearly every row of the screen, as turning to another page of code does.
    for (int row = 0; row * lineHeight < height(); ++row) {
        const int line = (row + page * 7) % count;
        painter.drawText(20 + (page % 3) * 24, (row + 1) * lineHeight,
                         QString("%1  %2").arg(page * 60 + row + 1, 4).arg(lines[line]));
    }
}
