#include "srtconnection.h"

#include "logfile.h"

#include <srt/access_control.h>

#include <algorithm>
#include <chrono>
#include <cstring>

namespace {

int64_t steadyNanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// A server that keeps refusing or stays away is asked again after half a second, then twice
// as long each time, up to eight seconds: often enough to be back soon after it is, rarely
// enough that a refusal costs it (and the library's threads here) next to nothing.
constexpr int64_t firstBackoffNs = 500000000;
constexpr int64_t longestBackoffNs = 8000000000;
constexpr int sendBufferBytes = 819200;
constexpr int udpSendBufferBytes = 6553600;
// How often a connect that waits looks whether it is abandoned.
constexpr int abandonCheckMs = 50;
// What the link carries beyond the encoders' bitrate: MPEG-TS packet and PES headers, the
// program tables and clock references (about 4 % for video at these rates, measured by
// bench_link), and the 44 bytes of SRT, UDP and IP header that libsrt's pacing counts with
// each 1316-byte message.
constexpr double transportOverhead = 1.04 * (1316.0 + 44) / 1316;
// Room above the fed rate for retransmissions and for draining a burst the encoder's buffer
// allows, as libsrt's documentation suggests for a known input rate.
constexpr int retransmitHeadroomPercent = 25;

int64_t backoffNs(int32_t failures) {
    if (failures <= 0)
        return 0;
    return std::min(longestBackoffNs, firstBackoffNs << std::min(failures - 1, 8));
}

// What a server's refusal means to the presenter. Servers that check stream ids answer with
// the access-control codes; the library's own codes cover the handshake itself.
const char* refusalInWords(int reason) {
    switch (reason) {
    case SRT_REJ_BADSECRET:
        return "the server refused the passphrase";
    case SRT_REJ_PEER:
        return "the server refused the stream";
    case SRT_REJ_RESOURCE:
    case SRT_REJ_BACKLOG:
    case SRT_REJX_OVERLOAD:
    case SRT_REJX_DOWN:
    case SRT_REJX_NOROOM:
        return "the server is busy";
    case SRT_REJX_UNAUTHORIZED:
    case SRT_REJX_FORBIDDEN:
    case SRT_REJX_BAD_REQUEST:
    case SRT_REJX_KEY_NOTSUP:
        return "the server refused the stream id";
    case SRT_REJX_NOTFOUND:
    case SRT_REJX_FILEPATH:
    case SRT_REJX_HOSTNOTFOUND:
        return "the server knows no stream of that id";
    case SRT_REJX_CONFLICT:
    case SRT_REJX_LOCKED:
        return "the server already has a sender for that stream id";
    case SRT_REJX_BAD_MODE:
    case SRT_REJX_UNACCEPTABLE:
    case SRT_REJX_NOTSUP_MEDIA:
        return "the server does not accept this kind of stream";
    case SRT_REJ_TIMEOUT:
        return "no answer from the server";
    default:
        return nullptr;
    }
}

} // namespace

SrtConnection::SrtConnection() {
    srt_startup();
    srt_setloglevel(3);
}

SrtConnection::~SrtConnection() {
    close();
    srt_cleanup();
}

bool SrtConnection::connect(const StreamParams& newSettings, std::string& errorText,
                            const std::atomic<bool>* abandon) {
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
    agreedLatencyMs = 0;
    lastFailure.clear();
    peerLength = 0;

    address = SrtAddress();
    if (!SrtAddress::parse(settings.hostPort, address, errorText))
        return false;
    // The form's stream id field, when filled in, wins over the address's.
    if (!settings.streamId.empty())
        address.streamId = settings.streamId;

    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* list = nullptr;
    const std::string portText = std::to_string(address.port);
    if (getaddrinfo(address.host.c_str(), portText.c_str(), &hints, &list) != 0 || !list) {
        if (list)
            freeaddrinfo(list);
        errorText = "failed to resolve SRT host: " + address.host;
        return false;
    }
    // A socket that has tried one address family refuses the other, so each address gets a
    // socket of its own; they are all tried at once, so that a name such as localhost, whose
    // first address may be one the server does not listen on, connects as quickly as the
    // address that answers, and the whole attempt keeps the one connect time-out.
    std::vector<SRTSOCKET> pending;
    std::vector<addrinfo*> addresses;
    bool ok = true;
    for (addrinfo* entry = list; entry && ok; entry = entry->ai_next) {
        const SRTSOCKET candidate = openSocket(errorText);
        ok = candidate != SRT_INVALID_SOCK;
        if (!ok)
            break;
        const bool wait = false;
        if (!setOption(candidate, SRTO_RCVSYN, "SRTO_RCVSYN", &wait, sizeof wait, errorText) ||
            srt_connect(candidate, entry->ai_addr, static_cast<int>(entry->ai_addrlen)) ==
                SRT_ERROR) {
            errorText = std::string("SRT connect failed: ") + srt_getlasterror_str();
            srt_close(candidate);
            continue;
        }
        pending.push_back(candidate);
        addresses.push_back(entry);
    }
    const bool connected = ok && awaitFirst(pending, addresses, abandon, errorText);
    for (const SRTSOCKET unused : pending)
        srt_close(unused);
    freeaddrinfo(list);
    if (connected) {
        int latency = 0;
        int length = sizeof latency;
        if (srt_getsockflag(socket, SRTO_PEERLATENCY, &latency, &length) != SRT_ERROR)
            agreedLatencyMs = latency;
        stats.connected();
    }
    return connected;
}

bool SrtConnection::awaitFirst(std::vector<SRTSOCKET>& pending, std::vector<addrinfo*> addresses,
                               const std::atomic<bool>* abandon, std::string& errorText) {
    if (pending.empty())
        return false;
    int timeoutMs = 3000;
    int length = sizeof timeoutMs;
    srt_getsockflag(pending.front(), SRTO_CONNTIMEO, &timeoutMs, &length);
    // Each socket ends its own connect at the time-out; this only guards against one that
    // never reports.
    const int64_t deadline = steadyNanoseconds() + (timeoutMs + 1000) * int64_t(1000000);
    const int epoll = srt_epoll_create();
    const int events = SRT_EPOLL_OUT | SRT_EPOLL_ERR;
    for (const SRTSOCKET candidate : pending)
        srt_epoll_add_usock(epoll, candidate, &events);
    std::vector<SRT_EPOLL_EVENT> ready(pending.size());
    errorText.clear();
    while (socket == SRT_INVALID_SOCK && !pending.empty() && steadyNanoseconds() < deadline &&
           !(abandon && *abandon)) {
        const int count =
            srt_epoll_uwait(epoll, ready.data(), static_cast<int>(ready.size()), abandonCheckMs);
        for (int i = 0; i < count && socket == SRT_INVALID_SOCK; ++i) {
            const auto found = std::find(pending.begin(), pending.end(), ready[i].fd);
            if (found == pending.end())
                continue;
            const std::size_t index = static_cast<std::size_t>(found - pending.begin());
            if (srt_getsockstate(*found) == SRTS_CONNECTED) {
                socket = *found;
                const addrinfo* entry = addresses[index];
                std::memcpy(&peer, entry->ai_addr,
                            std::min<std::size_t>(entry->ai_addrlen, sizeof peer));
                peerLength = static_cast<int>(entry->ai_addrlen);
            } else if (srt_getsockstate(*found) != SRTS_CONNECTING) {
                // A server's refusal says more than another address's silence.
                if (errorText.empty() || srt_getrejectreason(*found) != SRT_REJ_TIMEOUT)
                    errorText = connectFailure(*found);
                srt_epoll_remove_usock(epoll, *found);
                srt_close(*found);
            } else {
                continue;
            }
            pending.erase(found);
            addresses.erase(addresses.begin() + static_cast<std::ptrdiff_t>(index));
        }
    }
    srt_epoll_release(epoll);
    if (socket != SRT_INVALID_SOCK)
        return true;
    if (errorText.empty())
        errorText = std::string("SRT connect failed: ") + srt_strerror(SRT_ENOSERVER, 0);
    return false;
}

SRTSOCKET SrtConnection::openSocket(std::string& errorText) {
    const SRTSOCKET created = srt_create_socket();
    if (created == SRT_INVALID_SOCK) {
        errorText = std::string("srt_create_socket failed: ") + srt_getlasterror_str();
        return SRT_INVALID_SOCK;
    }
    const int transtype = SRTT_LIVE;
    const std::string& streamId = address.streamId;
    const int latency = settings.latency;
    // A send finding the buffer full drops its chunk instead of waiting for the peer; with
    // sends that never wait, closing hands the unacknowledged tail of the stream to the
    // library, which delivers it in the background for up to the linger time.
    const bool wait = false;
    const linger drain{1, lingerSeconds};
    // Every loss report the receiver sends brings a resend, its repeats too. libsrt's own
    // choice skips a repeat that comes soon after a resend, so a resend the link lost too
    // waited for a later report: through a 2 Mbit/s relay with 0.5 % loss both ways the sender
    // answered 13 to 18 of every 20 reports, and 2 of 8 streams broke at a viewer with 400 ms
    // of latency; answering each (all but 1 to 3 of 20), 7 streams in a row arrived intact.
    // The repeats cost little: a few packets in a hundred.
    const int everyReport = 0;
    bool ok = setOption(created, SRTO_TRANSTYPE, "SRTO_TRANSTYPE", &transtype, sizeof transtype,
                        errorText);
    if (ok) {
        // Larger buffers only smooth bursts (a key frame); a system that refuses them still
        // streams.
        setOption(created, SRTO_SNDBUF, "SRTO_SNDBUF", &sendBufferBytes, sizeof sendBufferBytes,
                  errorText);
        setOption(created, SRTO_UDP_SNDBUF, "SRTO_UDP_SNDBUF", &udpSendBufferBytes,
                  sizeof udpSendBufferBytes, errorText);
        if (!streamId.empty() && srt_setsockopt(created, 0, SRTO_STREAMID, streamId.data(),
                                                static_cast<int>(streamId.size())) == SRT_ERROR) {
            errorText = std::string("failed to set SRTO_STREAMID: ") + srt_getlasterror_str();
            ok = false;
        }
    }
    ok = ok &&
         setOption(created, SRTO_PEERLATENCY, "SRTO_PEERLATENCY", &latency, sizeof latency,
                   errorText) &&
         address.applyTo(created, errorText) &&
         setOption(created, SRTO_SNDSYN, "SRTO_SNDSYN", &wait, sizeof wait, errorText) &&
         setOption(created, SRTO_LINGER, "SRTO_LINGER", &drain, sizeof drain, errorText) &&
         setOption(created, SRTO_RETRANSMITALGO, "SRTO_RETRANSMITALGO", &everyReport,
                   sizeof everyReport, errorText) &&
         pace(created, errorText);
    if (ok)
        return created;
    srt_close(created);
    return SRT_INVALID_SOCK;
}

void SrtConnection::startReconnect() {
    std::string failure;
    socket = peerLength == 0 ? SRT_INVALID_SOCK : openSocket(failure);
    const bool wait = false;
    if (socket == SRT_INVALID_SOCK ||
        !setOption(socket, SRTO_RCVSYN, "SRTO_RCVSYN", &wait, sizeof wait, failure) ||
        srt_connect(socket, reinterpret_cast<const sockaddr*>(&peer), peerLength) == SRT_ERROR) {
        if (failure.empty())
            failure = std::string("SRT connect failed: ") + srt_getlasterror_str();
        reconnectFailed(failure);
        return;
    }
    reconnecting = true;
}

bool SrtConnection::reconnectFinished() {
    const SRT_SOCKSTATUS state = srt_getsockstate(socket);
    if (state == SRTS_CONNECTING)
        return false;
    reconnecting = false;
    if (state == SRTS_CONNECTED) {
        logLine("SrtConnection reconnected to ", SrtAddress::masked(settings.hostPort));
        attempts = 0;
        lastFailure.clear();
        stats.connected();
        return true;
    }
    reconnectFailed(connectFailure(socket));
    return false;
}

void SrtConnection::reconnectFailed(const std::string& reason) {
    if (reason != lastFailure)
        logLine("SrtConnection reconnect to ", SrtAddress::masked(settings.hostPort),
                " failed: ", reason);
    lastFailure = reason;
    closeAndScheduleReconnect();
}

std::string SrtConnection::connectFailure(SRTSOCKET failed) const {
    const int reason = srt_getrejectreason(failed);
    if (reason == SRT_REJ_UNSECURE)
        return address.passphrase.empty()
                   ? "SRT connect failed: the server requires a passphrase"
                   : "SRT connect failed: the server does not use a passphrase";
    if (const char* words = refusalInWords(reason))
        return std::string("SRT connect failed: ") + words;
    if (reason >= SRT_REJC_PREDEFINED)
        return "SRT connect failed: the server refused the connection (code " +
               std::to_string(reason) + ")";
    if (reason != SRT_REJ_UNKNOWN)
        return std::string("SRT connect failed: ") + srt_rejectreason_str(reason);
    return std::string("SRT connect failed: ") + srt_getlasterror_str();
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
            if (srt_getlasterror(nullptr) == SRT_EASYNCSND) {
                stats.refused();
                return true;
            }
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
            stats.sent(socket, size);
            std::string failure;
            if ((stats.linkTargetKbps() != pacedKbps || stats.burstKbps() != pacedBurstKbps) &&
                !pace(socket, failure))
                logLine("SrtConnection ", failure);
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
        // The first attempt of an outage is told; after that only what changes.
        if (attempts++ == 0)
            logLine("SrtConnection reconnecting to ", SrtAddress::masked(settings.hostPort));
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
    retryAt = steadyNanoseconds() + backoffNs(attempts);
}

bool SrtConnection::pace(SRTSOCKET target, std::string& errorText) {
    pacedKbps = stats.linkTargetKbps();
    pacedBurstKbps = stats.burstKbps();
    // A link with room to burst into is paced at the burst rate outright; libsrt then leaves the
    // input rate and headroom aside.
    const int64_t ceiling =
        static_cast<int64_t>(static_cast<int64_t>(pacedBurstKbps) * 1000 / 8 * transportOverhead);
    const int64_t fedBytesPerSecond =
        static_cast<int64_t>(pacedKbps * 1000 / 8 * transportOverhead);
    const int headroom = retransmitHeadroomPercent;
    return setOption(target, SRTO_MAXBW, "SRTO_MAXBW", &ceiling, sizeof ceiling, errorText) &&
           setOption(target, SRTO_INPUTBW, "SRTO_INPUTBW", &fedBytesPerSecond,
                     sizeof fedBytesPerSecond, errorText) &&
           setOption(target, SRTO_OHEADBW, "SRTO_OHEADBW", &headroom, sizeof headroom, errorText);
}

bool SrtConnection::setOption(SRTSOCKET target, SRT_SOCKOPT option, const char* name,
                              const void* value, int length, std::string& errorText) {
    if (srt_setsockopt(target, 0, option, value, length) == SRT_ERROR) {
        errorText = std::string("failed to set ") + name + ": " + srt_getlasterror_str();
        return false;
    }
    return true;
}
