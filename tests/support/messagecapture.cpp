#include "messagecapture.h"

#include "logfile.h"

#include <mutex>
#include <utility>
#include <vector>

namespace {

// A standard mutex, which ThreadSanitizer sees, unlike QMutex inside the uninstrumented toolkit.
std::mutex mutex;
std::vector<std::pair<QtMsgType, QString>> captured;
QtMessageHandler previous = nullptr;

void capture(QtMsgType type, const QMessageLogContext& context, const QString& message) {
    QtMessageHandler forward;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        captured.emplace_back(type, message);
        forward = previous;
    }
    forward(type, context, message);
}

} // namespace

// A thread of an earlier capture's run may still be logging its last lines: the handler's
// state changes under the lock it is read with.
MessageCapture::MessageCapture(bool logLines) : previousLog(logStream) {
    const std::lock_guard<std::mutex> lock(mutex);
    captured.clear();
    previous = qInstallMessageHandler(capture);
    if (logLines)
        logStream = &logBuffer;
}

MessageCapture::~MessageCapture() {
    const std::lock_guard<std::mutex> lock(mutex);
    qInstallMessageHandler(previous);
    // A log file opened meanwhile stays the run's log.
    if (logStream == &logBuffer)
        logStream = previousLog;
}

QStringList MessageCapture::messagesOf(QtMsgType type) const {
    const std::lock_guard<std::mutex> lock(mutex);
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
