// What a tick costs for what lies under the frame: three scenes, each shown full-screen by a
// process of its own while two senders stream the same rectangle, one after the other, to a
// listener on 127.0.0.1 (bench_receiver): the program's capture streamer in this process and
// the FFmpeg command-line tool (x11grab, scaled to 1920x1080, libx264 veryfast/zerolatency at
// 5 Mbit/s, GOP 25, no B-frames, MPEG-TS over SRT). The scenes: a still black picture, a page of
// program text turned every four seconds, a picture that moves everywhere every frame. Prints
// per scene and sender the frames per second the listener counted, the ticks of 25 a second
// that brought no frame, and the CPU time per frame of the sending process, with our CPU per
// frame over ffmpeg's against its goal.
//
// Usage: bench_scenes [seconds [still|pages|moving]]   (default 60 per run, every scene; needs
// DISPLAY and ffmpeg)

#include "capturestreamer.h"
#include "support/childprocess.h"
#include "support/measurement.h"
#include "support/movingscene.h"
#include "support/pagescene.h"
#include "support/senders.h"

#include <QApplication>
#include <QProcess>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

constexpr int latencyMs = 120;

struct Scene {
    const char* argument;
    const char* name;
    double goal; // the highest ratio of our CPU per frame to ffmpeg's that we accept
};

const Scene scenes[] = {{"--still", "still black picture", 0.6},
                        {"--pages", "page of text turned every 4 s", 0.8},
                        {"--moving", "picture moving everywhere", 1.0}};

void printRow(const char* sender, const Measurement& m) {
    if (!m.ok) {
        std::printf("  %-14s failed: %s\n", sender, m.error.c_str());
        return;
    }
    std::printf("  %-14s %8.2f %7d %9.2f %7.0f\n", sender, m.framesPerSecond(), m.missed,
                m.cpuMsPerFrame, m.receivedKbps);
}

int sceneMain(int argc, char** argv) {
    QApplication application(argc, argv);
    const QByteArray scene = argv[1];
    std::unique_ptr<QWidget> window;
    if (scene == "--moving") {
        window = std::make_unique<MovingScene>();
    } else if (scene == "--pages") {
        window = std::make_unique<PageScene>();
    } else {
        window = std::make_unique<QWidget>(nullptr, Qt::FramelessWindowHint);
        window->setStyleSheet("background: black");
    }
    window->setGeometry(QRect(0, 0, 1920, 1080));
    window->show();
    return application.exec();
}

} // namespace

int main(int argc, char** argv) {
    if (argc > 1 && argv[1][0] == '-')
        return sceneMain(argc, argv);
    QApplication application(argc, argv);
    quietBenchApplication(application);
    const int seconds = argc > 1 ? std::max(5, std::atoi(argv[1])) : 60;

    // Never destroyed, as in the program: a lingering worker thread may still hold it.
    auto* streamer = new CaptureStreamer;
    streamer->capture().show();
    turnEventLoop(1000);
    const QRect area = streamer->captureSource().area().device;
    std::printf("bench_scenes: %d s per run after 3 s of warm-up; area %dx%d at %d,%d stretched to "
                "1920x1080, 25 frames/s, libx264 veryfast/zerolatency 5 Mbit/s GOP 25, MPEG-TS "
                "over SRT to 127.0.0.1\n%-16s %8s %7s %9s %7s\n",
                seconds, area.width(), area.height(), area.x(), area.y(), "", "frames/s", "missed",
                "CPU ms/fr", "kbit/s");
    std::fflush(stdout);

    InProcessSender ours(*streamer);
    FfmpegSender ffmpeg(area);
    const QByteArray only = argc > 2 ? QByteArray("--").append(argv[2]) : QByteArray();
    for (const Scene& scene : scenes) {
        if (!only.isEmpty() && only != scene.argument)
            continue;
        const ChildProcess shown({scene.argument}, 1000);
        // ffmpeg first: once stopped, the program shows its start form over the area, which only
        // the next scene's window covers again.
        const Measurement b = measureSender(ffmpeg, seconds, latencyMs, false);
        const Measurement a = measureSender(ours, seconds, latencyMs, false);
        std::printf("%s\n", scene.name);
        printRow("Brindlewave", a);
        printRow("ffmpeg x11grab", b);
        if (a.ok && b.ok && b.cpuMsPerFrame > 0) {
            const double ratio = a.cpuMsPerFrame / b.cpuMsPerFrame;
            std::printf("  CPU per frame, ours/ffmpeg: %.2f (goal at most %.1f: %s)\n", ratio,
                        scene.goal, ratio <= scene.goal ? "met" : "NOT MET");
        }
        std::fflush(stdout);
    }
    std::_Exit(0); // lingering tick threads hold the streamer: leave without tearing down
}
