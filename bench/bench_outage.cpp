// How long the interface thread is held while the server is gone. The whole program streams to
// srt-live-transmit on 127.0.0.1; the server is killed with SIGKILL (no goodbye), stays away
// for the given time and comes back on the same port. A 5 ms heartbeat on the interface thread
// records its longest gap while the stream runs through the outage, and its longest wait not
// spent queuing for a processor; then the time until the returned server receives the stream
// again; then how long switching live off takes while a reconnect attempt is under way.
//
// Usage: bench_outage [seconds away]   (default 60; needs DISPLAY and srt-live-transmit)

#include "frame/drawingform.h"
#include "frame/wcapture.h"
#include "mainwindow.h"
#include "support/freeport.h"
#include "support/measurement.h"

#include <QApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QLineEdit>
#include <QProcess>
#include <QPushButton>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

namespace {

// Nanoseconds the calling thread has run on a processor and waited for one (Linux scheduler
// counters).
struct SchedStat {
    long long ran = 0;
    long long waited = 0;
};

SchedStat schedStat() {
    SchedStat stat;
    if (FILE* stats = std::fopen("/proc/thread-self/schedstat", "r")) {
        if (std::fscanf(stats, "%lld %lld", &stat.ran, &stat.waited) != 2)
            stat = {};
        std::fclose(stats);
    }
    return stat;
}

// The interface thread's longest gap between two beats since the last reset, and its longest
// wait not spent queuing for a processor: on a loaded machine the first includes time the
// scheduler gave to other threads, the second is what the thread itself was held by. That hold
// is split into time on a processor (work of its own, or a processor the hypervisor took away)
// and time off it, blocked (a lock or a call that waits).
class Heartbeat {
public:
    Heartbeat() {
        QObject::connect(&timer, &QTimer::timeout, [this] {
            const qint64 gap = clock.restart();
            const SchedStat now = schedStat();
            const qint64 held = gap - (now.waited - last.waited) / 1000000;
            const qint64 ran = (now.ran - last.ran) / 1000000;
            last = now;
            if (gap > longest) {
                longest = gap;
                longestAt = since.elapsed();
            }
            if (held > longestHeld) {
                longestHeld = held;
                longestHeldRan = ran;
            }
        });
        clock.start();
        since.start();
        timer.start(5);
    }
    void reset() {
        clock.restart();
        since.restart();
        last = schedStat();
        longest = longestHeld = longestHeldRan = 0;
    }
    qint64 longestMs() const { return longest; }
    // When the longest gap ended, in milliseconds since the last reset.
    qint64 longestAtMs() const { return longestAt; }
    // The longest hold, and how much of it the thread spent on a processor.
    std::string held() const {
        return std::to_string(longestHeld) + " ms (" + std::to_string(longestHeldRan) +
               " on a processor, " + std::to_string(longestHeld - longestHeldRan) + " blocked)";
    }

private:
    QTimer timer;
    QElapsedTimer clock;
    QElapsedTimer since;
    SchedStat last = schedStat();
    qint64 longest = 0;
    qint64 longestAt = 0;
    qint64 longestHeld = 0;
    qint64 longestHeldRan = 0;
};

// srt-live-transmit listening on the port, writing what arrives into a file.
std::unique_ptr<QProcess> startServer(uint16_t port, const QString& file) {
    auto server = std::make_unique<QProcess>();
    server->setStandardOutputFile(file);
    server->setStandardErrorFile(QProcess::nullDevice());
    server->start(
        "srt-live-transmit",
        {"-a:no", "-q", QString("srt://127.0.0.1:%1?mode=listener").arg(port), "file://con"});
    server->waitForStarted();
    QThread::msleep(300);
    return server;
}

void kill(std::unique_ptr<QProcess>& server) {
    server->kill();
    server->waitForFinished();
    server.reset();
}

bool received(const QString& file) {
    return QFileInfo(file).size() > 0;
}

} // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 60;
    // The program's settings, logs and update check stay inside this run.
    QTemporaryDir home;
    qputenv("XDG_CONFIG_HOME", home.filePath("config").toUtf8());
    qputenv("BRINDLEWAVE_DATA_DIR", home.filePath("data").toUtf8());
    qputenv("BRINDLEWAVE_UPDATE_URL", "");
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    QApplication application(argc, argv);

    MainWindow window;
    WCapture* capture = nullptr;
    for (QWidget* widget : QApplication::topLevelWidgets())
        if (auto* found = qobject_cast<WCapture*>(widget))
            capture = found;
    DrawingForm* frame = capture->drawingForm();
    const uint16_t port = freeLoopbackPort(true);
    frame->findChild<QLineEdit*>("leHostPort")->setText(QString("127.0.0.1:%1").arg(port));
    frame->findChild<QLineEdit*>("leStreamId")->setText("bench");
    runUntil([] { return false; }, 500);

    const QString first = home.filePath("first.ts");
    auto server = startServer(port, first);
    frame->findChild<QPushButton*>("pbStart")->click();
    runUntil([&] { return received(first); }, 10000);
    if (!capture->liveButton()->isChecked() || !received(first)) {
        std::fprintf(stderr, "the stream did not start\n");
        return 1;
    }
    runUntil([] { return false; }, 2000);

    Heartbeat heartbeat;
    kill(server);
    // The first beats also carry the bench's own handling of the killed process.
    runUntil([] { return false; }, 200);
    heartbeat.reset();
    runUntil([] { return false; }, seconds * 1000 - 200);
    const qint64 outageWait = heartbeat.longestMs();
    const qint64 outageWaitAt = heartbeat.longestAtMs();
    const std::string outageHeld = heartbeat.held();

    const QString second = home.filePath("second.ts");
    server = startServer(port, second);
    const qint64 back = runUntil([&] { return received(second); }, 30000) + 300;
    const bool resumed = received(second) && capture->liveButton()->isChecked();

    // Away again until libsrt has noticed (5 s) and an attempt has run for a while.
    kill(server);
    runUntil([] { return false; }, 6500);
    heartbeat.reset();
    QElapsedTimer click;
    click.start();
    capture->liveButton()->click();
    const qint64 offMs = click.elapsed();
    runUntil([] { return false; }, 100);

    std::printf("outage of %d s, stream live throughout: longest interface-thread gap %lld ms "
                "(ending %.1f s into the outage); longest wait not queuing for a CPU %s\n",
                seconds, static_cast<long long>(outageWait), outageWaitAt / 1000.0,
                outageHeld.c_str());
    if (resumed)
        std::printf("server back: stream received again %lld ms after the server started\n",
                    static_cast<long long>(back));
    else
        std::printf("server back: stream NOT received within 30 s\n");
    std::printf("live off during a reconnect attempt: click %lld ms, longest gap %lld ms, "
                "longest wait not queuing for a CPU %s\n",
                static_cast<long long>(offMs), static_cast<long long>(heartbeat.longestMs()),
                heartbeat.held().c_str());
    std::fflush(stdout);
    // The tick threads of the stopped run may linger; end without waiting for them.
    std::_Exit(resumed ? 0 : 1);
}
