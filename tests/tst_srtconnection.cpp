#include "srtconnection.h"
#include "support/freeport.h"
#include "support/srtlistener.h"

#include <QDeadlineTimer>
#include <QThread>
#include <QtTest>

namespace {

QByteArray pattern(int size, char seed) {
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(seed + i * 7);
    return bytes;
}

const uint8_t* bytesOf(const QByteArray& data) {
    return reinterpret_cast<const uint8_t*>(data.constData());
}

StreamParams paramsFor(uint16_t port, std::string streamId = {}) {
    StreamParams params;
    params.hostPort = "127.0.0.1:" + std::to_string(port);
    params.streamId = std::move(streamId);
    return params;
}

} // namespace

class TestSrtConnection : public QObject {
    Q_OBJECT

private slots:
    void parsesHostPort_data();
    void parsesHostPort();
    void passesStreamIdOnlyWhenGiven();
    void cutsChunksIntoLiveMessages();
    void resolvesNamesAndIpv6Literals_data();
    void resolvesNamesAndIpv6Literals();
    void reportsConnectFailures_data();
    void reportsConnectFailures();
    void dropsAndReconnectsAfterServerLoss();
};

void TestSrtConnection::parsesHostPort_data() {
    QTest::addColumn<QString>("hostPort");
    QTest::addColumn<bool>("accepted");
    QTest::addColumn<QString>("host");
    QTest::addColumn<int>("port");
    QTest::addColumn<QString>("error");

    const QString shape = "SRT address must be HOST:PORT";
    const QString badPort = "SRT port is invalid";
    QTest::newRow("plain") << "example:9000" << true << "example" << 9000 << "";
    QTest::newRow("highest port") << "example:65535" << true << "example" << 65535 << "";
    QTest::newRow("blank before digits") << "example: 80" << true << "example" << 80 << "";
    QTest::newRow("plus sign") << "example:+80" << true << "example" << 80 << "";
    QTest::newRow("last colon splits") << "a:b:9000" << true << "a:b" << 9000 << "";
    QTest::newRow("bare IPv6") << "::1:9000" << true << "::1" << 9000 << "";
    QTest::newRow("bracketed IPv6 kept") << "[::1]:9000" << true << "[::1]" << 9000 << "";
    QTest::newRow("port zero") << "example:0" << false << "" << 0 << badPort;
    QTest::newRow("port too high") << "example:65536" << false << "" << 0 << badPort;
    QTest::newRow("negative port") << "example:-80" << false << "" << 0 << badPort;
    QTest::newRow("huge port wraps not") << "example:4294967377" << false << "" << 0 << badPort;
    QTest::newRow("trailing letters") << "example:80x" << false << "" << 0 << badPort;
    QTest::newRow("trailing blank") << "example:80 " << false << "" << 0 << badPort;
    QTest::newRow("no port") << "example:" << false << "" << 0 << shape;
    QTest::newRow("no host") << ":80" << false << "" << 0 << shape;
    QTest::newRow("no colon") << "example" << false << "" << 0 << shape;
    QTest::newRow("empty") << "" << false << "" << 0 << shape;
}

void TestSrtConnection::parsesHostPort() {
    QFETCH(QString, hostPort);
    QFETCH(bool, accepted);
    QFETCH(QString, host);
    QFETCH(int, port);
    QFETCH(QString, error);

    std::string parsedHost = "untouched";
    int32_t parsedPort = -1;
    std::string errorText;
    QCOMPARE(
        SrtConnection::parseHostPort(hostPort.toStdString(), parsedHost, parsedPort, errorText),
        accepted);
    QCOMPARE(QString::fromStdString(errorText), error);
    if (accepted) {
        QCOMPARE(QString::fromStdString(parsedHost), host);
        QCOMPARE(parsedPort, port);
    } else {
        QCOMPARE(parsedHost, std::string("untouched"));
        QCOMPARE(parsedPort, -1);
    }
}

void TestSrtConnection::passesStreamIdOnlyWhenGiven() {
    const uint16_t port = freeLoopbackPort(true);
    SrtListener listener;
    QVERIFY(listener.start(port));

    SrtConnection connection;
    std::string errorText;
    QVERIFY2(connection.connect(paramsFor(port, "#!::r=room/7,m=publish"), errorText),
             errorText.c_str());
    QTRY_COMPARE(listener.connectionCount(), std::size_t(1));
    QVERIFY2(connection.connect(paramsFor(port), errorText), errorText.c_str());
    QTRY_COMPARE(listener.connectionCount(), std::size_t(2));

    const auto connections = listener.connections();
    // Exact bytes: a terminating zero sent along would show up as a 23rd character.
    QCOMPARE(connections[0].streamId, std::string("#!::r=room/7,m=publish"));
    QCOMPARE(connections[1].streamId, std::string());
    // Connecting again closes the socket it replaces.
    QTRY_VERIFY(listener.connections()[0].closed);
    QVERIFY(!listener.connections()[1].closed);
}

void TestSrtConnection::cutsChunksIntoLiveMessages() {
    const uint16_t port = freeLoopbackPort(true);
    SrtListener listener;
    QVERIFY(listener.start(port));
    SrtConnection connection;
    std::string errorText;
    QVERIFY2(connection.connect(paramsFor(port), errorText), errorText.c_str());

    const QByteArray big = pattern(4000, 1);
    const QByteArray exact = pattern(1316, 2);
    const QByteArray small = pattern(188, 3);
    QVERIFY(connection.send(bytesOf(big), big.size(), errorText));
    QVERIFY(connection.send(nullptr, 100, errorText));
    QVERIFY(connection.send(bytesOf(small), 0, errorText));
    QVERIFY(connection.sendAll(bytesOf(exact), exact.size(), errorText));
    QVERIFY(connection.send(bytesOf(small), small.size(), errorText));

    QTRY_COMPARE(listener.bytes(0).size(), big.size() + exact.size() + small.size());
    QList<int> sizes;
    const auto connections = listener.connections();
    for (const QByteArray& message : connections[0].messages)
        sizes.append(message.size());
    QCOMPARE(sizes, (QList<int>{1316, 1316, 1316, 52, 1316, 188}));
    QCOMPARE(listener.bytes(0), big + exact + small);
    QVERIFY(connection.isOpen());
}

void TestSrtConnection::resolvesNamesAndIpv6Literals_data() {
    QTest::addColumn<QString>("host");
    QTest::addColumn<bool>("ipv6");
    QTest::newRow("host name") << "localhost" << false;
    QTest::newRow("unbracketed IPv6") << "::1" << true;
}

void TestSrtConnection::resolvesNamesAndIpv6Literals() {
    QFETCH(QString, host);
    QFETCH(bool, ipv6);
    const uint16_t port = freeLoopbackPort(true);
    SrtListener listener;
    QVERIFY(listener.start(port, ipv6));
    SrtConnection connection;
    StreamParams params;
    params.hostPort = QString("%1:%2").arg(host).arg(port).toStdString();
    std::string errorText;
    QVERIFY2(connection.connect(params, errorText), errorText.c_str());
    const QByteArray chunk = pattern(300, 9);
    QVERIFY(connection.send(bytesOf(chunk), chunk.size(), errorText));
    QTRY_COMPARE(listener.bytes(0), chunk);
}

void TestSrtConnection::reportsConnectFailures_data() {
    QTest::addColumn<QString>("hostPort");
    QTest::addColumn<QString>("error");
    QTest::newRow("shape") << "127.0.0.1"
                           << "SRT address must be HOST:PORT";
    QTest::newRow("port") << "127.0.0.1:70000"
                          << "SRT port is invalid";
    QTest::newRow("brackets are not an address") << "[::1]:9000"
                                                 << "failed to resolve SRT host: [::1]";
    QTest::newRow("nobody listens")
        << QString("127.0.0.1:%1").arg(freeLoopbackPort(true)) << "SRT connect failed: ";
}

void TestSrtConnection::reportsConnectFailures() {
    QFETCH(QString, hostPort);
    QFETCH(QString, error);
    SrtConnection connection;
    StreamParams params;
    params.hostPort = hostPort.toStdString();
    params.streamId = "id";
    std::string errorText;
    QVERIFY(!connection.connect(params, errorText));
    QVERIFY(!connection.isOpen());
    QVERIFY2(QString::fromStdString(errorText).startsWith(error), errorText.c_str());
    if (!error.endsWith(": "))
        QCOMPARE(QString::fromStdString(errorText), error);
    else
        QVERIFY(errorText.size() > std::size_t(error.size()));
}

void TestSrtConnection::dropsAndReconnectsAfterServerLoss() {
    const uint16_t port = freeLoopbackPort(true);
    SrtListener listener;
    QVERIFY(listener.start(port));
    SrtConnection connection;
    std::string errorText;
    QVERIFY2(connection.connect(paramsFor(port, "cam"), errorText), errorText.c_str());
    const QByteArray before = pattern(1000, 4);
    QVERIFY(connection.send(bytesOf(before), before.size(), errorText));
    QTRY_COMPARE(listener.bytes(0), before);

    // The server goes away: sends keep succeeding while their chunks are lost.
    listener.stop();
    const QByteArray lost = pattern(1316, 5);
    const QDeadlineTimer deadline(10000);
    while (connection.isOpen() && !deadline.hasExpired()) {
        errorText = "stale";
        QVERIFY(connection.send(bytesOf(lost), lost.size(), errorText));
        QThread::msleep(20);
    }
    QVERIFY(!connection.isOpen());
    QVERIFY(errorText.empty());

    // While it is away, each send starts or awaits a reconnect and still reports success.
    QVERIFY(connection.send(bytesOf(lost), lost.size(), errorText));
    QVERIFY(!connection.isOpen());

    // Back again: chunks are dropped until the handshake has ended, the first one after it
    // arrives, with the same id.
    QVERIFY(listener.start(port));
    const QByteArray after = pattern(700, 7);
    const QDeadlineTimer back(10000);
    while (!connection.isOpen() && !back.hasExpired()) {
        QVERIFY(connection.send(bytesOf(after), after.size(), errorText));
        QThread::msleep(20);
    }
    QTRY_COMPARE(listener.bytes(1), after);
    QCOMPARE(listener.connections()[1].streamId, std::string("cam"));
}

QTEST_GUILESS_MAIN(TestSrtConnection)
#include "tst_srtconnection.moc"
