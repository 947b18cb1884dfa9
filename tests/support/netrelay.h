#pragma once

#include <QProcess>
#include <QString>
#include <cstdint>

// The uplink between a sender and a server: tools/netrelay on 127.0.0.1, with a bottleneck of
// a given rate and a 200 ms drop-tail queue, a one-way delay and random loss both ways.
class NetRelay {
public:
    struct Link {
        int rateKbps = 0; // 0: no bottleneck
        int delayMs = 0;  // each way
        double lossPercent = 0;
        QString schedule; // "S:KBIT,...": the rate S seconds after the first datagram
    };

    ~NetRelay() { relay.kill(), relay.waitForFinished(); }
    // Starts forwarding a free port of its own to targetPort.
    bool start(uint16_t targetPort, const Link& link);
    uint16_t port() const { return listening; }
    // The relay's counters line, as in "counters rate=2000 up forwarded=... queue_drops=...".
    QString counters();

private:
    QProcess relay;
    uint16_t listening = 0;
};
