#include "frame/drawingform.h"
#include "frame/resizewidget.h"
#include "frame/transparentlabel.h"
#include "frame/wcapture.h"

#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QtTest>

// The capture apparatus as the presenter handles it: the tool column, the frame beside it, the
// frame's resize grip and the pointer marker, each dragged with the mouse.
class FrameTest : public QObject {
    Q_OBJECT

private slots:
    void dragged_data();
    void dragged();
};

void FrameTest::dragged_data() {
    QTest::addColumn<QString>("button"); // clicked on the column first; "hover": no press at all
    QTest::addColumn<QString>("handle");
    QTest::addColumn<QPoint>("delta");
    QTest::addColumn<QSize>("frameSize");
    QTest::addColumn<QPoint>("markerAt"); // in the frame
    const QSize full(1280, 720);
    QTest::newRow("column carries the frame") << ""
                                              << "column" << QPoint(-120, -70) << full;
    QTest::newRow("pinned column stays") << "cmdLock"
                                         << "column" << QPoint(-100, -100) << full;
    QTest::newRow("grip resizes") << ""
                                  << "grip" << QPoint(-300, -200) << QSize(980, 520);
    QTest::newRow("grip stops at the minimum") << ""
                                               << "grip" << QPoint(-1200, -700) << QSize(205, 205);
    QTest::newRow("pinned grip") << "cmdLock"
                                 << "grip" << QPoint(90, 40) << full;
    QTest::newRow("pointer passing over the grip") << "hover"
                                                   << "grip" << QPoint(90, 40) << full;
    QTest::newRow("marker inside the frame")
        << "cmdCursor"
        << "marker" << QPoint(-5000, -5000) << full << QPoint(0, 0);
    QTest::newRow("marker 37 px from the far edges")
        << "cmdCursor"
        << "marker" << QPoint(5000, 5000) << full << QPoint(1280 - 37, 720 - 37);
}

void FrameTest::dragged() {
    QFETCH(QString, button);
    QFETCH(QString, handle);
    QFETCH(QPoint, delta);
    WCapture column;
    DrawingForm* frame = column.drawingForm();
    ResizeWidget* grip = frame->resizeGrip();
    TransparentLabel* marker = column.marker();
    QVERIFY(QTest::qWaitForWindowExposed(&column));
    QTRY_VERIFY(grip->isVisible());
    QVERIFY(frame->size() == QSize(1280, 720) && column.windowTitle() == "Capture");
    QCOMPARE(frame->findChild<QLineEdit*>("leHostPort")->placeholderText(), QString("HOST:PORT"));
    QCOMPARE(frame->findChild<QLineEdit*>("leStreamId")->placeholderText(),
             QString("Stream ID (optional)"));
    if (button.startsWith("cmd"))
        QTest::mouseClick(column.findChild<QPushButton*>(button), Qt::LeftButton);
    const QPoint columnAt = column.pos();
    const QPoint gripAt = grip->pos();
    // Each check of the marker puts it in the frame's corner.
    const QPoint corner =
        frame->geometry().bottomRight() - QPoint(4, 4) - QPoint(marker->width(), marker->height());
    QVERIFY(handle == "marker" ? marker->isVisible() && marker->pos() == corner
                               : !marker->isVisible());

    QWidget* target = handle == "grip"     ? grip
                      : handle == "marker" ? static_cast<QWidget*>(marker)
                                           : &column;
    const QPoint from =
        handle == "column" ? column.findChild<QLabel*>("lblMove")->geometry().center() : QPoint();
    // The column asks the window system where the pointer is as a drag begins.
    QCursor::setPos(target->mapToGlobal(from));
    QTRY_COMPARE(QCursor::pos(), target->mapToGlobal(from));
    const bool press = button != "hover";
    const auto send = [&](QEvent::Type type, Qt::MouseButton changed, Qt::MouseButtons held,
                          QPoint at) {
        QMouseEvent event(type, at, target->mapToGlobal(at), changed, held, Qt::NoModifier);
        QCoreApplication::sendEvent(target, &event);
    };
    if (press)
        send(QEvent::MouseButtonPress, Qt::LeftButton, Qt::LeftButton, from);
    send(QEvent::MouseMove, Qt::NoButton, press ? Qt::LeftButton : Qt::NoButton, from + delta);
    // While the column drags the frame the grip steps aside; while the grip resizes, the column
    // does.
    QVERIFY(!press || handle == "marker" || !button.isEmpty() ||
            !(handle == "grip" ? column.isVisible() : grip->isVisible()));
    if (press)
        send(QEvent::MouseButtonRelease, Qt::LeftButton, Qt::NoButton, from + delta);

    // Wherever the frame went, the column stands against its right edge, bottoms level, and is
    // shown; the capture takes the frame's inside; the grip sits at its corner (where a move that
    // would make the frame too small left it), shown again unless a pinned column hid it.
    QTEST(frame->size(), "frameSize");
    const QRect area = frame->geometry();
    QCOMPARE(column.pos(), QPoint(area.right() + 1, area.bottom() + 1 - column.height()));
    QVERIFY(handle != "column" || column.pos() == columnAt + (button.isEmpty() ? delta : QPoint()));
    QVERIFY(column.isVisible());
    QCOMPARE(column.captureRect.load(), area.adjusted(5, 5, -5, -5));
    QTRY_COMPARE(grip->pos(), area.width() > 205 ? area.bottomRight() + QPoint(1, 1) : gripAt);
    QTRY_COMPARE(grip->isVisible(), button != "cmdLock" || handle != "column");
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
