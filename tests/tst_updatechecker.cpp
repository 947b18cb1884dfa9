#include "platform/firmwaretable.h"
#include "support/freeport.h"
#include "support/smbiostable.h"
#include "updatechecker.h"

#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QMutex>
#include <QNetworkReply>
#include <QPointer>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>

using smbios::Bytes;

Q_DECLARE_METATYPE(Bytes)

namespace {

// A minimal HTTP/1.1 server on 127.0.0.1: records each request line and answers every
// request with `status`, after `delayMs`.
class HttpServer : public QObject {
public:
    HttpServer(int status, int delayMs) : status(status), delayMs(delayMs) {
        connect(&server, &QTcpServer::newConnection, this, &HttpServer::accept);
    }

    bool listen() { return server.listen(QHostAddress::LocalHost, 0); }
    QString baseUrl() const {
        return QStringLiteral("http://127.0.0.1:%1").arg(server.serverPort());
    }

    QStringList requestLines;
    const QByteArray body = "{\"latest\":\"11\",\"notes\":\"nothing new\"}";

private:
    void accept() {
        while (QTcpSocket* socket = server.nextPendingConnection())
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { read(socket); });
    }

    void read(QTcpSocket* socket) {
        QByteArray& pending = received[socket];
        pending += socket->readAll();
        const int headerEnd = pending.indexOf("\r\n\r\n");
        if (headerEnd < 0)
            return;
        requestLines << QString::fromLatin1(pending.left(pending.indexOf("\r\n")));
        pending.remove(0, headerEnd + 4);
        QTimer::singleShot(delayMs, socket, [this, socket] { answer(socket); });
    }

    void answer(QTcpSocket* socket) {
        const QByteArray reason = status == 200 ? "OK" : status == 404 ? "Not Found" : "Error";
        socket->write("HTTP/1.1 " + QByteArray::number(status) + ' ' + reason +
                      "\r\nContent-Type: application/json\r\nContent-Length: " +
                      QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" + body);
        socket->disconnectFromHost();
    }

    QTcpServer server;
    QHash<QTcpSocket*, QByteArray> received;
    const int status;
    const int delayMs;
};

struct Message {
    QtMsgType type;
    QString text;
};

QMutex messagesMutex;
QList<Message> messages;

void recordMessage(QtMsgType type, const QMessageLogContext&, const QString& text) {
    QMutexLocker lock(&messagesMutex);
    messages.append({type, text});
}

QList<Message> checkerMessages() {
    QMutexLocker lock(&messagesMutex);
    QList<Message> found;
    for (const Message& message : messages) {
        if (message.text.startsWith(QLatin1String("[UpdateChecker] ")))
            found.append(message);
    }
    return found;
}

QString hostSegmentOf(const QString& path) {
    return path.section(QLatin1Char('/'), 3, 3);
}

QString readTextFile(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromLatin1(file.readAll()).trimmed();
}

} // namespace

class TestUpdateChecker : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void formatsUuidByVersion_data();
    void formatsUuidByVersion();
    void walksTables_data();
    void walksTables();
    void buildsTablesFromLinuxFiles();
    void readsHostIdOfThisMachine();
    void buildsPath();

    void sendsOneGetAndLogsResponse();
    void reportsStatusOtherThan200_data();
    void reportsStatusOtherThan200();
    void reportsRefusedConnection();
    void failsAtOnceWithEmptyBase();
    void letsSlowRequestRunPastTimer();
    void dropsReplyWithChecker();

private:
    // Starts `checker` and returns the one reply it created.
    static QNetworkReply* startAndTakeReply(UpdateChecker& checker);
    // Starts the check and waits until its reply has been scheduled for deletion and is gone.
    static bool checkUntilReplyIsGone(UpdateChecker& checker);
    // Exactly one message: the debug line with the server's whole answer.
    static bool onlyTheResponseWasLogged();

    QtMessageHandler previousHandler = nullptr;
};

bool TestUpdateChecker::checkUntilReplyIsGone(UpdateChecker& checker) {
    QNetworkReply* reply = startAndTakeReply(checker);
    if (!reply)
        return false;
    QSignalSpy deleted(reply, &QObject::destroyed);
    return deleted.wait(5000);
}

bool TestUpdateChecker::onlyTheResponseWasLogged() {
    const QList<Message> logged = checkerMessages();
    if (logged.size() != 1 || logged[0].type != QtDebugMsg ||
        !logged[0].text.startsWith(QLatin1String("[UpdateChecker] Response: ")) ||
        !logged[0].text.contains(QLatin1String("nothing new"))) {
        for (const Message& message : logged)
            qWarning("logged: %s", qPrintable(message.text));
        return false;
    }
    return true;
}

void TestUpdateChecker::init() {
    {
        QMutexLocker lock(&messagesMutex);
        messages.clear();
    }
    previousHandler = qInstallMessageHandler(recordMessage);
}

void TestUpdateChecker::cleanup() {
    qInstallMessageHandler(previousHandler);
}

QNetworkReply* TestUpdateChecker::startAndTakeReply(UpdateChecker& checker) {
    checker.start();
    const QList<QNetworkReply*> replies = checker.networkAccess()->findChildren<QNetworkReply*>(
        QString(), Qt::FindDirectChildrenOnly);
    return replies.size() == 1 ? replies.first() : nullptr;
}

void TestUpdateChecker::formatsUuidByVersion_data() {
    QTest::addColumn<int>("version");
    QTest::addColumn<QString>("text");
    const QString stored = QStringLiteral("01234567-89AB-CDEF-1032-547698BADCFE");
    const QString littleEndian = QStringLiteral("67452301-AB89-EFCD-1032-547698BADCFE");
    QTest::newRow("2.4") << 0x0204 << stored;
    QTest::newRow("2.5, last stored-order version") << 0x0205 << stored;
    QTest::newRow("2.6, first little-endian version") << 0x0206 << littleEndian;
    QTest::newRow("2.8") << 0x0208 << littleEndian;
    QTest::newRow("3.4") << 0x0304 << littleEndian;
}

void TestUpdateChecker::formatsUuidByVersion() {
    QFETCH(int, version);
    QFETCH(QString, text);
    QCOMPARE(formatSmbiosUuid(smbios::sampleUuid, version), text);

    const smbios::Uuid small{0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07,
                             0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F};
    const QString expected = version < 0x0206
                                 ? QStringLiteral("00010203-0405-0607-0809-0A0B0C0D0E0F")
                                 : QStringLiteral("03020100-0504-0706-0809-0A0B0C0D0E0F");
    QCOMPARE(formatSmbiosUuid(small, version), expected);
}

void TestUpdateChecker::walksTables_data() {
    using namespace smbios;
    QTest::addColumn<Bytes>("table");
    QTest::addColumn<QString>("hostId");

    const QString littleEndian = QStringLiteral("67452301-AB89-EFCD-1032-547698BADCFE");
    const QString stored = QStringLiteral("01234567-89AB-CDEF-1032-547698BADCFE");
    const Bytes good = concat({biosInformation(), systemInformation(sampleUuid), endOfTable()});
    Uuid other = sampleUuid;
    other[15] = 0x11;
    const QString otherText = QStringLiteral("67452301-AB89-EFCD-1032-547698BADC11");

    QTest::newRow("good, SMBIOS 2.8") << rsmb(2, 8, good) << littleEndian;
    QTest::newRow("good, SMBIOS 2.4") << rsmb(2, 4, good) << stored;
    QTest::newRow("type 1 first, no end marker")
        << rsmb(3, 2, systemInformation(sampleUuid)) << littleEndian;
    QTest::newRow("type 1 of formatted length 24")
        << rsmb(2, 8, concat({biosInformation(), systemInformation(sampleUuid, 24)}))
        << littleEndian;
    QTest::newRow("first long type 1 wins")
        << rsmb(2, 8, concat({systemInformation(sampleUuid), systemInformation(other)}))
        << littleEndian;
    QTest::newRow("short type 1 skipped")
        << rsmb(2, 8, concat({systemInformation(sampleUuid, 23), systemInformation(other)}))
        << otherText;
    QTest::newRow("SMBIOS 2.0 type 1 skipped")
        << rsmb(2, 8, concat({systemInformation(sampleUuid, 8), systemInformation(other)}))
        << otherText;
    Uuid mixed{};
    mixed.fill(0xFF);
    mixed[0] = 0x00;
    QTest::newRow("zeros and ones mixed") << rsmb(2, 8, systemInformation(mixed))
                                          << QStringLiteral("FFFFFF00-FFFF-FFFF-FFFF-FFFFFFFFFFFF");

    QTest::newRow("shorter than its header") << Bytes{0, 2, 8, 0, 0, 0, 0} << QString();
    QTest::newRow("zero length") << rsmb(2, 8, {}) << QString();
    Bytes truncated = rsmb(2, 8, good);
    truncated.resize(truncated.size() - 10);
    QTest::newRow("truncated") << truncated << QString();
    Bytes padded = rsmb(2, 8, good);
    padded.push_back(0);
    QTest::newRow("length field short of the buffer") << padded << QString();
    Bytes cutInType1 = concat({biosInformation(), systemInformation(sampleUuid)});
    cutInType1.resize(biosInformation().size() + 20);
    QTest::newRow("type 1 cut inside its formatted area") << rsmb(2, 8, cutInType1) << QString();
    Bytes halfHeader = biosInformation();
    halfHeader.insert(halfHeader.end(), {1, 27, 1});
    QTest::newRow("header cut") << rsmb(2, 8, halfHeader) << QString();
    QTest::newRow("no type 1") << rsmb(2, 8, concat({biosInformation(), endOfTable()}))
                               << QString();
    QTest::newRow("only a short type 1")
        << rsmb(2, 8, concat({systemInformation(sampleUuid, 8), endOfTable()})) << QString();
    Bytes unterminated = structure(0, 0, {1, 2}, {"vendor", "version"});
    unterminated.pop_back();
    QTest::newRow("strings without their end")
        << rsmb(2, 8, concat({unterminated, systemInformation(sampleUuid)})) << QString();
    Bytes lastUnterminated = biosInformation();
    lastUnterminated.pop_back();
    QTest::newRow("last strings without their end") << rsmb(2, 8, lastUnterminated) << QString();
    Bytes zeroFormatted = biosInformation();
    zeroFormatted[1] = 0;
    QTest::newRow("zero formatted length")
        << rsmb(2, 8, concat({zeroFormatted, systemInformation(sampleUuid)})) << QString();
    Bytes overlong = biosInformation();
    overlong[1] = 0xFF;
    QTest::newRow("formatted area past the data")
        << rsmb(2, 8, concat({overlong, systemInformation(sampleUuid)})) << QString();
    Uuid zeros{};
    QTest::newRow("all-zero UUID")
        << rsmb(2, 8, concat({systemInformation(zeros), systemInformation(other)})) << QString();
    Uuid ones{};
    ones.fill(0xFF);
    QTest::newRow("all-0xFF UUID") << rsmb(2, 8, systemInformation(ones)) << QString();
}

void TestUpdateChecker::walksTables() {
    QFETCH(Bytes, table);
    QFETCH(QString, hostId);
    // An allocation of exactly the table's size, so that the address sanitizer sees any read
    // past it.
    std::unique_ptr<uint8_t[]> exact(new uint8_t[table.size()]);
    std::copy(table.begin(), table.end(), exact.get());
    QCOMPARE(hostIdFromSmbiosTable(exact.get(), table.size()), hostId);
}

void TestUpdateChecker::buildsTablesFromLinuxFiles() {
    using namespace smbios;
    const Bytes structures = concat({biosInformation(), systemInformation(sampleUuid)});
    const std::string structureFile(structures.begin(), structures.end());

    // SMBIOS 2.x entry point: version 2.4 at offsets 6 and 7, maximum structure size behind it.
    std::string legacy("_SM_\x5a\x1f\x02\x04\x40\x00\x00", 11);
    legacy += std::string(20, '\0');
    Bytes table = platform::rsmbFromDmiTables(legacy, structureFile);
    QCOMPARE(table, rsmb(2, 4, structures));
    QCOMPARE(hostIdFromSmbiosTable(table.data(), table.size()),
             QStringLiteral("01234567-89AB-CDEF-1032-547698BADCFE"));

    // SMBIOS 3 entry point: length 0x18 at offset 6, version 3.2 at offsets 7 and 8.
    std::string current("_SM3_\x33\x18\x03\x02\x00\x01\x00", 12);
    current += std::string(12, '\0');
    table = platform::rsmbFromDmiTables(current, structureFile);
    QCOMPARE(table, rsmb(3, 2, structures));
    QCOMPARE(hostIdFromSmbiosTable(table.data(), table.size()),
             QStringLiteral("67452301-AB89-EFCD-1032-547698BADCFE"));

    QVERIFY(platform::rsmbFromDmiTables("_DMI_\x02\x08\x00\x00", structureFile).empty());
    QVERIFY(
        platform::rsmbFromDmiTables(std::string("_SM3_\x00\x18\x03", 8), structureFile).empty());
    QVERIFY(platform::rsmbFromDmiTables(std::string("_SM_\x00\x1f\x02", 7), structureFile).empty());
    QVERIFY(platform::rsmbFromDmiTables(std::string(), structureFile).empty());
}

void TestUpdateChecker::readsHostIdOfThisMachine() {
    const QString hostId = readHostId();
    QVERIFY2(hostId.isEmpty() ||
                 QRegularExpression(QStringLiteral("^[0-9A-Fa-f-]+$")).match(hostId).hasMatch(),
             qPrintable(hostId));

    // Where neither firmware source can be read, the machine-id stands in for them.
    const QString machineId = readTextFile(QStringLiteral("/etc/machine-id"));
    if (!QFile::exists(QStringLiteral("/sys/firmware/dmi/tables/DMI")) &&
        readTextFile(QStringLiteral("/sys/class/dmi/id/product_uuid")).isEmpty() &&
        !machineId.isEmpty())
        QCOMPARE(hostId, machineId);
}

void TestUpdateChecker::buildsPath() {
    UpdateChecker checker(nullptr);
    const QString path = checker.buildPath();
    QVERIFY2(
        QRegularExpression(
            QStringLiteral("^/check_update379/200/([0-9a-f]+|unknownhost)/1/11/update\\.json$"))
            .match(path)
            .hasMatch(),
        qPrintable(path));

    QString expected = readHostId().remove(QLatin1Char('-')).toLower();
    if (expected.isEmpty())
        expected = QStringLiteral("unknownhost");
    QCOMPARE(hostSegmentOf(path), expected);
}

void TestUpdateChecker::sendsOneGetAndLogsResponse() {
    HttpServer server(200, 0);
    QVERIFY(server.listen());
    qputenv("BRINDLEWAVE_UPDATE_URL", server.baseUrl().toUtf8());

    UpdateChecker checker(nullptr);
    QVERIFY(checkUntilReplyIsGone(checker));

    QCOMPARE(server.requestLines,
             QStringList{QStringLiteral("GET %1 HTTP/1.1").arg(checker.buildPath())});
    QVERIFY(onlyTheResponseWasLogged());

    // Later calls send nothing: no reply is even created.
    QVERIFY(!startAndTakeReply(checker));
    QCoreApplication::processEvents();
    QCOMPARE(server.requestLines.size(), 1);
    QCOMPARE(checkerMessages().size(), 1);
}

void TestUpdateChecker::reportsStatusOtherThan200_data() {
    QTest::addColumn<int>("status");
    QTest::newRow("not found") << 404;
    QTest::newRow("server error") << 503;
    QTest::newRow("no content") << 204;
}

void TestUpdateChecker::reportsStatusOtherThan200() {
    QFETCH(int, status);
    HttpServer server(status, 0);
    QVERIFY(server.listen());
    qputenv("BRINDLEWAVE_UPDATE_URL", server.baseUrl().toUtf8());

    UpdateChecker checker(nullptr);
    QVERIFY(checkUntilReplyIsGone(checker));

    QCOMPARE(server.requestLines.size(), 1);
    const QList<Message> logged = checkerMessages();
    QCOMPARE(logged.size(), 1);
    QCOMPARE(logged[0].type, QtWarningMsg);
    QCOMPARE(logged[0].text,
             QStringLiteral("[UpdateChecker] Update server returned status %1").arg(status));
}

void TestUpdateChecker::reportsRefusedConnection() {
    const uint16_t port = freeLoopbackPort(false);
    QVERIFY(port != 0);
    qputenv("BRINDLEWAVE_UPDATE_URL", QByteArray("http://127.0.0.1:") + QByteArray::number(port));

    UpdateChecker checker(nullptr);
    QVERIFY(checkUntilReplyIsGone(checker));

    const QList<Message> logged = checkerMessages();
    QCOMPARE(logged.size(), 1);
    QCOMPARE(logged[0].type, QtWarningMsg);
    QVERIFY2(logged[0].text.startsWith(
                 QLatin1String("[UpdateChecker] Can't connect to update server: ")),
             qPrintable(logged[0].text));
    QVERIFY2(logged[0].text.contains(QLatin1String("refused")), qPrintable(logged[0].text));
}

void TestUpdateChecker::failsAtOnceWithEmptyBase() {
    qputenv("BRINDLEWAVE_UPDATE_URL", QByteArray());

    UpdateChecker checker(nullptr);
    QNetworkReply* reply = startAndTakeReply(checker);
    QVERIFY(reply);
    QSignalSpy deleted(reply, &QObject::destroyed);
    QElapsedTimer clock;
    clock.start();
    QVERIFY(deleted.wait(5000));
    QVERIFY2(clock.elapsed() < 1000, qPrintable(QString::number(clock.elapsed())));

    const QList<Message> logged = checkerMessages();
    QCOMPARE(logged.size(), 1);
    QCOMPARE(logged[0].type, QtWarningMsg);
    QVERIFY2(logged[0].text.startsWith(
                 QLatin1String("[UpdateChecker] Can't connect to update server: ")),
             qPrintable(logged[0].text));
}

void TestUpdateChecker::letsSlowRequestRunPastTimer() {
    HttpServer server(200, 6000);
    QVERIFY(server.listen());
    qputenv("BRINDLEWAVE_UPDATE_URL", server.baseUrl().toUtf8());

    UpdateChecker checker(nullptr);
    QElapsedTimer clock;
    clock.start();
    QNetworkReply* reply = startAndTakeReply(checker);
    QVERIFY(reply);
    QSignalSpy deleted(reply, &QObject::destroyed);
    QVERIFY(deleted.wait(15000));

    // The answer came after the 5000 ms check had fired on the running reply, and it was
    // still taken in whole.
    QVERIFY2(clock.elapsed() >= 5500, qPrintable(QString::number(clock.elapsed())));
    QVERIFY(onlyTheResponseWasLogged());
}

void TestUpdateChecker::dropsReplyWithChecker() {
    HttpServer server(200, 60000);
    QVERIFY(server.listen());
    qputenv("BRINDLEWAVE_UPDATE_URL", server.baseUrl().toUtf8());

    auto* checker = new UpdateChecker(nullptr);
    QPointer<QNetworkReply> reply = startAndTakeReply(*checker);
    QVERIFY(reply);
    QTRY_COMPARE(server.requestLines.size(), 1);

    delete checker;
    QVERIFY(reply.isNull());
    QCoreApplication::processEvents();
    QVERIFY(checkerMessages().isEmpty());
}

QTEST_GUILESS_MAIN(TestUpdateChecker)
#include "tst_updatechecker.moc"
