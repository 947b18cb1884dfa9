#include "srtconnection.h"

#include "logfile.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>

namespace {

int64_t steadyNanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

constexpr int64_t reconnectBackoffNs = 2000000000;
constexpr int sendBufferBytes = 819200;
constexpr int udpSendBufferBytes = 6553600;

} // namespace

SrtConnection::SrtConnection() {
    srt_startup();
    srt_setloglevel(3);
}

SrtConnection::~SrtConnection() {
    close();
    srt_cleanup();
}

bool SrtConnection::connect(const StreamParams& newSettings, std::string& errorText) {
    close();
    if (&newSettings != &settings) {
        settings.hostPort = newSettings.hostPort;
        settings.streamId = newSettings.streamId;
        settings.videoBitrateKbps = newSettings.videoBitrateKbps;
        settings.audioBitrateKbps = newSettings.audioBitrateKbps;
        settings.latency = newSettings.latency;
    }
    attempts = 0;
    retryAt = 0;
    reconnects = true;
    peerLength = 0;

    address = SrtAddress();
    if (!SrtAddress::parse(settings.hostPort, address, errorText))
        return false;
    // The form's stream id field, when filled in, wins over the address's.
    if (!settings.streamId.empty())
        address.streamId = settings.streamId;
    if (!openSocket(errorText))
        return false;
    const std::string& host = address.host;
    const int32_t port = address.port;

    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* list = nullptr;
    const std::string portText = std::to_string(port);
    if (getaddrinfo(host.c_str(), portText.c_str(), &hints, &list) != 0 || !list) {
        if (list)
            freeaddrinfo(list);
        errorText = "failed to resolve SRT host: " + host;
        close();
        return false;
    }
    for (addrinfo* entry = list; entry && peerLength == 0; entry = entry->ai_next)
        if (srt_connect(socket, entry->ai_addr, static_cast<int>(entry->ai_addrlen)) != SRT_ERROR) {
            std::memcpy(&peer, entry->ai_addr,
                        std::min<std::size_t>(entry->ai_addrlen, sizeof peer));
            peerLength = static_cast<int>(entry->ai_addrlen);
        }
    freeaddrinfo(list);
    if (peerLength != 0) {
        stats.connected();
        return true;
    }
    errorText = address.connectFailure(socket);
    close();
    return false;
}

bool SrtConnection::openSocket(std::string& errorText) {
    socket = srt_create_socket();
    if (socket == SRT_INVALID_SOCK) {
        errorText = std::string("srt_create_socket failed: ") + srt_getlasterror_str();
        return false;
    }

    const int transtype = SRTT_LIVE;
    if (!setOption(SRTO_TRANSTYPE, "SRTO_TRANSTYPE", &transtype, sizeof transtype, errorText)) {
        close();
        return false;
    }
    // Larger buffers only smooth bursts (a key frame); a system that refuses them still streams.
    setOption(SRTO_SNDBUF, "SRTO_SNDBUF", &sendBufferBytes, sizeof sendBufferBytes, errorText);
    setOption(SRTO_UDP_SNDBUF, "SRTO_UDP_SNDBUF", &udpSendBufferBytes, sizeof udpSendBufferBytes,
              errorText);
    const std::string& streamId = address.streamId;
    if (!streamId.empty() && srt_setsockopt(socket, 0, SRTO_STREAMID, streamId.data(),
                                            static_cast<int>(streamId.size())) == SRT_ERROR) {
        errorText = std::string("failed to set SRTO_STREAMID: ") + srt_getlasterror_str();
        close();
        return false;
    }
    const int latency = settings.latency;
    if (!setOption(SRTO_PEERLATENCY, "SRTO_PEERLATENCY", &latency, sizeof latency, errorText) ||
        !address.applyTo(socket, errorText)) {
        close();
        return false;
    }
    // A send finding the buffer full drops its chunk instead of waiting for the peer; with
    // sends that never wait, closing hands the unacknowledged tail of the stream to the
    // library, which delivers it in the background for up to the linger time.
    const bool wait = false;
    const linger drain{1, lingerSeconds};
    if (!setOption(SRTO_SNDSYN, "SRTO_SNDSYN", &wait, sizeof wait, errorText) ||
        !setOption(SRTO_LINGER, "SRTO_LINGER", &drain, sizeof drain, errorText)) {
        close();
        return false;
    }
    return true;
}

void SrtConnection::startReconnect() {
    // As connect() does, every attempt starts its count afresh: an unreachable server is
    // tried again as soon as an attempt has failed.
    attempts = 0;
    retryAt = 0;
    std::string ignored;
    if (peerLength == 0 || !openSocket(ignored)) {
        closeAndScheduleReconnect();
        return;
    }
    const bool wait = false;
    if (!setOption(SRTO_RCVSYN, "SRTO_RCVSYN", &wait, sizeof wait, ignored) ||
        srt_connect(socket, reinterpret_cast<const sockaddr*>(&peer), peerLength) == SRT_ERROR) {
        closeAndScheduleReconnect();
        return;
    }
    reconnecting = true;
    logLine("SrtConnection reconnecting to ", SrtAddress::masked(settings.hostPort));
}

bool SrtConnection::reconnectFinished() {
    const SRT_SOCKSTATUS state = srt_getsockstate(socket);
    if (state == SRTS_CONNECTING)
        return false;
    reconnecting = false;
    if (state == SRTS_CONNECTED) {
        logLine("SrtConnection reconnected to ", SrtAddress::masked(settings.hostPort));
        stats.connected();
        return true;
    }
    closeAndScheduleReconnect();
    return false;
}

bool SrtConnection::sendAll(const uint8_t* data, std::size_t size, std::string& errorText) {
    std::size_t offset = 0;
    while (offset < size) {
        const std::size_t piece = std::min(size - offset, maxMessageSize);
        const int sent =
            srt_send(socket, reinterpret_cast<const char*>(data + offset), static_cast<int>(piece));
        if (sent < 1) {
            // A full buffer is a slow or silent peer: the rest of the chunk is dropped, and the
            // library declares the connection lost once the peer stays silent too long.
            if (srt_getlasterror(nullptr) == SRT_EASYNCSND)
                return true;
            errorText = std::string("SRT send failed: ") + srt_getlasterror_str();
            close();
            return false;
        }
        offset += static_cast<std::size_t>(sent);
    }
    return true;
}

bool SrtConnection::send(const uint8_t* data, std::size_t size, std::string& errorText) {
    if (reconnecting)
        return true;
    if (socket != SRT_INVALID_SOCK) {
        if (data && size != 0 && !sendAll(data, size, errorText)) {
            logLine("SrtConnection lost ", SrtAddress::masked(settings.hostPort), ": ", errorText);
            stats.lost();
            closeAndScheduleReconnect();
            errorText.clear();
        } else {
            stats.sent(socket);
        }
        return true;
    }
    if (settings.hostPort.empty() || !reconnects)
        return true;
    if (retryAt == 0)
        closeAndScheduleReconnect();
    // The chunk that starts a reconnect is dropped, and so is every chunk until resumed() has
    // found the handshake ended: the stream resumes cleanly with the next picture.
    if (steadyNanoseconds() >= retryAt) {
        ++attempts;
        startReconnect();
    }
    return true;
}

void SrtConnection::close() {
    if (socket == SRT_INVALID_SOCK)
        return;
    if (reconnecting)
        logLine("SrtConnection abandons the reconnect in progress to ",
                SrtAddress::masked(settings.hostPort));
    reconnecting = false;
    stats.closing(socket);
    srt_close(socket);
    socket = SRT_INVALID_SOCK;
}

void SrtConnection::closeAndScheduleReconnect() {
    close();
    const int64_t now = steadyNanoseconds();
    retryAt = attempts >= 2 ? now + reconnectBackoffNs : now;
}

bool SrtConnection::parseHostPort(const std::string& hostPort, std::string& host, int32_t& port,
                                  std::string& errorText) {
    const std::size_t colon = hostPort.rfind(':');
    if (hostPort.empty() || colon == std::string::npos || colon == 0 ||
        colon == hostPort.size() - 1) {
        errorText = "SRT address must be HOST:PORT";
        return false;
    }
    const std::string portText = hostPort.substr(colon + 1);
    char* end = nullptr;
    // Compared as long before narrowing: where long is 64 bits, a huge number must not wrap
    // into the valid range.
    const long value = std::strtol(portText.c_str(), &end, 10);
    if (!end || *end != '\0' || value < 1 || value > 65535) {
        errorText = "SRT port is invalid";
        return false;
    }
    host = hostPort.substr(0, colon);
    port = static_cast<int32_t>(value);
    return true;
}

bool SrtConnection::setOption(SRT_SOCKOPT option, const char* name, const void* value, int length,
                              std::string& errorText) {
    if (srt_setsockopt(socket, 0, option, value, length) == SRT_ERROR) {
        errorText = std::string("failed to set ") + name + ": " + srt_getlasterror_str();
        return false;
    }
    return true;
}
