#pragma once

#include <cstdint>

// Chooses the video bitrate a link carries, from what libsrt tells of it a few times a second.
// It only does sums: it is fed readings (the time included) and answers with a target, so
// that its choices can be checked without a network.
//
// The target falls at once by a large step when the link shows a queue building up (the
// round trip grows beyond its least), packets dropped for being late or for want of room, or a
// send buffer that does not drain; it climbs back in small steps, only while the link shows no
// queue and the encoder uses what it has (a still picture proves nothing about the link). It stays
// between a floor and the configured ceiling. Bitrates are kbit/s.
//
// Where libsrt's estimate of the link's capacity shows it many times wider than the ceiling,
// and the link has never pushed back, the sender may burst: the encoder gets a buffer of many
// frames, which libx264 fills far better than one, libsrt paces at a multiple of the ceiling,
// which such a link drains within the latency, and the target is the ceiling at once.
class RateController {
public:
    struct Sample {
        int64_t nowMs = 0;
        double rttMs = 0;          // libsrt's smoothed round trip; 0: not known yet
        int64_t sent = 0;          // packets sent since the last sample, resent ones included
        int64_t retransmitted = 0; // of those, sent again
        int64_t lost = 0;          // reported missing by the receiver
        int64_t dropped = 0;       // too late to send, or no room in the send buffer
        int32_t bufferedMs = 0;    // the send buffer's span of unacknowledged packets
        int32_t fedKbps = 0;       // what the writer handed to the connection, all streams
        int32_t estimateKbps = 0;  // libsrt's estimate of the link's capacity; 0: none yet
    };

    // otherKbps: the share of the link that other streams (sound) take from the same target.
    RateController(int32_t ceilingKbps, int32_t otherKbps);

    // A new connection: its round trip is learnt anew, the target stays.
    void restart();
    // One reading; returns the video target.
    int32_t update(const Sample& sample);
    int32_t videoKbps() const;
    // What the sender puts on the link: video and the other streams.
    int32_t linkKbps() const { return total; }
    int32_t otherKbps() const { return other; }
    // The rate the sender may burst to, all streams; 0 while it keeps to the target.
    int32_t burstKbps() const { return bursting ? roomyPacing * ceiling : 0; }

    static constexpr int32_t floorKbps = 300;

private:
    bool congested(const Sample& sample, double queueMs) const;
    void forgetOldRtt(int64_t nowMs);
    void judgeRoom(const Sample& sample);

    static constexpr int32_t roomyPacing = 6;

    int32_t ceiling;
    int32_t other;
    int32_t total;
    double minRttMs = 0; // least round trip of this window and the last: the link empty
    double windowMinRttMs = 0;
    int64_t windowStartMs = -1;
    int64_t lastMs = -1;
    int64_t decreasedAtMs = -1;
    int32_t edge = 0;          // the target the last step down started from
    bool exploring = true;     // no edge known, or left far behind: the first climb's pace
    int64_t roomySinceMs = -1; // the estimate has stayed wide since; -1: it has not
    bool bursting = false;
};
