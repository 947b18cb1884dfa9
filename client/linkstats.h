#pragma once

#include <srt/srt.h>

#include <atomic>
#include <cstdint>

// What the presenter's link does while live, written to the log: every ten seconds one line
// with the round-trip time, the send rate and the packets sent, lost, retransmitted and
// dropped since the line before; one line when the link is lost and one when it is back; the
// totals when the stream stops. Counts survive reconnects, which start each socket at zero.
class LinkStats {
public:
    // A connection is up: the first of a stream starts the counts, a later one ends an outage.
    void connected();
    // A chunk went out; writes the periodic line when it is due.
    void sent(SRTSOCKET socket);
    // The socket is about to close: what it counted since it was last read is kept, where
    // it still answers.
    void closing(SRTSOCKET socket);
    // A send failed: the link is down until the next connected().
    void lost();
    // The stream stopped: the totals line.
    void finish();
    // Read by the interface thread while the streaming thread writes.
    bool down() const { return linkDown; }

private:
    struct Counts {
        int64_t sent = 0;
        int64_t lost = 0;
        int64_t retransmitted = 0;
        int64_t dropped = 0;
        uint64_t bytes = 0;
    };
    void take(SRTSOCKET socket);

    Counts interval;
    Counts totals;
    double rttMs = 0;
    int64_t lineAt = 0; // steady-clock nanoseconds of the last periodic line or the start
    int64_t downSince = 0;
    int32_t reconnects = 0;
    bool running = false;
    std::atomic<bool> linkDown{false};
};
