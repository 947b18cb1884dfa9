#include "capturesource.h"
#include "frame/drawingform.h"
#include "frame/resizewidget.h"
#include "frame/transparentlabel.h"
#include "frame/wcapture.h"

#include <QGuiApplication>
#include <QLabel>
#include <QPushButton>
#include <QScreen>
#include <QtTest>

// The capture apparatus as the presenter handles it: the tool column, the frame beside it, the
// frame's resize grip and the pointer marker, each dragged with the mouse. It runs on an X server
// with a 1280x720 monitor to the left of a 1920x1080 primary, which QGuiApplication::screens()
// lists first (tests/support/twoscreens.sh); each screen shows a colour of its own.
class FrameTest : public QObject {
    Q_OBJECT

    const QColor colours[2] = {QColor(200, 40, 160), QColor(30, 170, 60)};
    QWidget below[2];

private slots:
    void initTestCase() {
        const QList<QScreen*> screens = QGuiApplication::screens();
        QCOMPARE(screens.size(), 2);
        for (int i = 0; i < 2; ++i) {
            below[i].setGeometry(screens.at(i)->geometry());
            below[i].setStyleSheet("background:" + colours[i].name());
            below[i].show();
            QVERIFY(QTest::qWaitForWindowExposed(&below[i]));
        }
    }

    // The screen that takes the capture: the one the frame's left edge lies on, or else the
    // nearest. Primary first with a monitor on its left; on the left one, below it, left of both.
    void screenOfLeftEdge() {
        const QList<QRect> leftOfPrimary{{1280, 0, 1920, 1080}, {0, 0, 1280, 720}};
        for (const QPoint edgeTop : {QPoint(1279, 100), QPoint(100, 900), QPoint(-50, 900)})
            QVERIFY2(CaptureSource::screenOfLeftEdge(edgeTop, leftOfPrimary) == 1,
                     qPrintable(QString("%1,%2").arg(edgeTop.x()).arg(edgeTop.y())));
        const QList<QRect> stacked{{0, 0, 1920, 1080}, {0, 1080, 1920, 1080}};
        QCOMPARE(CaptureSource::screenOfLeftEdge(QPoint(50, 1500), stacked), 1);
    }

    void dragged_data() {
        QTest::addColumn<QString>("button"); // clicked on the column first; "hover": no press
        QTest::addColumn<QString>("handle");
        QTest::addColumn<QRect>("start"); // null: where the column first puts the frame
        QTest::addColumn<QPoint>("delta");
        QTest::addColumn<QSize>("frameSize");
        QTest::addColumn<int>("screen");      // that the capture ends on
        QTest::addColumn<QPoint>("markerAt"); // in the frame
        const auto row = [](const char* name, QString button, QString handle, QRect start,
                            QPoint delta, QSize frameSize, int screen, QPoint markerAt = {}) {
            QTest::newRow(name) << button << handle << start << delta << frameSize << screen
                                << markerAt;
        };
        // The first place follows the first screen's size only: left of the left monitor's
        // origin.
        const QSize full(1280, 720);
        row("pinned column stays", "cmdLock", "column", {}, {-100, -100}, full, 1);
        row("grip stops at the minimum", "", "grip", {}, {-1200, -700}, {205, 205}, 1);
        row("pinned grip", "cmdLock", "grip", {}, {90, 40}, full, 1);
        row("pointer passing over the grip", "hover", "grip", {}, {90, 40}, full, 1);
        row("marker inside the frame", "cmdCursor", "marker", {}, {-5000, -5000}, full, 1, {0, 0});
        row("marker 37 px from the far edges", "cmdCursor", "marker", {}, {5000, 5000}, full, 1,
            {1280 - 37, 720 - 37});
        // Live (frame transparent), released on another screen.
        row("grip, left edge on the left monitor", "", "grip", {600, 100, 900, 500}, {-100, -60},
            {800, 440}, 1);
        row("column dragged to the left monitor", "", "column", {1500, 100, 700, 500}, {-1300, 50},
            {700, 500}, 1);
        row("column dragged to the primary", "", "column", {100, 100, 700, 500}, {1300, 50},
            {700, 500}, 0);
        // Moved by another program: the capture follows (the column leads, it is not led).
        row("frame moved by another program", "", "program", {1500, 100, 700, 500}, {-1300, 50},
            {700, 500}, 1);
    }

    void dragged() {
        QFETCH(QString, button);
        QFETCH(QString, handle);
        QFETCH(QRect, start);
        QFETCH(QPoint, delta);
        QFETCH(int, screen);
        WCapture column;
        DrawingForm* frame = column.drawingForm();
        CaptureSource source(frame);
        ResizeWidget* grip = frame->resizeGrip();
        TransparentLabel* marker = column.marker();
        QVERIFY(QTest::qWaitForWindowExposed(&column));
        QTRY_VERIFY(grip->isVisible());
        if (!start.isNull()) {
            frame->setGeometry(start);
            emit frame->newSize();
            frame->setFormMode(0);
            QVERIFY(QTest::qWaitForWindowExposed(frame));
        }
        if (button.startsWith("cmd"))
            QTest::mouseClick(column.findChild<QPushButton*>(button), Qt::LeftButton);
        const QPoint columnAt = column.pos(), gripAt = grip->pos();
        // Each check of the marker puts it in the frame's corner, as far in as dragging allows.
        QVERIFY(handle == "marker"
                    ? marker->isVisible() &&
                          marker->pos() - frame->geometry().topLeft() == QPoint(1280 - 37, 720 - 37)
                    : !marker->isVisible());

        QWidget* target = handle == "grip"     ? grip
                          : handle == "marker" ? static_cast<QWidget*>(marker)
                                               : &column;
        const QPoint from = handle == "column"
                                ? column.findChild<QLabel*>("lblMove")->geometry().center()
                                : QPoint();
        // The column asks the window system where the pointer is as a drag begins.
        QCursor::setPos(target->mapToGlobal(from));
        QTRY_COMPARE(QCursor::pos(), target->mapToGlobal(from));
        const bool press = button != "hover";
        const auto send = [&](QEvent::Type type, Qt::MouseButton changed, Qt::MouseButtons held,
                              QPoint at) {
            QMouseEvent event(type, at, target->mapToGlobal(at), changed, held, Qt::NoModifier);
            QCoreApplication::sendEvent(target, &event);
        };
        if (handle == "program") {
            const QPoint to = frame->pos() + delta;
            QProcess::execute("xdotool", {"windowmove", QString::number(frame->winId()),
                                          QString::number(to.x()), QString::number(to.y())});
            QTRY_COMPARE(frame->pos(), to);
        } else {
            if (press)
                send(QEvent::MouseButtonPress, Qt::LeftButton, Qt::LeftButton, from);
            send(QEvent::MouseMove, Qt::NoButton, press ? Qt::LeftButton : Qt::NoButton,
                 from + delta);
            // While the column drags the frame the grip steps aside; while the grip resizes, the
            // column does.
            QVERIFY(!press || handle == "marker" || !button.isEmpty() ||
                    !(handle == "grip" ? column.isVisible() : grip->isVisible()));
            if (press)
                send(QEvent::MouseButtonRelease, Qt::LeftButton, Qt::NoButton, from + delta);
        }

        // Wherever the column took the frame, it stands against its right edge, bottoms level, and
        // is shown; the capture takes the frame's inside; the grip sits at its corner (where a move
        // that would make the frame too small left it), shown again unless a pinned column hid it.
        QTEST(frame->size(), "frameSize");
        const QRect area = frame->geometry();
        QVERIFY(handle == "program" ||
                column.pos() == QPoint(area.right() + 1, area.bottom() + 1 - column.height()));
        QVERIFY(handle != "column" ||
                column.pos() == columnAt + (button.isEmpty() ? delta : QPoint()));
        QVERIFY(column.isVisible());
        QCOMPARE(source.area().local,
                 area.adjusted(5, 5, -5, -5)
                     .translated(-QGuiApplication::screens().at(screen)->geometry().topLeft()));
        QCOMPARE(source.area().screen, screen);
        const auto grabbedCentre = [&source] {
            const platform::GrabbedPicture* picture = source.grab();
            if (!picture || picture->layout != platform::PixelLayout::Bgrx)
                return QColor();
            const uint8_t* pixel =
                picture->data + picture->height / 2 * picture->stride + picture->width / 2 * 4;
            return QColor(pixel[2], pixel[1], pixel[0]);
        };
        if (!start.isNull())
            QTRY_COMPARE(grabbedCentre(), colours[screen]);
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

    // A screen whose place changes (another monitor's resolution changed beside it) moves the
    // capture's place on it, with nothing else moved.
    void screenMoved() {
        WCapture column;
        DrawingForm* frame = column.drawingForm();
        CaptureSource source(frame);
        frame->setGeometry(100, 100, 700, 500);
        QTRY_COMPARE(source.area().local, QRect(105, 105, 690, 490));
        const auto place = [](const char* at) {
            return QProcess::execute("xrandr", {"--output", "DUMMY1", "--pos", at}) == 0;
        };
        QVERIFY(place("0x200"));
        QTRY_COMPARE(source.area().local, QRect(105, -95, 690, 490));
        QVERIFY(place("0x0"));
        QTRY_COMPARE(source.area().local, QRect(105, 105, 690, 490));
    }
};

QTEST_MAIN(FrameTest)
#include "tst_frame.moc"
