#pragma once

#include "linkstats.h"
#include "streamparams.h"

#include <srt/srt.h>

#include <cstddef>
#include <cstdint>
#include <string>

// The single SRT caller socket (live mode) that carries the transport stream to the server.
// A failed send drops its chunk and closes the socket; a later send reconnects. Nothing is
// queued or sent twice: a live stream would rather lose a moment than fall behind.
class SrtConnection {
public:
    SrtConnection();
    ~SrtConnection();
    SrtConnection(const SrtConnection&) = delete;
    SrtConnection& operator=(const SrtConnection&) = delete;

    // Closes whatever was open and connects to settings.hostPort; errorText says why not.
    bool connect(const StreamParams& settings, std::string& errorText);
    // Hands one chunk to the network under the drop-and-reconnect policy; always true.
    bool send(const uint8_t* data, std::size_t size, std::string& errorText);
    // Sends the chunk as SRT messages of at most maxMessageSize bytes; false closes the socket.
    bool sendAll(const uint8_t* data, std::size_t size, std::string& errorText);
    void close();
    void closeAndScheduleReconnect();
    bool isOpen() const { return socket != SRT_INVALID_SOCK; }
    LinkStats& linkStats() { return stats; }
    const LinkStats& linkStats() const { return stats; }

    // Splits "HOST:PORT" at its last ':' so that an unbracketed IPv6 host keeps its colons.
    static bool parseHostPort(const std::string& hostPort, std::string& host, int32_t& port,
                              std::string& errorText);

    // Seven 188-byte transport-stream packets: the payload limit of an SRT live message.
    static constexpr std::size_t maxMessageSize = 1316;

private:
    bool setOption(SRT_SOCKOPT option, const char* name, const void* value, int length,
                   std::string& errorText);

    StreamParams settings;
    int32_t attempts = 0;
    int64_t retryAt = 0; // steady-clock nanoseconds; 0 when no reconnect is scheduled
    SRTSOCKET socket = SRT_INVALID_SOCK;
    LinkStats stats;
};
