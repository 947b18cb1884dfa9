#include "updatechecker.h"

#include "platform/firmwaretable.h"
#include "systemuuid.h"

#include <QDebug>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>
#include <QUrl>
#include <vector>

namespace {

const char* const pathTemplate = "/check_update379/PROJECT_ID/HOST_ID/TRIAL/BUILD/update.json";
constexpr int projectId = 200;
constexpr int trial = 1;
const char* const build = "11";
constexpr int expectedStatus = 200;
// The answer is a few lines of text: a request that takes longer, or an answer that is larger,
// is not the server we expect and must not hold a connection or memory for the whole run.
constexpr int maxWaitMs = 30000;
constexpr qint64 maxAnswerBytes = 64 * 1024;

constexpr int littleEndianUuidVersion = 0x0206;

QString updateBaseUrl() {
    if (qEnvironmentVariableIsSet("BRINDLEWAVE_UPDATE_URL"))
        return qEnvironmentVariable("BRINDLEWAVE_UPDATE_URL");
    return QString::fromUtf8(BRINDLE_UPDATE_URL);
}

// Qt reports 4xx and 5xx answers as content and server errors; they are answers from the
// server, told by their status, not failures to reach it.
bool isHttpStatusError(QNetworkReply::NetworkError error) {
    return (error >= QNetworkReply::ContentAccessDenied &&
            error <= QNetworkReply::UnknownContentError) ||
           (error >= QNetworkReply::InternalServerError &&
            error <= QNetworkReply::UnknownServerError);
}

} // namespace

UpdateChecker::UpdateChecker(QObject* parent) : QObject(parent) {}

QNetworkAccessManager* UpdateChecker::networkAccess() {
    return &manager;
}

QString UpdateChecker::buildPath() const {
    QString hostId = readHostId();
    if (hostId.isEmpty())
        hostId = QStringLiteral("unknownhost");
    hostId = hostId.remove(QLatin1Char(' ')).remove(QLatin1Char('_')).remove(QLatin1Char('-'));
    hostId = hostId.toLower();

    return QString::fromLatin1(pathTemplate)
        .replace(QLatin1String("PROJECT_ID"), QString::number(projectId))
        .replace(QLatin1String("HOST_ID"), hostId)
        .replace(QLatin1String("TRIAL"), QString::number(trial))
        .replace(QLatin1String("BUILD"), QLatin1String(build));
}

void UpdateChecker::start() {
    if (started)
        return;
    started = true;

    const QUrl url(updateBaseUrl() + buildPath(), QUrl::TolerantMode);
    QNetworkReply* reply = manager.get(QNetworkRequest(url));
    // The network layer stops reading once this much waits unread, so that the limit below
    // bounds the memory as well.
    reply->setReadBufferSize(maxAnswerBytes + 1);
    QTimer::singleShot(maxWaitMs, reply, [this, reply] {
        giveUp(reply, "[UpdateChecker] Update server did not answer within 30 s");
    });
    // Nothing is read before the end, so what is available is all that has arrived.
    connect(reply, &QNetworkReply::readyRead, this, [this, reply] {
        if (reply->bytesAvailable() > maxAnswerBytes ||
            reply->header(QNetworkRequest::ContentLengthHeader).toLongLong() > maxAnswerBytes)
            giveUp(reply, "[UpdateChecker] Update server answer is larger than 64 KiB");
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply] { onFinished(reply); });
}

void UpdateChecker::giveUp(QNetworkReply* reply, const char* why) {
    if (!reply->isRunning())
        return;
    qWarning() << why;
    // Without this checker listening, so that the line above is all that is said. The abort
    // waits for the event loop: the reply may be in the middle of reporting something else.
    disconnect(reply, nullptr, this, nullptr);
    QMetaObject::invokeMethod(reply, &QNetworkReply::abort, Qt::QueuedConnection);
    reply->deleteLater();
}

void UpdateChecker::onFinished(QNetworkReply* reply) {
    const QNetworkReply::NetworkError error = reply->error();
    if (error != QNetworkReply::NoError && !isHttpStatusError(error)) {
        qWarning() << "[UpdateChecker] Can't connect to update server:" << reply->errorString();
    } else {
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        if (status != expectedStatus)
            qWarning() << "[UpdateChecker] Update server returned status" << status;
        else
            qDebug() << "[UpdateChecker] Response:" << reply->readAll();
    }
    reply->deleteLater();
}

QString formatSmbiosUuid(const std::array<uint8_t, 16>& uuid, int version) {
    static const std::array<int, 16> storedOrder{0, 1, 2,  3,  4,  5,  6,  7,
                                                 8, 9, 10, 11, 12, 13, 14, 15};
    static const std::array<int, 16> littleEndianOrder{3, 2, 1,  0,  5,  4,  7,  6,
                                                       8, 9, 10, 11, 12, 13, 14, 15};
    const std::array<int, 16>& order =
        version < littleEndianUuidVersion ? storedOrder : littleEndianOrder;

    // Each arg() fills the lowest-numbered place left, so one byte per call in place order.
    QString text = QStringLiteral("%1%2%3%4-%5%6-%7%8-%9%10-%11%12%13%14%15%16");
    for (const int index : order)
        text = text.arg(uuid[static_cast<std::size_t>(index)], 2, 16, QLatin1Char('0'));
    return text.toUpper();
}

QString hostIdFromSmbiosTable(const uint8_t* table, std::size_t size) {
    SystemUuid uuid;
    if (!findSystemUuid(table, size, uuid))
        return QString();
    return formatSmbiosUuid(uuid.bytes, uuid.version);
}

QString readHostId() {
    const uint32_t size = platform::rawSmbiosTable(nullptr, 0);
    if (size != 0) {
        std::vector<uint8_t> table(size, 0);
        if (platform::rawSmbiosTable(table.data(), size) != 0) {
            const QString hostId = hostIdFromSmbiosTable(table.data(), table.size());
            if (!hostId.isEmpty())
                return hostId;
        }
    }
    return QString::fromStdString(platform::fallbackMachineId());
}
