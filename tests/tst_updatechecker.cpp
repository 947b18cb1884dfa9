#include "support/freeport.h"
#include "support/messagecapture.h"
#include "updatechecker.h"

#include <QFile>
#include <QNetworkReply>
#include <QPointer>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>

namespace {

// The update server: HTTP/1.1 on 127.0.0.1 that records each request line and answers every
// request with `status` after `delayMs`.
class HttpServer : public QTcpServer {
public:
    HttpServer(int status, int delayMs) {
        connect(this, &QTcpServer::newConnection, this, [this, status, delayMs] {
            QTcpSocket* socket = nextPendingConnection();
            connect(socket, &QTcpSocket::readyRead, this, [this, socket, status, delayMs] {
                if (!socket->canReadLine() || socket->property("read").toBool())
                    return;
                socket->setProperty("read", true);
                requestLines << QString::fromLatin1(socket->readLine()).trimmed();
                QTimer::singleShot(delayMs, socket, [socket, status] {
                    const QByteArray body = "{\"latest\":\"11\",\"notes\":\"nothing new\"}";
                    socket->write("HTTP/1.1 " + QByteArray::number(status) +
                                  " Reason\r\nContent-Type: application/json\r\nContent-Length: " +
                                  QByteArray::number(body.size()) +
                                  "\r\nConnection: close\r\n\r\n" + body);
                    socket->disconnectFromHost();
                });
            });
        });
    }
    QStringList requestLines;
};

} // namespace

class TestUpdateChecker : public QObject {
    Q_OBJECT

private slots:
    void oneRequestOneLine_data();
    void oneRequestOneLine();
};

void TestUpdateChecker::oneRequestOneLine_data() {
    QTest::addColumn<int>("status"); // 0: nobody listens; -1: no server configured
    QTest::addColumn<int>("delayMs");
    QTest::addColumn<bool>("checkerGoesFirst");
    QTest::addColumn<QStringList>("logged"); // parts of the one line logged, or no line
    QTest::addColumn<bool>("warning");
    const QString status = "[UpdateChecker] Update server returned status %1";
    const QStringList response{"[UpdateChecker] Response: ", "nothing new"};
    const QString failed = "[UpdateChecker] Can't connect to update server: ";
    QTest::newRow("answer") << 200 << 0 << false << response << false;
    QTest::newRow("not found") << 404 << 0 << false << QStringList{status.arg(404)} << true;
    QTest::newRow("server error") << 503 << 0 << false << QStringList{status.arg(503)} << true;
    QTest::newRow("no content") << 204 << 0 << false << QStringList{status.arg(204)} << true;
    QTest::newRow("refused") << 0 << 0 << false << QStringList{failed, "refused"} << true;
    QTest::newRow("empty base fails at once") << -1 << 0 << false << QStringList{failed} << true;
    // The answer comes after the check at 5 s has looked at the running request.
    QTest::newRow("slow answer") << 200 << 6000 << false << response << false;
    QTest::newRow("checker gone before the answer")
        << 200 << 60000 << true << QStringList{} << false;
}

void TestUpdateChecker::oneRequestOneLine() {
    QFETCH(int, status);
    QFETCH(int, delayMs);
    QFETCH(bool, checkerGoesFirst);
    QFETCH(QStringList, logged);
    QFETCH(bool, warning);
    HttpServer server(status, delayMs);
    QVERIFY(server.listen(QHostAddress::LocalHost));
    const uint16_t port = status > 0 ? server.serverPort() : freeLoopbackPort(false);
    qputenv("BRINDLEWAVE_UPDATE_URL",
            status < 0 ? QByteArray() : "http://127.0.0.1:" + QByteArray::number(port));

    MessageCapture capture;
    auto* checker = new UpdateChecker(nullptr);
    checker->start();
    checker->start(); // later calls send nothing
    const auto replies = checker->networkAccess()->findChildren<QNetworkReply*>();
    QCOMPARE(replies.size(), 1);
    QPointer<QNetworkReply> reply = replies.first();
    if (checkerGoesFirst)
        QTRY_COMPARE(server.requestLines.size(), 1);
    else
        QTRY_VERIFY_WITH_TIMEOUT(reply.isNull(), delayMs + 5000);
    delete checker;
    QVERIFY(reply.isNull());
    QCoreApplication::processEvents();

    const QStringList lines = capture.messages().filter("[UpdateChecker]");
    QCOMPARE(lines.size(), logged.isEmpty() ? 0 : 1);
    for (const QString& part : logged)
        QVERIFY2(lines[0].contains(part), qPrintable(lines[0]));
    QCOMPARE(capture.messagesOf(QtWarningMsg).filter("[UpdateChecker]").size(), warning ? 1 : 0);
    if (status <= 0)
        return;
    QCOMPARE(server.requestLines.size(), 1);
    const QRegularExpressionMatch request =
        QRegularExpression("^GET /check_update379/200/([0-9a-f]+|unknownhost)/1/11/update\\.json "
                           "HTTP/1\\.1$")
            .match(server.requestLines[0]);
    QVERIFY2(request.hasMatch(), qPrintable(server.requestLines[0]));
    // Where the firmware gives no identifier, the machine's own stands in for it.
    QVERIFY(request.captured(1) != "unknownhost" || !QFile::exists("/etc/machine-id"));
}

QTEST_GUILESS_MAIN(TestUpdateChecker)
#include "tst_updatechecker.moc"
