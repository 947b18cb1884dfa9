#include "srtconnection.h"
#include "support/freeport.h"
#include "support/srtlistener.h"

#include <QtTest>

class TestSrtConnection : public QObject {
    Q_OBJECT

private slots:
    void reachesTheListener_data();
    void reachesTheListener();
};

void TestSrtConnection::reachesTheListener_data() {
    QTest::addColumn<QString>("hostPort"); // %1 is the listener's port
    QTest::addColumn<bool>("ipv6");
    QTest::addColumn<QString>("streamId");
    QTest::newRow("address and stream id") << "127.0.0.1:%1" << false << "#!::r=room/7,m=publish";
    QTest::newRow("host name") << "localhost:%1" << false << "";
    QTest::newRow("unbracketed IPv6, last colon splits") << "::1:%1" << true << "";
    QTest::newRow("blank before the port") << "127.0.0.1: %1" << false << "";
    QTest::newRow("plus sign") << "127.0.0.1:+%1" << false << "";
}

void TestSrtConnection::reachesTheListener() {
    QFETCH(QString, hostPort);
    QFETCH(bool, ipv6);
    QFETCH(QString, streamId);
    const uint16_t port = freeLoopbackPort(true);
    SrtListener listener;
    QVERIFY(listener.start(port, ipv6));
    SrtConnection connection;
    StreamParams params;
    params.hostPort = hostPort.arg(port).toStdString();
    params.streamId = streamId.toStdString();
    std::string errorText;
    QVERIFY2(connection.connect(params, errorText), errorText.c_str());

    // Chunks of any size arrive whole and in order, cut into live messages.
    QByteArray chunks;
    for (int size : {4000, 1316, 188}) {
        QByteArray chunk(size, '\0');
        for (int i = 0; i < size; ++i)
            chunk[i] = static_cast<char>(size + i * 7);
        QVERIFY(
            connection.send(reinterpret_cast<const uint8_t*>(chunk.constData()), size, errorText));
        chunks += chunk;
    }
    QTRY_COMPARE(listener.bytes(0), chunks);
    // Exact bytes: a terminating zero sent along would show up as one more character.
    QCOMPARE(QString::fromStdString(listener.connections()[0].streamId), streamId);

    // Connecting again closes the socket it replaces.
    QVERIFY2(connection.connect(params, errorText), errorText.c_str());
    QTRY_VERIFY(listener.connectionCount() == 2 && listener.connections()[0].closed);
    QVERIFY(!listener.connections()[1].closed);
}

QTEST_GUILESS_MAIN(TestSrtConnection)
#include "tst_srtconnection.moc"
