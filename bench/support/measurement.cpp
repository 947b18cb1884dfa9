#include "measurement.h"

#include "processstats.h"
#include "startup.h"
#include "support/freeport.h"

extern "C" {
#include <libavutil/log.h>
}

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QProcess>
#include <QTimer>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

namespace {

constexpr int warmUpMs = 3000;
constexpr int ticksPerSecond = 25;

struct Arrival {
    long long arrivalUs = 0;
    long long ptsUs = -1;
    bool readable = false;
    double latencyMs = 0;
    char kind = 'P';
    long long bytes = 0;
};

// The receiver's output, read line by line while the event loop turns.
class ReceiverOutput {
public:
    explicit ReceiverOutput(QProcess& process) : process(process) {}

    // Turns the event loop until the predicate holds or the time is up.
    template <typename Predicate> bool waitFor(int timeoutMs, Predicate done) {
        QDeadlineTimer deadline(timeoutMs);
        for (;;) {
            readLines();
            if (done())
                return true;
            if (deadline.hasExpired())
                return false;
            turnEventLoop(20);
        }
    }
    void pause(int ms) {
        waitFor(ms, [] { return false; });
    }

    bool listening = false;
    bool ended = false;
    std::string encoder;
    std::string srtCounts;
    std::vector<Arrival> arrivals;

private:
    void readLines() {
        while (process.canReadLine()) {
            const std::string line = process.readLine().trimmed().toStdString();
            if (line == "listening")
                listening = true;
            else if (line == "end")
                ended = true;
            else if (line.rfind("encoder ", 0) == 0)
                encoder = line.substr(8);
            else if (line.rfind("frame ", 0) == 0)
                arrivals.push_back(parse(line));
            else if (line.rfind("srt ", 0) == 0)
                srtCounts = line.substr(4);
        }
    }
    static Arrival parse(const std::string& line) {
        std::istringstream fields(line.substr(6));
        Arrival arrival;
        std::string latency;
        fields >> arrival.arrivalUs >> arrival.ptsUs >> latency >> arrival.kind >> arrival.bytes;
        arrival.readable = !latency.empty() && latency != "-";
        if (arrival.readable)
            arrival.latencyMs = std::stod(latency);
        return arrival;
    }

    QProcess& process;
};

void summarise(Measurement& result, const std::vector<Arrival>& arrivals, long long fromUs,
               long long toUs) {
    const Arrival* first = nullptr;
    const Arrival* last = nullptr;
    // A damaged frame spoils every frame after it until the next key frame.
    bool spoilt = false;
    long long bytes = 0;
    long long missedByPts = 0;
    bool ptsKnown = true;
    for (const Arrival& arrival : arrivals) {
        if (arrival.kind == 'E' && !spoilt)
            result.damageStartsS.push_back(
                static_cast<double>(arrival.arrivalUs - arrivals[0].arrivalUs) / 1e6);
        spoilt = arrival.kind == 'E' || (spoilt && arrival.kind != 'K');
        if (spoilt && arrival.arrivalUs < toUs) {
            ++(arrival.arrivalUs < fromUs ? result.damagedEarly : result.damaged);
            result.lastDamageS =
                static_cast<double>(arrival.arrivalUs - arrivals[0].arrivalUs) / 1e6;
        }
        if (arrival.arrivalUs < fromUs || arrival.arrivalUs >= toUs)
            continue;
        bytes += arrival.bytes;
        ++result.frames;
        // A frame's time stamp is its tick: a gap of more than one period is a tick that brought
        // no frame, whatever the arrivals' jitter at the window's edges.
        if (last && last->ptsUs >= 0 && arrival.ptsUs >= 0)
            missedByPts +=
                std::max(0LL, std::llround(static_cast<double>(arrival.ptsUs - last->ptsUs) *
                                           ticksPerSecond / 1e6) -
                                  1);
        else if (last)
            ptsKnown = false;
        if (!first)
            first = &arrival;
        last = &arrival;
        if (arrival.readable)
            result.latency.push_back(arrival.latencyMs);
        else
            ++result.unreadable;
    }
    result.seconds = static_cast<double>(toUs - fromUs) / 1e6;
    result.receivedKbps = static_cast<double>(bytes) * 8 / 1000 / result.seconds;
    result.missed =
        ptsKnown ? static_cast<int>(missedByPts)
                 : std::max(0, static_cast<int>(std::lround(result.seconds * ticksPerSecond)) -
                                   result.frames);
    if (first && last != first && last->ptsUs >= 0 && first->ptsUs >= 0)
        result.clockPerWall = static_cast<double>(last->ptsUs - first->ptsUs) /
                              static_cast<double>(last->arrivalUs - first->arrivalUs);
}

} // namespace

Measurement measureSender(Sender& sender, int seconds, int latencyMs, bool decode,
                          const std::function<uint16_t(uint16_t)>& route) {
    Measurement result;
    const uint16_t port = freeLoopbackPort(true);
    QProcess receiver;
    receiver.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    receiver.start(
        QCoreApplication::applicationDirPath() + "/bench_receiver",
        {QString::number(port), QString::number(latencyMs), decode ? "decode" : "count"});
    ReceiverOutput output(receiver);
    if (!output.waitFor(10000, [&] { return output.listening; })) {
        result.error = "the receiver did not start";
        return result;
    }
    const uint16_t called = route ? route(port) : port;
    if (called == 0 || !sender.start(called, latencyMs)) {
        result.error = called == 0 ? "nothing to route through" : sender.error;
        receiver.kill();
        receiver.waitForFinished();
        return result;
    }
    const bool flowing = output.waitFor(30000, [&] { return !output.arrivals.empty(); });
    if (flowing) {
        output.pause(warmUpMs);
        const long long from = monotonicMicros();
        const ProcessSample start = sampleProcess(sender.pid());
        output.pause(seconds * 500);
        const ProcessSample middle = sampleProcess(sender.pid());
        output.pause(seconds * 500);
        const long long to = monotonicMicros();
        const ProcessSample end = sampleProcess(sender.pid());

        summarise(result, output.arrivals, from, to);
        result.encoder = output.encoder;
        result.residentMb[0] = start.residentMb;
        result.residentMb[1] = middle.residentMb;
        result.residentMb[2] = end.residentMb;
        result.peakMb = end.peakMb;
        if (result.frames > 0)
            result.cpuMsPerFrame = (end.cpuSeconds - start.cpuSeconds) * 1000 / result.frames;
        result.ok = result.frames > 0 && end.peakMb > 0;
        if (!result.ok)
            result.error = "no frame arrived in the measured window";
    }
    sender.stop();
    if (!flowing)
        result.error = "no frame arrived" + (sender.error.empty() ? "" : ": " + sender.error);
    output.waitFor(3000, [&] { return output.ended; });
    result.srtCounts = output.srtCounts;
    receiver.kill();
    receiver.waitForFinished();
    return result;
}

void turnEventLoop(int ms) {
    // Sleeps in the event loop: a busy loop would be counted to the sender in this process.
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

qint64 runUntil(const std::function<bool()>& done, int timeoutMs) {
    QElapsedTimer elapsed;
    elapsed.start();
    const QDeadlineTimer deadline(timeoutMs);
    // Asleep in the event loop between looks: a busy loop would keep the interface thread on a
    // processor and take it from the program's own threads.
    QEventLoop loop;
    QTimer look;
    QObject::connect(&look, &QTimer::timeout, [&] {
        if (done() || deadline.hasExpired())
            loop.quit();
    });
    look.start(5);
    if (!done())
        loop.exec();
    return elapsed.elapsed();
}

void quietBenchApplication(QApplication& application) {
    // BENCH_LOG=1 shows the program's own log lines as well.
    static const bool showLog = qEnvironmentVariableIsSet("BENCH_LOG");
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString& text) {
        if (showLog || (type != QtDebugMsg && type != QtInfoMsg))
            std::fprintf(stderr, "%s\n", qPrintable(text));
    });
    av_log_set_level(AV_LOG_ERROR);
    application.setStyleSheet(applicationStyleSheetText());
}

double percentile(std::vector<double> values, double fraction) {
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const std::size_t index =
        std::min(values.size() - 1, static_cast<std::size_t>(fraction * (values.size() - 1) + 0.5));
    return values[index];
}
