#include "soundserver.h"

#include <QDeadlineTimer>
#include <QProcessEnvironment>

SoundServer::~SoundServer() {
    qunsetenv("PULSE_SERVER");
    server.terminate();
    if (!server.waitForFinished(10000))
        server.kill();
    server.waitForFinished();
}

bool SoundServer::start() {
    // Its state, cookie and socket stay in the temporary folder, never the user's.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"HOME", "PULSE_RUNTIME_PATH", "PULSE_STATE_PATH", "XDG_RUNTIME_DIR"})
        environment.insert(name, folder.path());
    server.setProcessEnvironment(environment);
    const QString socket = folder.filePath("socket");
    server.start("pulseaudio",
                 {"-n", "--exit-idle-time=-1", "--daemonize=no", "--use-pid-file=no", "-L",
                  "module-native-protocol-unix auth-anonymous=1 socket=" + socket});
    if (!server.waitForStarted())
        return false;
    qputenv("PULSE_SERVER", ("unix:" + socket).toUtf8());
    // The socket answers once the server has set itself up.
    for (QDeadlineTimer limit(20000); !limit.hasExpired();) {
        if (server.state() != QProcess::Running)
            return false;
        if (pactl({"info"}))
            return addSink();
    }
    return false;
}

bool SoundServer::addSink() {
    QProcess tool;
    tool.start("pactl", {"load-module", "module-null-sink", "sink_name=brindle", "rate=48000"});
    tool.waitForFinished();
    sinkModule = QString::fromUtf8(tool.readAllStandardOutput()).trimmed();
    return tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0;
}

bool SoundServer::pactl(const QStringList& arguments) {
    QProcess tool;
    tool.start("pactl", arguments);
    tool.waitForFinished();
    return tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0;
}
