#include "frame/drawingform.h"
#include "frame/resizewidget.h"
#include "frame/transparentlabel.h"
#include "frame/wcapture.h"
#include "support/mouseinput.h"

#include <QGuiApplication>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QtTest>

// The capture apparatus as the presenter handles it: the tool column, the frame beside it,
// the frame's resize grip and the pointer marker, each dragged with the mouse.
class FrameTest : public QObject {
    Q_OBJECT

private slots:
    void cleanup();
    void screenOfLeftEdge_data();
    void screenOfLeftEdge();
    void dragged_data();
    void dragged();
};

void FrameTest::cleanup() {
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

void FrameTest::screenOfLeftEdge_data() {
    QTest::addColumn<QList<int>>("lefts");
    QTest::addColumn<int>("x");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("left");
    QTest::newRow("one screen, on it") << QList<int>{0} << 300 << 0 << 0;
    QTest::newRow("one screen, left of it") << QList<int>{0} << -80 << 0 << 0;
    QTest::newRow("one screen with an origin") << QList<int>{1920} << 2500 << 0 << 0;
    QTest::newRow("two, on the left one") << QList<int>{0, 1920} << 1919 << 0 << 0;
    QTest::newRow("two, on the right one") << QList<int>{0, 1920} << 1920 << 1 << 1920;
    QTest::newRow("two, listed right first") << QList<int>{1920, 0} << 2000 << 1 << 1920;
    QTest::newRow("two, left of both") << QList<int>{0, 1920} << -5 << 0 << 0;
    QTest::newRow("two, one left of the origin") << QList<int>{0, -1280} << -100 << 0 << -1280;
    QTest::newRow("two, right of the origin") << QList<int>{0, -1280} << 100 << 1 << 0;
}

void FrameTest::screenOfLeftEdge() {
    QFETCH(QList<int>, lefts);
    QFETCH(int, x);
    const WCapture::ScreenEdge found = WCapture::screenOfLeftEdge(x, lefts);
    QTEST(found.index, "index");
    QTEST(found.left, "left");
}

void FrameTest::dragged_data() {
    QTest::addColumn<QString>("button"); // clicked on the column first, if any
    QTest::addColumn<QString>("handle");
    QTest::addColumn<QPoint>("delta");
    QTest::addColumn<bool>("press"); // else the pointer only passes over the handle
    QTest::addColumn<QPoint>("columnMoved");
    QTest::addColumn<QSize>("frameSize");
    QTest::addColumn<QPoint>("markerAt"); // in the frame
    const QSize full(1280, 720);
    const QPoint none;
    QTest::newRow("column carries the frame")
        << ""
        << "column" << QPoint(-120, -70) << true << QPoint(-120, -70) << full << none;
    QTest::newRow("pinned column stays")
        << "cmdLock"
        << "column" << QPoint(-100, -100) << true << none << full << none;
    QTest::newRow("grip resizes, column follows")
        << ""
        << "grip" << QPoint(-300, -200) << true << QPoint(-300, -200) << QSize(980, 520) << none;
    QTest::newRow("grip stops at the minimum")
        << ""
        << "grip" << QPoint(-1200, -700) << true << QPoint(-1075, -515) << QSize(205, 205) << none;
    QTest::newRow("pinned grip") << "cmdLock"
                                 << "grip" << QPoint(90, 40) << true << none << full << none;
    QTest::newRow("pointer passing over the grip")
        << ""
        << "grip" << QPoint(90, 40) << false << none << full << none;
    QTest::newRow("marker stays inside the frame")
        << "cmdCursor"
        << "marker" << QPoint(-5000, -5000) << true << none << full << QPoint(0, 0);
    QTest::newRow("marker keeps 37 px from the far edges")
        << "cmdCursor"
        << "marker" << QPoint(5000, 5000) << true << none << full << QPoint(1280 - 37, 720 - 37);
}

void FrameTest::dragged() {
    QFETCH(QString, button);
    QFETCH(QString, handle);
    QFETCH(QPoint, delta);
    QFETCH(bool, press);
    QFETCH(QPoint, columnMoved);
    WCapture column;
    DrawingForm* frame = column.drawingForm();
    ResizeWidget* grip = frame->resizeGrip();
    TransparentLabel* marker = column.marker();
    QVERIFY(QTest::qWaitForWindowExposed(&column));
    QTRY_VERIFY(grip->isVisible());
    QCOMPARE(frame->size(), QSize(1280, 720));
    QCOMPARE(column.windowTitle(), QString("Capture"));
    QCOMPARE(frame->findChild<QLineEdit*>("leHostPort")->placeholderText(), QString("HOST:PORT"));
    QCOMPARE(frame->findChild<QLineEdit*>("leStreamId")->placeholderText(),
             QString("Stream ID (optional)"));
    if (!button.isEmpty())
        QTest::mouseClick(column.findChild<QPushButton*>(button), Qt::LeftButton);
    const QPoint columnAt = column.pos();
    const QPoint gripAt = grip->pos();
    const QPoint markerCorner =
        frame->geometry().bottomRight() - QPoint(4, 4) - QPoint(marker->width(), marker->height());
    QCOMPARE(marker->isVisible(), handle == "marker");
    QVERIFY(handle != "marker" || marker->pos() == markerCorner);

    QWidget* target = handle == "grip"     ? grip
                      : handle == "marker" ? static_cast<QWidget*>(marker)
                                           : &column;
    const QPoint from = handle == "column"
                            ? column.findChild<QLabel*>("lblMove")->geometry().center()
                            : QPoint(0, 0);
    // The column asks the window system where the pointer is as a drag begins.
    QVERIFY(placeCursor(target->mapToGlobal(from)));
    if (press)
        sendMouse(target, QEvent::MouseButtonPress, from, Qt::LeftButton, Qt::LeftButton);
    const Qt::MouseButtons held = press ? Qt::LeftButton : Qt::NoButton;
    sendMouse(target, QEvent::MouseMove, from + delta, Qt::NoButton, held);
    // While the frame is dragged by its column the grip steps aside; while it is resized, the
    // column does.
    QVERIFY(!press || handle == "marker" || button == "cmdLock" ||
            !(handle == "grip" ? column.isVisible() : grip->isVisible()));
    if (press)
        sendMouse(target, QEvent::MouseButtonRelease, from + delta, Qt::LeftButton, Qt::NoButton);

    QTEST(frame->size(), "frameSize");
    QCOMPARE(column.pos(), columnAt + columnMoved);
    // Wherever the frame went, the column stands against its right edge, bottoms level; the
    // capture takes the frame's inside; the grip sits at its corner (where a move that would make
    // the frame too small left it), shown again unless a pinned column hid it.
    QVERIFY(column.isVisible());
    const QRect area = frame->geometry();
    QCOMPARE(column.pos(), QPoint(area.right() + 1, area.bottom() + 1 - column.height()));
    QCOMPARE(column.captureRect.load(), area.adjusted(5, 5, -5, -5));
    QTRY_COMPARE(grip->pos(), area.width() > 205 ? area.bottomRight() + QPoint(1, 1) : gripAt);
    QTRY_COMPARE(grip->isVisible(), !(button == "cmdLock" && handle == "column" && press));

    if (handle == "marker") {
        QTEST(marker->pos() - area.topLeft(), "markerAt");
        // Each switch maps the frame again; the marker stays above it, where viewers see it.
        for (int mode : {0, 2}) {
            frame->setFormMode(mode);
            QTRY_COMPARE(QGuiApplication::topLevelAt(marker->geometry().center()),
                         marker->windowHandle());
        }
    }
    // Closing the column takes the frame and the grip along.
    column.close();
    QVERIFY(!frame->isVisible() && !grip->isVisible());
}

QTEST_MAIN(FrameTest)
#include "tst_frame.moc"
