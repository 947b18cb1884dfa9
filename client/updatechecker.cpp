#include "updatechecker.h"

#include "platform/firmwaretable.h"

#include <QDebug>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>
#include <QUrl>
#include <algorithm>
#include <vector>

namespace {

const char* const pathTemplate = "/check_update379/PROJECT_ID/HOST_ID/TRIAL/BUILD/update.json";
constexpr int projectId = 200;
constexpr int trial = 1;
const char* const build = "11";
constexpr int runningCheckDelayMs = 5000;
constexpr int expectedStatus = 200;

constexpr std::size_t rsmbHeaderSize = 8;
constexpr uint8_t systemInformationType = 1;
constexpr uint8_t minSystemInformationLength = 24;
constexpr std::size_t uuidOffset = 8;
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

    // Past the delay a running request is let go on until the network layer ends it; this
    // only waves through certificate complaints, it never cuts the request off.
    QTimer::singleShot(runningCheckDelayMs, reply, [reply] {
        if (reply->isRunning())
            reply->ignoreSslErrors();
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply] { onFinished(reply); });
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
    if (size < rsmbHeaderSize)
        return QString();
    const uint32_t length = static_cast<uint32_t>(table[4]) | static_cast<uint32_t>(table[5]) << 8 |
                            static_cast<uint32_t>(table[6]) << 16 |
                            static_cast<uint32_t>(table[7]) << 24;
    if (length != size - rsmbHeaderSize)
        return QString();
    const int version = table[1] * 256 + table[2];
    const uint8_t* const data = table + rsmbHeaderSize;

    // Every bound is checked as a count of bytes left, so no pointer ever leaves the data.
    std::size_t at = 0;
    for (;;) {
        if (length - at < 4)
            return QString();
        const uint8_t type = data[at];
        const uint8_t formattedLength = data[at + 1];
        if (formattedLength == 0 || formattedLength > length - at)
            return QString();
        if (type == systemInformationType && formattedLength >= minSystemInformationLength)
            break;

        // The string set behind the formatted area ends with two zero bytes.
        std::size_t scan = at + formattedLength;
        while (scan + 1 < length && !(data[scan] == 0 && data[scan + 1] == 0))
            ++scan;
        if (scan + 1 >= length)
            return QString();
        at = scan + 2;
    }

    std::array<uint8_t, 16> uuid{};
    std::copy(data + at + uuidOffset, data + at + uuidOffset + uuid.size(), uuid.begin());
    bool allZero = true;
    bool allOnes = true;
    for (const uint8_t byte : uuid) {
        allZero = allZero && byte == 0x00;
        allOnes = allOnes && byte == 0xFF;
    }
    if (allZero || allOnes)
        return QString();
    return formatSmbiosUuid(uuid, version);
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
