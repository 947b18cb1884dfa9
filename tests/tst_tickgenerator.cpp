#include "support/messagecapture.h"
#include "tick_generator.h"

#include <QtTest>
#include <thread>

namespace {

// One live run as the capture streamer makes it: a fresh state, the worker started before the
// generator. The handler stops the run from inside tick `stopAt`, and when `hold` is set keeps
// that tick until the generator has left its loop.
struct TickRun final : ITickHandler {
    TickRun(int periodMs, int stopAt, bool hold) : stopAt(stopAt), hold(hold) {
        flags.runningFlag = true;
        worker = std::thread([this] {
            tickWorkerThread(state, this);
            workerDone = true;
        });
        generator = std::thread([this, periodMs] {
            tickGeneratorThread(&flags, state, periodMs);
            generatorDone = true;
        });
    }

    void onTick() override {
        if (ticks++ != stopAt)
            return;
        flags.stopFlag = true;
        while (hold && !state->stopRequested)
            std::this_thread::yield();
    }

    const int stopAt;
    const bool hold;
    TickFlags flags;
    TickState* state = new TickState;
    std::atomic<int> ticks{0};
    std::atomic<bool> workerDone{false};
    std::atomic<bool> generatorDone{false};
    std::thread worker;
    std::thread generator;
};

const char* const lastLines[] = {"before unlock", "end unlock\nWorker::thread end"};

} // namespace

class TestTickGenerator : public QObject {
    Q_OBJECT

private slots:
    void stopEndsTheRunAndFreesItsState_data();
    void stopEndsTheRunAndFreesItsState();
};

void TestTickGenerator::stopEndsTheRunAndFreesItsState_data() {
    QTest::addColumn<int>("periodMs");
    QTest::addColumn<int>("stopAt");
    QTest::addColumn<bool>("hold");
    QTest::addColumn<bool>("workerLingers");
    // The generator sees the stop while the tick still runs: the worker ends right after it.
    QTest::newRow("stop seen during the tick") << 200 << 2 << true << false;
    // The generator sleeps through the tick and sees the stop only when it wakes, a period
    // later: by then the worker waits for a tick that never comes, and the generator keeps the
    // state alive for it.
    QTest::newRow("stop seen after the tick") << 300 << 0 << false << true;
}

void TestTickGenerator::stopEndsTheRunAndFreesItsState() {
    QFETCH(int, periodMs);
    QFETCH(int, stopAt);
    QFETCH(bool, hold);
    QFETCH(bool, workerLingers);
    MessageCapture capture;
    // A run whose threads are still stuck when the test fails is left to the process.
    auto* run = new TickRun(periodMs, stopAt, hold);
    QTRY_VERIFY(!run->flags.runningFlag && run->state->stopRequested);
    // The generator beats no more once it has left its loop.
    QCOMPARE(run->ticks.load(), stopAt + 1);
    if (workerLingers) {
        QVERIFY(!run->workerDone && !run->generatorDone);
        QVERIFY(!capture.contains(lastLines[0]));
        // A tick raised by hand lets the leftover worker finish; notifying under the mutex
        // means the state is not touched after the worker may have ended.
        std::lock_guard<std::mutex> lock(run->state->mutex);
        run->state->tickPending = true;
        run->state->tickRaised.notify_one();
    }
    // The generator frees the state once the worker has ended.
    QTRY_VERIFY(run->workerDone && run->generatorDone);
    QCOMPARE(run->ticks.load(), stopAt + 1 + (workerLingers ? 1 : 0));
    QCOMPARE(capture.messages().filter(lastLines[0]).size(), 1);
    QCOMPARE(capture.messages().filter("Worker::thread end").size(), 1);
    run->worker.join();
    run->generator.join();
    delete run;
}

QTEST_GUILESS_MAIN(TestTickGenerator)
#include "tst_tickgenerator.moc"
