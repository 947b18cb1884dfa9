#include "ratecontroller.h"

#include <QtTest>

namespace {

// A stretch of identical readings, four a second: round trip, packets lost and dropped in
// each, and how much of the target the encoder uses.
struct Stretch {
    int readings;
    double rttMs;
    int lost;
    int dropped;
    double used;
};

} // namespace

Q_DECLARE_METATYPE(QVector<Stretch>)

class TestRateController : public QObject {
    Q_OBJECT

private slots:
    void followsTheLink_data() {
        QTest::addColumn<int>("audioKbps");
        QTest::addColumn<QVector<Stretch>>("readings");
        QTest::addColumn<int>("least");
        QTest::addColumn<int>("most");
        // The ceiling is 5000 kbit/s; a stream starts at 1500 and climbs by about a quarter in
        // its first second, so that one step down lands near three quarters of that.
        QTest::newRow("start") << 0 << QVector<Stretch>{} << 1500 << 1500;
        QTest::newRow("climbs to the ceiling in 10 s")
            << 0 << QVector<Stretch>{{40, 40, 0, 0, 1}} << 5000 << 5000;
        QTest::newRow("no climb on a still picture")
            << 0 << QVector<Stretch>{{40, 40, 0, 0, 0.1}} << 1500 << 1500;
        QTest::newRow("1 % random loss is no reason to fall")
            << 0 << QVector<Stretch>{{40, 40, 1, 0, 1}} << 5000 << 5000;
        QTest::newRow("queue building: one step down")
            << 0 << QVector<Stretch>{{4, 40, 0, 0, 1}, {1, 120, 0, 0, 1}} << 1350 << 1450;
        QTest::newRow("steps down no faster than the link can show")
            << 0 << QVector<Stretch>{{4, 40, 0, 0, 1}, {2, 120, 0, 0, 1}} << 1350 << 1450;
        QTest::newRow("packets dropped")
            << 0 << QVector<Stretch>{{4, 40, 0, 0, 1}, {1, 40, 0, 3, 1}} << 1350 << 1450;
        QTest::newRow("a link that stays full: the floor")
            << 0 << QVector<Stretch>{{4, 40, 0, 0, 1}, {40, 200, 0, 0, 1}} << 300 << 300;
        QTest::newRow("sound's share comes off the video")
            << 128 << QVector<Stretch>{{40, 40, 0, 0, 1}} << 5000 << 5000;
        QTest::newRow("sound's share at the floor")
            << 128 << QVector<Stretch>{{4, 40, 0, 0, 1}, {40, 200, 0, 0, 1}} << 300 << 300;
        QTest::newRow("after a fall, a calm link climbs back")
            << 0 << QVector<Stretch>{{4, 40, 0, 0, 1}, {1, 40, 0, 3, 1}, {48, 40, 0, 0, 1}} << 5000
            << 5000;
        QTest::newRow("a longer route is learnt, not taken for a queue")
            << 0 << QVector<Stretch>{{4, 40, 0, 0, 1}, {1, 120, 0, 0, 1}, {80, 80, 0, 0, 1}} << 5000
            << 5000;
    }

    void followsTheLink() {
        QFETCH(int, audioKbps);
        QFETCH(QVector<Stretch>, readings);
        QFETCH(int, least);
        QFETCH(int, most);
        RateController controller(5000, audioKbps);
        RateController::Sample sample;
        sample.nowMs = 1000;
        for (const Stretch& stretch : readings) {
            for (int i = 0; i < stretch.readings; ++i) {
                sample.nowMs += 250;
                sample.rttMs = stretch.rttMs;
                sample.sent = 50;
                sample.lost = stretch.lost;
                sample.dropped = stretch.dropped;
                sample.bufferedMs = static_cast<int32_t>(stretch.rttMs) + 10;
                sample.fedKbps = static_cast<int32_t>(controller.linkKbps() * stretch.used);
                controller.update(sample);
            }
        }
        QVERIFY2(controller.videoKbps() >= least && controller.videoKbps() <= most,
                 qPrintable(QString::number(controller.videoKbps())));
    }
};

QTEST_APPLESS_MAIN(TestRateController)
#include "tst_ratecontroller.moc"
