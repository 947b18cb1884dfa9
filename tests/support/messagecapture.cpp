#include "messagecapture.h"

#include <QMutex>
#include <QMutexLocker>
#include <utility>
#include <vector>

namespace {

QMutex mutex;
std::vector<std::pair<QtMsgType, QString>> captured;
QtMessageHandler previous = nullptr;

void capture(QtMsgType type, const QMessageLogContext& context, const QString& message) {
    {
        QMutexLocker lock(&mutex);
        captured.emplace_back(type, message);
    }
    if (previous)
        previous(type, context, message);
}

} // namespace

MessageCapture::MessageCapture() {
    QMutexLocker lock(&mutex);
    captured.clear();
    previous = qInstallMessageHandler(capture);
}

MessageCapture::~MessageCapture() {
    qInstallMessageHandler(previous);
}

QStringList MessageCapture::messages() const {
    QMutexLocker lock(&mutex);
    QStringList all;
    for (const auto& message : captured)
        all << message.second;
    return all;
}

QStringList MessageCapture::messagesOf(QtMsgType type) const {
    QMutexLocker lock(&mutex);
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
