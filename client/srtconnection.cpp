#include "srtconnection.h"

#include "platform/sockets.h"
#include "srtaddress.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace {

int64_t steadyNanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

constexpr int64_t reconnectBackoffNs = 2000000000;
// How long a closing connection waits for the server to acknowledge what was last sent.
constexpr auto drainTimeout = std::chrono::milliseconds(500);
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

    SrtAddress address;
    if (!SrtAddress::parse(settings.hostPort, address, errorText))
        return false;
    const std::string& host = address.host;
    const int32_t port = address.port;
    // The form's stream id field, when filled in, wins over the address's.
    const std::string& streamId = settings.streamId.empty() ? address.streamId : settings.streamId;

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
    bool connected = false;
    for (addrinfo* entry = list; entry && !connected; entry = entry->ai_next)
        connected =
            srt_connect(socket, entry->ai_addr, static_cast<int>(entry->ai_addrlen)) != SRT_ERROR;
    freeaddrinfo(list);
    if (connected) {
        stats.connected();
        return true;
    }
    errorText = address.connectFailure(socket);
    close();
    return false;
}

bool SrtConnection::sendAll(const uint8_t* data, std::size_t size, std::string& errorText) {
    std::size_t offset = 0;
    while (offset < size) {
        const std::size_t piece = std::min(size - offset, maxMessageSize);
        const int sent =
            srt_send(socket, reinterpret_cast<const char*>(data + offset), static_cast<int>(piece));
        if (sent < 1) {
            errorText = std::string("SRT send failed: ") + srt_getlasterror_str();
            close();
            return false;
        }
        offset += static_cast<std::size_t>(sent);
    }
    return true;
}

bool SrtConnection::send(const uint8_t* data, std::size_t size, std::string& errorText) {
    if (socket != SRT_INVALID_SOCK) {
        if (data && size != 0 && !sendAll(data, size, errorText)) {
            stats.lost();
            closeAndScheduleReconnect();
            errorText.clear();
        } else {
            stats.sent(socket);
        }
        return true;
    }
    if (settings.hostPort.empty())
        return true;
    if (retryAt == 0)
        closeAndScheduleReconnect();
    // The chunk that triggers a reconnect is dropped even when the reconnect succeeds: the
    // muxer has moved on, and the stream resumes cleanly with its next chunk.
    if (steadyNanoseconds() >= retryAt) {
        ++attempts;
        std::string ignored;
        if (!connect(settings, ignored))
            closeAndScheduleReconnect();
    }
    return true;
}

void SrtConnection::close() {
    if (socket == SRT_INVALID_SOCK)
        return;
    // In live mode closing drops whatever the server has not acknowledged yet, which at the
    // end of a stream is its last frames: give a healthy connection a moment to deliver them.
    const auto deadline = std::chrono::steady_clock::now() + drainTimeout;
    size_t blocks = 0;
    size_t bytes = 0;
    while (srt_getsockstate(socket) == SRTS_CONNECTED &&
           srt_getsndbuffer(socket, &blocks, &bytes) == 0 && blocks > 0 &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
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
