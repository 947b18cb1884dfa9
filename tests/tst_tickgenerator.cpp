#include "support/messagecapture.h"
#include "tick_generator.h"

#include <QtTest>
#include <thread>

namespace {

// One live run as the capture streamer makes it: a fresh state, the worker started before the
// generator. The handler stops the run from inside the first tick, and when `hold` is set keeps
// that tick until the generator has left its loop. The period only has to outlast a tick.
struct TickRun final : ITickHandler {
    explicit TickRun(bool hold)
        : hold(hold), worker([this] {
              tickWorkerThread(state, this);
              workerDone = true;
          }),
          generator([this] {
              tickGeneratorThread(&flags, state, 300);
              generatorDone = true;
          }) {}

    void onTick(int64_t) override {
        if (ticks++ == 0)
            flags.stopFlag = true;
        while (hold && flags.stopFlag && !state->stopRequested)
            std::this_thread::yield();
    }

    const bool hold;
    TickFlags flags;
    const bool running = flags.runningFlag = true; // before the threads start
    TickState* state = new TickState;
    std::atomic<int> ticks{0};
    std::atomic<bool> workerDone{false};
    std::atomic<bool> generatorDone{false};
    std::thread worker;
    std::thread generator;
};

} // namespace

class TestTickGenerator : public QObject {
    Q_OBJECT

private slots:
    void stopEndsTheRunAndFreesItsState_data() {
        QTest::addColumn<bool>("hold");
        // The generator sees the stop while the tick still runs: the worker ends right after it.
        QTest::newRow("stop seen during the tick") << true;
        // The generator sleeps through the tick and sees the stop only when it wakes, a period
        // later: by then the worker waits for a tick that never comes, and the generator keeps the
        // state alive for it.
        QTest::newRow("stop seen after the tick") << false;
    }

    void stopEndsTheRunAndFreesItsState() {
        QFETCH(bool, hold);
        MessageCapture capture;
        // A run whose threads are still stuck when the test fails is left to the process.
        auto* run = new TickRun(hold);
        // The generator has left its loop: no tick comes any more. The state may be gone as soon as
        // the worker has ended, so it is only looked at while the worker lingers.
        QTRY_VERIFY(!run->flags.runningFlag && (hold || run->state->stopRequested));
        QCOMPARE(run->ticks.load(), 1);
        if (!hold) {
            QVERIFY(!run->workerDone && !run->generatorDone && !capture.contains("before unlock"));
            // A tick raised by hand lets the leftover worker finish; raised under the mutex, so
            // that the state is not touched after the worker may have ended.
            std::lock_guard<std::mutex> lock(run->state->mutex);
            run->state->tickPending = true;
            run->state->tickRaised.notify_one();
        }
        // The generator frees the state once the worker has ended.
        QTRY_VERIFY(run->workerDone && run->generatorDone);
        QCOMPARE(run->ticks.load(), hold ? 1 : 2);
        // The worker's last lines, in their order.
        const QStringList said = capture.messages();
        const int before = said.indexOf(QRegularExpression("before unlock .*"));
        QVERIFY(before >= 0 && said.indexOf(QRegularExpression("end unlock\nWorker::thread end .*"),
                                            before) > before);
        run->worker.join();
        run->generator.join();
        delete run;
    }
};

QTEST_GUILESS_MAIN(TestTickGenerator)
#include "tst_tickgenerator.moc"
