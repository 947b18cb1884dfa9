// What a refusing server costs both sides, and what a long session leaves behind. The whole
// program streams to a libsrt listener on 127.0.0.1 that refuses every handshake (as a server
// does whose passphrase changed, or that still holds the stream id's earlier sender) for the
// given time: handshakes per second it receives, the program's thread count through the
// refusal, and the log lines the refusal wrote. Then the listener accepts: how long until the
// stream arrives again. Then a hundred live cycles: threads after the first and the last.
//
// Usage: bench_refusal [seconds of refusal]   (default 60; needs DISPLAY)

#include "frame/drawingform.h"
#include "frame/wcapture.h"
#include "mainwindow.h"
#include "support/freeport.h"
#include "support/measurement.h"
#include "support/srtlistener.h"

#include <QApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTimer>
#include <srt/access_control.h>

extern "C" {
#include <libavutil/log.h>
}

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>

namespace {

int threadCount() {
    return QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot).size();
}

// Every log line also reaches the debug channel: the lines of each kind the refusal wrote.
int reconnectingLines = 0;
int failedLines = 0;

void countLines(QtMsgType, const QMessageLogContext&, const QString& message) {
    reconnectingLines += message.contains("SrtConnection reconnecting to");
    failedLines += message.contains("SrtConnection reconnect to");
}

} // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 60;
    QTemporaryDir home;
    qputenv("XDG_CONFIG_HOME", home.filePath("config").toUtf8());
    qputenv("BRINDLEWAVE_DATA_DIR", home.filePath("data").toUtf8());
    qputenv("BRINDLEWAVE_UPDATE_URL", "");
    qInstallMessageHandler(countLines);
    av_log_set_level(AV_LOG_QUIET);
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

    SrtListener listener;
    if (!listener.start(port))
        return 1;
    frame->findChild<QPushButton*>("pbStart")->click();
    runUntil([&] { return listener.connectionCount() == 1; }, 10000);
    runUntil([] { return false; }, 2000);
    const int threadsLive = threadCount();

    // Every connection breaks; every later handshake is refused.
    listener.setRefusal(SRT_REJX_CONFLICT);
    listener.stop();
    if (!listener.start(port))
        return 1;
    const int handshakesBefore = listener.handshakes();
    int fewest = threadCount();
    int most = fewest;
    QTimer sample;
    QObject::connect(&sample, &QTimer::timeout, [&] {
        fewest = std::min(fewest, threadCount());
        most = std::max(most, threadCount());
    });
    sample.start(250);
    runUntil([] { return false; }, seconds * 1000);
    sample.stop();
    const int handshakes = listener.handshakes() - handshakesBefore;

    listener.setRefusal(0);
    const std::size_t connections = listener.connectionCount();
    const qint64 back = runUntil([&] { return listener.connectionCount() > connections; }, 20000);
    const bool resumed = listener.connectionCount() > connections;

    capture->liveButton()->click();
    runUntil([] { return false; }, 1000);
    int afterOne = 0;
    for (int cycle = 0; cycle < 100; ++cycle) {
        const std::size_t before = listener.connectionCount();
        frame->findChild<QPushButton*>("pbStart")->click();
        runUntil([&] { return listener.connectionCount() > before; }, 10000);
        capture->liveButton()->click();
        if (cycle == 0) {
            runUntil([] { return false; }, 2000);
            afterOne = threadCount();
        }
    }
    // Closed connections are let go of by the library in the background.
    const qint64 settled = runUntil([&] { return threadCount() <= afterOne; }, 30000);

    std::printf("refusal of %d s: %d handshakes (%.2f a second); threads %d while live, %d to %d "
                "through the refusal; log lines: %d reconnecting, %d failed\n",
                seconds, handshakes, handshakes / double(seconds), threadsLive, fewest, most,
                reconnectingLines, failedLines);
    if (resumed)
        std::printf("refusal over: stream received again after %lld ms\n",
                    static_cast<long long>(back));
    else
        std::printf("refusal over: stream NOT received within 20 s\n");
    std::printf("live cycles: threads %d after one, %d after 100 (%lld ms after the last stop)\n",
                afterOne, threadCount(), static_cast<long long>(settled));
    std::fflush(stdout);
    return resumed ? 0 : 1;
}
