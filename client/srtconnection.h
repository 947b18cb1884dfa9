#pragma once

#include "linkstats.h"
#include "platform/sockets.h"
#include "srtaddress.h"
#include "streamparams.h"

#include <srt/srt.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// The single SRT caller socket (live mode) that carries the transport stream to the server.
// A failed send drops its chunk and closes the socket; a later send reconnects. Nothing is
// queued or sent twice: a live stream would rather lose a moment than fall behind.
// Only connect() waits for the network. Sends never wait for room in the buffer, and a
// reconnect runs in the background across later sends, which drop their chunks meanwhile, so
// whoever stops the stream meets a caller that is back within its tick.
class SrtConnection {
public:
    SrtConnection();
    ~SrtConnection();
    SrtConnection(const SrtConnection&) = delete;
    SrtConnection& operator=(const SrtConnection&) = delete;

    // Closes whatever was open and connects to settings.hostPort: every address the name
    // resolves to gets a socket of its own, all tried at once within the library's one connect
    // time-out, and the first to answer is kept. errorText says why none did. Setting
    // `abandon` from another thread ends the wait early, as a failure.
    bool connect(const StreamParams& settings, std::string& errorText,
                 const std::atomic<bool>* abandon = nullptr);
    // Hands one chunk to the network under the drop-and-reconnect policy; always true.
    bool send(const uint8_t* data, std::size_t size, std::string& errorText);
    // Sends the chunk as SRT messages of at most maxMessageSize bytes; false closes the socket.
    bool sendAll(const uint8_t* data, std::size_t size, std::string& errorText);
    // Abandons a reconnect in progress; what was sent before is still delivered in the
    // background for up to lingerSeconds, without holding the caller.
    void close();
    void closeAndScheduleReconnect();
    // From here until the next connect(), send() never reconnects: a stream that is ending
    // has nothing left worth a new connection.
    void stopReconnecting() { reconnects = false; }
    // True once a reconnect's handshake has connected. Only this ends a reconnect, and sends
    // drop their chunks until it has: the writer asks before each picture, so that the stream
    // can start again with a picture that needs none before it.
    bool resumed() { return reconnecting && reconnectFinished(); }
    // The receiver's latency the connection agreed on, in milliseconds; 0 before a connect.
    int32_t latencyMs() const { return agreedLatencyMs; }
    LinkStats& linkStats() { return stats; }
    const LinkStats& linkStats() const { return stats; }

    // Seven 188-byte transport-stream packets: the payload limit of an SRT live message.
    static constexpr std::size_t maxMessageSize = 1316;
    static constexpr int lingerSeconds = 1;

private:
    // A socket with every option of the stream, or SRT_INVALID_SOCK with the reason.
    SRTSOCKET openSocket(std::string& errorText);
    // Waits for the first of the pending connects to succeed; closes the others.
    bool awaitFirst(std::vector<SRTSOCKET>& pending, std::vector<addrinfo*> addresses,
                    const std::atomic<bool>* abandon, std::string& errorText);
    // Starts a connect to the address the last connect() reached, without waiting for it.
    void startReconnect();
    // The reconnect under way has ended: true if it connected (the socket is closed if not).
    bool reconnectFinished();
    void reconnectFailed(const std::string& reason);
    // Why the connect on `failed` did not succeed, in words a presenter can act on.
    std::string connectFailure(SRTSOCKET failed) const;
    // libsrt paces the socket from the rate the writer feeds it, not from its own estimate of
    // the input rate, which a still picture drags far below what the next change needs, or at
    // the burst rate where the link has room for it.
    bool pace(SRTSOCKET target, std::string& errorText);
    bool setOption(SRTSOCKET target, SRT_SOCKOPT option, const char* name, const void* value,
                   int length, std::string& errorText);

    StreamParams settings;
    int32_t pacedKbps = 0;
    int32_t pacedBurstKbps = 0;
    int32_t agreedLatencyMs = 0;
    int32_t attempts = 0; // reconnects that failed since the connection was last up
    int64_t retryAt = 0;  // steady-clock nanoseconds; 0 when no reconnect is scheduled
    SRTSOCKET socket = SRT_INVALID_SOCK;
    bool reconnecting = false; // socket is a reconnect whose handshake has not ended yet
    bool reconnects = true;
    // What the last failed reconnect said: a refusal that keeps coming is logged once.
    std::string lastFailure;
    // Reconnects go to the address found at connect(): resolving a name again could wait on
    // the network for longer than a tick.
    sockaddr_storage peer{};
    int peerLength = 0;
    // The parsed address of the last connect(), options and secrets included.
    SrtAddress address;
    LinkStats stats;
};
