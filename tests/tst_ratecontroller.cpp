#include "ratecontroller.h"

#include <QtTest>

class TestRateController : public QObject {
    Q_OBJECT

private slots:
    void followsTheLink_data() {
        QTest::addColumn<int>("audioKbps");
        // Stretches of identical readings, four a second, of 50 packets each: "COUNTxRTT", then
        // "lN" N of them lost, "dN" N dropped, "s" a still picture (a tenth of the target fed),
        // "bN" libsrt's estimate of the link N Mbit/s.
        QTest::addColumn<QString>("readings");
        QTest::addColumn<int>("least");
        QTest::addColumn<int>("most");
        QTest::addColumn<int>("burst");
        // The ceiling is 5000 kbit/s; a stream starts at 1500 and climbs by about a quarter in
        // its first second, so that one step down lands near three quarters of that.
        QTest::newRow("climbs to the ceiling in 10 s") << 0 << "40x40" << 5000 << 5000 << 0;
        QTest::newRow("no climb on a still picture") << 0 << "40x40s" << 1500 << 1500 << 0;
        QTest::newRow("random loss is no reason to fall") << 0 << "40x40l1" << 5000 << 5000 << 0;
        QTest::newRow("a queue: one step down, no more for a while")
            << 0 << "4x40 2x120" << 1350 << 1450 << 0;
        QTest::newRow("packets dropped") << 0 << "4x40 1x40d3" << 1350 << 1450 << 0;
        QTest::newRow("a queue past 100 ms: half at once") << 0 << "4x40 1x200" << 900 << 970 << 0;
        QTest::newRow("a link that stays full: the floor") << 0 << "4x40 8x200" << 300 << 300 << 0;
        QTest::newRow("sound's share comes off the video") << 128 << "40x40" << 5000 << 5000 << 0;
        QTest::newRow("after a fall, a calm link climbs back")
            << 0 << "4x40 1x40d3 48x40" << 5000 << 5000 << 0;
        QTest::newRow("near where it fell, the climb creeps")
            << 0 << "4x40 2x120 20x40" << 1900 << 1990 << 0;
        QTest::newRow("well past it, the link is probed as at the start")
            << 0 << "4x40 2x120 32x40" << 4100 << 4500 << 0;
        QTest::newRow("a longer route is learnt") << 0 << "4x40 1x120 140x80" << 5000 << 5000 << 0;
        QTest::newRow("an ample link: the ceiling at once, bursts at six ceilings")
            << 0 << "5x40b400 2x40b31" << 5000 << 5000 << 30000;
        QTest::newRow("a wide estimate for less than a second: not yet")
            << 0 << "4x40b400" << 1500 << 2500 << 0;
        QTest::newRow("an estimate short of eight ceilings: no bursts")
            << 0 << "40x40b39" << 5000 << 5000 << 0;
        QTest::newRow("bursts end where the estimate falls below them")
            << 0 << "5x40b400 1x40b29" << 5000 << 5000 << 0;
        QTest::newRow("a link that pushed back once: no bursts")
            << 0 << "4x40 1x40d3 48x40b400" << 5000 << 5000 << 0;
    }

    void followsTheLink() {
        QFETCH(int, audioKbps);
        QFETCH(QString, readings);
        QFETCH(int, least);
        QFETCH(int, most);
        QFETCH(int, burst);
        RateController controller(5000, audioKbps);
        RateController::Sample sample;
        sample.nowMs = 1000;
        sample.sent = 50;
        const QRegularExpression format("(\\d+)x(\\d+)(?:l(\\d+))?(?:d(\\d+))?(s?)(?:b(\\d+))?");
        for (const QString& stretch : readings.split(' ', Qt::SkipEmptyParts)) {
            const QRegularExpressionMatch m = format.match(stretch);
            for (int i = 0; i < m.captured(1).toInt(); ++i) {
                sample.nowMs += 250;
                sample.rttMs = m.captured(2).toInt();
                sample.lost = m.captured(3).toInt();
                sample.dropped = m.captured(4).toInt();
                sample.bufferedMs = static_cast<int32_t>(sample.rttMs) + 10;
                sample.fedKbps = controller.linkKbps() / (m.captured(5).isEmpty() ? 1 : 10);
                sample.estimateKbps = m.captured(6).toInt() * 1000;
                controller.update(sample);
            }
        }
        QVERIFY2(controller.videoKbps() >= least && controller.videoKbps() <= most,
                 qPrintable(QString::number(controller.videoKbps())));
        QCOMPARE(controller.burstKbps(), burst);
    }
};

QTEST_APPLESS_MAIN(TestRateController)
#include "tst_ratecontroller.moc"
