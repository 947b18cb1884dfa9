#include "messagecapture.h"

#include "logfile.h"

#include <QMutex>
#include <utility>
#include <vector>

namespace {

QMutex mutex;
std::vector<std::pair<QtMsgType, QString>> captured;
QtMessageHandler previous = nullptr;

void capture(QtMsgType type, const QMessageLogContext& context, const QString& message) {
    mutex.lock();
    captured.emplace_back(type, message);
    mutex.unlock();
    previous(type, context, message);
}

} // namespace

MessageCapture::MessageCapture(bool logLines) : previousLog(logStream) {
    captured.clear();
    previous = qInstallMessageHandler(capture);
    if (logLines)
        logStream = &logBuffer;
}

MessageCapture::~MessageCapture() {
    qInstallMessageHandler(previous);
    // A log file opened meanwhile stays the run's log.
    if (logStream == &logBuffer)
        logStream = previousLog;
}

QStringList MessageCapture::messagesOf(QtMsgType type) const {
    QMutexLocker lock(&mutex);
    QStringList matching;
    for (const auto& message : captured)
        if (type == QtMsgType(-1) || message.first == type)
            matching << message.second;
    return matching;
}

std::string MessageCapture::log() const {
    logfile::lockLine();
    std::string copy = logBuffer.str();
    logfile::unlockLine();
    return copy;
}
