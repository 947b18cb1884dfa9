#include "freeport.h"

#include <QFile>
#include <QRandomGenerator>
#include <QTcpServer>
#include <QUdpSocket>

// Taken below the kernel's ephemeral range: a socket bound to port 0 anywhere on the machine,
// such as a reconnecting caller's, is never given it while a test's server is away from it.
uint16_t freeLoopbackPort(bool udp) {
    QFile range("/proc/sys/net/ipv4/ip_local_port_range");
    const int ephemeral =
        range.open(QIODevice::ReadOnly) ? range.readAll().split('\t')[0].toInt() : 0;
    const int below = ephemeral > 20000 ? ephemeral : 32768;
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const auto port = static_cast<uint16_t>(QRandomGenerator::global()->bounded(10000, below));
        QUdpSocket datagrams;
        QTcpServer streams;
        if (udp ? datagrams.bind(QHostAddress(QHostAddress::LocalHost), port)
                : streams.listen(QHostAddress::LocalHost, port))
            return port;
    }
    return 0;
}
