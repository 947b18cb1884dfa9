#include "capturestreamer.h"
#include "frame/drawingform.h"
#include "framegrabber.h"
#include "support/freeport.h"
#include "support/messagecapture.h"
#include "support/patternwindow.h"
#include "support/srtlistener.h"
#include "support/testglobalstate.h"

#include <QGuiApplication>
#include <QJsonArray>
#include <QLineEdit>
#include <QPushButton>
#include <QScreen>
#include <QtTest>
#include <algorithm>
#include <memory>

class LivePathTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void picturesFollowTheFrameStretchedInTrueColours();
    void missedTicksLeaveAGapInTheTimeStamps();
    void sharedMemoryGrabAndToolkitFallbackAgree();

private:
    // Puts the frame's inside at `area` with the four-colour picture under it.
    void frameOver(QRect area);
    void goLive();
    QJsonArray frames() const { return listener.probe(stream)["frames"].toArray(); }

    TestGlobalState state;
    CaptureStreamer streamer;
    std::unique_ptr<PatternWindow> pattern;
    SrtListener listener;
    uint16_t port = 0;
    std::size_t stream = 0;
};

void LivePathTest::frameOver(QRect area) {
    DrawingForm* frame = streamer.capture().drawingForm();
    frame->setGeometry(area.adjusted(-5, -5, 5, 5));
    emit frame->newSize();
    QCOMPARE(streamer.capture().captureRect.load(), area);
    pattern = std::make_unique<PatternWindow>(area);
    QVERIFY(QTest::qWaitForWindowExposed(pattern.get()));
}

void LivePathTest::goLive() {
    // One listener for the whole test, started on the first use; each run is a new connection.
    if (port == 0) {
        port = freeLoopbackPort(true);
        QVERIFY(listener.start(port));
    }
    stream = listener.connectionCount();
    auto* hostPort = streamer.capture().drawingForm()->findChild<QLineEdit*>("leHostPort");
    hostPort->setText(QString("127.0.0.1:%1").arg(port));
    streamer.try_connect();
    QVERIFY(streamer.capture().liveButton()->isChecked());
}

void LivePathTest::picturesFollowTheFrameStretchedInTrueColours() {
    frameOver(QRect(60, 40, 640, 360));
    goLive();
    QTRY_VERIFY_WITH_TIMEOUT(frames().size() >= 30, 30000);
    // Resized while live: the stream keeps its size, the picture follows the new rectangle.
    frameOver(QRect(30, 30, 1000, 1000));
    const int resizedAt = frames().size();
    QTRY_VERIFY_WITH_TIMEOUT(frames().size() >= resizedAt + 40, 30000);
    streamer.stop();

    const QJsonObject probe = listener.probe(stream);
    const QJsonObject video = probe["streams"].toArray().at(0).toObject();
    for (const char* tag : {"color_space", "color_transfer", "color_primaries"})
        QCOMPARE(video[tag].toString(), QString("bt709"));
    QCOMPARE(video["color_range"].toString(), QString("tv"));
    for (const QJsonValue& frame : probe["frames"].toArray())
        QCOMPARE(QSize(frame["width"].toInt(), frame["height"].toInt()), QSize(1920, 1080));
    // Before and after the resize, stretched to the edges in the colours shown.
    for (const int index : {20, probe["frames"].toArray().size() - 5}) {
        const int error = PatternWindow::worstError(listener.picture(stream, index), 8);
        QVERIFY2(error < 12, qPrintable(QString::number(error)));
    }
}

void LivePathTest::missedTicksLeaveAGapInTheTimeStamps() {
    frameOver(QRect(60, 40, 640, 360));
    goLive();
    QTRY_VERIFY_WITH_TIMEOUT(frames().size() >= 10, 30000);
    // While the frame is dragged no tick writes a picture: a second of ticks is missed.
    streamer.capture().dragging = true;
    const int before = frames().size();
    QTest::qWait(1000);
    streamer.capture().dragging = false;
    QTRY_VERIFY_WITH_TIMEOUT(frames().size() >= before + 10, 30000);
    streamer.stop();

    double previous = -1;
    double widestGap = 0;
    for (const QJsonValue& frame : frames()) {
        const double pts = frame["pts_time"].toString().toDouble();
        QVERIFY2(pts > previous, qPrintable(QString::number(pts)));
        if (previous >= 0)
            widestGap = std::max(widestGap, pts - previous);
        previous = pts;
    }
    QVERIFY2(widestGap > 0.9 && widestGap < 3, qPrintable(QString::number(widestGap)));
}

void LivePathTest::sharedMemoryGrabAndToolkitFallbackAgree() {
    const QRect area(200, 150, 333, 211);
    frameOver(area);
    platform::ScreenGrab sharedMemory;
    QVERIFY2(sharedMemory.open(), sharedMemory.lastError().c_str());
    platform::GrabbedPicture shared;
    QVERIFY(sharedMemory.grab(area.x(), area.y(), area.width(), area.height(), shared));

    // A display without the extension makes the grab fall back to the toolkit's.
    QProcess server;
    server.start("Xvfb", {"-displayfd", "1", "-extension", "MIT-SHM", "-nolisten", "tcp"});
    QVERIFY(server.waitForReadyRead(20000));
    const QByteArray display = qgetenv("DISPLAY");
    qputenv("DISPLAY", ":" + server.readLine().trimmed());
    MessageCapture log;
    FrameGrabber grabber;
    const platform::GrabbedPicture* fallback = grabber.grab(QGuiApplication::primaryScreen(), area);
    qputenv("DISPLAY", display);
    server.kill();
    server.waitForFinished();
    QVERIFY(log.contains("The X server has no shared memory"));
    QVERIFY(fallback);

    QCOMPARE(fallback->layout, shared.layout);
    QCOMPARE(QSize(fallback->width, fallback->height), QSize(shared.width, shared.height));
    int different = 0;
    for (int y = 0; y < area.height(); ++y)
        for (int x = 0; x < area.width() * 4; ++x)
            different += x % 4 != 3 && fallback->data[y * fallback->stride + x] !=
                                           shared.data[y * shared.stride + x];
    QCOMPARE(different, 0);
}

QTEST_MAIN(LivePathTest)

#include "tst_livepath.moc"
