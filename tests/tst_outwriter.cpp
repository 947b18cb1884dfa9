#include "outwriter.h"
#include "support/freeport.h"
#include "support/logcapture.h"
#include "support/srtlistener.h"
#include "support/testglobalstate.h"
#include "support/tsreceiver.h"

#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QTemporaryDir>
#include <QtTest>
#include <cstdlib>

namespace {

const char* const initFailure = "Failed to initialize video encoder or MPEG-TS output";

// A smooth picture that changes from frame to frame, so encoder losses stay small and a
// mixed-up frame order would show.
QByteArray rgbFrame(int width, int height, int index, int bytesPerLine = 0) {
    if (bytesPerLine == 0)
        bytesPerLine = width * 3;
    QByteArray frame(bytesPerLine * height, '\x55');
    for (int y = 0; y < height; ++y) {
        uint8_t* row = reinterpret_cast<uint8_t*>(frame.data()) + y * bytesPerLine;
        for (int x = 0; x < width; ++x) {
            row[x * 3] = static_cast<uint8_t>(x * 255 / width);
            row[x * 3 + 1] = static_cast<uint8_t>(y * 255 / height);
            row[x * 3 + 2] = static_cast<uint8_t>((index * 5) % 200 + 20);
        }
    }
    return frame;
}

bool writeRgb(OUTWriter& writer, const QByteArray& frame, int width, int height,
              int bytesPerLine = 0) {
    return writer.writeFrame(reinterpret_cast<const uint8_t*>(frame.constData()), frame.size(),
                             width, height, bytesPerLine ? bytesPerLine : width * 3);
}

// Mean absolute difference per byte between a written packed frame and a decoded one.
double meanDifference(const QByteArray& written, int bytesPerLine, const QByteArray& decoded,
                      int width, int height) {
    double sum = 0;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width * 3; ++x)
            sum += std::abs(static_cast<uint8_t>(written[y * bytesPerLine + x]) -
                            static_cast<uint8_t>(decoded[(y * width) * 3 + x]));
    return sum / (width * height * 3);
}

// Hands frames over at the capture rate, as the tick generator does.
class Pacer {
public:
    explicit Pacer(int fps) : periodMs(1000 / fps) { clock.start(); }
    void waitForFrame(int index) {
        const qint64 remaining = qint64(index) * periodMs - clock.elapsed();
        if (remaining > 0)
            QThread::msleep(static_cast<unsigned long>(remaining));
    }

private:
    int periodMs;
    QElapsedTimer clock;
};

// Closing an SRT live socket discards what it has not sent yet, and stop() closes it right
// after the muxer's last flush, so the last frames of a stream may not arrive.
constexpr int framesLostAtStop = 3;

StreamParams paramsFor(uint16_t port) {
    StreamParams params;
    params.hostPort = "127.0.0.1:" + std::to_string(port);
    params.videoBitrateKbps = 800;
    return params;
}

} // namespace

class TestOutWriter : public QObject {
    Q_OBJECT

private slots:
    void init();
    void refusesWhatItCannotWrite();
    void reportsStartFailures();
    void streamsDecodableH264_data();
    void streamsDecodableH264();
    void usesDefaultsWithoutGlobalState();
    void endsStreamWhenEncoderCannotBeSetUp_data();
    void endsStreamWhenEncoderCannotBeSetUp();
    void stopsCleanlyInEveryState();
    void keepsStreamingAcrossServerLoss();

private:
    QTemporaryDir folder;
};

void TestOutWriter::init() {
    QVERIFY(folder.isValid());
}

void TestOutWriter::refusesWhatItCannotWrite() {
    const QByteArray frame = rgbFrame(64, 48, 0);
    OUTWriter writer;
    QVERIFY(!writeRgb(writer, frame, 64, 48)); // not started

    const uint16_t port = freeLoopbackPort(true);
    SrtListener listener;
    QVERIFY(listener.start(port));
    QVERIFY(writer.start(paramsFor(port)));
    const auto* data = reinterpret_cast<const uint8_t*>(frame.constData());
    QVERIFY(!writer.writeFrame(nullptr, frame.size(), 64, 48, 192));
    QVERIFY(!writer.writeFrame(data, frame.size(), 0, 48, 192));
    QVERIFY(!writer.writeFrame(data, frame.size(), 64, -1, 192));
    QVERIFY(!writer.writeFrame(data, frame.size(), 64, 48, 0));
    QCOMPARE(writer.lastError(), std::string());

    // Refused frames leave the stream intact: the next good one starts it.
    QVERIFY(writeRgb(writer, frame, 64, 48));
    QTRY_VERIFY(listener.bytes(0).size() > 0);
    writer.stop();
}

void TestOutWriter::reportsStartFailures() {
    LogCapture log;
    OUTWriter writer;
    StreamParams params;
    params.hostPort = "127.0.0.1:0";
    params.streamId = "live/7";
    QVERIFY(!writer.start(params));
    QCOMPARE(writer.lastError(), std::string("SRT port is invalid"));
    QVERIFY(log.contains("OUTWriter start. hostPort=127.0.0.1:0, streamId=live/7, "
                         "videoBitrateKbps=5000, audioBitrateKbps=128, latency=10"));
    QVERIFY(log.contains("OUTWriter failed to connect SRT: SRT port is invalid"));
    QVERIFY(!writeRgb(writer, rgbFrame(16, 16, 0), 16, 16));
    QCOMPARE(writer.lastError(), std::string("SRT port is invalid"));

    QVERIFY(!writer.start(paramsFor(freeLoopbackPort(true))));
    QVERIFY2(writer.lastError().rfind("SRT connect failed: ", 0) == 0, writer.lastError().c_str());
}

void TestOutWriter::streamsDecodableH264_data() {
    QTest::addColumn<int>("configuredFps");
    QTest::addColumn<int>("fps");
    QTest::addColumn<int>("bytesPerLine");
    QTest::newRow("configured 25 fps") << 25 << 25 << 0;
    QTest::newRow("no rate falls back to 25, padded rows") << 0 << 25 << 400 * 3 + 16;
    QTest::newRow("configured 10 fps") << 10 << 10 << 0;
}

void TestOutWriter::streamsDecodableH264() {
    QFETCH(int, configuredFps);
    QFETCH(int, fps);
    QFETCH(int, bytesPerLine);
    const int width = 400;
    const int height = 224;
    const int frames = 2 * fps;
    const int stride = bytesPerLine ? bytesPerLine : width * 3;

    TestGlobalState state;
    state.streamConfig.codec = "libopenh264";
    state.streamConfig.fps = configuredFps;
    LogCapture log;
    const uint16_t port = freeLoopbackPort(true);
    TsReceiver receiver(QDir(folder.path()).filePath(QString("stream%1.ts").arg(configuredFps)));
    QVERIFY(receiver.start(port));

    OUTWriter writer;
    QVERIFY2(writer.start(paramsFor(port)), writer.lastError().c_str());
    QList<QByteArray> written;
    Pacer pacer(fps);
    for (int i = 0; i < frames; ++i) {
        pacer.waitForFrame(i);
        written.append(rgbFrame(width, height, i, stride));
        QVERIFY2(writeRgb(writer, written.last(), width, height, stride),
                 writer.lastError().c_str());
        if (i == 3) // another size is skipped, not an error
            QVERIFY(writeRgb(writer, rgbFrame(200, 100, i), 200, 100));
    }
    writer.stop();
    QVERIFY(receiver.finish());

    QVERIFY(log.contains("OUTWriter requested encoder not found: libopenh264. Falling back to "
                         "AV_CODEC_ID_H264"));
    QVERIFY(log.contains("OUTWriter requested encoder: libopenh264, selected encoder: libx264 ("));
    QVERIFY(log.contains("), profile: default"));
    QVERIFY(log.contains("OUTWriter selected pixel format: yuv420p"));
    QVERIFY(log.contains("OUTWriter got unexpected frame size: 200x100"));

    const QJsonObject probe = TsReceiver::probe(receiver.outputPath());
    const QJsonArray streams = probe["streams"].toArray();
    QCOMPARE(streams.size(), 1);
    const QJsonObject video = streams[0].toObject();
    QCOMPARE(video["codec_name"].toString(), QString("h264"));
    QCOMPARE(video["width"].toInt(), width);
    QCOMPARE(video["height"].toInt(), height);
    QCOMPARE(video["r_frame_rate"].toString(), QString("%1/1").arg(fps));
    QCOMPARE(video["has_b_frames"].toInt(), 0);

    // Frames arrive in order, time-stamped one frame period apart, with a key frame at least
    // once a second (the encoder may add one at a scene change, which restarts its count).
    const QJsonArray frameList = probe["frames"].toArray();
    const int arrived = frameList.size();
    QVERIFY2(arrived >= frames - framesLostAtStop && arrived <= frames,
             qPrintable(QString::number(arrived)));
    const qint64 step = 90000 / fps;
    const qint64 firstPts = frameList[0].toObject()["pts"].toVariant().toLongLong();
    int lastKey = 0;
    QCOMPARE(frameList[0].toObject()["key_frame"].toInt(), 1);
    for (int i = 0; i < arrived; ++i) {
        const QJsonObject entry = frameList[i].toObject();
        if (entry["key_frame"].toInt() == 1)
            lastKey = i;
        QVERIFY2(i - lastKey < fps, qPrintable(QString("no key frame before %1").arg(i)));
        QVERIFY(entry["pict_type"].toString() != "B");
        QCOMPARE(entry["pts"].toVariant().toLongLong() - firstPts, i * step);
    }

    const QByteArray decoded = TsReceiver::decodeRgb(receiver.outputPath());
    const int frameBytes = width * height * 3;
    QCOMPARE(decoded.size(), arrived * frameBytes);
    for (int i : {0, fps / 2, arrived - 1}) {
        const double difference = meanDifference(
            written[i], stride, decoded.mid(i * frameBytes, frameBytes), width, height);
        QVERIFY2(difference < 4.0,
                 qPrintable(QString("frame %1 differs by %2").arg(i).arg(difference)));
    }
}

void TestOutWriter::usesDefaultsWithoutGlobalState() {
    QVERIFY(!globalState);
    LogCapture log;
    const uint16_t port = freeLoopbackPort(true);
    SrtListener listener;
    QVERIFY(listener.start(port));
    OUTWriter writer;
    StreamParams params = paramsFor(port);
    params.videoBitrateKbps = 0;
    QVERIFY(writer.start(params));
    Pacer pacer(25);
    for (int i = 0; i < 30; ++i) {
        pacer.waitForFrame(i);
        QVERIFY(writeRgb(writer, rgbFrame(160, 96, i), 160, 96));
    }
    writer.stop();
    QVERIFY(log.contains("OUTWriter requested encoder not found: libopenh264. Falling back"));
    QVERIFY(log.contains("selected encoder: libx264 ("));

    const QString file = QDir(folder.path()).filePath("defaults.ts");
    QTRY_VERIFY(listener.connectionCount() == 1 && listener.connections()[0].closed);
    QVERIFY(TsReceiver::writeFile(file, listener.bytes(0)));
    const QJsonObject probe = TsReceiver::probe(file);
    QCOMPARE(probe["streams"].toArray()[0].toObject()["r_frame_rate"].toString(), QString("25/1"));
    QVERIFY(probe["frames"].toArray().size() >= 30 - framesLostAtStop);
}

void TestOutWriter::endsStreamWhenEncoderCannotBeSetUp_data() {
    QTest::addColumn<QString>("codec");
    QTest::addColumn<int>("width");
    QTest::addColumn<QString>("logged");
    // libx264rgb takes only RGB formats, never the planar YUV the writer feeds it.
    QTest::newRow("pixel format not offered")
        << "libx264rgb" << 320
        << "OUTWriter selected encoder does not report pixel format support: libx264rgb "
           "pix_fmt=yuv420p";
    // VAAPI takes only hardware surfaces, so it is refused on every machine, with or without a GPU.
    QTest::newRow("hardware surfaces only")
        << "h264_vaapi" << 320
        << "OUTWriter selected encoder does not report pixel format support: h264_vaapi "
           "pix_fmt=yuv420p";
    QTest::newRow("odd width refused by the encoder")
        << "libx264" << 321 << "OUTWriter failed to open encoder: ";
}

void TestOutWriter::endsStreamWhenEncoderCannotBeSetUp() {
    QFETCH(QString, codec);
    QFETCH(int, width);
    QFETCH(QString, logged);
    TestGlobalState state;
    state.streamConfig.codec = codec;
    LogCapture log;
    const uint16_t port = freeLoopbackPort(true);
    SrtListener listener;
    QVERIFY(listener.start(port));

    OUTWriter writer;
    QVERIFY(writer.start(paramsFor(port)));
    QVERIFY(!writeRgb(writer, rgbFrame(width, 240, 0), width, 240));
    QCOMPARE(writer.lastError(), std::string(initFailure));
    QVERIFY2(log.contains(logged.toStdString()), log.text().c_str());
    QTRY_VERIFY(listener.connectionCount() == 1 && listener.connections()[0].closed);
    QVERIFY(!writeRgb(writer, rgbFrame(width, 240, 1), width, 240));
    writer.stop();
    QCOMPARE(writer.lastError(), std::string(initFailure));

    // A restart with a workable set-up streams again.
    state.streamConfig.codec = "libx264";
    QVERIFY(writer.start(paramsFor(port)));
    QCOMPARE(writer.lastError(), std::string());
    QVERIFY(writeRgb(writer, rgbFrame(320, 240, 0), 320, 240));
    writer.stop();
    QTRY_VERIFY(listener.connectionCount() == 2 && listener.bytes(1).size() > 0);
}

void TestOutWriter::stopsCleanlyInEveryState() {
    OUTWriter writer;
    writer.stop();
    const uint16_t port = freeLoopbackPort(true);
    SrtListener listener;
    QVERIFY(listener.start(port));

    // Stopped before any frame: no trailer, nothing but the connection going away.
    QVERIFY(writer.start(paramsFor(port)));
    writer.stop();
    writer.stop();
    QTRY_VERIFY(listener.connectionCount() == 1 && listener.connections()[0].closed);
    QCOMPARE(listener.bytes(0).size(), 0);
    QVERIFY(!writeRgb(writer, rgbFrame(32, 32, 0), 32, 32));

    // A restart may take another frame size.
    QVERIFY(writer.start(paramsFor(port)));
    Pacer pacer(25);
    for (int i = 0; i < 25; ++i) {
        pacer.waitForFrame(i);
        QVERIFY(writeRgb(writer, rgbFrame(96, 64, i), 96, 64));
    }
    writer.stop();
    writer.stop();
    QTRY_VERIFY(listener.connectionCount() == 2 && listener.connections()[1].closed);
    const QString file = QDir(folder.path()).filePath("restart.ts");
    QVERIFY(TsReceiver::writeFile(file, listener.bytes(1)));
    const QJsonObject probe = TsReceiver::probe(file);
    QCOMPARE(probe["streams"].toArray()[0].toObject()["width"].toInt(), 96);
    QVERIFY(probe["frames"].toArray().size() >= 25 - framesLostAtStop);
}

void TestOutWriter::keepsStreamingAcrossServerLoss() {
    const int width = 320;
    const int height = 192;
    const uint16_t port = freeLoopbackPort(true);
    SrtListener listener;
    QVERIFY(listener.start(port));
    OUTWriter writer;
    QVERIFY(writer.start(paramsFor(port)));
    int index = 0;
    for (; index < 10; ++index)
        QVERIFY(writeRgb(writer, rgbFrame(width, height, index), width, height));
    QTRY_VERIFY(listener.bytes(0).size() > 0);

    // Every chunk while the server is away is dropped (each send tries one reconnect).
    listener.stop();
    for (const int end = index + 3; index < end; ++index)
        QVERIFY(writeRgb(writer, rgbFrame(width, height, index), width, height));
    QCOMPARE(writer.lastError(), std::string());

    QVERIFY(listener.start(port));
    QList<QByteArray> tail;
    Pacer pacer(25);
    for (int i = 0; i < 40; ++i, ++index) {
        pacer.waitForFrame(i);
        tail.append(rgbFrame(width, height, index));
        if (tail.size() > framesLostAtStop + 1)
            tail.removeFirst();
        QVERIFY(writeRgb(writer, tail.last(), width, height));
    }
    writer.stop();
    QTRY_VERIFY(listener.connectionCount() == 2 && listener.connections()[1].closed);

    // The stream picks up again at its next key frame and decodes to the end.
    const QString file = QDir(folder.path()).filePath("resumed.ts");
    QVERIFY(TsReceiver::writeFile(file, listener.bytes(1)));
    const QByteArray decoded = TsReceiver::decodeRgb(file);
    const int frameBytes = width * height * 3;
    QVERIFY2(decoded.size() >= 20 * frameBytes, qPrintable(QString::number(decoded.size())));
    double closest = 255;
    for (const QByteArray& frame : tail)
        closest = std::min(
            closest, meanDifference(frame, width * 3, decoded.right(frameBytes), width, height));
    QVERIFY2(closest < 4.0, qPrintable(QString::number(closest)));
}

QTEST_GUILESS_MAIN(TestOutWriter)
#include "tst_outwriter.moc"
