#include "messagecapture.h"

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
MessageCapture::MessageCapture() {
    const std::lock_guard<std::mutex> lock(mutex);
    captured.clear();
    previous = qInstallMessageHandler(capture);
}

MessageCapture::~MessageCapture() {
    const std::lock_guard<std::mutex> lock(mutex);
    qInstallMessageHandler(previous);
}

QStringList MessageCapture::messages(QtMsgType type) const {
    const std::lock_guard<std::mutex> lock(mutex);
    QStringList matching;
    for (const auto& message : captured)
        if (type == QtMsgType(-1) || message.first == type)
            matching << message.second;
    return matching;
}
