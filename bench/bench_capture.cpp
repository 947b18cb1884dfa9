// The whole live path on a live X display, from outside: for each sender a listener on
// 127.0.0.1 (bench_receiver) counts the frames that arrive while a second process keeps the
// screen under the frame moving, and /proc gives the sender's CPU time and memory. The
// senders are the program's capture streamer in this process, the real executable switched
// live by a click, and the FFmpeg command-line tool doing the same job on the same rectangle
// (x11grab, scaled to 1920x1080, yuv420p, libx264 veryfast/zerolatency at 5 Mbit/s, GOP 25,
// no B-frames, MPEG-TS over SRT). Each sender then runs again with a clock drawn under the
// frame, which the listener decodes and reads back from every picture: glass-to-glass latency.
//
// Usage: bench_capture [seconds]   (default 60 per run; needs DISPLAY, xdotool and ffmpeg)
// BENCH_SRT_LATENCY_MS sets the listener's SRT latency (default 120, libsrt's own default).

#include "capturestreamer.h"
#include "frame/drawingform.h"
#include "support/childprocess.h"
#include "support/measurement.h"
#include "support/movingscene.h"
#include "support/screenclock.h"
#include "support/senders.h"

#include <QApplication>
#include <QDeadlineTimer>
#include <QProcess>
#include <QPushButton>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

struct Row {
    const char* name;
    Measurement throughput;
    Measurement latency;
};

Row measure(Sender& sender, QRect area, int seconds, int latencyMs) {
    std::fprintf(stderr, "measuring %s...\n", sender.name());
    Row row{sender.name(), measureSender(sender, seconds, latencyMs, false), {}};
    const ChildProcess clock({"--clock", QString::number(area.x()), QString::number(area.y()),
                              QString::number(area.width()), QString::number(area.height())},
                             700);
    row.latency = measureSender(sender, seconds, latencyMs, true);
    return row;
}

void printThroughput(const Row& row) {
    const Measurement& m = row.throughput;
    if (!m.ok) {
        std::printf("%-32s failed: %s\n", row.name, m.error.c_str());
        return;
    }
    std::printf("%-32s %8.2f %7d %7d %9.2f %8.1f %6.1f/%.1f/%.1f %10.3f\n", row.name,
                m.framesPerSecond(), m.frames, m.missed, m.cpuMsPerFrame, m.peakMb, m.residentMb[0],
                m.residentMb[1], m.residentMb[2], m.clockPerWall);
}

void printLatency(const Row& row) {
    const Measurement& m = row.latency;
    if (!m.ok || m.latency.empty()) {
        std::printf("%-32s failed: %s\n", row.name,
                    m.ok ? "no clock could be read" : m.error.c_str());
        return;
    }
    std::printf("%-32s %9.1f %8.1f %5zu/%-5d %8.2f %9.2f\n", row.name, percentile(m.latency, 0.5),
                percentile(m.latency, 0.95), m.latency.size(), m.frames, m.framesPerSecond(),
                m.cpuMsPerFrame);
}

// "a (executable b)": one of ours against ffmpeg's, for the in-process path and the program.
void printRatio(const char* what, double ours, double program, double theirs) {
    if (theirs <= 0)
        return;
    std::printf("  %-22s %6.2f (executable %.2f)\n", what, ours / theirs, program / theirs);
}

int childMain(int argc, char** argv) {
    QApplication application(argc, argv);
    std::unique_ptr<QWidget> window;
    if (QByteArray(argv[1]) == "--scene") {
        window = std::make_unique<MovingScene>();
        window->setGeometry(QRect(0, 0, 1920, 1080));
    } else if (argc >= 6) {
        window = std::make_unique<ScreenClock>(
            QRect(std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4]), std::atoi(argv[5])));
    } else {
        return 2;
    }
    window->show();
    return application.exec();
}

void run(int seconds, int latencyMs) {
    const ChildProcess scene({"--scene"}, 700);

    // Never destroyed, as in the program: a lingering worker thread may still hold it.
    auto* streamer = new CaptureStreamer;
    WCapture& capture = streamer->capture();
    capture.show();
    turnEventLoop(1000);
    const QRect area = streamer->captureSource().area().device;
    const QPoint liveButton =
        capture.liveButton()->mapToGlobal(capture.liveButton()->rect().center());
    const QPoint columnInPlace = capture.pos();

    std::printf("bench_capture: %d s per run after 3 s of warm-up; area %dx%d at %d,%d "
                "stretched to 1920x1080, 25 frames/s, libx264 veryfast/zerolatency 5 Mbit/s "
                "GOP 25, MPEG-TS over SRT to 127.0.0.1, listener latency %d ms\n",
                seconds, area.width(), area.height(), area.x(), area.y(), latencyMs);
    std::fflush(stdout);

    InProcessSender ours(*streamer);
    const Row inProcess = measure(ours, area, seconds, latencyMs);
    capture.hide();
    turnEventLoop(1000);
    ExecutableSender executable(QCoreApplication::applicationDirPath() + "/../client/brindlewave",
                                liveButton, columnInPlace);
    const Row program = measure(executable, area, seconds, latencyMs);
    FfmpegSender ffmpeg(area);
    const Row theirs = measure(ffmpeg, area, seconds, latencyMs);

    std::printf("\nthroughput (frames counted by the listener; CPU and memory of the sending "
                "process)\n%-32s %8s %7s %7s %9s %8s %16s %10s\n",
                "", "frames/s", "frames", "missed", "CPU ms/fr", "peak MB", "RSS MB s/m/e",
                "clock/wall");
    for (const Row* row : {&inProcess, &program, &theirs})
        printThroughput(*row);
    std::printf("\nglass-to-glass latency (clock under the frame, read from each decoded "
                "picture)\n%-32s %9s %8s %11s %8s %9s\n",
                "", "median ms", "p95 ms", "read/frames", "frames/s", "CPU ms/fr");
    for (const Row* row : {&inProcess, &program, &theirs})
        printLatency(*row);

    std::printf("\nratio Brindlewave/ffmpeg:\n");
    const Measurement& a = inProcess.throughput;
    const Measurement& b = program.throughput;
    const Measurement& c = theirs.throughput;
    if (a.ok && b.ok && c.ok) {
        printRatio("frame rate", a.framesPerSecond(), b.framesPerSecond(), c.framesPerSecond());
        printRatio("CPU per frame", a.cpuMsPerFrame, b.cpuMsPerFrame, c.cpuMsPerFrame);
        printRatio("peak memory", a.peakMb, b.peakMb, c.peakMb);
    }
    const Measurement& la = inProcess.latency;
    const Measurement& lb = program.latency;
    const Measurement& lc = theirs.latency;
    if (!la.latency.empty() && !lb.latency.empty() && !lc.latency.empty()) {
        printRatio("latency median", percentile(la.latency, 0.5), percentile(lb.latency, 0.5),
                   percentile(lc.latency, 0.5));
        printRatio("latency p95", percentile(la.latency, 0.95), percentile(lb.latency, 0.95),
                   percentile(lc.latency, 0.95));
    }
    // The CPU figures compare the senders' own work only if the encoder does the same in each.
    const bool sameEncoder = !c.encoder.empty() && a.encoder == c.encoder && b.encoder == c.encoder;
    std::printf("libx264 settings written into the streams: %s\n  %s\n",
                sameEncoder ? "the same for all three" : "DIFFERENT", c.encoder.c_str());
    for (const Measurement* m : {&a, &b})
        if (!sameEncoder)
            std::printf("  %s\n", m->encoder.c_str());
    std::printf("ffmpeg command: ffmpeg %s\n",
                qPrintable(ffmpeg.arguments(0, latencyMs).join(' ').replace(":0?", ":PORT?")));
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv) {
    if (argc > 1 && argv[1][0] == '-')
        return childMain(argc, argv);
    QApplication application(argc, argv);
    quietBenchApplication(application);
    const int seconds = argc > 1 ? std::max(5, std::atoi(argv[1])) : 60;
    const int latencyMs = qEnvironmentVariableIsSet("BENCH_SRT_LATENCY_MS")
                              ? qEnvironmentVariableIntValue("BENCH_SRT_LATENCY_MS")
                              : 120;
    run(seconds, latencyMs);
    std::_Exit(0); // lingering tick threads hold the streamer: leave without tearing down
}
