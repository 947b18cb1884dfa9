#include "srtlistener.h"

#include <arpa/inet.h>
#include <map>
#include <netinet/in.h>

SrtListener::SrtListener() {
    srt_startup();
}

SrtListener::~SrtListener() {
    stop();
    srt_cleanup();
}

bool SrtListener::start(uint16_t port, bool ipv6) {
    stop();
    const SRTSOCKET listenSocket = srt_create_socket();
    if (listenSocket == SRT_INVALID_SOCK)
        return false;
    const int live = SRTT_LIVE;
    const bool async = false;
    // Messages are recorded as they arrive: a receiver that holds them back for its latency
    // window loses what is still held when the caller closes.
    const bool deliverAtOnce = false;
    sockaddr_storage address{};
    socklen_t addressLength = 0;
    if (ipv6) {
        auto* v6 = reinterpret_cast<sockaddr_in6*>(&address);
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(port);
        v6->sin6_addr = in6addr_loopback;
        addressLength = sizeof *v6;
    } else {
        auto* v4 = reinterpret_cast<sockaddr_in*>(&address);
        v4->sin_family = AF_INET;
        v4->sin_port = htons(port);
        v4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addressLength = sizeof *v4;
    }
    const int epoll = srt_epoll_create();
    const int events = SRT_EPOLL_IN | SRT_EPOLL_ERR;
    if (epoll < 0 || srt_setsockflag(listenSocket, SRTO_TRANSTYPE, &live, sizeof live) != 0 ||
        srt_setsockflag(listenSocket, SRTO_RCVSYN, &async, sizeof async) != 0 ||
        srt_setsockflag(listenSocket, SRTO_TSBPDMODE, &deliverAtOnce, sizeof deliverAtOnce) != 0 ||
        (!passphrase.empty() && srt_setsockflag(listenSocket, SRTO_PASSPHRASE, passphrase.data(),
                                                static_cast<int>(passphrase.size())) != 0) ||
        srt_bind(listenSocket, reinterpret_cast<sockaddr*>(&address),
                 static_cast<int>(addressLength)) != 0 ||
        srt_listen(listenSocket, 4) != 0 ||
        srt_epoll_add_usock(epoll, listenSocket, &events) != 0) {
        if (epoll >= 0)
            srt_epoll_release(epoll);
        srt_close(listenSocket);
        return false;
    }
    stopping = false;
    thread = std::thread(&SrtListener::run, this, listenSocket, epoll);
    return true;
}

void SrtListener::stop() {
    if (!thread.joinable())
        return;
    stopping = true;
    thread.join();
}

void SrtListener::run(SRTSOCKET listenSocket, int epoll) {
    std::map<SRTSOCKET, std::size_t> open; // accepted socket -> index in received
    const int events = SRT_EPOLL_IN | SRT_EPOLL_ERR;
    while (!stopping) {
        SRTSOCKET ready[8];
        int readyCount = 8;
        if (srt_epoll_wait(epoll, ready, &readyCount, nullptr, nullptr, 50, nullptr, nullptr,
                           nullptr, nullptr) <= 0)
            readyCount = 0;
        for (int i = 0; i < readyCount; ++i) {
            if (ready[i] == listenSocket) {
                sockaddr_storage peer{};
                int peerLength = sizeof peer;
                const SRTSOCKET accepted =
                    srt_accept(listenSocket, reinterpret_cast<sockaddr*>(&peer), &peerLength);
                if (accepted == SRT_INVALID_SOCK)
                    continue;
                char streamId[600] = {};
                int streamIdLength = sizeof streamId;
                if (srt_getsockflag(accepted, SRTO_STREAMID, streamId, &streamIdLength) != 0)
                    streamIdLength = 0;
                const bool async = false;
                srt_setsockflag(accepted, SRTO_RCVSYN, &async, sizeof async);
                srt_epoll_add_usock(epoll, accepted, &events);
                std::lock_guard<std::mutex> lock(mutex);
                received.push_back({std::string(streamId, streamIdLength), {}, false});
                open[accepted] = received.size() - 1;
                continue;
            }
            const auto connection = open.find(ready[i]);
            if (connection != open.end() && receive(connection->first, connection->second)) {
                finish(epoll, connection->first, connection->second);
                open.erase(connection);
            }
        }
        // A caller that closed before its socket was watched raises no event: look at states.
        for (auto connection = open.begin(); connection != open.end();) {
            if (srt_getsockstate(connection->first) >= SRTS_BROKEN &&
                receive(connection->first, connection->second)) {
                finish(epoll, connection->first, connection->second);
                connection = open.erase(connection);
            } else {
                ++connection;
            }
        }
    }
    for (const auto& connection : open)
        finish(epoll, connection.first, connection.second);
    srt_epoll_release(epoll);
    srt_close(listenSocket);
}

bool SrtListener::receive(SRTSOCKET socket, std::size_t index) {
    for (;;) {
        char message[1500];
        const int length = srt_recvmsg(socket, message, sizeof message);
        if (length > 0) {
            std::lock_guard<std::mutex> lock(mutex);
            received[index].messages.emplace_back(message, length);
            continue;
        }
        return srt_getlasterror(nullptr) != SRT_EASYNCRCV;
    }
}

void SrtListener::finish(int epoll, SRTSOCKET socket, std::size_t index) {
    srt_epoll_remove_usock(epoll, socket);
    srt_close(socket);
    std::lock_guard<std::mutex> lock(mutex);
    received[index].closed = true;
}

std::vector<SrtListener::Connection> SrtListener::connections() const {
    std::lock_guard<std::mutex> lock(mutex);
    return received;
}

std::size_t SrtListener::connectionCount() const {
    std::lock_guard<std::mutex> lock(mutex);
    return received.size();
}

QByteArray SrtListener::bytes(std::size_t connection) const {
    std::lock_guard<std::mutex> lock(mutex);
    QByteArray joined;
    if (connection < received.size())
        for (const QByteArray& message : received[connection].messages)
            joined += message;
    return joined;
}
