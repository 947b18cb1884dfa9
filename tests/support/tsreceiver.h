#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <cstdint>

// An external SRT server for end-to-end tests: srt-live-transmit listening on 127.0.0.1 writes
// what one caller sends into a .ts file and ends when that caller goes away. The static
// helpers look at any .ts file through ffprobe and ffmpeg.
class TsReceiver {
public:
    explicit TsReceiver(QString outputPath);
    ~TsReceiver();
    TsReceiver(const TsReceiver&) = delete;
    TsReceiver& operator=(const TsReceiver&) = delete;

    // Starts the receiver and returns once its port is bound (false if it never is).
    bool start(uint16_t port, int timeoutMs = 5000);
    // Waits for the receiver to end after its caller left; false if it does not in time.
    bool finish(int timeoutMs = 10000);
    QString outputPath() const { return path; }

    // ffprobe's streams and frames of a file as JSON ("streams", "frames"); empty on failure.
    static QJsonObject probe(const QString& file);
    // Every decodable frame of a file as packed RGB24 at its own size, frames back to back.
    static QByteArray decodeRgb(const QString& file);
    // Writes bytes into a file, for probing what a test listener received.
    static bool writeFile(const QString& file, const QByteArray& bytes);

private:
    QString path;
    QProcess process;
};
