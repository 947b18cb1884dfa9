// The whole per-frame path on a live X display: every 40 ms tick grabs the framed area,
// stretches it to 1920x1080, converts, encodes, muxes and sends it over SRT to a receiver on
// 127.0.0.1, while a second process keeps the screen under the frame moving. Then the FFmpeg
// command-line tool does the same job on the same rectangle (x11grab, scaled to 1920x1080,
// yuv420p, libx264 veryfast/zerolatency at 5 Mbit/s, GOP 25, no B-frames, MPEG-TS over SRT).
// Prints for both the frame rate sustained, the ticks (frames) missed and the CPU time per
// frame, and the ratio of the two.
//
// Usage: bench_capture [seconds]   (default 60; needs DISPLAY, srt-live-transmit and ffmpeg)

#include "frame/drawingform.h"
#include "frame/wcapture.h"
#include "outwriter.h"
#include "processcpu.h"
#include "support/freeport.h"
#include "tick_generator.h"

#include <QApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QImage>
#include <QPainter>
#include <QProcess>
#include <QRegularExpression>
#include <QThread>
#include <QTimer>
#include <QWidget>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

namespace {

constexpr int periodMs = 40;

// Screen content that changes every frame: scrolling stripes, a moving window, text.
class MovingScene : public QWidget {
public:
    MovingScene() : QWidget(nullptr, Qt::FramelessWindowHint) {
        connect(&timer, &QTimer::timeout, this, [this] {
            ++step;
            update();
        });
        timer.start(20);
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        for (int x = -(step % 64); x < width(); x += 32)
            painter.fillRect(x, 0, 16, height(), QColor(30 + x % 200, 90, 160));
        painter.fillRect((step * 7) % width(), 200 + (step * 3) % 300, 420, 260,
                         QColor(250, 250, 245));
        painter.setPen(Qt::black);
        for (int line = 0; line < 12; ++line)
            painter.drawText((step * 7) % width() + 20, 230 + (step * 3) % 300 + line * 18,
                             QString("Quarterly figures, row %1: %2").arg(line).arg(step * line));
    }

private:
    QTimer timer;
    int step = 0;
};

// A receiver that discards what arrives, so that only the sender is measured.
class Receiver {
public:
    explicit Receiver(uint16_t port) {
        process.setStandardOutputFile(QProcess::nullDevice());
        process.setStandardErrorFile(QProcess::nullDevice());
        process.start(
            "srt-live-transmit",
            {"-a:no", "-q", QString("srt://127.0.0.1:%1?mode=listener").arg(port), "file://con"});
        process.waitForStarted();
        QThread::msleep(300);
    }
    ~Receiver() {
        process.kill();
        process.waitForFinished();
    }

private:
    QProcess process;
};

struct Result {
    double seconds = 0;
    int frames = 0;
    int missed = 0;
    double cpuSeconds = 0;
};

// The per-tick work of the live stream: grab, then write, exactly as each tick does it.
class Pipeline : public ITickHandler {
public:
    explicit Pipeline(WCapture& capture) : capture(capture) {}
    bool start(const StreamParams& params) { return writer.start(params); }
    void onTick() override {
        const std::lock_guard<std::mutex> lock(mutex);
        if (stopped)
            return;
        const QImage* image = capture.grab();
        if (image && writer.writeFrame(image->constBits(), image->sizeInBytes(), image->width(),
                                       image->height(), image->bytesPerLine()))
            ++frames;
    }
    void stop() {
        const std::lock_guard<std::mutex> lock(mutex);
        stopped = true;
        writer.stop();
    }
    std::atomic<int> frames{0};

private:
    WCapture& capture;
    OUTWriter writer;
    std::mutex mutex;
    bool stopped = false;
};

Result runBrindlewave(WCapture& capture, uint16_t port, int seconds) {
    Receiver receiver(port);
    StreamParams params;
    params.hostPort = "127.0.0.1:" + std::to_string(port);
    // Left alive like the program's streamer: a lingering worker keeps it as its handler.
    auto* pipeline = new Pipeline(capture);
    if (!pipeline->start(params)) {
        std::fprintf(stderr, "cannot start the writer\n");
        return {};
    }
    auto* flags = new TickFlags;
    flags->runningFlag = true;
    auto* state = new TickState;
    std::thread worker(tickWorkerThread, state, pipeline);
    const double cpuBefore = processCpuSeconds();
    QElapsedTimer elapsed;
    elapsed.start();
    std::thread generator(tickGeneratorThread, flags, state, periodMs);

    QDeadlineTimer deadline(seconds * 1000);
    while (!deadline.hasExpired())
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    flags->stopFlag = true;
    while (flags->runningFlag)
        QThread::msleep(1);

    Result result;
    result.seconds = static_cast<double>(elapsed.nsecsElapsed()) / 1e9;
    result.frames = pipeline->frames;
    result.cpuSeconds = processCpuSeconds() - cpuBefore;
    pipeline->stop();
    result.missed = std::max(0, int(result.seconds * 1000 / periodMs) - result.frames);
    // The worker may be left waiting for a tick that never comes; both threads then linger,
    // as they do in the program.
    generator.detach();
    worker.detach();
    return result;
}

Result runFfmpeg(QRect area, uint16_t port, int seconds) {
    Receiver receiver(port);
    QProcess ffmpeg;
    ffmpeg.setProcessChannelMode(QProcess::MergedChannels);
    const QString display = qEnvironmentVariable("DISPLAY");
    ffmpeg.start("ffmpeg", {"-hide_banner",
                            "-benchmark",
                            "-f",
                            "x11grab",
                            "-framerate",
                            "25",
                            "-video_size",
                            QString("%1x%2").arg(area.width()).arg(area.height()),
                            "-i",
                            QString("%1+%2,%3").arg(display).arg(area.x()).arg(area.y()),
                            "-t",
                            QString::number(seconds),
                            "-vf",
                            "scale=1920:1080",
                            "-pix_fmt",
                            "yuv420p",
                            "-c:v",
                            "libx264",
                            "-preset",
                            "veryfast",
                            "-tune",
                            "zerolatency",
                            "-b:v",
                            "5M",
                            "-g",
                            "25",
                            "-bf",
                            "0",
                            "-f",
                            "mpegts",
                            QString("srt://127.0.0.1:%1?pkt_size=1316").arg(port)});
    QByteArray output;
    while (!ffmpeg.waitForFinished(100)) {
        output += ffmpeg.readAll();
        QCoreApplication::processEvents();
    }
    output += ffmpeg.readAll();
    const QString text = QString::fromUtf8(output);

    Result result;
    const auto last = [&text](const QString& pattern) {
        QRegularExpressionMatchIterator it = QRegularExpression(pattern).globalMatch(text);
        QString value;
        while (it.hasNext())
            value = it.next().captured(1);
        return value;
    };
    result.frames = last("frame=\\s*(\\d+)").toInt();
    result.missed = last("drop=\\s*(\\d+)").toInt();
    result.cpuSeconds = last("utime=([0-9.]+)s").toDouble() + last("stime=([0-9.]+)s").toDouble();
    result.seconds = last("rtime=([0-9.]+)s").toDouble();
    if (result.frames == 0)
        std::fprintf(stderr, "ffmpeg produced no frames:\n%s\n", output.right(2000).constData());
    return result;
}

void print(const char* name, const Result& result) {
    const double rate = result.seconds > 0 ? result.frames / result.seconds : 0;
    const double cpu = result.frames > 0 ? result.cpuSeconds * 1000 / result.frames : 0;
    std::printf("%-34s %8.2f %10d %10d %14.2f\n", name, rate, result.frames, result.missed, cpu);
}

} // namespace

int main(int argc, char** argv) {
    if (argc > 1 && QByteArray(argv[1]) == "--scene") {
        QApplication application(argc, argv);
        MovingScene scene;
        scene.setGeometry(QRect(0, 0, 1920, 1080));
        scene.show();
        return application.exec();
    }
    QApplication application(argc, argv);
    const int seconds = argc > 1 ? std::max(5, std::atoi(argv[1])) : 60;

    QProcess scene;
    scene.start(QCoreApplication::applicationFilePath(), {"--scene"});
    scene.waitForStarted();
    QThread::msleep(500);

    WCapture capture;
    capture.drawingForm()->setFormMode(0);
    capture.raise();
    QDeadlineTimer settle(500);
    while (!settle.hasExpired())
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    const QRect area = capture.captureRect.load();

    std::printf("bench_capture: %d s each, area %dx%d at %d,%d stretched to 1920x1080, 25 ticks/s,"
                " libx264 veryfast/zerolatency 5 Mbit/s, SRT to 127.0.0.1\n",
                seconds, area.width(), area.height(), area.x(), area.y());
    const Result ours = runBrindlewave(capture, freeLoopbackPort(true), seconds);
    const Result theirs = runFfmpeg(area, freeLoopbackPort(true), seconds);

    std::printf("%-34s %8s %10s %10s %14s\n", "", "frames/s", "frames", "missed", "CPU ms/frame");
    print("Brindlewave (grab..send)", ours);
    print("ffmpeg -f x11grab (same job)", theirs);
    if (theirs.frames > 0 && ours.frames > 0 && theirs.cpuSeconds > 0)
        std::printf("ratio Brindlewave/ffmpeg: frame rate %.2f, CPU per frame %.2f\n",
                    (ours.frames / ours.seconds) / (theirs.frames / theirs.seconds),
                    (ours.cpuSeconds / ours.frames) / (theirs.cpuSeconds / theirs.frames));

    scene.kill();
    scene.waitForFinished();
    std::fflush(stdout);
    std::_Exit(0); // lingering tick threads hold the pipeline: leave without tearing down
}
