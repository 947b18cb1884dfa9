#include "outwriter.h"
#include "support/freeport.h"
#include "support/messagecapture.h"
#include "support/srtlistener.h"
#include "support/testglobalstate.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QtTest>
#include <cstdlib>
#include <optional>

namespace {

// A smooth picture that changes from frame to frame, so encoder losses stay small and a
// mixed-up frame order would show. `stride` may pad each row.
QByteArray rgbFrame(int width, int height, int index, int stride) {
    QByteArray frame(stride * height, '\x55');
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            char* pixel = frame.data() + y * stride + x * 3;
            pixel[0] = static_cast<char>(x * 255 / width);
            pixel[1] = static_cast<char>(y * 255 / height);
            pixel[2] = static_cast<char>((index * 5) % 200 + 20);
        }
    return frame;
}

bool write(OUTWriter& writer, const QByteArray& frame, int width, int height, int stride) {
    return writer.writeFrame(reinterpret_cast<const uint8_t*>(frame.constData()), frame.size(),
                             width, height, stride);
}

// Writes `count` frames handed over at `fps`, as the tick generator does; keeps them in
// `written` when given.
bool writeFrames(OUTWriter& writer, int count, int fps, int width, int height, int stride,
                 QList<QByteArray>* written = nullptr) {
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < count; ++i) {
        QThread::msleep(qMax<qint64>(0, i * 1000 / fps - clock.elapsed()));
        const QByteArray frame = rgbFrame(width, height, i, stride);
        if (written)
            written->append(frame);
        if (!write(writer, frame, width, height, stride))
            return false;
    }
    return true;
}

// Mean absolute difference per byte between a written frame and a decoded one.
double difference(const QByteArray& written, int stride, const QImage& decoded) {
    double sum = 0;
    for (int y = 0; y < decoded.height(); ++y)
        for (int x = 0; x < decoded.width() * 3; ++x)
            sum += std::abs(static_cast<uint8_t>(written[y * stride + x]) -
                            decoded.constScanLine(y)[x]);
    return sum / (decoded.width() * decoded.height() * 3);
}

StreamParams paramsFor(uint16_t port) {
    StreamParams params;
    params.hostPort = "127.0.0.1:" + std::to_string(port);
    params.videoBitrateKbps = 800;
    return params;
}

// Closing an SRT live socket discards what it has not sent yet, and stop() closes it right
// after the muxer's last flush, so the last frames of a stream may not arrive.
constexpr int framesLostAtStop = 3;

} // namespace

class TestOutWriter : public QObject {
    Q_OBJECT

private slots:
    void streamsDecodableH264_data();
    void streamsDecodableH264();
    void failedSetUpEndsTheStream_data();
    void failedSetUpEndsTheStream();
};

void TestOutWriter::streamsDecodableH264_data() {
    QTest::addColumn<bool>("settings");
    QTest::addColumn<int>("configuredFps");
    QTest::addColumn<int>("fps");
    QTest::addColumn<int>("stride");
    QTest::newRow("configured 25 fps") << true << 25 << 25 << 400 * 3;
    QTest::newRow("no rate falls back to 25, padded rows") << true << 0 << 25 << 400 * 3 + 16;
    QTest::newRow("configured 10 fps") << true << 10 << 10 << 400 * 3;
    QTest::newRow("no settings at all") << false << 0 << 25 << 400 * 3;
}

void TestOutWriter::streamsDecodableH264() {
    QFETCH(bool, settings);
    QFETCH(int, configuredFps);
    QFETCH(int, fps);
    QFETCH(int, stride);
    const int width = 400;
    const int height = 224;
    const int frames = 2 * fps;
    std::optional<TestGlobalState> state;
    if (settings) {
        state.emplace();
        state->streamConfig.codec = "libopenh264";
        state->streamConfig.fps = configuredFps;
    }
    MessageCapture capture;
    SrtListener listener;
    const uint16_t port = freeLoopbackPort(true);
    QVERIFY(listener.start(port));

    OUTWriter writer;
    QVERIFY(!write(writer, rgbFrame(width, height, 0, stride), width, height, stride));
    QVERIFY2(writer.start(paramsFor(port)), writer.lastError().c_str());
    QList<QByteArray> written;
    QVERIFY2(writeFrames(writer, frames, fps, width, height, stride, &written),
             writer.lastError().c_str());
    // Another size is skipped, not an error.
    QVERIFY(write(writer, rgbFrame(200, 100, 0, 600), 200, 100, 600));
    writer.stop();
    writer.stop();
    QTRY_VERIFY(listener.connectionCount() == 1 && listener.connections()[0].closed);

    const std::string log = capture.log();
    for (const char* line :
         {"OUTWriter start. hostPort=127.0.0.1:",
          ", streamId=, videoBitrateKbps=800, "
          "audioBitrateKbps=128, latency=10",
          "OUTWriter requested encoder not found: libopenh264. Falling back to AV_CODEC_ID_H264",
          "OUTWriter requested encoder: libopenh264, selected encoder: libx264 (",
          "), profile: default", "OUTWriter selected pixel format: yuv420p",
          "OUTWriter got unexpected frame size: 200x100", "OUTWriter stop. frames="})
        QVERIFY2(log.find(line) != std::string::npos, line);

    const QJsonObject probe = listener.probe(0);
    const QJsonObject video = probe["streams"].toArray()[0].toObject();
    QCOMPARE(probe["streams"].toArray().size(), 1);
    QCOMPARE(video["codec_name"].toString(), QString("h264"));
    QCOMPARE(video["width"].toInt(), width);
    QCOMPARE(video["height"].toInt(), height);
    QCOMPARE(video["r_frame_rate"].toString(), QString("%1/1").arg(fps));
    QCOMPARE(video["has_b_frames"].toInt(), 0);

    // Frames arrive in order, time-stamped one frame period apart, with a key frame at least
    // once a second (the encoder may add one at a scene change, which restarts its count).
    const QJsonArray arrived = probe["frames"].toArray();
    QVERIFY2(arrived.size() >= frames - framesLostAtStop && arrived.size() <= frames,
             qPrintable(QString::number(arrived.size())));
    const qint64 firstPts = arrived[0].toObject()["pts"].toVariant().toLongLong();
    int lastKey = 0;
    for (int i = 0; i < arrived.size(); ++i) {
        const QJsonObject frame = arrived[i].toObject();
        lastKey = frame["key_frame"].toInt() == 1 ? i : lastKey;
        QVERIFY2(i - lastKey < fps, qPrintable(QString("no key frame before %1").arg(i)));
        QVERIFY(frame["pict_type"].toString() != "B");
        QCOMPARE(frame["pts"].toVariant().toLongLong() - firstPts, i * 90000 / fps);
    }
    for (int i : {0, fps / 2, int(arrived.size()) - 1}) {
        const QImage decoded = listener.picture(0, i);
        QCOMPARE(decoded.size(), QSize(width, height));
        const double off = difference(written[i], stride, decoded);
        QVERIFY2(off < 4.0, qPrintable(QString("frame %1 differs by %2").arg(i).arg(off)));
    }
}

void TestOutWriter::failedSetUpEndsTheStream_data() {
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

void TestOutWriter::failedSetUpEndsTheStream() {
    QFETCH(QString, codec);
    QFETCH(int, width);
    QFETCH(QString, logged);
    TestGlobalState state;
    state.streamConfig.codec = codec;
    MessageCapture capture;
    SrtListener listener;
    const uint16_t port = freeLoopbackPort(true);
    QVERIFY(listener.start(port));

    // Stopped before any frame: nothing is sent, the connection goes away.
    OUTWriter writer;
    QVERIFY(writer.start(paramsFor(port)));
    writer.stop();
    QTRY_VERIFY(listener.connectionCount() == 1 && listener.connections()[0].closed);
    QCOMPARE(listener.bytes(0).size(), 0);

    QVERIFY(writer.start(paramsFor(port)));
    QVERIFY(!write(writer, rgbFrame(width, 240, 0, width * 3), width, 240, width * 3));
    QCOMPARE(writer.lastError(),
             std::string("Failed to initialize video encoder or MPEG-TS output"));
    QVERIFY2(capture.log().find(logged.toStdString()) != std::string::npos, capture.log().c_str());
    QTRY_VERIFY(listener.connectionCount() == 2 && listener.connections()[1].closed);
    QVERIFY(!write(writer, rgbFrame(width, 240, 1, width * 3), width, 240, width * 3));
    writer.stop();

    // A restart with a workable set-up streams again, at its own frame size.
    state.streamConfig.codec = "libx264";
    QVERIFY(writer.start(paramsFor(port)));
    QCOMPARE(writer.lastError(), std::string());
    QVERIFY(writeFrames(writer, 10, 25, 96, 64, 96 * 3));
    writer.stop();
    QTRY_VERIFY(listener.connectionCount() == 3 && listener.connections()[2].closed);
    QCOMPARE(listener.probe(2)["streams"].toArray()[0].toObject()["width"].toInt(), 96);
}

QTEST_GUILESS_MAIN(TestOutWriter)
#include "tst_outwriter.moc"
