// Shows the capture apparatus over a made-up desktop in form mode and in streaming mode and
// writes a picture of each, composed the way a compositing window manager shows the windows.

#include "frame/drawingform.h"
#include "frame/resizewidget.h"
#include "frame/transparentlabel.h"
#include "frame/wcapture.h"
#include "startup.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QScreen>
#include <QTextStream>
#include <cstdio>

namespace {

// A desktop with a wallpaper, a task bar and a slide-show window: the kind of thing people
// put under the frame.
class Desktop : public QWidget {
public:
    explicit Desktop(QRect screen) {
        setWindowFlags(Qt::FramelessWindowHint);
        setGeometry(screen);
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter p(this);
        p.setRenderHint(QPainter::Antialiasing);
        QLinearGradient wallpaper(0, 0, width(), height());
        wallpaper.setColorAt(0, QColor(38, 70, 110));
        wallpaper.setColorAt(0.55, QColor(92, 120, 150));
        wallpaper.setColorAt(1, QColor(214, 160, 120));
        p.fillRect(rect(), wallpaper);

        paintSlideWindow(p, QRect(150, 90, 1100, 700));

        p.fillRect(QRect(0, height() - 44, width(), 44), QColor(20, 24, 30, 235));
        p.setPen(QColor(230, 230, 230));
        QFont font = p.font();
        font.setPixelSize(15);
        p.setFont(font);
        p.drawText(QRect(width() - 120, height() - 44, 100, 44), Qt::AlignCenter, "10:42");
    }

private:
    static void paintSlideWindow(QPainter& p, QRect window) {
        p.setPen(Qt::NoPen);
        p.setBrush(QColor(0, 0, 0, 60));
        p.drawRoundedRect(window.translated(0, 6), 10, 10);
        p.setBrush(QColor(250, 250, 248));
        p.drawRoundedRect(window, 10, 10);
        p.setBrush(QColor(228, 230, 235));
        QPainterPath title;
        title.addRoundedRect(QRectF(window.x(), window.y(), window.width(), 40), 10, 10);
        p.drawPath(title);
        p.fillRect(QRect(window.x(), window.y() + 30, window.width(), 10), QColor(228, 230, 235));
        const QColor buttons[] = {QColor(255, 95, 86), QColor(255, 189, 46), QColor(39, 201, 63)};
        for (int i = 0; i < 3; ++i) {
            p.setBrush(buttons[i]);
            p.drawEllipse(QPoint(window.x() + 22 + i * 22, window.y() + 20), 7, 7);
        }
        QFont font = p.font();
        font.setPixelSize(14);
        p.setFont(font);
        p.setPen(QColor(60, 60, 60));
        p.drawText(QRect(window.x(), window.y(), window.width(), 40), Qt::AlignCenter,
                   "Quarterly review.odp");

        const QRect slide = window.adjusted(40, 80, -40, -40);
        font.setPixelSize(40);
        font.setBold(true);
        p.setFont(font);
        p.setPen(QColor(0, 67, 100));
        p.drawText(slide.adjusted(40, 30, 0, 0), Qt::AlignLeft | Qt::AlignTop,
                   "Listeners per region");
        font.setPixelSize(20);
        font.setBold(false);
        p.setFont(font);
        p.setPen(QColor(90, 90, 90));
        p.drawText(slide.adjusted(40, 90, 0, 0), Qt::AlignLeft | Qt::AlignTop,
                   "Live sessions, third quarter");

        const int base = slide.bottom() - 60;
        const int values[] = {180, 260, 340, 220, 410, 300};
        const char* names[] = {"North", "East", "South", "West", "Centre", "Coast"};
        for (int i = 0; i < 6; ++i) {
            const QRect bar(slide.x() + 80 + i * 150, base - values[i], 90, values[i]);
            p.setPen(Qt::NoPen);
            p.setBrush(i == 4 ? QColor(67, 180, 255) : QColor(0, 67, 100));
            p.drawRect(bar);
            p.setPen(QColor(70, 70, 70));
            p.drawText(QRect(bar.x() - 20, base + 10, bar.width() + 40, 30), Qt::AlignCenter,
                       names[i]);
        }
        p.setPen(QPen(QColor(150, 150, 150), 2));
        p.drawLine(slide.x() + 60, base, slide.right() - 60, base);
    }
};

void settle(int milliseconds) {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < milliseconds)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
}

// Each window drawn at its place, in stacking order, with its own transparency.
QImage compose(QWidget& desktop, const QList<QWidget*>& windows, QRect area) {
    QImage picture(area.size(), QImage::Format_ARGB32_Premultiplied);
    QPainter painter(&picture);
    painter.translate(-area.topLeft());
    painter.drawPixmap(desktop.pos(), desktop.grab());
    for (QWidget* window : windows) {
        if (window->isVisible())
            painter.drawPixmap(window->pos(), window->grab());
    }
    painter.end();
    return picture.convertToFormat(QImage::Format_RGB32);
}

bool save(const QImage& picture, const QDir& folder, const char* name) {
    const QString path = folder.filePath(QString::fromUtf8(name));
    if (!picture.save(path, "PNG")) {
        std::fprintf(stderr, "cannot write %s\n", qPrintable(path));
        return false;
    }
    std::printf("%s\n", qPrintable(path));
    return true;
}

} // namespace

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTPUT_FOLDER\n", argv[0]);
        return 2;
    }
    const QDir folder(QString::fromLocal8Bit(argv[1]));
    application.setStyleSheet(QString::fromUtf8(applicationStyleSheetText()));

    const QRect screen = QGuiApplication::primaryScreen()->geometry();
    Desktop desktop(screen);
    desktop.show();
    settle(300);

    WCapture column;
    DrawingForm* frame = column.drawingForm();
    frame->findChild<QLineEdit*>("leHostPort")->setText("live.example.net:9000");
    frame->findChild<QLineEdit*>("leStreamId")->setText("studio-a");
    settle(600);

    const QList<QWidget*> windows{frame, frame->resizeGrip(), &column, column.marker()};
    QRect shown = frame->geometry().united(column.geometry());
    shown = shown.adjusted(-40, -40, 40, 60).intersected(screen);

    if (!save(compose(desktop, windows, shown), folder, "form-mode.png"))
        return 1;

    // Live: the form gives way to the border, the live button turns red, and the presenter
    // points at the bar under discussion.
    frame->setFormMode(0);
    column.setLive(true);
    column.findChild<QPushButton*>("cmdCursor")->click();
    column.marker()->move(frame->x() + 932, frame->y() + 252);
    settle(600);
    return save(compose(desktop, windows, shown), folder, "streaming-mode.png") ? 0 : 1;
}
