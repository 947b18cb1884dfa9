#include "frame/drawingform.h"
#include "frame/resizewidget.h"
#include "frame/wcapture.h"

#include <QGuiApplication>
#include <QLabel>
#include <QScreen>
#include <QtTest>

// Runs on an X server with a 1280x720 monitor to the left of a 1920x1080 primary, which
// QGuiApplication::screens() lists first (tests/support/twoscreens.sh).
namespace {

void sendMouse(QWidget* widget, QEvent::Type type, QPoint local, Qt::MouseButton button,
               Qt::MouseButtons buttons) {
    QMouseEvent event(type, QPointF(local), QPointF(widget->mapToGlobal(local)), button, buttons,
                      Qt::NoModifier);
    QCoreApplication::sendEvent(widget, &event);
}

} // namespace

class ScreensTest : public QObject {
    Q_OBJECT

private slots:
    void screenOfLeftEdge_data();
    void screenOfLeftEdge();
    void captureFollowsTheFrame_data();
    void captureFollowsTheFrame();
};

void ScreensTest::screenOfLeftEdge_data() {
    QTest::addColumn<QList<QRect>>("screens");
    QTest::addColumn<QPoint>("edgeTop");
    QTest::addColumn<int>("index");
    const QList<QRect> one{{0, 0, 1920, 1080}};
    const QList<QRect> leftOfPrimary{{1280, 0, 1920, 1080}, {0, 0, 1280, 720}};
    const QList<QRect> stacked{{0, 0, 1920, 1080}, {0, 1080, 1920, 1080}};
    QTest::newRow("one screen, on it") << one << QPoint(300, 200) << 0;
    QTest::newRow("primary first, on the left") << leftOfPrimary << QPoint(1279, 100) << 1;
    QTest::newRow("below the left monitor") << leftOfPrimary << QPoint(100, 900) << 1;
    QTest::newRow("left of both") << leftOfPrimary << QPoint(-50, 900) << 1;
    QTest::newRow("stacked, on the lower") << stacked << QPoint(50, 1500) << 1;
}

void ScreensTest::screenOfLeftEdge() {
    QFETCH(QList<QRect>, screens);
    QFETCH(QPoint, edgeTop);
    QTEST(WCapture::screenOfLeftEdge(edgeTop, screens), "index");
}

void ScreensTest::captureFollowsTheFrame_data() {
    QTest::addColumn<QRect>("start");
    QTest::addColumn<QPoint>("dragBy"); // (0, 0): the grip is pulled instead
    QTest::newRow("grip, left edge on the left monitor") << QRect(600, 100, 900, 500) << QPoint();
    QTest::newRow("dragged to the left monitor") << QRect(1500, 100, 700, 500) << QPoint(-1300, 50);
    QTest::newRow("dragged to the primary") << QRect(100, 100, 700, 500) << QPoint(1300, 50);
}

void ScreensTest::captureFollowsTheFrame() {
    QFETCH(QRect, start);
    QFETCH(QPoint, dragBy);
    const QList<QScreen*> screens = QGuiApplication::screens();
    QCOMPARE(screens.size(), 2);
    QCOMPARE(screens.at(1)->geometry(), QRect(0, 0, 1280, 720));

    // Each screen shows a colour of its own under the frame.
    const QColor colours[] = {QColor(200, 40, 160), QColor(30, 170, 60)};
    QWidget below[2];
    for (int i = 0; i < 2; ++i) {
        below[i].setGeometry(screens.at(i)->geometry());
        below[i].setStyleSheet("background:" + colours[i].name());
        below[i].show();
        QVERIFY(QTest::qWaitForWindowExposed(&below[i]));
    }
    WCapture column;
    DrawingForm* frame = column.drawingForm();
    frame->setGeometry(start);
    emit frame->newSize();
    frame->setFormMode(0);
    QVERIFY(QTest::qWaitForWindowExposed(frame));

    if (dragBy.isNull()) {
        ResizeWidget* grip = frame->resizeGrip();
        sendMouse(grip, QEvent::MouseButtonPress, QPoint(3, 3), Qt::LeftButton, Qt::LeftButton);
        QVERIFY(!column.isVisible());
        sendMouse(grip, QEvent::MouseMove, QPoint(-100, -60), Qt::NoButton, Qt::LeftButton);
        sendMouse(grip, QEvent::MouseButtonRelease, QPoint(0, 0), Qt::LeftButton, Qt::NoButton);
    } else {
        const QPoint handle = column.findChild<QLabel*>("lblMove")->geometry().center();
        // The column asks the window system where the pointer is as a drag begins.
        QCursor::setPos(column.mapToGlobal(handle));
        QTRY_COMPARE(QCursor::pos(), column.mapToGlobal(handle));
        sendMouse(&column, QEvent::MouseButtonPress, handle, Qt::LeftButton, Qt::LeftButton);
        sendMouse(&column, QEvent::MouseMove, handle + dragBy, Qt::NoButton, Qt::LeftButton);
        sendMouse(&column, QEvent::MouseButtonRelease, handle + dragBy, Qt::LeftButton,
                  Qt::NoButton);
    }

    // The column is back against the frame, and the capture is on the frame's screen.
    const QRect inset = frame->geometry().adjusted(5, 5, -5, -5);
    QVERIFY(column.isVisible());
    QCOMPARE(column.pos(), QPoint(inset.right() + 6, inset.bottom() + 6 - column.height()));
    const int expected = screens.indexOf(QGuiApplication::screenAt(inset.topLeft()));
    int index = -1;
    QCOMPARE(column.captureRect.load(index),
             inset.translated(-screens.at(expected)->geometry().topLeft()));
    QCOMPARE(index, expected);
    const auto grabbedCentre = [&] {
        const platform::GrabbedPicture* picture = column.grab();
        if (!picture || picture->layout != platform::PixelLayout::Bgrx)
            return QColor();
        const uint8_t* pixel =
            picture->data + picture->height / 2 * picture->stride + picture->width / 2 * 4;
        return QColor(pixel[2], pixel[1], pixel[0]);
    };
    QTRY_COMPARE(grabbedCentre(), colours[expected]);
}

QTEST_MAIN(ScreensTest)
#include "tst_screens.moc"
