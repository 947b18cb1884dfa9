// The stream over a poor uplink, side by side with ffmpeg: for each scene and each link the
// program's capture streamer (in this process) and ffmpeg's x11grab at a fixed 5 Mbit/s (the
// way users run it) stream through tools/netrelay to bench_receiver, which decodes every
// picture, reads the clock drawn under the frame and reports frames that arrived damaged.
// A frame is damaged when the decoder or the demuxer reports an error in it, or frames before
// it were lost; every frame after it until the next key frame counts as damaged too.
//
// Scenes: a page of dense program text that flips every 4 s; a picture that moves everywhere
// every frame. Links: 8, 4 and 2 Mbit/s with 0.5 to 1 % loss and 20 to 40 ms each way; 8 Mbit/s
// that falls to 1.5 at a third of the run and comes back at two thirds; no limit at all. The
// receiver's latency is 4 times the round trip, at least 120 ms. late/ms: datagrams the relay
// itself sent on more than 10 ms late for want of the processor, and the most it was late by;
// damage from s: where each run of damaged frames began, in seconds after the first frame.
//
// Usage: bench_link [seconds] [filter [ours]]   (default 60 s measured per run after 3 s of
// warm-up; the changing link gets at least 37 s; filter: only cases whose name contains it, or
// one scene; ours: leave ffmpeg out. Needs DISPLAY and ffmpeg.)

#include "capturestreamer.h"
#include "support/childprocess.h"
#include "support/measurement.h"
#include "support/movingscene.h"
#include "support/netrelay.h"
#include "support/pagescene.h"
#include "support/processstats.h"
#include "support/screenclock.h"
#include "support/senders.h"

#include <QApplication>
#include <QProcess>
#include <QPushButton>
#include <QRegularExpression>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

namespace {

struct LinkCase {
    const char* name;
    NetRelay::Link link;
    bool changing;
};

// The target bitrate the live button's tooltip shows, read four times a second.
class TargetTrace {
public:
    explicit TargetTrace(QPushButton* button) {
        QObject::connect(&timer, &QTimer::timeout, [this, button] {
            const QRegularExpressionMatch found =
                QRegularExpression("^Link: (?:starting at )?(\\d+) kbit/s")
                    .match(button->toolTip());
            if (found.hasMatch())
                points.emplace_back(monotonicMicros(), found.captured(1).toInt());
        });
        timer.start(250);
    }
    // The target `seconds` after `fromUs`; 0 if nothing was read by then.
    int at(long long fromUs, double seconds) const {
        int value = 0;
        for (const auto& [when, kbps] : points)
            if (when <= fromUs + static_cast<long long>(seconds * 1e6))
                value = kbps;
        return value;
    }
    int least() const {
        int value = 0;
        for (const auto& point : points)
            value = value == 0 ? point.second : std::min(value, point.second);
        return value;
    }

private:
    QTimer timer;
    std::vector<std::pair<long long, int>> points;
};

void printRow(const char* scene, const char* link, const char* sender, const Measurement& m,
              const QString& relay, const QString& targets) {
    if (!m.ok) {
        std::printf("%-7s %-30s %-10s failed: %s\n", scene, link, sender, m.error.c_str());
        std::fflush(stdout);
        return;
    }
    const QRegularExpressionMatch drops =
        QRegularExpression("up forwarded=\\d+ queue_drops=(\\d+)").match(relay);
    const QRegularExpressionMatch late =
        QRegularExpression("late=(\\d+) worst_late_ms=(\\d+)").match(relay);
    QStringList starts;
    for (const double at : m.damageStartsS)
        starts << QString::number(at, 'f', 1);
    std::printf("%-7s %-30s %-10s %5d/%-5d %5.1f %% %5d %6.1f %7.1f %6.0f %6s %9s  %s  [%s] %s\n",
                scene, link, sender, m.damaged, m.frames,
                m.frames ? 100.0 * m.damaged / m.frames : 0.0, m.damagedEarly,
                m.latency.empty() ? 0.0 : percentile(m.latency, 0.5),
                m.latency.empty() ? 0.0 : percentile(m.latency, 0.95), m.receivedKbps,
                drops.hasMatch() ? qPrintable(drops.captured(1)) : "-",
                late.hasMatch() ? qPrintable(late.captured(1) + "/" + late.captured(2)) : "-",
                qPrintable(targets), m.srtCounts.c_str(),
                starts.isEmpty() ? "" : qPrintable("damage from s: " + starts.join(' ')));
    std::fflush(stdout);
}

int childMain(int argc, char** argv) {
    QApplication application(argc, argv);
    std::unique_ptr<QWidget> window;
    const QByteArray mode = argv[1];
    if (mode == "--moving" || mode == "--pages") {
        window = mode == "--moving" ? std::unique_ptr<QWidget>(std::make_unique<MovingScene>())
                                    : std::make_unique<PageScene>();
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

void run(int seconds, const QString& filter, bool oursOnly) {
    const std::vector<LinkCase> cases = {
        {"8 Mbit/s, 20 ms, 0.5 % loss", {8000, 20, 0.5, {}}, false},
        {"4 Mbit/s, 20 ms, 0.5 % loss", {4000, 20, 0.5, {}}, false},
        {"2 Mbit/s, 40 ms, 1 % loss", {2000, 40, 1, {}}, false},
        {"8>1.5>8 Mbit/s, 20 ms, 0.5 %", {8000, 20, 0.5, {}}, true},
        {"ample (no limit, no loss)", {0, 0, 0, {}}, false},
    };
    auto* streamer = new CaptureStreamer; // never destroyed: a lingering worker may hold it
    WCapture& capture = streamer->capture();
    capture.show();
    turnEventLoop(1000);
    const QRect area = streamer->captureSource().area().device;
    InProcessSender ours(*streamer);
    FfmpegSender ffmpeg(area);

    std::printf("bench_link: %d s measured per run after 3 s of warm-up; area %dx%d stretched to "
                "1920x1080, 25 frames/s; ours: ceiling 5000 kbit/s; ffmpeg: libx264 "
                "veryfast/zerolatency -b:v 5M\n\n",
                seconds, area.width(), area.height());
    std::printf("%-7s %-30s %-10s %11s %7s %5s %6s %7s %6s %6s %9s  %s  [%s]\n", "scene", "link",
                "sender", "damaged", "share", "early", "med ms", "p95 ms", "kbit/s", "qdrops",
                "late/ms", "ours: target end/least/after return", "receiver's libsrt counts");
    std::fflush(stdout);
    for (const char* scene : {"pages", "moving"}) {
        const ChildProcess drawing({QString("--") + scene}, 700);
        const ChildProcess clock({"--clock", QString::number(area.x()), QString::number(area.y()),
                                  QString::number(area.width()), QString::number(area.height())},
                                 700);
        for (const LinkCase& linkCase : cases) {
            if (!filter.isEmpty() && !QString(linkCase.name).contains(filter) && filter != scene)
                continue;
            const int length = linkCase.changing ? std::max(seconds, 37) : seconds;
            // The whole run, warm-up and start included, in thirds.
            const int third = (length + 4) / 3;
            NetRelay::Link link = linkCase.link;
            if (linkCase.changing)
                link.schedule = QString("%1:1500,%2:8000").arg(third).arg(2 * third);
            const int latencyMs = std::max(120, 8 * link.delayMs);
            for (Sender* sender : {static_cast<Sender*>(&ours), static_cast<Sender*>(&ffmpeg)}) {
                NetRelay relay;
                const bool isOurs = sender == &ours;
                if (!isOurs && oursOnly)
                    continue;
                // Off the air, the frame is painted over the area it frames: only our own
                // stream may have it shown.
                capture.setVisible(isOurs);
                turnEventLoop(500);
                std::unique_ptr<TargetTrace> trace;
                if (isOurs)
                    trace = std::make_unique<TargetTrace>(capture.liveButton());
                const long long startUs = monotonicMicros();
                const Measurement m =
                    measureSender(*sender, length, latencyMs, true, [&](uint16_t port) {
                        return relay.start(port, link) ? relay.port() : uint16_t(0);
                    });
                QString targets = "-";
                if (trace)
                    targets = QString("%1/%2/%3")
                                  .arg(trace->at(startUs, length + 3))
                                  .arg(trace->least())
                                  .arg(linkCase.changing ? trace->at(startUs, 2 * third + 10) : 0);
                printRow(scene, linkCase.name, isOurs ? "ours" : "ffmpeg", m, relay.counters(),
                         targets);
            }
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc > 1 && argv[1][0] == '-')
        return childMain(argc, argv);
    QApplication application(argc, argv);
    quietBenchApplication(application);
    const int seconds = argc > 1 ? std::max(5, std::atoi(argv[1])) : 60;
    run(seconds, argc > 2 ? QString(argv[2]) : QString(),
        argc > 3 && QByteArray(argv[3]) == "ours");
    std::_Exit(0); // lingering tick threads hold the streamer: leave without tearing down
}
