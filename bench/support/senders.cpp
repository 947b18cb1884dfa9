#include "senders.h"

#include "capturestreamer.h"
#include "frame/drawingform.h"
#include "measurement.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QLineEdit>
#include <QPushButton>
#include <QRegularExpression>
#include <unistd.h>

namespace {

QByteArray run(const QString& program, const QStringList& arguments) {
    QProcess process;
    process.start(program, arguments);
    process.waitForFinished(10000);
    return process.readAllStandardOutput();
}

// Where the executable's tool column stands; a null point while it is not shown.
QPoint columnPosition() {
    const QByteArray geometry =
        run("xdotool", {"search", "--onlyvisible", "--name", "^Capture$", "getwindowgeometry"});
    const QRegularExpressionMatch position =
        QRegularExpression("Position: (-?\\d+),(-?\\d+)").match(QString::fromUtf8(geometry));
    if (!position.hasMatch())
        return {};
    return QPoint(position.captured(1).toInt(), position.captured(2).toInt());
}

void endProcess(QProcess& process) {
    if (process.state() == QProcess::NotRunning)
        return;
    process.terminate();
    if (!process.waitForFinished(5000)) {
        process.kill();
        process.waitForFinished();
    }
}

} // namespace

bool InProcessSender::start(uint16_t port, int) {
    DrawingForm* frame = streamer.capture().drawingForm();
    frame->findChild<QLineEdit*>("leHostPort")->setText(QString("127.0.0.1:%1").arg(port));
    streamer.try_connect();
    if (!streamer.capture().liveButton()->isChecked()) {
        error = "the capture streamer did not go live";
        return false;
    }
    return true;
}

pid_t InProcessSender::pid() const {
    return getpid();
}

void InProcessSender::stop() {
    streamer.stop();
    streamer.capture().setLive(false);
}

bool ExecutableSender::start(uint16_t port, int) {
    const QString config = folder.filePath("config");
    QDir().mkpath(config + "/Myrtlebrook");
    QFile settings(config + "/Myrtlebrook/Brindlewave.conf");
    if (!settings.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        error = "cannot write the settings file";
        return false;
    }
    settings.write(QString("[General]\nSRT_HOST_PORT=127.0.0.1:%1\n").arg(port).toUtf8());
    settings.close();

    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("XDG_CONFIG_HOME", config);
    environment.insert("BRINDLEWAVE_DATA_DIR", folder.filePath("data"));
    environment.insert("BRINDLEWAVE_UPDATE_URL", "");
    program.setProcessEnvironment(environment);
    // Its log lines would bury the figures; the log file keeps them.
    program.setStandardOutputFile(QProcess::nullDevice());
    program.setStandardErrorFile(QProcess::nullDevice());
    program.start(executable, QStringList());
    if (!program.waitForStarted()) {
        error = "cannot start " + executable.toStdString();
        return false;
    }
    // The column is first shown where the screen's size puts it, then set beside the frame:
    // the live button is only where it was measured once the column stands there.
    QDeadlineTimer deadline(30000);
    while (columnPosition() != columnInPlace && !deadline.hasExpired())
        turnEventLoop(100);
    if (columnPosition() != columnInPlace) {
        error = "the executable's tool column never stood in its place";
        endProcess(program);
        return false;
    }
    run("xdotool", {"mousemove", QString::number(liveButton.x()), QString::number(liveButton.y()),
                    "click", "1"});
    return true;
}

void ExecutableSender::stop() {
    endProcess(program);
}

QStringList FfmpegSender::arguments(uint16_t port, int latencyMs) const {
    QStringList arguments =
        QString("-hide_banner -loglevel error -nostdin -f x11grab -framerate 25").split(' ');
    arguments
        << "-video_size" << QString("%1x%2").arg(area.width()).arg(area.height()) << "-i"
        << QString("%1+%2,%3").arg(qEnvironmentVariable("DISPLAY")).arg(area.x()).arg(area.y());
    // 10 ms fragments, as the program asks its sound server for. Both inputs keep their own
    // time stamps, which come from the same clock: shifting each to start at 0 would move the
    // sound against the picture by the time between the two inputs' starts.
    if (!sound.isEmpty())
        arguments
            << QString("-copyts -f pulse -sample_rate 48000 -fragment_size 1920 -i").split(' ')
            << sound << QString("-c:a aac -b:a 128k").split(' ');
    arguments << QString("-vf scale=1920:1080 -pix_fmt yuv420p -c:v libx264 -preset veryfast -tune "
                         "zerolatency -b:v 5M -g 25 -bf 0 -f mpegts")
                     .split(' ');
    // The listener's latency, in the microseconds ffmpeg counts it in.
    return arguments << QString("srt://127.0.0.1:%1?pkt_size=1316&latency=%2")
                            .arg(port)
                            .arg(latencyMs * 1000);
}

bool FfmpegSender::start(uint16_t port, int latencyMs) {
    ffmpeg.setProcessChannelMode(QProcess::MergedChannels);
    ffmpeg.start("ffmpeg", arguments(port, latencyMs));
    if (!ffmpeg.waitForStarted()) {
        error = "cannot start ffmpeg";
        return false;
    }
    return true;
}

void FfmpegSender::stop() {
    endProcess(ffmpeg);
    // Only errors are printed; the first tells why nothing arrived.
    const QList<QByteArray> lines = ffmpeg.readAll().trimmed().split('\n');
    error = lines.isEmpty() ? std::string() : lines.constFirst().toStdString();
}
