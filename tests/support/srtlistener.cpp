#include "srtlistener.h"

#include <QJsonDocument>
#include <QProcess>
#include <QTemporaryFile>
#include <algorithm>
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
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(port);
    v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(port);
    v6.sin6_addr = in6addr_loopback;
    const SRTSOCKET listenSocket = srt_create_socket();
    const int epoll = srt_epoll_create();
    const int live = SRTT_LIVE;
    const int events = SRT_EPOLL_IN | SRT_EPOLL_ERR;
    // Without time-stamp based delivery messages are recorded as they arrive: a receiver that
    // holds them back for its latency window loses what is still held when the caller closes.
    const bool no = false;
    if (srt_setsockflag(listenSocket, SRTO_TRANSTYPE, &live, sizeof live) != 0 ||
        srt_setsockflag(listenSocket, SRTO_RCVSYN, &no, sizeof no) != 0 ||
        srt_setsockflag(listenSocket, SRTO_TSBPDMODE, &no, sizeof no) != 0 ||
        srt_bind(listenSocket,
                 ipv6 ? reinterpret_cast<sockaddr*>(&v6) : reinterpret_cast<sockaddr*>(&v4),
                 ipv6 ? sizeof v6 : sizeof v4) != 0 ||
        srt_listen(listenSocket, 4) != 0 ||
        srt_epoll_add_usock(epoll, listenSocket, &events) != 0) {
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
    // The last round, after the stop, closes whatever is still open.
    for (bool last = false; !last;) {
        last = stopping;
        SRTSOCKET ready[8];
        int readyCount = 8;
        // One caller accepted per round: the listener stays ready while more are waiting.
        const bool waiting =
            srt_epoll_wait(epoll, ready, &readyCount, nullptr, nullptr, 50, nullptr, nullptr,
                           nullptr, nullptr) > 0 &&
            std::find(ready, ready + readyCount, listenSocket) != ready + readyCount;
        sockaddr_storage peer{};
        int peerLength = sizeof peer;
        const SRTSOCKET accepted =
            waiting ? srt_accept(listenSocket, reinterpret_cast<sockaddr*>(&peer), &peerLength)
                    : SRT_INVALID_SOCK;
        if (accepted != SRT_INVALID_SOCK) {
            char streamId[600] = {};
            int idLength = sizeof streamId;
            if (srt_getsockflag(accepted, SRTO_STREAMID, streamId, &idLength) != 0)
                idLength = 0;
            srt_epoll_add_usock(epoll, accepted, &events);
            std::lock_guard<std::mutex> lock(mutex);
            received.push_back({std::string(streamId, idLength), {}, false});
            open[accepted] = received.size() - 1;
        }
        // Every open connection is read each round: one that closed before it was watched
        // raises no event.
        for (auto connection = open.begin(); connection != open.end();) {
            if (receive(connection->first, connection->second) && !last) {
                ++connection;
                continue;
            }
            srt_epoll_remove_usock(epoll, connection->first);
            srt_close(connection->first);
            std::lock_guard<std::mutex> lock(mutex);
            received[connection->second].closed = true;
            connection = open.erase(connection);
        }
    }
    srt_epoll_release(epoll);
    srt_close(listenSocket);
}

bool SrtListener::receive(SRTSOCKET socket, std::size_t index) {
    char message[1500];
    int length;
    while ((length = srt_recvmsg(socket, message, sizeof message)) > 0) {
        std::lock_guard<std::mutex> lock(mutex);
        received[index].messages.emplace_back(message, length);
    }
    return srt_getlasterror(nullptr) == SRT_EASYNCRCV;
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

QByteArray SrtListener::runTool(std::size_t connection, const QString& program,
                                QStringList arguments) const {
    QTemporaryFile file;
    if (!file.open() || file.write(bytes(connection)) < 0 || !file.flush())
        return {};
    arguments[arguments.indexOf("IN")] = file.fileName();
    QProcess tool;
    tool.start(program, arguments);
    if (!tool.waitForFinished(60000) || tool.exitStatus() != QProcess::NormalExit ||
        tool.exitCode() != 0)
        return {};
    return tool.readAllStandardOutput();
}

QJsonObject SrtListener::probe(std::size_t connection) const {
    return QJsonDocument::fromJson(
               runTool(connection, "ffprobe",
                       {"-v", "error", "-show_streams", "-show_frames", "-of", "json", "IN"}))
        .object();
}

QImage SrtListener::picture(std::size_t connection, int index) const {
    return QImage::fromData(
               runTool(connection, "ffmpeg",
                       {"-v", "error", "-i", "IN", "-vf", QString("select=eq(n\\,%1)").arg(index),
                        "-frames:v", "1", "-f", "image2pipe", "-vcodec", "ppm", "-"}),
               "PPM")
        .convertToFormat(QImage::Format_RGB888);
}
