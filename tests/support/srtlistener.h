#pragma once

#include <srt/srt.h>

#include <QByteArray>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// A live-mode SRT listener on 127.0.0.1 that accepts any number of callers one after another
// and records, per connection, the stream id the caller sent and every message it received.
// It can be stopped and started again on the same port to play a server that goes away.
class SrtListener {
public:
    struct Connection {
        std::string streamId;
        std::vector<QByteArray> messages;
        bool closed = false;
    };

    SrtListener();
    ~SrtListener();
    SrtListener(const SrtListener&) = delete;
    SrtListener& operator=(const SrtListener&) = delete;

    // Connections recorded before a stop stay; later ones are appended.
    // Listens on 127.0.0.1, or on ::1 when ipv6 is set.
    bool start(uint16_t port, bool ipv6 = false);
    // Callers must bring this passphrase from the next start on; empty: no encryption.
    void setPassphrase(const std::string& text) { passphrase = text; }
    // Closes the listening socket and every accepted connection (the callers see them break).
    void stop();

    std::vector<Connection> connections() const;
    std::size_t connectionCount() const;
    // The payload of one connection, messages joined in order of arrival.
    QByteArray bytes(std::size_t connection) const;

private:
    void run(SRTSOCKET listenSocket, int epoll);
    // Records what is waiting on an accepted socket; true once the connection has ended.
    bool receive(SRTSOCKET socket, std::size_t index);
    void finish(int epoll, SRTSOCKET socket, std::size_t index);

    mutable std::mutex mutex;
    std::vector<Connection> received;
    std::atomic<bool> stopping{false};
    std::thread thread;
    std::string passphrase;
};
