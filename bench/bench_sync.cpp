// Lips and pictures. A scene under the frame flashes white and beeps into a sound server's source
// at the same instants, about once a second (every 1.004 s, so that the flashes fall at every
// point of a frame period). The source is a PulseAudio pipe source, which records the samples
// as the scene writes them: a microphone with no delay of its own. (A null
// sink's monitor is no such reference: it hands on what the sink renders ahead of time.) Each
// sender streams the picture and that source to a listener on 127.0.0.1 (srt-live-transmit writing
// what arrives to a file), and the receiver's side finds every flash and its beep in what arrived
// and measures the offset between them. The senders: the capture streamer in this process with
// audio set to that source, and ffmpeg's x11grab with its PulseAudio input doing the same job. The
// capture streamer also runs without sound, for the CPU that the sound costs per frame.
//
// A flash came between the last dark picture and the first lit one: its beep is measured from
// the middle of that span, so that in a stream in step the offsets lie within half a frame
// period either way and their median near 0. "to 1st pic" is the plain offset from the first
// lit picture, which includes that span.
//
// Usage: bench_sync [seconds]   (default 30 per sender; needs DISPLAY, pulseaudio, pactl,
// ffmpeg and srt-live-transmit)

#include "capturestreamer.h"
#include "support/freeport.h"
#include "support/measurement.h"
#include "support/processstats.h"
#include "support/senders.h"
#include "support/soundserver.h"
#include "support/testglobalstate.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <QApplication>
#include <QPainter>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

namespace {

constexpr long long periodUs = 1004000;
constexpr long long flashUs = 200000;
constexpr long long beepUs = 100000;
constexpr int rate = 48000;

bool lit(long long firstUs, long long atUs, long long lengthUs) {
    return atUs >= firstUs && (atUs - firstUs) % periodUs < lengthUs;
}

// The child's scene: black, white at every flash. A loaded machine may paint a flash late, so
// its beep starts when the X server has the flash, not when it was meant to come. The sound
// source's samples are written into its FIFO as a microphone hands them on: each 5 ms block
// once its last sample has sounded.
class FlashScene : public QWidget {
public:
    FlashScene(QRect area, long long firstUs, const char* fifo)
        : QWidget(nullptr, Qt::FramelessWindowHint | Qt::X11BypassWindowManagerHint),
          firstUs(firstUs), fifo(fifo) {
        setGeometry(area);
        setAttribute(Qt::WA_OpaquePaintEvent);
        timer.setTimerType(Qt::PreciseTimer);
        connect(&timer, &QTimer::timeout, this, [this] {
            if (lit(this->firstUs, monotonicMicros(), flashUs) == white)
                return;
            repaint();
            // The round trip returns once the server has drawn the picture.
            QGuiApplication::sync();
            if (white)
                beepFromUs = monotonicMicros();
        });
        timer.start(1);
        beeper = std::thread([this] { beep(); });
    }
    ~FlashScene() override {
        stopping = true;
        beeper.join();
    }

protected:
    void paintEvent(QPaintEvent*) override {
        white = lit(firstUs, monotonicMicros(), flashUs);
        QPainter(this).fillRect(rect(), white ? Qt::white : Qt::black);
    }

private:
    void beep() {
        // The beeper must not wait behind the machine's other work (best effort: the priority
        // needs the right to it).
        sched_param priority{};
        priority.sched_priority = 1;
        pthread_setschedparam(pthread_self(), SCHED_FIFO, &priority);
        const int source = ::open(fifo, O_WRONLY);
        std::vector<int16_t> block(rate / 200);
        long long dueUs = monotonicMicros();
        while (source >= 0 && !stopping) {
            std::this_thread::sleep_for(std::chrono::microseconds(dueUs - monotonicMicros()));
            const long long fromUs = beepFromUs;
            for (std::size_t i = 0; i < block.size(); ++i) {
                const long long atUs =
                    dueUs - 5000 + static_cast<long long>(i) * 1000000 / rate - fromUs;
                block[i] = atUs >= 0 && atUs < beepUs
                               ? int16_t(16000 * std::sin(2 * M_PI * 1000 * atUs / 1e6))
                               : 0;
            }
            if (::write(source, block.data(), block.size() * 2) < 0)
                break;
            dueUs += 5000;
        }
        if (source >= 0)
            ::close(source);
    }

    long long firstUs;
    const char* fifo;
    QTimer timer;
    bool white = false;
    std::atomic<long long> beepFromUs{0};
    std::atomic<bool> stopping{false};
    std::thread beeper;
};

QByteArray runTool(const QStringList& arguments, QByteArray* errors = nullptr) {
    QProcess tool;
    tool.start("ffmpeg", arguments);
    tool.waitForFinished(-1);
    if (errors)
        *errors = tool.readAllStandardError();
    return tool.readAllStandardOutput();
}

struct Row {
    QString name;
    std::string error;
    int frames = 0;
    double cpuMsPerFrame = 0;
    std::vector<double> offsets; // beep minus its flash's instant, ms
    std::vector<double> plain;   // beep minus the first lit picture, ms
};

// Finds the flashes and the beeps in a recorded stream, on the stream's own clock counted from
// its start.
void analyse(const QString& file, Row& row) {
    QByteArray log;
    const QByteArray luma = runTool(
        {"-v", "info", "-nostats", "-hide_banner", "-i", file, "-map", "0:v", "-fps_mode",
         "passthrough", "-vf", "scale=8:8:flags=area,format=gray,showinfo", "-f", "rawvideo", "-"},
        &log);
    // Whole ticks of the filter's time base: its seconds are printed too short for a clock that
    // counts from the machine's start.
    const QString text = QString::fromUtf8(log);
    const double ticks =
        QRegularExpression("time_base: 1/(\\d+)").match(text).captured(1).toDouble();
    std::vector<double> pts;
    QRegularExpressionMatchIterator found = QRegularExpression(" pts: *(-?\\d+)").globalMatch(text);
    while (found.hasNext() && ticks > 0)
        pts.push_back(found.next().captured(1).toDouble() / ticks);
    row.frames = int(pts.size());
    // Each flash as the last dark picture's time and the first lit one's.
    std::vector<std::pair<double, double>> flashes;
    for (std::size_t i = 1; i < pts.size() && (i + 1) * 64 <= std::size_t(luma.size()); ++i) {
        const auto mean = [&luma](std::size_t frame) {
            int sum = 0;
            for (int j = 0; j < 64; ++j)
                sum += uchar(luma[int(frame * 64 + j)]);
            return sum / 64;
        };
        if (mean(i) > 128 && mean(i - 1) <= 128)
            flashes.emplace_back(pts[i - 1], pts[i]);
    }
    // Sample n of the sound sounds at n / rate on the stream's clock: gaps are filled.
    const QByteArray pcm = runTool({"-v", "error", "-i", file, "-map", "0:a", "-af",
                                    "aresample=async=1:min_hard_comp=0.001:first_pts=0", "-ac", "1",
                                    "-ar", QString::number(rate), "-f", "s16le", "-"});
    const auto* samples = reinterpret_cast<const int16_t*>(pcm.constData());
    std::vector<double> beeps;
    for (int n = 0; n < pcm.size() / 2; ++n)
        if (std::abs(samples[n]) > 8000 && (beeps.empty() || double(n) / rate - beeps.back() > 0.5))
            beeps.push_back(double(n) / rate);
    if (flashes.empty() || beeps.empty()) {
        row.error = pcm.isEmpty() ? "(no sound)" : "no flash or no beep arrived";
        return;
    }
    for (const auto& [dark, flash] : flashes) {
        const auto beep = std::min_element(beeps.begin(), beeps.end(), [flash](double a, double b) {
            return std::abs(a - flash) < std::abs(b - flash);
        });
        if (std::abs(*beep - flash) > 0.5)
            continue;
        row.offsets.push_back((*beep - (dark + flash) / 2) * 1000);
        row.plain.push_back((*beep - flash) * 1000);
    }
}

Row measure(Sender& sender, const QString& name, int seconds) {
    std::fprintf(stderr, "measuring %s...\n", qPrintable(name));
    Row row{name, {}, 0, 0, {}, {}};
    QTemporaryDir folder;
    const QString file = folder.filePath("arrived.ts");
    const uint16_t port = freeLoopbackPort(true);
    QProcess listener;
    listener.setStandardOutputFile(file);
    listener.setStandardErrorFile(QProcess::nullDevice());
    listener.start(
        "srt-live-transmit",
        {"-q", QString("srt://127.0.0.1:%1?mode=listener&latency=120").arg(port), "file://con"});
    turnEventLoop(500);
    if (!sender.start(port, 120)) {
        row.error = sender.error;
        return row;
    }
    turnEventLoop(3000);
    const ProcessSample before = sampleProcess(sender.pid());
    turnEventLoop(seconds * 1000);
    const ProcessSample after = sampleProcess(sender.pid());
    sender.stop();
    turnEventLoop(500);
    listener.terminate();
    listener.waitForFinished();
    row.cpuMsPerFrame = (after.cpuSeconds - before.cpuSeconds) * 1000 / (seconds * 25.0);
    analyse(file, row);
    return row;
}

void print(const Row& row) {
    std::printf("%-36s %7d %9.2f", qPrintable(row.name), row.frames, row.cpuMsPerFrame);
    if (row.offsets.empty()) {
        std::printf("   %s\n", row.error.c_str());
        return;
    }
    std::vector<double> sizes;
    for (double offset : row.offsets)
        sizes.push_back(std::abs(offset));
    const int within =
        int(std::count_if(sizes.begin(), sizes.end(), [](double s) { return s <= 40; }));
    std::printf(" %7zu %9.1f %9.1f %7d/%-3zu %9.1f %s\n", row.offsets.size(),
                percentile(row.offsets, 0.5), *std::max_element(sizes.begin(), sizes.end()), within,
                sizes.size(), percentile(row.plain, 0.5),
                std::abs(percentile(row.offsets, 0.5)) <= 20 && within == int(sizes.size())
                    ? "goal met"
                    : "goal missed");
}

int childMain(int argc, char** argv) {
    QApplication application(argc, argv);
    if (argc < 8)
        return 2;
    FlashScene scene(
        QRect(std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4]), std::atoi(argv[5])),
        std::atoll(argv[6]), argv[7]);
    scene.show();
    return application.exec();
}

void run(int seconds) {
    SoundServer sound;
    QTemporaryDir folder;
    const QString fifo = folder.filePath("microphone");
    if (!sound.start() || !sound.addPipeSource(fifo)) {
        std::printf("bench_sync: cannot start the sound server (pulseaudio)\n");
        return;
    }
    // An idle pipe source stops reading, and the scene's sound would wait in the FIFO, old, for
    // the next sender: a recorder of its own keeps it read all along.
    QProcess drain;
    drain.setStandardOutputFile(QProcess::nullDevice());
    drain.start("parec", {"-d", "brindle_mic"});
    TestGlobalState state;
    // Never destroyed, as in the program: a lingering worker thread may still hold it.
    auto* streamer = new CaptureStreamer;
    streamer->capture().show();
    turnEventLoop(1000);
    const QRect area = streamer->captureSource().area().device;
    QProcess scene;
    scene.start(QCoreApplication::applicationFilePath(),
                {"--flash", QString::number(area.x()), QString::number(area.y()),
                 QString::number(area.width()), QString::number(area.height()),
                 QString::number(monotonicMicros() + 2000000), fifo});
    turnEventLoop(1000);
    std::printf("bench_sync: %d s per sender after 3 s of warm-up; area %dx%d stretched to "
                "1920x1080 at 25 frames/s; sound from a PulseAudio pipe source, "
                "AAC 128 kbit/s; a flash and a beep every %.3f s\n",
                seconds, area.width(), area.height(), periodUs / 1e6);
    std::fflush(stdout);

    InProcessSender ours(*streamer);
    state.streamConfig.audio = "none";
    const Row quiet = measure(ours, "Brindlewave, audio = none", seconds);
    state.streamConfig.audio = "brindle_mic";
    const Row sounding = measure(ours, "Brindlewave, audio = brindle_mic", seconds);
    // The frame's form would cover the area from here on.
    streamer->capture().hide();
    turnEventLoop(1000);
    FfmpegSender ffmpeg(area, "brindle_mic");
    const Row theirs = measure(ffmpeg, "ffmpeg x11grab + pulse (same job)", seconds);
    scene.kill();
    scene.waitForFinished();
    drain.kill();
    drain.waitForFinished();

    std::printf("\nflash-to-beep offset in what arrived (beep minus flash; goal: median within "
                "20 ms, every one within 40 ms)\n%-36s %7s %9s %7s %9s %9s %11s %9s\n",
                "", "frames", "CPU ms/fr", "flashes", "median ms", "worst |ms|", "within 40",
                "to 1st pic");
    for (const Row* row : {&quiet, &sounding, &theirs})
        print(*row);
    // Each offset, in the order of the flashes: a loaded machine shows here as outliers.
    for (const Row* row : {&sounding, &theirs}) {
        std::printf("%s, each flash (ms):", qPrintable(row->name));
        for (double offset : row->offsets)
            std::printf(" %.0f", offset);
        std::printf("\n");
    }
    std::printf("ffmpeg command: ffmpeg %s\n",
                qPrintable(ffmpeg.arguments(0, 120).join(' ').replace(":0?", ":PORT?")));
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv) {
    if (argc > 1 && argv[1][0] == '-')
        return childMain(argc, argv);
    QApplication application(argc, argv);
    quietBenchApplication(application);
    run(argc > 1 ? std::max(5, std::atoi(argv[1])) : 30);
    std::_Exit(0); // lingering tick threads hold the streamer: leave without tearing down
}
