#include "frame/drawingform.h"
#include "frame/resizewidget.h"
#include "frame/transparentlabel.h"
#include "frame/wcapture.h"
#include "support/mouseinput.h"
#include "support/screencolour.h"

#include <QGuiApplication>
#include <QLabel>
#include <QPushButton>
#include <QScreen>
#include <QtTest>

namespace {

QImage iconImage(const QIcon& icon) {
    return icon.pixmap(QSize(32, 32)).toImage().convertToFormat(QImage::Format_ARGB32);
}

QImage fileImage(const char* path) {
    return iconImage(QIcon(QString::fromUtf8(path)));
}

// Where the column belongs: against the frame's right edge, bottoms level.
QPoint columnPlaceFor(const WCapture& column) {
    const QRect frame = column.drawingForm()->geometry();
    return QPoint(frame.x() + frame.width(), frame.y() + frame.height() - column.height());
}

} // namespace

class WCaptureTest : public QObject {
    Q_OBJECT

private slots:
    void cleanup();
    void firstPlacementFollowsTheScreenSize();
    void liveButtonStates();
    void startActsAsTheLiveButton();
    void markerAppearsInTheCornerAndStaysInTheFrame();
    void draggingTheColumnCarriesTheFrame();
    void pinnedColumnStaysAndLocksTheGrip();
    void resizingThroughTheGripReplacesTheColumn();
    void streamingGrabSeesWhatLiesUnderTheFrame();
    void markerStaysAboveTheFrameAcrossModes();
    void exitHidesEverythingBeforeFullClose();
    void closingTheColumnClosesFrameAndGrip();
};

void WCaptureTest::cleanup() {
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

void WCaptureTest::firstPlacementFollowsTheScreenSize() {
    WCapture column;
    DrawingForm* frame = column.drawingForm();
    // Qt marks every parentless widget as a window on top of the flags it was given.
    QCOMPARE(column.windowFlags(), Qt::Window | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);
    QCOMPARE(column.windowTitle(), QString("Capture"));
    QVERIFY(column.isVisible());
    QVERIFY(frame->isVisible());
    QCOMPARE(frame->size(), QSize(1280, 720));
    QVERIFY(!column.dragging);
    QVERIFY(!column.marker()->isVisible());

    // The column went to the screen's size less 1280 x 720, the frame stood at its left with
    // its first offset, and then the column went to the frame's right side.
    const QRect screen = QGuiApplication::screens().at(0)->geometry();
    const QPoint firstColumn(screen.width() - 1280, screen.height() - 720);
    QCOMPARE(frame->pos(), firstColumn + QPoint(-610, 190 - 520));
    QCOMPARE(column.pos(), columnPlaceFor(column));
    QCOMPARE(column.captureRect.load(), frame->geometry().adjusted(5, 5, -5, -5));

    // The grip reaches its corner once the event loop has run.
    QTRY_VERIFY(frame->resizeGrip()->isVisible());
    QCOMPARE(frame->resizeGrip()->pos(), frame->geometry().bottomRight() + QPoint(1, 1));
}

void WCaptureTest::liveButtonStates() {
    const QImage white = fileImage(":/icons/WHITE_LIVE.png");
    const QImage red = fileImage(":/icons/RED_LIVE.png");
    QVERIFY(!white.isNull());
    QVERIFY(white != red);

    WCapture column;
    QPushButton* live = column.liveButton();
    QCOMPARE(live, column.findChild<QPushButton*>("cmdLive"));
    QSignalSpy switched(&column, &WCapture::switchLive);
    QSignalSpy toggled(live, &QPushButton::toggled);
    QVERIFY(!live->isChecked());
    QCOMPARE(iconImage(live->icon()), white);

    // The user's click asks for live; the icon waits for the streamer.
    QTest::mouseClick(live, Qt::LeftButton);
    QCOMPARE(switched.count(), 1);
    QCOMPARE(switched.at(0).at(0).toBool(), true);
    QVERIFY(live->isChecked());
    QCOMPARE(iconImage(live->icon()), white);

    toggled.clear();
    column.setLive(true);
    QVERIFY(live->isChecked());
    QCOMPARE(iconImage(live->icon()), red);
    QCOMPARE(switched.count(), 1);
    QCOMPARE(toggled.count(), 0);

    // A second click switches off at once.
    QTest::mouseClick(live, Qt::LeftButton);
    QCOMPARE(switched.count(), 2);
    QCOMPARE(switched.at(1).at(0).toBool(), false);
    QVERIFY(!live->isChecked());
    QCOMPARE(iconImage(live->icon()), white);

    // A failed start: the streamer turns it back without a signal.
    QTest::mouseClick(live, Qt::LeftButton);
    toggled.clear();
    column.setLive(false);
    QVERIFY(!live->isChecked());
    QCOMPARE(iconImage(live->icon()), white);
    QCOMPARE(switched.count(), 3);
    QCOMPARE(toggled.count(), 0);
}

void WCaptureTest::startActsAsTheLiveButton() {
    WCapture column;
    QPushButton* start = column.drawingForm()->findChild<QPushButton*>("pbStart");
    QSignalSpy switched(&column, &WCapture::switchLive);

    QTest::mouseClick(start, Qt::LeftButton);
    QCOMPARE(switched.count(), 1);
    QCOMPARE(switched.at(0).at(0).toBool(), true);
    QVERIFY(column.liveButton()->isChecked());

    column.setLive(true);
    QTest::mouseClick(start, Qt::LeftButton);
    QCOMPARE(switched.count(), 2);
    QCOMPARE(switched.at(1).at(0).toBool(), false);
    QVERIFY(!column.liveButton()->isChecked());
    QCOMPARE(iconImage(column.liveButton()->icon()), fileImage(":/icons/WHITE_LIVE.png"));
}

void WCaptureTest::markerAppearsInTheCornerAndStaysInTheFrame() {
    WCapture column;
    DrawingForm* frame = column.drawingForm();
    TransparentLabel* marker = column.marker();
    QPushButton* pointer = column.findChild<QPushButton*>("cmdCursor");
    QVERIFY(!marker->size().isEmpty());
    QCOMPARE(int(marker->windowFlags()), 0x4080B);

    QTest::mouseClick(pointer, Qt::LeftButton);
    QVERIFY(marker->isVisible());
    QCOMPARE(iconImage(pointer->icon()), fileImage(":/icons/GMS_BLUE_POINTER.png"));
    const QRect r = frame->geometry();
    const QPoint corner(r.x() + r.width() - marker->width() - 5,
                        r.y() + r.height() - marker->height() - 5);
    QCOMPARE(marker->pos(), corner);

    // Dragged about inside the frame.
    sendMouse(marker, QEvent::MouseButtonPress, QPoint(4, 6), Qt::LeftButton, Qt::LeftButton);
    sendMouse(marker, QEvent::MouseMove, QPoint(4 - 300, 6 - 200), Qt::NoButton, Qt::LeftButton);
    QCOMPARE(marker->pos(), corner - QPoint(300, 200));

    // Never past the left or top edge, never closer than 37 px to the right or bottom one.
    sendMouse(marker, QEvent::MouseMove, QPoint(-5000, -5000), Qt::NoButton, Qt::LeftButton);
    QCOMPARE(marker->pos(), r.topLeft());
    sendMouse(marker, QEvent::MouseMove, QPoint(5000, 5000), Qt::NoButton, Qt::LeftButton);
    QCOMPARE(marker->pos(), QPoint(r.x() + r.width() - 37, r.y() + r.height() - 37));

    // Released, or pressed with another button, it no longer follows.
    sendMouse(marker, QEvent::MouseButtonRelease, QPoint(0, 0), Qt::LeftButton, Qt::NoButton);
    const QPoint resting = marker->pos();
    sendMouse(marker, QEvent::MouseMove, QPoint(-100, -100), Qt::NoButton, Qt::NoButton);
    sendMouse(marker, QEvent::MouseButtonPress, QPoint(1, 1), Qt::RightButton, Qt::RightButton);
    sendMouse(marker, QEvent::MouseMove, QPoint(-100, -100), Qt::NoButton, Qt::RightButton);
    QCOMPARE(marker->pos(), resting);

    QTest::mouseClick(pointer, Qt::LeftButton);
    QVERIFY(!marker->isVisible());
    QCOMPARE(iconImage(pointer->icon()), fileImage(":/icons/GMS_WHITE_POINTER.png"));

    // Each check puts it back in the corner.
    QTest::mouseClick(pointer, Qt::LeftButton);
    QCOMPARE(marker->pos(), corner);
}

void WCaptureTest::draggingTheColumnCarriesTheFrame() {
    WCapture column;
    DrawingForm* frame = column.drawingForm();
    QVERIFY(QTest::qWaitForWindowExposed(&column));
    QTRY_VERIFY(frame->resizeGrip()->isVisible());
    const QPoint frameOffset = frame->pos() - column.pos();
    const QPoint start = column.pos();
    auto* handle = column.findChild<QLabel*>("lblMove");
    const QPoint grab = handle->geometry().center();

    QVERIFY(placeCursor(column.mapToGlobal(grab)));
    sendMouse(&column, QEvent::MouseButtonPress, grab, Qt::LeftButton, Qt::LeftButton);
    QVERIFY(!frame->resizeGrip()->isVisible());
    sendMouse(&column, QEvent::MouseMove, grab + QPoint(-120, -70), Qt::NoButton, Qt::LeftButton);
    QCOMPARE(column.pos(), start + QPoint(-120, -70));
    QVERIFY(column.dragging);
    QCOMPARE(frame->pos() - column.pos(), frameOffset);
    sendMouse(&column, QEvent::MouseMove, grab + QPoint(-10, -10), Qt::NoButton, Qt::LeftButton);
    QCOMPARE(column.pos(), start + QPoint(-130, -80));
    QVERIFY(column.dragging);

    sendMouse(&column, QEvent::MouseButtonRelease, grab + QPoint(-10, -10), Qt::LeftButton,
              Qt::NoButton);
    QVERIFY(!column.dragging);
    QCOMPARE(frame->pos() - column.pos(), frameOffset);
    QCOMPARE(column.captureRect.load(), frame->geometry().adjusted(5, 5, -5, -5));
    QVERIFY(frame->resizeGrip()->isVisible());
    QCOMPARE(frame->resizeGrip()->pos(), frame->geometry().bottomRight() + QPoint(1, 1));
}

void WCaptureTest::pinnedColumnStaysAndLocksTheGrip() {
    WCapture column;
    DrawingForm* frame = column.drawingForm();
    QTRY_VERIFY(frame->resizeGrip()->isVisible());
    QTest::mouseClick(column.findChild<QPushButton*>("cmdLock"), Qt::LeftButton);
    QVERIFY(frame->resizeGrip()->isLocked());

    const QPoint start = column.pos();
    const QRect captured = column.captureRect.load();
    const QPoint grab(25, column.height() - 20);
    QVERIFY(placeCursor(column.mapToGlobal(grab)));
    sendMouse(&column, QEvent::MouseButtonPress, grab, Qt::LeftButton, Qt::LeftButton);
    sendMouse(&column, QEvent::MouseMove, grab + QPoint(-100, -100), Qt::NoButton, Qt::LeftButton);
    sendMouse(&column, QEvent::MouseButtonRelease, grab + QPoint(-100, -100), Qt::LeftButton,
              Qt::NoButton);
    QCOMPARE(column.pos(), start);
    QCOMPARE(column.captureRect.load(), captured);
    QVERIFY(!column.dragging);

    // The press hid the grip; it comes back only with the frame's next show.
    QCoreApplication::processEvents();
    QVERIFY(!frame->resizeGrip()->isVisible());
    frame->setFormMode(0);
    QTRY_VERIFY(frame->resizeGrip()->isVisible());

    QTest::mouseClick(column.findChild<QPushButton*>("cmdLock"), Qt::LeftButton);
    QVERIFY(!frame->resizeGrip()->isLocked());
}

void WCaptureTest::resizingThroughTheGripReplacesTheColumn() {
    WCapture column;
    DrawingForm* frame = column.drawingForm();
    ResizeWidget* grip = frame->resizeGrip();
    QTRY_VERIFY(grip->isVisible());
    const QPoint frameAt = frame->pos();

    sendMouse(grip, QEvent::MouseButtonPress, QPoint(3, 3), Qt::LeftButton, Qt::LeftButton);
    QVERIFY(!column.isVisible());
    QVERIFY(frame->isVisible());
    sendMouse(grip, QEvent::MouseMove, QPoint(-300, -200), Qt::NoButton, Qt::LeftButton);
    QCOMPARE(frame->size(), QSize(980, 520));
    QCOMPARE(frame->pos(), frameAt);
    sendMouse(grip, QEvent::MouseButtonRelease, QPoint(0, 0), Qt::LeftButton, Qt::NoButton);

    QVERIFY(column.isVisible());
    QCOMPARE(column.pos(), columnPlaceFor(column));
    QCOMPARE(column.captureRect.load(), QRect(frameAt + QPoint(5, 5), QSize(970, 510)));
    QCOMPARE(frame->pos(), frameAt);
}

void WCaptureTest::streamingGrabSeesWhatLiesUnderTheFrame() {
    const QColor colour(200, 40, 160);
    QWidget below;
    below.setGeometry(QGuiApplication::primaryScreen()->geometry());
    QPalette palette;
    palette.setColor(QPalette::Window, colour);
    below.setPalette(palette);
    below.setAutoFillBackground(true);
    below.show();
    QVERIFY(QTest::qWaitForWindowExposed(&below));

    WCapture column;
    DrawingForm* frame = column.drawingForm();
    QVERIFY(QTest::qWaitForWindowExposed(frame));
    frame->setFormMode(0);

    // What the streamer's screen grab takes: the screen at captureRect.
    const auto grabbedShare = [&] {
        return shareOfScreenColour(column.captureRect.load(), colour);
    };
    QTRY_COMPARE(grabbedShare(), 1.0);

    // The marker is a window above the frame, so viewers see it in the grab.
    QTest::mouseClick(column.findChild<QPushButton*>("cmdCursor"), Qt::LeftButton);
    QVERIFY(QTest::qWaitForWindowExposed(column.marker()));
    QTRY_VERIFY(grabbedShare() < 1.0);
}

void WCaptureTest::markerStaysAboveTheFrameAcrossModes() {
    WCapture column;
    DrawingForm* frame = column.drawingForm();
    TransparentLabel* marker = column.marker();
    QVERIFY(QTest::qWaitForWindowExposed(frame));
    QTest::mouseClick(column.findChild<QPushButton*>("cmdCursor"), Qt::LeftButton);
    QVERIFY(QTest::qWaitForWindowExposed(marker));
    const QPoint onMarker = marker->geometry().center();
    QTRY_COMPARE(QGuiApplication::topLevelAt(onMarker), marker->windowHandle());

    // Each switch maps the frame again; the marker must not end up beneath it.
    frame->setFormMode(0);
    QTRY_COMPARE(QGuiApplication::topLevelAt(onMarker), marker->windowHandle());
    frame->setFormMode(2);
    QTRY_COMPARE(QGuiApplication::topLevelAt(onMarker), marker->windowHandle());
}

void WCaptureTest::exitHidesEverythingBeforeFullClose() {
    WCapture column;
    DrawingForm* frame = column.drawingForm();
    QTRY_VERIFY(frame->resizeGrip()->isVisible());
    QTest::mouseClick(column.findChild<QPushButton*>("cmdCursor"), Qt::LeftButton);

    bool allHidden = false;
    int closes = 0;
    connect(&column, &WCapture::fullClose, this, [&] {
        ++closes;
        allHidden = !column.isVisible() && !frame->isVisible() &&
                    !frame->resizeGrip()->isVisible() && !column.marker()->isVisible();
    });
    QTest::mouseClick(frame->findChild<QPushButton*>("pbExit"), Qt::LeftButton);
    QCOMPARE(closes, 1);
    QVERIFY(allHidden);
}

void WCaptureTest::closingTheColumnClosesFrameAndGrip() {
    WCapture column;
    DrawingForm* frame = column.drawingForm();
    QTRY_VERIFY(frame->resizeGrip()->isVisible());
    QSignalSpy fullClose(&column, &WCapture::fullClose);
    column.close();
    QVERIFY(!frame->isVisible());
    QVERIFY(!frame->resizeGrip()->isVisible());
    QCOMPARE(fullClose.count(), 0);
}

QTEST_MAIN(WCaptureTest)
#include "tst_wcapture.moc"
