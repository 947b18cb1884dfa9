#include "platform/firmwaretable.h"
#include "support/freeport.h"
#include "support/messagecapture.h"
#include "updatechecker.h"

#include <QNetworkReply>
#include <QTcpServer>
#include <QTcpSocket>
#include <QtTest>
#include <cstdlib>

using Bytes = std::vector<uint8_t>;
Q_DECLARE_METATYPE(Bytes)

namespace {

// The update server: HTTP/1.1 on 127.0.0.1 that records the first request line and answers
// every request with `status` after `delayMs`, its body padded to `size` bytes.
struct HttpServer : QTcpServer {
    HttpServer(int status, int delayMs, int size) {
        connect(this, &QTcpServer::newConnection, this, [this, status, delayMs, size] {
            QTcpSocket* socket = nextPendingConnection();
            connect(socket, &QTcpSocket::readyRead, this, [this, socket, status, delayMs, size] {
                if (!socket->canReadLine() || !requestLine.isEmpty())
                    return;
                requestLine = QString::fromLatin1(socket->readLine()).trimmed();
                // The body runs to the end of the connection.
                QTimer::singleShot(delayMs, socket, [socket, status, size] {
                    socket->write("HTTP/1.1 " + QByteArray::number(status) +
                                  " Reason\r\nConnection: close\r\n\r\n" +
                                  QByteArray("{\"notes\":\"nothing new\"}").leftJustified(size));
                    socket->disconnectFromHost();
                });
            });
        });
    }
    QString requestLine;
};

// Raw SMBIOS tables in the 'RSMB' layout. One structure has a formatted area of `length` bytes
// (header included) and one string; a system information structure (type 1) carries `seed`,
// seed + 1, ... as its UUID, and a seed of 0 or 0xFF fills the whole UUID with it.
Bytes structure(uint8_t type, uint8_t length = 27, uint8_t seed = 0x10) {
    Bytes bytes(length, 1);
    bytes[0] = type;
    bytes[1] = length;
    for (int i = 8; i < 24 && i < length && type == 1; ++i)
        bytes[i] = static_cast<uint8_t>(seed + (seed % 0xFF ? i - 8 : 0));
    bytes.insert(bytes.end(), {'M', 'y', 'r', 't', 'l', 'e', 0, 0});
    return bytes;
}

// The parts joined, less the last `cut` bytes.
Bytes concat(std::initializer_list<Bytes> parts, std::size_t cut = 0) {
    Bytes bytes;
    for (const Bytes& part : parts)
        bytes.insert(bytes.end(), part.begin(), part.end());
    bytes.resize(bytes.size() - cut);
    return bytes;
}

// The header with a length field that matches the structures.
Bytes rsmb(uint8_t major, uint8_t minor, const Bytes& structures) {
    const auto n = static_cast<uint32_t>(structures.size());
    return concat(
        {{0, major, minor, 0, uint8_t(n), uint8_t(n >> 8), uint8_t(n >> 16), uint8_t(n >> 24)},
         structures});
}

// The walker on exactly the table's bytes on the heap, so that any read past them is caught;
// whatever the table, it gives a well-formed UUID text or nothing.
QString walk(const Bytes& table) {
    std::unique_ptr<uint8_t[]> exact(new uint8_t[table.size()]);
    std::copy(table.begin(), table.end(), exact.get());
    const QString hostId = hostIdFromSmbiosTable(exact.get(), table.size());
    if (!hostId.isEmpty() &&
        !QRegularExpression("^[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}$").match(hostId).hasMatch())
        std::abort();
    return hostId;
}

} // namespace

class TestUpdateChecker : public QObject {
    Q_OBJECT

private slots:
    void oneRequestOneLine_data() {
        QTest::addColumn<int>("status"); // 0: nobody listens; -1: no server configured
        QTest::addColumn<int>("delayMs");
        QTest::addColumn<int>("size"); // of the answer's body
        // Parts of the one line logged; no line where the checker is gone before the answer.
        QTest::addColumn<QStringList>("logged");
        const QString returned = "[UpdateChecker] Update server returned status %1";
        const QStringList response{"[UpdateChecker] Response: ", "nothing new"};
        const QString failed = "[UpdateChecker] Can't connect to update server: ";
        const QStringList large{"[UpdateChecker] Update server answer is larger than 64 KiB"};
        QTest::newRow("answer") << 200 << 0 << 0 << response;
        QTest::newRow("answer of 64 KiB") << 200 << 0 << 64 * 1024 << response;
        QTest::newRow("answer past 64 KiB") << 200 << 0 << 64 * 1024 + 1 << large;
        for (int status : {404, 503, 204})
            QTest::addRow("status %d", status)
                << status << 0 << 0 << QStringList{returned.arg(status)};
        QTest::newRow("refused") << 0 << 0 << 0 << QStringList{failed, "refused"};
        QTest::newRow("empty base fails at once") << -1 << 0 << 0 << QStringList{failed};
        QTest::newRow("no answer within 30 s")
            << 200 << 60000 << 0
            << QStringList{"[UpdateChecker] Update server did not answer within 30 s"};
        QTest::newRow("checker gone before the answer") << 200 << 60000 << 0 << QStringList{};
    }

    void oneRequestOneLine() {
        QFETCH(int, status);
        QFETCH(int, delayMs);
        QFETCH(int, size);
        QFETCH(QStringList, logged);
        HttpServer server(status, delayMs, size);
        QVERIFY(server.listen(QHostAddress::LocalHost));
        const uint16_t port = status > 0 ? server.serverPort() : freeLoopbackPort(false);
        qputenv("BRINDLEWAVE_UPDATE_URL",
                status < 0 ? "" : "http://127.0.0.1:" + QByteArray::number(port));

        MessageCapture capture;
        auto* checker = new UpdateChecker(nullptr);
        checker->start();
        checker->start(); // later calls send nothing
        QCOMPARE(checker->networkAccess()->findChildren<QNetworkReply*>().size(), 1);
        QPointer<QNetworkReply> reply = checker->networkAccess()->findChild<QNetworkReply*>();
        if (logged.isEmpty())
            QTRY_VERIFY(!server.requestLine.isEmpty());
        else
            QTRY_VERIFY_WITH_TIMEOUT(reply.isNull(), delayMs + 5000);
        delete checker;
        QVERIFY(reply.isNull());
        QCoreApplication::processEvents();

        const QStringList lines = capture.messages().filter("[UpdateChecker]");
        QCOMPARE(lines.size(), logged.isEmpty() ? 0 : 1);
        for (const QString& part : logged)
            QVERIFY2(lines[0].contains(part), qPrintable(lines[0]));
        // Every outcome but an answer is a warning.
        QCOMPARE(capture.messages(QtWarningMsg).filter("[UpdateChecker]").size(),
                 logged.isEmpty() || logged[0].contains("Response") ? 0 : 1);
        if (status <= 0)
            return;
        const QRegularExpressionMatch request =
            QRegularExpression(
                "^GET /check_update379/200/([0-9a-f]+|unknownhost)/1/11/update\\.json HTTP/1\\.1$")
                .match(server.requestLine);
        QVERIFY2(request.hasMatch(), qPrintable(server.requestLine));
        // Where the firmware gives no identifier, the machine's own stands in for it.
        QVERIFY(request.captured(1) != "unknownhost" || !QFile::exists("/etc/machine-id"));
    }

    void hostIdFromFirmwareTable_data() {
        QTest::addColumn<Bytes>("table");
        QTest::addColumn<QString>("hostId");
        const auto row = [](const char* name, const Bytes& table, const QString& hostId) {
            QTest::newRow(name) << table << hostId;
        };
        const QString stored = "10111213-1415-1617-1819-1A1B1C1D1E1F";
        const QString swapped = "13121110-1514-1716-1819-1A1B1C1D1E1F"; // little-endian fields
        const Bytes bios = structure(0), type1 = structure(1), last = structure(127, 4);
        const Bytes good = concat({bios, type1, last});
        // A structure whose formatted length is 0.
        const Bytes zeroLength = concat({{0, 0}, concat({bios}, 2)});
        const auto linux = [&good](const std::string& entryPoint) {
            return platform::rsmbFromDmiTables(entryPoint, std::string(good.begin(), good.end()));
        };
        row("2.5, last stored-order version", rsmb(2, 5, good), stored);
        row("2.6, first little-endian one", rsmb(2, 6, good), swapped);
        row("type 1 of length 24 alone", rsmb(3, 2, structure(1, 24)), swapped);
        row("first long type 1 wins", rsmb(2, 8, concat({type1, structure(1, 27, 2)})), swapped);
        row("short type 1 skipped", rsmb(2, 8, concat({structure(1, 23, 2), type1})), swapped);
        row("zeros and ones mixed", rsmb(2, 8, structure(1, 27, 0xF8)),
            "FBFAF9F8-FDFC-FFFE-0001-020304050607");
        row("shorter than its header", {0, 2, 8, 0, 0, 0, 0}, "");
        row("zero length", rsmb(2, 8, {}), "");
        row("truncated", concat({rsmb(2, 8, good)}, 10), "");
        row("length field short of the buffer", concat({rsmb(2, 8, good), {0}}), "");
        row("type 1 cut in its formatted area", rsmb(2, 8, concat({bios, type1}, 20)), "");
        row("header cut", rsmb(2, 8, concat({bios, {1, 27, 1}})), "");
        row("no type 1", rsmb(2, 8, concat({bios, last})), "");
        row("strings without their end", rsmb(2, 8, concat({concat({bios}, 1), type1})), "");
        row("last strings without their end", rsmb(2, 8, concat({bios}, 1)), "");
        row("zero formatted length", rsmb(2, 8, concat({zeroLength, type1})), "");
        row("all-zero UUID", rsmb(2, 8, structure(1, 27, 0)), "");
        row("all-0xFF UUID", rsmb(2, 8, structure(1, 27, 0xFF)), "");
        // Linux publishes the version in the entry point beside the structures.
        row("Linux, SMBIOS 2.4", linux(std::string("_SM_\x5a\x1f\x02\x04", 8) + std::string(23, 0)),
            stored);
        row("Linux, SMBIOS 3.2",
            linux(std::string("_SM3_\x33\x18\x03\x02", 9) + std::string(15, 0)), swapped);
        row("Linux, legacy entry point", linux("_DMI_\x02\x08"), "");
    }

    void hostIdFromFirmwareTable() {
        QFETCH(Bytes, table);
        QTEST(walk(table), "hostId");
    }
};

QTEST_GUILESS_MAIN(TestUpdateChecker)
#include "tst_updatechecker.moc"
