#pragma once

#include <QString>
#include <QStringList>
#include <QtGlobal>

// Collects what reaches the toolkit's message channel while it lives, from any thread.
class MessageCapture {
public:
    MessageCapture();
    ~MessageCapture();
    MessageCapture(const MessageCapture&) = delete;
    MessageCapture& operator=(const MessageCapture&) = delete;

    QStringList messages() const;
    QStringList messagesOf(QtMsgType type) const;
    bool contains(const QString& part) const;
};
