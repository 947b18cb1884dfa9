#include "netrelay.h"

#include <QCoreApplication>

bool NetRelay::start(uint16_t targetPort, const Link& link) {
    // Tests and benchmarks both live one folder below the build tree's top.
    QStringList arguments{"--listen",   "0",
                          "--target",   QString::number(targetPort),
                          "--rate",     QString::number(link.rateKbps),
                          "--delay-ms", QString::number(link.delayMs),
                          "--loss",     QString::number(link.lossPercent)};
    if (!link.schedule.isEmpty())
        arguments << "--schedule" << link.schedule;
    relay.start(QCoreApplication::applicationDirPath() + "/../tools/netrelay/netrelay", arguments);
    if (!relay.waitForStarted() || !relay.waitForReadyRead(10000))
        return false;
    const QList<QByteArray> line = relay.readLine().trimmed().split(' ');
    listening = line.size() == 2 && line[0] == "listening" ? line[1].toUShort() : 0;
    return listening != 0;
}

QString NetRelay::counters() {
    relay.write("counters\n");
    while (!relay.canReadLine() && relay.waitForReadyRead(10000)) {
    }
    return QString::fromUtf8(relay.readLine().trimmed());
}
