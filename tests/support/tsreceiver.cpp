#include "tsreceiver.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QJsonDocument>
#include <QThread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

bool udpPortBound(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0)
        return false;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool bound = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0;
    close(fd);
    return bound;
}

QByteArray runTool(const QString& program, const QStringList& arguments) {
    QProcess tool;
    tool.start(program, arguments);
    if (!tool.waitForFinished(30000) || tool.exitStatus() != QProcess::NormalExit ||
        tool.exitCode() != 0)
        return {};
    return tool.readAllStandardOutput();
}

} // namespace

TsReceiver::TsReceiver(QString outputPath) : path(std::move(outputPath)) {}

TsReceiver::~TsReceiver() {
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished(5000);
    }
}

bool TsReceiver::start(uint16_t port, int timeoutMs) {
    process.setStandardOutputFile(path);
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    // Without time-stamp based delivery nothing is held back, so nothing is lost when the
    // caller closes.
    process.start("srt-live-transmit",
                  {"-a:no", "-q",
                   QString("srt://127.0.0.1:%1?mode=listener&tsbpdmode=false").arg(port),
                   "file://con"});
    if (!process.waitForStarted(timeoutMs))
        return false;
    const QDeadlineTimer deadline(timeoutMs);
    while (!udpPortBound(port)) {
        if (deadline.hasExpired() || process.state() == QProcess::NotRunning)
            return false;
        QThread::msleep(10);
    }
    return true;
}

bool TsReceiver::finish(int timeoutMs) {
    return process.waitForFinished(timeoutMs) && process.exitStatus() == QProcess::NormalExit;
}

QJsonObject TsReceiver::probe(const QString& file) {
    const QByteArray json =
        runTool("ffprobe", {"-v", "error", "-show_streams", "-show_frames", "-of", "json", file});
    return QJsonDocument::fromJson(json).object();
}

QByteArray TsReceiver::decodeRgb(const QString& file) {
    return runTool("ffmpeg", {"-v", "error", "-i", file, "-f", "rawvideo", "-pix_fmt", "rgb24",
                              "-vsync", "passthrough", "-"});
}

bool TsReceiver::writeFile(const QString& file, const QByteArray& bytes) {
    QFile out(file);
    return out.open(QIODevice::WriteOnly) && out.write(bytes) == bytes.size();
}
