#include "capturestreamer.h"
#include "frame/drawingform.h"
#include "framegrabber.h"
#include "support/freeport.h"
#include "support/logcapture.h"
#include "support/patternwindow.h"
#include "support/testglobalstate.h"
#include "support/tsreceiver.h"

#include <QGuiApplication>
#include <QJsonArray>
#include <QLineEdit>
#include <QPushButton>
#include <QScreen>
#include <QTemporaryDir>
#include <QtTest>
#include <algorithm>
#include <cstdlib>
#include <memory>

namespace {

// One decoded picture of a stream, converted the way ffmpeg does by default: by the stream's
// colour tags.
QImage decodedFrame(const QString& file, int index) {
    QProcess ffmpeg;
    ffmpeg.start("ffmpeg",
                 {"-v", "error", "-i", file, "-vf", QString("select=eq(n\\,%1)").arg(index),
                  "-frames:v", "1", "-f", "rawvideo", "-pix_fmt", "rgb24", "-"});
    ffmpeg.waitForFinished(60000);
    const QByteArray pixels = ffmpeg.readAllStandardOutput();
    if (pixels.size() != 1920 * 1080 * 3)
        return {};
    return QImage(reinterpret_cast<const uchar*>(pixels.constData()), 1920, 1080, 1920 * 3,
                  QImage::Format_RGB888)
        .copy();
}

int colourError(QColor seen, QColor shown) {
    return std::max({std::abs(seen.red() - shown.red()), std::abs(seen.green() - shown.green()),
                     std::abs(seen.blue() - shown.blue())});
}

QJsonArray framesOf(const QString& file) {
    return TsReceiver::probe(file)["frames"].toArray();
}

} // namespace

class LivePathTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void picturesFollowTheFrameStretchedInTrueColours();
    void missedTicksLeaveAGapInTheTimeStamps();
    void sharedMemoryGrabAndToolkitFallbackAgree();

private:
    // Puts the frame's inside at `area` with the four-colour picture under it.
    void frameOver(QRect area);
    void goLive(TsReceiver& receiver);

    TestGlobalState state;
    CaptureStreamer streamer;
    std::unique_ptr<PatternWindow> pattern;
    QTemporaryDir folder;
};

void LivePathTest::frameOver(QRect area) {
    DrawingForm* frame = streamer.capture().drawingForm();
    frame->setGeometry(area.adjusted(-5, -5, 5, 5));
    emit frame->newSize();
    QCOMPARE(streamer.capture().captureRect.load(), area);
    pattern = std::make_unique<PatternWindow>(area);
    QVERIFY(QTest::qWaitForWindowExposed(pattern.get()));
}

void LivePathTest::goLive(TsReceiver& receiver) {
    const uint16_t port = freeLoopbackPort(true);
    QVERIFY(receiver.start(port));
    auto* hostPort = streamer.capture().drawingForm()->findChild<QLineEdit*>("leHostPort");
    hostPort->setText(QString("127.0.0.1:%1").arg(port));
    streamer.try_connect();
    QVERIFY(streamer.capture().liveButton()->isChecked());
}

void LivePathTest::picturesFollowTheFrameStretchedInTrueColours() {
    frameOver(QRect(60, 40, 640, 360));
    TsReceiver receiver(folder.filePath("resized.ts"));
    goLive(receiver);
    const QString file = receiver.outputPath();
    QTRY_VERIFY_WITH_TIMEOUT(framesOf(file).size() >= 30, 30000);
    // Resized while live: the stream keeps its size, the picture follows the new rectangle.
    frameOver(QRect(30, 30, 1000, 1000));
    const int resizedAt = framesOf(file).size();
    QTRY_VERIFY_WITH_TIMEOUT(framesOf(file).size() >= resizedAt + 40, 30000);
    streamer.stop();
    QVERIFY(receiver.finish());

    const QJsonObject probe = TsReceiver::probe(file);
    const QJsonObject video = probe["streams"].toArray().at(0).toObject();
    for (const char* tag : {"color_space", "color_transfer", "color_primaries"})
        QCOMPARE(video[tag].toString(), QString("bt709"));
    QCOMPARE(video["color_range"].toString(), QString("tv"));
    for (const QJsonValue& frame : probe["frames"].toArray())
        QCOMPARE(QSize(frame["width"].toInt(), frame["height"].toInt()), QSize(1920, 1080));
    for (const int index : {20, probe["frames"].toArray().size() - 5}) {
        const QImage picture = decodedFrame(file, index);
        QVERIFY(!picture.isNull());
        QVERIFY2(PatternWindow::worstQuadrantError(picture) < 8,
                 qPrintable(QString::number(PatternWindow::worstQuadrantError(picture))));
        // Stretched to the edges: the corners show the picture's corners.
        QVERIFY(colourError(picture.pixelColor(8, 8), PatternWindow::topLeft) < 12);
        QVERIFY(colourError(picture.pixelColor(1911, 1071), PatternWindow::bottomRight) < 12);
    }
}

void LivePathTest::missedTicksLeaveAGapInTheTimeStamps() {
    frameOver(QRect(60, 40, 640, 360));
    TsReceiver receiver(folder.filePath("gap.ts"));
    goLive(receiver);
    const QString file = receiver.outputPath();
    QTRY_VERIFY_WITH_TIMEOUT(framesOf(file).size() >= 10, 30000);
    // While the frame is dragged no tick writes a picture: a second of ticks is missed.
    streamer.capture().dragging = true;
    const int before = framesOf(file).size();
    QTest::qWait(1000);
    streamer.capture().dragging = false;
    QTRY_VERIFY_WITH_TIMEOUT(framesOf(file).size() >= before + 10, 30000);
    streamer.stop();
    QVERIFY(receiver.finish());

    double previous = -1;
    double widestGap = 0;
    for (const QJsonValue& frame : framesOf(file)) {
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
    LogCapture log;
    FrameGrabber grabber;
    const platform::GrabbedPicture* fallback = grabber.grab(QGuiApplication::primaryScreen(), area);
    qputenv("DISPLAY", display);
    server.kill();
    server.waitForFinished();
    QVERIFY(log.contains("Screen grab through the toolkit: The X server has no shared memory"));
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
