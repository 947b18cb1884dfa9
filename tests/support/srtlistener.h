#pragma once

#include <srt/srt.h>

#include <QByteArray>
#include <QImage>
#include <QJsonObject>
#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// The tests' SRT server: a live-mode libsrt listener on 127.0.0.1 (or ::1) that accepts callers
// one after another and records, per connection, the stream id the caller sent and every message
// it received. It stops and starts again on the same port to play a server that goes away. What
// a connection received is looked at as a viewer would see it, through ffprobe and ffmpeg.
class SrtListener {
public:
    struct Connection {
        std::string streamId;
        std::vector<QByteArray> messages;
        bool closed = false;
    };

    SrtListener() { srt_startup(); }
    ~SrtListener() {
        stop();
        srt_cleanup();
    }

    // Connections recorded before a stop stay; later ones are appended.
    bool start(uint16_t port, bool ipv6 = false);
    // Callers must bring this passphrase from the next start on; empty: no encryption.
    void setPassphrase(const std::string& text) { passphrase = text; }
    // From the next start on a viewer's receiver: messages held back and handed on in order at
    // this latency, those still missing then given up; 0 records them as they arrive.
    void setLatency(int ms) { latencyMs = ms; }
    // From now on every handshake is refused with this rejection reason; 0 accepts again.
    void setRefusal(int reason) { refusal = reason; }
    // Handshakes that reached the listener since its first start, refused ones included.
    int handshakes() const { return handshakeCount; }
    // Closes the listening socket and every accepted connection (the callers see them break).
    void stop();

    std::vector<Connection> connections() const;
    std::size_t connectionCount() const { return connections().size(); }
    // The payload of one connection, messages joined in order of arrival.
    QByteArray bytes(std::size_t connection) const;
    // ffprobe's "streams" and "frames" of a payload; empty on failure.
    static QJsonObject probe(const QByteArray& payload);
    // The one video stream's codec, size and rate, as in "h264 1920x1080 25/1"; empty unless
    // exactly one stream arrived.
    QString video(std::size_t connection) const;
    // The sound of one connection's payload, decoded to 48 kHz mono signed 16-bit samples.
    QByteArray sound(std::size_t connection) const;
    // What ffmpeg reports wrong while it decodes one connection's payload from the first key
    // frame at or after picture `from` to all but the last `leftOut` pictures (which the close
    // may have cut off, or left with packets never resent); empty when they decode cleanly.
    QByteArray decodeErrors(std::size_t connection, int from, int leftOut) const;
    // One decoded picture of one connection's payload at the stream's size; null on failure.
    QImage picture(std::size_t connection, int index) const;

private:
    void run(SRTSOCKET listenSocket);
    static int onHandshake(void* self, SRTSOCKET, int, const sockaddr*, const char*);

    mutable std::mutex mutex;
    std::vector<Connection> received;
    std::atomic<bool> stopping{false};
    std::thread thread;
    std::string passphrase;
    int latencyMs = 0;
    std::atomic<int> refusal{0};
    std::atomic<int> handshakeCount{0};
};
