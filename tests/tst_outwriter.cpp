#include "outwriter.h"
#include "support/freeport.h"
#include "support/messagecapture.h"
#include "support/srtlistener.h"
#include "support/testglobalstate.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QtTest>
#include <optional>

namespace {

// Writes `count` smooth pictures that change from frame to frame (so encoder losses stay small
// and a mixed-up order would show), each row padded to `stride`, handed over at `fps` as the
// tick generator does. Keeps them in `written` when given.
bool writeFrames(OUTWriter& writer, int count, int fps, QSize size, int stride,
                 QList<QByteArray>* written = nullptr) {
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < count; ++i) {
        QThread::msleep(qMax<qint64>(0, i * 1000 / fps - clock.elapsed()));
        QByteArray frame(stride * size.height(), '\x55');
        for (int at = 0; at < frame.size(); ++at)
            frame[at] = char(at % stride % 3 == 2 ? i * 5 % 200 + 20
                             : at % stride % 3    ? at / stride * 255 / size.height()
                                                  : at % stride / 3 * 255 / size.width());
        if (written)
            written->append(frame);
        if (!writer.writeFrame(reinterpret_cast<const uint8_t*>(frame.constData()), frame.size(),
                               size.width(), size.height(), stride))
            return false;
    }
    return true;
}

StreamParams paramsFor(const QString& hostPort, uint16_t port, const QString& streamId = "") {
    StreamParams params;
    params.hostPort = hostPort.arg(port).toStdString();
    params.streamId = streamId.toStdString();
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
    QTest::addColumn<QString>("hostPort"); // %1: the listener's port
    QTest::addColumn<QString>("streamId");
    QTest::addColumn<int>("configuredFps"); // -1: no settings at all
    QTest::addColumn<int>("fps");
    QTest::addColumn<int>("stride");
    QTest::newRow("25 fps") << "127.0.0.1:%1"
                            << "#!::r=room/7,m=publish" << 25 << 25 << 1200;
    QTest::newRow("no rate: 25 fps; padded rows; host name") << "localhost:%1"
                                                             << "" << 0 << 25 << 1216;
    QTest::newRow("10 fps; unbracketed IPv6, last colon splits") << "::1:%1"
                                                                 << "" << 10 << 10 << 1200;
    QTest::newRow("no settings; blank and plus sign before the port") << "127.0.0.1: +%1"
                                                                      << "" << -1 << 25 << 1200;
}

void TestOutWriter::streamsDecodableH264() {
    QFETCH(QString, hostPort);
    QFETCH(QString, streamId);
    QFETCH(int, configuredFps);
    QFETCH(int, fps);
    QFETCH(int, stride);
    const QSize size(400, 224);
    std::optional<TestGlobalState> state;
    if (configuredFps >= 0) {
        state.emplace();
        state->streamConfig.codec = "libopenh264";
        state->streamConfig.fps = configuredFps;
    }
    MessageCapture capture(true);
    SrtListener listener;
    const uint16_t port = freeLoopbackPort(true);
    QVERIFY(listener.start(port, hostPort.startsWith("::")));
    OUTWriter writer;
    QVERIFY(!writeFrames(writer, 1, fps, size, stride)); // not started
    QVERIFY2(writer.start(paramsFor(hostPort, port, streamId)), writer.lastError().c_str());
    QList<QByteArray> written;
    QVERIFY2(writeFrames(writer, 2 * fps, fps, size, stride, &written), writer.lastError().c_str());
    QVERIFY(writeFrames(writer, 1, fps, QSize(200, 100), 600)); // another size: skipped, no error
    writer.stop();
    writer.stop();
    QTRY_VERIFY(listener.connectionCount() == 1 && listener.connections()[0].closed);
    // Exact bytes: a terminating zero sent along would show up as one more character.
    QCOMPARE(QString::fromStdString(listener.connections()[0].streamId), streamId);

    for (const char* line :
         {"OUTWriter requested encoder not found: libopenh264. Falling back to AV_CODEC_ID_H264",
          "OUTWriter requested encoder: libopenh264, selected encoder: libx264 (",
          "), profile: default", "OUTWriter selected pixel format: yuv420p",
          "OUTWriter got unexpected frame size: 200x100"})
        QVERIFY2(capture.log().find(line) != std::string::npos, line);

    const QJsonObject probe = listener.probe(0);
    QCOMPARE(listener.video(0), QString("h264 400x224 %1/1").arg(fps));
    QCOMPARE(probe["streams"].toArray()[0].toObject()["has_b_frames"].toInt(), 0);
    // Frames arrive in order, time-stamped one frame period apart, with a key frame at least
    // once a second (the encoder may add one at a scene change, which restarts its count).
    const QJsonArray arrived = probe["frames"].toArray();
    QVERIFY2(arrived.size() >= 2 * fps - framesLostAtStop,
             qPrintable(QString::number(arrived.size())));
    for (int i = 0, lastKey = 0; i < arrived.size(); ++i) {
        const QJsonObject frame = arrived[i].toObject();
        lastKey = frame["key_frame"].toInt() == 1 ? i : lastKey;
        QVERIFY2(i - lastKey < fps && frame["pict_type"].toString() != "B",
                 qPrintable(QString::number(i)));
        QCOMPARE(frame["pts"].toVariant().toLongLong() -
                     arrived[0].toObject()["pts"].toVariant().toLongLong(),
                 i * 90000 / fps);
    }
    // Mean difference per byte between written and decoded pictures.
    for (int i : {0, fps / 2, int(arrived.size()) - 1}) {
        const QImage decoded = listener.picture(0, i);
        QCOMPARE(decoded.size(), size);
        double sum = 0;
        for (int y = 0; y < size.height(); ++y)
            for (int x = 0; x < size.width() * 3; ++x)
                sum += std::abs(uint8_t(written[i][y * stride + x]) - decoded.constScanLine(y)[x]);
        QVERIFY2(sum / (size.width() * size.height() * 3) < 4.0, qPrintable(QString::number(i)));
    }
}

void TestOutWriter::failedSetUpEndsTheStream_data() {
    QTest::addColumn<QString>("codec");
    QTest::addColumn<int>("width");
    QTest::addColumn<QString>("logged");
    // libx264rgb takes only RGB formats, never the planar YUV the writer feeds it.
    QTest::newRow("pixel format not offered") << "libx264rgb" << 320
                                              << "OUTWriter selected encoder does not report pixel "
                                                 "format support: libx264rgb pix_fmt=yuv420p";
    QTest::newRow("odd width refused by the encoder")
        << "libx264" << 321 << "OUTWriter failed to open encoder: ";
}

void TestOutWriter::failedSetUpEndsTheStream() {
    QFETCH(QString, codec);
    QFETCH(int, width);
    QFETCH(QString, logged);
    TestGlobalState state;
    state.streamConfig.codec = codec;
    MessageCapture capture(true);
    SrtListener listener;
    const uint16_t port = freeLoopbackPort(true);
    QVERIFY(listener.start(port));
    OUTWriter writer;
    // Stopped before any frame: nothing is sent, the connection goes away.
    QVERIFY(writer.start(paramsFor("127.0.0.1:%1", port)));
    QTRY_COMPARE(listener.connectionCount(), std::size_t(1));
    writer.stop();
    QTRY_VERIFY(listener.connections()[0].closed);
    QCOMPARE(listener.bytes(0).size(), 0);

    QVERIFY(writer.start(paramsFor("127.0.0.1:%1", port)));
    for (int attempt = 0; attempt < 2; ++attempt) {
        QVERIFY(!writeFrames(writer, 1, 25, QSize(width, 240), width * 3));
        QCOMPARE(writer.lastError(),
                 std::string("Failed to initialize video encoder or MPEG-TS output"));
    }
    QVERIFY2(capture.log().find(logged.toStdString()) != std::string::npos, capture.log().c_str());
    QTRY_VERIFY(listener.connectionCount() == 2 && listener.connections()[1].closed);
    writer.stop();

    // A restart with a workable set-up streams again, at its own frame size.
    state.streamConfig.codec = "libx264";
    QVERIFY(writer.start(paramsFor("127.0.0.1:%1", port)) && writer.lastError().empty());
    QVERIFY(writeFrames(writer, 10, 25, QSize(96, 64), 96 * 3));
    writer.stop();
    QTRY_VERIFY(listener.connectionCount() == 3 && listener.connections()[2].closed);
    QCOMPARE(listener.video(2), QString("h264 96x64 25/1"));
}

QTEST_GUILESS_MAIN(TestOutWriter)
#include "tst_outwriter.moc"
