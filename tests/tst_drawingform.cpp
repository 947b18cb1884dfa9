#include "frame/drawingform.h"
#include "frame/iwcapture.h"
#include "frame/resizewidget.h"
#include "support/mouseinput.h"
#include "support/screencolour.h"
#include "support/testglobalstate.h"

#include <QGuiApplication>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QWindow>
#include <QtTest>

namespace {

// Stands in for the tool column: the frame only ever asks it to step aside.
class Column : public IWCapture {
public:
    void hideToolbar() override { ++hides; }
    int hides = 0;
};

QStringList debugLines;

void keepDebugLine(QtMsgType type, const QMessageLogContext&, const QString& text) {
    if (type == QtDebugMsg)
        debugLines.append(text);
}

} // namespace

class DrawingFormTest : public QObject {
    Q_OBJECT

private slots:
    void cleanup();
    void startsInFormModeWithTheGripAtItsCorner();
    void streamingModeLetsInputAndPixelsThrough();
    void picturesUnderTheFrameReachTheGrab();
    void showStartFormRestoresTheStartButton();
    void messagesByKind();
    void streamParamsAreTrimmedFixedAndRemembered();
    void streamParamsWithoutGlobalState();
    void gripResizesTheFrameDownToItsMinimum();
    void pinnedGripLeavesTheFrameAlone();
    void buttonsEmitTheirSignals();
};

void DrawingFormTest::cleanup() {
    // The grip goes with deleteLater; let it go before the next case.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    // A line edit's clear button fades in and out with a 160 ms animation of its own that
    // frees itself only once it has run, even when the line edit is already gone.
    QTest::qWait(250);
}

void DrawingFormTest::startsInFormModeWithTheGripAtItsCorner() {
    Column column;
    DrawingForm frame(&column);
    QVERIFY(frame.isVisible());
    QCOMPARE(int(frame.windowFlags()), 0x4280B);
    QVERIFY(frame.testAttribute(Qt::WA_TranslucentBackground));
    QVERIFY(!frame.testAttribute(Qt::WA_TransparentForMouseEvents));
    QCOMPARE(frame.size(), QSize(610, 520));
    QCOMPARE(frame.minimumSize(), QSize(205, 205));
    QVERIFY(frame.connectionForm()->isVisible());
    QCOMPARE(frame.findChild<QPushButton*>("pbStart")->text(), QString("START"));
    QVERIFY(!frame.findChild<QLabel*>("lblMessage")->isVisible());
    QCOMPARE(frame.findChild<QLineEdit*>("leHostPort")->placeholderText(), QString("HOST:PORT"));
    QCOMPARE(frame.findChild<QLineEdit*>("leStreamId")->placeholderText(),
             QString("Stream ID (optional)"));

    ResizeWidget* grip = frame.resizeGrip();
    QTRY_VERIFY(grip->isVisible());
    frame.move(120, 80);
    QCOMPARE(grip->pos(), QPoint(730, 600));
    frame.resize(700, 400);
    frame.move(100, 100);
    QCOMPARE(grip->pos(), QPoint(800, 500));

    // The status strip travels along but is never shown.
    QCOMPARE(frame.statusStrip()->geometry(), QRect(100 + 700 - 355, 500, 350, 20));
    QVERIFY(!frame.statusStrip()->isVisible());

    frame.hide();
    QVERIFY(!grip->isVisible());
    frame.show();
    QTRY_VERIFY(grip->isVisible());
    frame.close();
    QVERIFY(!grip->isVisible());
}

void DrawingFormTest::streamingModeLetsInputAndPixelsThrough() {
    QWidget below;
    below.setGeometry(0, 0, 1000, 800);
    below.show();
    QVERIFY(QTest::qWaitForWindowExposed(&below));

    Column column;
    DrawingForm frame(&column);
    frame.move(100, 100);
    QVERIFY(QTest::qWaitForWindowExposed(&frame));
    const QPoint inside = frame.geometry().center();
    QTRY_COMPARE(QGuiApplication::topLevelAt(inside), frame.windowHandle());

    frame.setFormMode(0);
    QVERIFY(frame.isVisible());
    QVERIFY(!frame.connectionForm()->isVisible());
    QVERIFY(frame.testAttribute(Qt::WA_TransparentForMouseEvents));
    QVERIFY(frame.windowFlags().testFlag(Qt::WindowTransparentForInput));
    QTRY_COMPARE(QGuiApplication::topLevelAt(inside), below.windowHandle());
    QTRY_VERIFY(frame.resizeGrip()->isVisible());

    // Any non-zero value is form mode, and brings the start button back.
    frame.connectionForm()->startButton()->hide();
    frame.setFormMode(2);
    QVERIFY(frame.isVisible());
    QVERIFY(frame.connectionForm()->isVisible());
    QVERIFY(frame.connectionForm()->startButton()->isVisible());
    QVERIFY(!frame.testAttribute(Qt::WA_TransparentForMouseEvents));
    QVERIFY(!frame.windowFlags().testFlag(Qt::WindowTransparentForInput));
    QTRY_COMPARE(QGuiApplication::topLevelAt(inside), frame.windowHandle());
}

void DrawingFormTest::picturesUnderTheFrameReachTheGrab() {
    const QColor colour(32, 192, 96);
    QWidget below;
    below.setGeometry(0, 0, 1200, 900);
    QPalette palette;
    palette.setColor(QPalette::Window, colour);
    below.setPalette(palette);
    below.setAutoFillBackground(true);
    below.show();
    QVERIFY(QTest::qWaitForWindowExposed(&below));

    Column column;
    DrawingForm frame(&column);
    frame.setGeometry(150, 120, 800, 600);
    QVERIFY(QTest::qWaitForWindowExposed(&frame));
    const QRect captureRect = frame.geometry().adjusted(5, 5, -5, -5);

    // Without a compositing manager the translucent frame covers what lies below it...
    QTRY_VERIFY(shareOfScreenColour(captureRect, colour) < 0.5);

    // ...until streaming leaves only the border on screen.
    frame.setFormMode(0);
    QTRY_COMPARE(shareOfScreenColour(captureRect, colour), 1.0);
    const QRect border(frame.x(), frame.y(), frame.width(), 3);
    QVERIFY(shareOfScreenColour(border, colour) < 0.01);

    // A frame resized while streaming keeps its inside clear.
    frame.resize(600, 400);
    QTRY_COMPARE(shareOfScreenColour(frame.geometry().adjusted(5, 5, -5, -5), colour), 1.0);

    frame.setFormMode(1);
    QTRY_VERIFY(shareOfScreenColour(frame.geometry().adjusted(5, 5, -5, -5), colour) < 0.5);
}

void DrawingFormTest::showStartFormRestoresTheStartButton() {
    Column column;
    DrawingForm frame(&column);
    QPushButton* start = frame.connectionForm()->startButton();
    frame.setFormMode(0);
    start->setText("STOP");
    frame.showStartForm();
    QCOMPARE(start->text(), QString("START"));
    QVERIFY(frame.connectionForm()->isVisible());
    QVERIFY(!frame.testAttribute(Qt::WA_TransparentForMouseEvents));
}

void DrawingFormTest::messagesByKind() {
    Column column;
    DrawingForm frame(&column);
    auto* message = frame.findChild<QLabel*>("lblMessage");
    debugLines.clear();
    const QtMessageHandler previous = qInstallMessageHandler(keepDebugLine);

    frame.changeStatus("No connection to server", 0);
    QVERIFY(message->isVisible());
    QCOMPARE(message->text(), QString("No connection to server"));

    frame.changeStatus("", 0);
    QVERIFY(!message->isVisible());

    frame.changeStatus("first error", 0);
    frame.changeStatus("viewers: 3", 1);
    QCOMPARE(frame.statusStrip()->text(), QString("viewers: 3"));
    QVERIFY(!message->isVisible());
    frame.changeStatus("", 1);
    QCOMPARE(frame.statusStrip()->text(), QString("viewers: 3"));
    frame.changeStatus("", 1);
    QCOMPARE(frame.statusStrip()->text(), QString("viewers: 3"));
    QVERIFY(!frame.statusStrip()->isVisible());

    frame.changeStatus("shown", 0);
    frame.changeStatus("ignored", 5);
    QCOMPARE(message->text(), QString("shown"));
    QVERIFY(message->isVisible());
    QCOMPARE(frame.statusStrip()->text(), QString("viewers: 3"));

    qInstallMessageHandler(previous);
    QCOMPARE(debugLines.filter("changeStatus").size(), 8);
    QVERIFY(!debugLines.filter("ignored").isEmpty());
}

void DrawingFormTest::streamParamsAreTrimmedFixedAndRemembered() {
    TestGlobalState state;
    state.settings()->setValue("SRT_HOST_PORT", "old.example:1");
    {
        Column column;
        DrawingForm frame(&column);
        auto* hostPort = frame.findChild<QLineEdit*>("leHostPort");
        auto* streamId = frame.findChild<QLineEdit*>("leStreamId");
        QCOMPARE(hostPort->text(), QString("old.example:1"));
        QCOMPARE(streamId->text(), QString());

        hostPort->setText("  127.0.0.1:9000\t");
        streamId->setText(" room/π ");
        const StreamParams params = frame.streamParams();
        QCOMPARE(params.hostPort, std::string("127.0.0.1:9000"));
        QCOMPARE(params.streamId, std::string("room/\xCF\x80"));
        QCOMPARE(params.videoBitrateKbps, 5000);
        QCOMPARE(params.audioBitrateKbps, 128);
        QCOMPARE(params.latency, 10);
    }
    auto stored = state.reopen();
    QCOMPARE(stored->value("SRT_HOST_PORT").toString(), QString("127.0.0.1:9000"));
    QCOMPARE(stored->value("SRT_STREAM_ID").toString(), QString("room/π"));
    {
        Column column;
        DrawingForm frame(&column);
        QCOMPARE(frame.findChild<QLineEdit*>("leStreamId")->text(), QString("room/π"));

        // Blanks only: empty texts, and the empty texts are remembered.
        frame.findChild<QLineEdit*>("leHostPort")->setText("   ");
        frame.findChild<QLineEdit*>("leStreamId")->setText(" \t ");
        const StreamParams params = frame.streamParams();
        QVERIFY(params.hostPort.empty());
        QVERIFY(params.streamId.empty());
    }
    stored = state.reopen();
    QVERIFY(stored->contains("SRT_HOST_PORT"));
    QCOMPARE(stored->value("SRT_HOST_PORT").toString(), QString());
    QCOMPARE(stored->value("SRT_STREAM_ID").toString(), QString());
}

void DrawingFormTest::streamParamsWithoutGlobalState() {
    QVERIFY(!globalState);
    Column column;
    DrawingForm frame(&column);
    frame.findChild<QLineEdit*>("leHostPort")->setText("host:1");
    QCOMPARE(frame.streamParams().hostPort, std::string("host:1"));
}

void DrawingFormTest::gripResizesTheFrameDownToItsMinimum() {
    Column column;
    DrawingForm frame(&column);
    frame.move(100, 100);
    ResizeWidget* grip = frame.resizeGrip();
    QTRY_VERIFY(grip->isVisible());
    QSignalSpy newSize(&frame, &DrawingForm::newSize);

    sendMouse(grip, QEvent::MouseButtonPress, QPoint(2, 2), Qt::LeftButton, Qt::LeftButton);
    QCOMPARE(column.hides, 1);
    sendMouse(grip, QEvent::MouseMove, QPoint(90, 40), Qt::NoButton, Qt::LeftButton);
    QCOMPARE(frame.geometry(), QRect(100, 100, 700, 560));
    QCOMPARE(grip->pos(), QPoint(800, 660));
    QCOMPARE(newSize.count(), 0);

    // Far past the minimum: the frame stops at 205 x 205 and the grip stays put.
    sendMouse(grip, QEvent::MouseMove, QPoint(-550, -410), Qt::NoButton, Qt::LeftButton);
    QCOMPARE(frame.size(), QSize(205, 205));
    QCOMPARE(grip->pos(), QPoint(800, 660));

    sendMouse(grip, QEvent::MouseButtonRelease, QPoint(0, 0), Qt::LeftButton, Qt::NoButton);
    QCOMPARE(newSize.count(), 1);
    QCOMPARE(column.hides, 1);

    // A move that is not part of a resize changes nothing and is not refused.
    QSignalSpy noResize(grip, &ResizeWidget::mouseMove);
    QCOMPARE(emit grip->mouseMove(QPoint(50, 50)), true);
    QCOMPARE(frame.size(), QSize(205, 205));
}

void DrawingFormTest::pinnedGripLeavesTheFrameAlone() {
    Column column;
    DrawingForm frame(&column);
    ResizeWidget* grip = frame.resizeGrip();
    QTRY_VERIFY(grip->isVisible());
    QSignalSpy newSize(&frame, &DrawingForm::newSize);
    frame.setLocked(true);
    QVERIFY(grip->isLocked());

    sendMouse(grip, QEvent::MouseButtonPress, QPoint(2, 2), Qt::LeftButton, Qt::LeftButton);
    sendMouse(grip, QEvent::MouseMove, QPoint(90, 40), Qt::NoButton, Qt::LeftButton);
    sendMouse(grip, QEvent::MouseButtonRelease, QPoint(90, 40), Qt::LeftButton, Qt::NoButton);
    QCOMPARE(frame.size(), QSize(610, 520));
    QCOMPARE(column.hides, 0);
    QCOMPARE(newSize.count(), 1); // the release still re-places the column

    frame.setLocked(false);
    QVERIFY(!grip->isLocked());
}

void DrawingFormTest::buttonsEmitTheirSignals() {
    Column column;
    DrawingForm frame(&column);
    QSignalSpy start(&frame, &DrawingForm::clickedStartButtion);
    QSignalSpy exit(frame.connectionForm(), &MainLabel::close);
    QTest::mouseClick(frame.findChild<QPushButton*>("pbStart"), Qt::LeftButton);
    QCOMPARE(start.count(), 1);
    QCOMPARE(exit.count(), 0);
    QTest::mouseClick(frame.findChild<QPushButton*>("pbExit"), Qt::LeftButton);
    QCOMPARE(exit.count(), 1);
    QCOMPARE(start.count(), 1);
    QVERIFY(frame.isVisible()); // exit only asks; the column decides
}

QTEST_MAIN(DrawingFormTest)
#include "tst_drawingform.moc"
