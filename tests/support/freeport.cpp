#include "freeport.h"

#include <QTcpServer>
#include <QUdpSocket>

uint16_t freeLoopbackPort(bool udp) {
    QUdpSocket datagrams;
    QTcpServer streams;
    if (udp)
        return datagrams.bind(QHostAddress(QHostAddress::LocalHost), 0) ? datagrams.localPort() : 0;
    return streams.listen(QHostAddress::LocalHost) ? streams.serverPort() : 0;
}
