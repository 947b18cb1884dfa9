#include "outwriter.h"
#include "support/freeport.h"
#include "support/messagecapture.h"
#include "support/netrelay.h"
#include "support/patternwindow.h"
#include "support/soundserver.h"
#include "support/srtlistener.h"
#include "support/testglobalstate.h"

#include <QtTest>
#include <cmath>
#include <functional>
#include <optional>

namespace {

// Writes `count` frames of the four-colour picture, each row padded to `stride`, handed over
// at `fps` as the tick generator does; or, `moving`, of noise that changes everywhere in every
// frame, until `done` says so.
bool writeFrames(OUTWriter& writer, int count, int fps, QSize size, int stride, bool moving = false,
                 const std::function<bool()>& done = {}) {
    QByteArray frame(stride * size.height(), '\x55');
    QImage picture(reinterpret_cast<uchar*>(frame.data()), size.width(), size.height(), stride,
                   QImage::Format_RGB888);
    PatternWindow::paint(&picture);
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < count && !(done && done()); ++i) {
        if (moving)
            QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(frame.data()),
                                                  frame.size() / 4);
        QThread::msleep(qMax<qint64>(0, i * 1000 / fps - clock.elapsed()));
        if (!writer.writeFrame(reinterpret_cast<const uint8_t*>(frame.constData()), frame.size(),
                               size.width(), size.height(), stride))
            return false;
    }
    return true;
}

// The listener started on a free loopback port, and the writer's settings that point at it;
// no address when it does not start.
StreamParams listening(SrtListener& listener) {
    const uint16_t port = freeLoopbackPort(true);
    StreamParams params;
    if (listener.start(port))
        params.hostPort = "127.0.0.1:" + std::to_string(port);
    return params;
}

// How much of 48 kHz sound is one frequency (Goertzel): near 1 for a pure tone of it.
double toneShare(const QByteArray& pcm, int from, int to, double hz) {
    const auto* samples = reinterpret_cast<const int16_t*>(pcm.constData());
    const double k = 2 * std::cos(2 * M_PI * hz / 48000);
    double a = 0, b = 0, total = 1;
    for (int i = from; i < to; ++i) {
        const double c = samples[i] + k * a - b;
        b = a;
        a = c;
        total += double(samples[i]) * samples[i];
    }
    return 2 * (a * a + b * b - k * a * b) / ((to - from) * total);
}

} // namespace

class TestOutWriter : public QObject {
    Q_OBJECT

private slots:
    void streamsDecodableH264_data() {
        QTest::addColumn<int>("configuredFps"); // -1: no settings at all
        QTest::addColumn<int>("stride");
        QTest::addColumn<int>("fps"); // what the encoder takes
        QTest::newRow("no rate; padded rows") << 0 << 1216 << 25;
        QTest::newRow("10 fps") << 10 << 1200 << 10;
        QTest::newRow("no settings") << -1 << 1200 << 25;
        QTest::newRow("1000 fps") << 1000 << 1200 << 25;
    }

    // Each run first fails: a stream stopped before its first frame, then an encoder that
    // refuses the frame's odd width. The run after them must stream as if they never were.
    void streamsDecodableH264() {
        QFETCH(int, configuredFps);
        QFETCH(int, stride);
        QFETCH(int, fps);
        const QSize size(400, 224);
        std::optional<TestGlobalState> state;
        if (configuredFps >= 0) {
            state.emplace();
            state->streamConfig.codec = "libopenh264";
            state->streamConfig.fps = configuredFps;
        }
        MessageCapture capture;
        SrtListener listener;
        StreamParams params = listening(listener);
        QVERIFY(!params.hostPort.empty());
        params.videoBitrateKbps = 800;
        OUTWriter writer;
        QVERIFY(!writeFrames(writer, 1, fps, size, stride)); // not started
        // Stopped before any frame: nothing is sent, the connection goes away.
        QVERIFY(writer.start(params));
        QTRY_COMPARE(listener.connectionCount(), std::size_t(1));
        writer.stop();
        QTRY_VERIFY(listener.connections()[0].closed);
        QCOMPARE(listener.bytes(0).size(), 0);
        QVERIFY(writer.start(params));
        for (int attempt = 0; attempt < 2; ++attempt) {
            QVERIFY(!writeFrames(writer, 1, fps, QSize(321, 240), 321 * 3));
            QCOMPARE(writer.lastError(),
                     std::string("Failed to initialize video encoder or MPEG-TS output"));
        }
        QTRY_VERIFY(listener.connectionCount() == 2 && listener.connections()[1].closed);

        QVERIFY(writer.start(params) && writer.lastError().empty());
        QVERIFY2(writeFrames(writer, 2 * fps, fps, size, stride), writer.lastError().c_str());
        QVERIFY(writeFrames(writer, 1, fps, QSize(200, 100), 600)); // another size: skipped
        writer.stop();
        writer.stop();
        QTRY_VERIFY(listener.connectionCount() == 3 && listener.connections()[2].closed);
        // On the debug channel a line's items are separated by blanks.
        for (const char* line :
             {"OUTWriter requested encoder not found:  libopenh264 . Falling back to "
              "AV_CODEC_ID_H264",
              "OUTWriter requested encoder:  libopenh264 , selected encoder:  libx264  ( ",
              " ) , profile:  default", "OUTWriter selected pixel format:  yuv420p",
              "OUTWriter failed to open encoder: ",
              "OUTWriter got unexpected frame size:  200 x 100"})
            QVERIFY2(capture.contains(line), line);
        // A configured rate the encoder does not take is named in the log.
        QCOMPARE(capture.contains(QString("OUTWriter fps  %1  is not used").arg(configuredFps)),
                 configuredFps >= 0 && configuredFps != fps);

        const QJsonObject probe = listener.probe(listener.bytes(2));
        QCOMPARE(listener.video(2), QString("h264 400x224 %1/1").arg(fps));
        QCOMPARE(probe["streams"].toArray()[0].toObject()["has_b_frames"].toInt(), 0);
        // Frames arrive in order, time-stamped one frame period apart, with a key frame at least
        // once a second (the encoder may add one at a scene change, which restarts its count).
        const QJsonArray arrived = probe["frames"].toArray();
        // Closing an SRT live socket discards what it has not sent yet, and stop() closes it right
        // after the muxer's last flush, so the last few frames of a stream may not arrive.
        QVERIFY2(arrived.size() >= 2 * fps - 3, qPrintable(QString::number(arrived.size())));
        for (int i = 0, lastKey = 0; i < arrived.size(); ++i) {
            const QJsonObject frame = arrived[i].toObject();
            lastKey = frame["key_frame"].toInt() == 1 ? i : lastKey;
            QVERIFY2(i - lastKey < fps && frame["pict_type"].toString() != "B",
                     qPrintable(QString::number(i)));
            QCOMPARE(frame["pts"].toVariant().toLongLong() -
                         arrived[0].toObject()["pts"].toVariant().toLongLong(),
                     i * 90000 / fps);
        }
        // Every picture's PES states its length, so that a receiver hands it on at once instead
        // of waiting for the next picture to start.
        const QByteArray ts = listener.bytes(2);
        int pictures = 0, unsized = 0;
        for (int at = 0; at + 188 <= ts.size(); at += 188) {
            const int payload = at + 4 + (ts[at + 3] & 0x20 ? 1 + uchar(ts[at + 4]) : 0);
            if (!(ts[at + 1] & 0x40) || ts.mid(payload, 4) != QByteArray("\0\0\1\xe0", 4))
                continue;
            ++pictures;
            unsized += ts.mid(payload + 4, 2) == QByteArray(2, '\0');
        }
        QVERIFY(unsized == 0 && pictures >= arrived.size());
        // The picture as written, padding left out, in its colours.
        for (int i : {0, fps / 2, int(arrived.size()) - 1}) {
            const QImage decoded = listener.picture(2, i);
            QCOMPARE(decoded.size(), size);
            QVERIFY2(PatternWindow::worstError(decoded, 8) < 12, qPrintable(QString::number(i)));
        }
    }

    // The live path on a screen that mostly stands still: one picture, repeated for two and a
    // half seconds, then a turned one that changes on every third tick. Every tick becomes a
    // decoded picture one period after the one before, also a tick the worker never took (the
    // picture before it stands in), with a key frame every second counted in ticks; a repeat
    // costs a few bytes, shows what was held, decodes cleanly, and the change reaches the very
    // next picture.
    void repeatsAStillPicture() {
        SrtListener listener;
        StreamParams params = listening(listener);
        QVERIFY(!params.hostPort.empty());
        OUTWriter writer;
        QVERIFY(writer.start(params));
        QImage pictures[2] = {QImage(640, 360, QImage::Format_RGB32),
                              QImage(640, 360, QImage::Format_RGB32)};
        PatternWindow::paint(&pictures[0]);
        PatternWindow::paint(&pictures[1], true);
        constexpr int ticks = 150, turn = 62;
        for (int tick = 0; tick < ticks; ++tick) {
            // Ticks the worker was too busy for, each after an encoded picture: before a change,
            // and before a repeat.
            if (tick == turn - 1 || tick == turn + 7)
                continue;
            const QImage& shown = pictures[tick >= turn];
            const bool changed = tick == 0 || (tick >= turn && (tick - turn) % 3 == 0);
            QVERIFY(!changed || writer.writePicture(shown.constBits(), AV_PIX_FMT_BGR0, 640, 360,
                                                    shown.bytesPerLine(), tick * 40));
            QVERIFY(changed || writer.repeatPicture(tick * 40));
        }
        writer.stop();
        QTRY_VERIFY(listener.connectionCount() == 1 && listener.connections()[0].closed);

        const QJsonArray arrived = listener.probe(listener.bytes(0))["frames"].toArray();
        QVERIFY2(arrived.size() >= ticks - 3, qPrintable(QString::number(arrived.size())));
        QCOMPARE(listener.decodeErrors(0, 0, 3), QByteArray());
        int cheap = 0;
        for (int i = 0, lastKey = 0; i < arrived.size(); ++i) {
            const QJsonObject frame = arrived[i].toObject();
            QCOMPARE(frame["pts"].toVariant().toLongLong() -
                         arrived[0]["pts"].toVariant().toLongLong(),
                     i * 3600);
            // The encoder may add a key frame where the picture turns, which restarts the count.
            const bool key = frame["key_frame"].toInt() == 1;
            QVERIFY2(i >= turn ? key || i - lastKey < 25 : key == (i % 25 == 0),
                     qPrintable(QString::number(i)));
            lastKey = key ? i : lastKey;
            cheap += frame["pkt_size"].toString().toInt() < 64;
        }
        // Every other still tick, at least: a repeat follows each picture the encoder made.
        QVERIFY2(cheap >= (turn - 3) / 2, qPrintable(QString::number(cheap)));
        for (const int index : {turn - 2, turn, turn + 1, ticks - 4})
            QVERIFY2(PatternWindow::worstError(
                         listener.picture(0, index).mirrored(index >= turn, index >= turn), 16) <
                         12,
                     qPrintable(QString::number(index)));
    }

    void carriesSound_data() {
        QTest::addColumn<bool>("there");
        QTest::addColumn<QString>("loss");
        QTest::newRow("goes while live") << true << "brindle.monitor went away";
        QTest::newRow("missing at the start") << false << "No sound source output";
    }

    // What the machine plays reaches the server as a second track; a source that is missing or
    // goes away while live costs one log line and no picture, and its sound comes when it does.
    void carriesSound() {
        QFETCH(bool, there);
        QFETCH(QString, loss);
        SoundServer sound;
        QVERIFY(sound.start() && (there ? sound.play(1000) : sound.removeSink()));
        TestGlobalState state;
        state.streamConfig.audio = "output";
        MessageCapture capture;
        SrtListener listener;
        StreamParams params = listening(listener);
        QVERIFY(!params.hostPort.empty());
        OUTWriter writer;
        QVERIFY(writer.start(params));
        const QSize size(320, 240);
        const auto told = [&capture](const char* line, int times) {
            return
                [&capture, line, times] { return capture.messages().filter(line).size() == times; };
        };
        // Sound PES that arrived, counted from their headers.
        const auto sounds = [&listener](int count) {
            return [&listener, count] {
                return listener.bytes(0).count(QByteArray("\0\0\1\xc0", 4)) >= count;
            };
        };
        const char* recording = "AudioTrack recording from  brindle.monitor";
        QVERIFY(!there || writeFrames(writer, 750, 25, size, 960, false, sounds(50)));
        QVERIFY(!there || sound.removeSink());
        const QByteArray lossLine = loss.toUtf8();
        QVERIFY(writeFrames(writer, 750, 25, size, 960, false, told(lossLine.constData(), 1)));
        const int before = listener.bytes(0).count(QByteArray("\0\0\1\xc0", 4));
        QVERIFY(sound.addSink() && sound.play(1000));
        QVERIFY(writeFrames(writer, 750, 25, size, 960, false, told(recording, there ? 2 : 1)));
        QVERIFY(writeFrames(writer, 750, 25, size, 960, false, sounds(before + 100)));
        writer.stop();
        QTRY_VERIFY(listener.connectionCount() == 1 && listener.connections()[0].closed);
        QCOMPARE(capture.messages().filter("AudioTrack").size(), there ? 3 : 2);

        const QJsonObject probe = listener.probe(listener.bytes(0));
        const QJsonObject track = probe["streams"].toArray()[1].toObject();
        QCOMPARE(track["codec_name"].toString() + track["profile"].toString() +
                     track["sample_rate"].toString(),
                 QString("aacLC48000"));
        // Every picture arrives, one period after the one before.
        int64_t last = -1;
        for (const QJsonValue frame : probe["frames"].toArray()) {
            if (frame["media_type"] != "video")
                continue;
            const int64_t pts = frame["pts"].toVariant().toLongLong();
            QVERIFY2(last < 0 || pts - last == 3600, qPrintable(QString::number(pts)));
            last = pts;
        }
        // The tone, before the source went and after it came back.
        const QByteArray pcm = listener.sound(0);
        const int samples = pcm.size() / 2;
        QVERIFY(samples > 48000);
        QVERIFY(!there || toneShare(pcm, 4800, 28800, 1000) > 0.5);
        QVERIFY(toneShare(pcm, samples - 28800, samples - 4800, 1000) > 0.5);
    }

    // A picture that changes everywhere in every frame, through an uplink of 2 Mbit/s that
    // loses packets: the statistics line tells of a target at the link's edge (which it probes,
    // a little above it at times), far below the ceiling of 5000, and a viewer's receiver (its
    // latency ten round trips, so that a loaded test machine does not decide) decodes every
    // picture intact.
    void fitsASlowLink() {
        MessageCapture capture;
        SrtListener listener;
        NetRelay relay;
        const uint16_t port = freeLoopbackPort(true);
        listener.setLatency(400);
        QVERIFY(listener.start(port) && relay.start(port, {2000, 20, 0.5, {}}));
        StreamParams params;
        params.hostPort = "127.0.0.1:" + std::to_string(relay.port());
        params.latency = 400;
        const QRegularExpression target("SRT link: .* target=\\s+(\\d+)\\s+kbit/s");
        const auto stated = [&] { return capture.messages().filter(target).value(0); };
        OUTWriter writer;
        QVERIFY(writer.start(params));
        QVERIFY(writeFrames(writer, 30 * 25, 25, QSize(400, 224), 1200, true,
                            [&] { return !stated().isEmpty(); }));
        writer.stop();
        const int kbps = target.match(stated()).captured(1).toInt();
        QVERIFY2(kbps > 0 && kbps < 2200, qPrintable(stated()));
        QTRY_VERIFY_WITH_TIMEOUT(
            listener.connectionCount() == 1 && listener.connections()[0].closed, 20000);
        // From the third second on: the first ones probe the link; the last one the close cuts off.
        QCOMPARE(listener.decodeErrors(0, 2 * 25, 25), QByteArray());
    }
};

QTEST_GUILESS_MAIN(TestOutWriter)
#include "tst_outwriter.moc"
