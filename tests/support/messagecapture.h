#pragma once

#include <QStringList>
#include <QtGlobal>
#include <ostream>
#include <sstream>
#include <string>

// Collects what the program says while it lives, from any thread: what reaches the toolkit's
// message channel (every log line too, its items separated by blanks) and, with `logLines`, the
// exact lines that would go to the log file. The log stream is read without a lock, as the
// program sets it once before any thread starts: take the log lines only while no thread logs.
class MessageCapture {
public:
    explicit MessageCapture(bool logLines = false);
    ~MessageCapture();
    MessageCapture(const MessageCapture&) = delete;
    MessageCapture& operator=(const MessageCapture&) = delete;

    QStringList messages() const { return messagesOf(QtMsgType(-1)); }
    // The messages of one type; QtMsgType(-1) gives all of them.
    QStringList messagesOf(QtMsgType type) const;
    bool contains(const QString& part) const { return !messages().filter(part).isEmpty(); }
    // The log file's lines, unless a log file was opened meanwhile.
    std::string log() const;

private:
    std::ostringstream logBuffer;
    std::ostream* previousLog;
};
