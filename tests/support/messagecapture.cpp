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
    {
        const std::lock_guard<std::mutex> lock(mutex);
        captured.emplace_back(type, message);
    }
    if (previous)
        previous(type, context, message);
}

} // namespace

MessageCapture::MessageCapture() {
    const std::lock_guard<std::mutex> lock(mutex);
    captured.clear();
    previous = qInstallMessageHandler(capture);
}

MessageCapture::~MessageCapture() {
    qInstallMessageHandler(previous);
}

QStringList MessageCapture::messages() const {
    const std::lock_guard<std::mutex> lock(mutex);
    QStringList all;
    for (const auto& message : captured)
        all << message.second;
    return all;
}

QStringList MessageCapture::messagesOf(QtMsgType type) const {
    const std::lock_guard<std::mutex> lock(mutex);
    QStringList matching;
    for (const auto& message : captured)
        if (message.first == type)
            matching << message.second;
    return matching;
}

bool MessageCapture::contains(const QString& part) const {
    const QStringList all = messages();
    for (const QString& message : all)
        if (message.contains(part))
            return true;
    return false;
}
