#pragma once

#include <QStringList>
#include <QtGlobal>

// Collects what the program says on the toolkit's message channel while it lives, from any
// thread: every log line too, its items separated by blanks.
class MessageCapture {
public:
    MessageCapture();
    ~MessageCapture();
    MessageCapture(const MessageCapture&) = delete;
    MessageCapture& operator=(const MessageCapture&) = delete;

    // The messages of one type; QtMsgType(-1) gives all of them.
    QStringList messages(QtMsgType type = QtMsgType(-1)) const;
    bool contains(const QString& part) const { return !messages().filter(part).isEmpty(); }
};
