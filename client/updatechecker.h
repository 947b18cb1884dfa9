#pragma once

#include <QNetworkAccessManager>
#include <QObject>
#include <QString>
#include <array>
#include <cstddef>
#include <cstdint>

class QNetworkReply;

// Sends one HTTP GET to the update server at start-up and reports the outcome on the debug
// channel only. The answer changes nothing in the program and nothing reaches the user. A
// request is given up after 30 s, an answer past 64 KiB as soon as it grows past that, and a
// certificate that cannot be verified fails the request.
class UpdateChecker : public QObject {
    Q_OBJECT

public:
    explicit UpdateChecker(QObject* parent);

    // Sends the request and returns at once; only the first call does anything. The server's
    // base (scheme and host) is BRINDLEWAVE_UPDATE_URL when that is set, even to an empty
    // value, else the one chosen at build time. An empty base fails at once with its one
    // warning and no traffic.
    void start();

    // "/check_update379/200/<host identifier>/1/11/update.json"
    QString buildPath() const;

    void onFinished(QNetworkReply* reply);

    // The manager the request runs on, for whoever wants to watch its replies.
    QNetworkAccessManager* networkAccess();

private:
    // Aborts a request still running, with one warning line saying why.
    void giveUp(QNetworkReply* reply, const char* why);

    QNetworkAccessManager manager;
    bool started = false;
};

// The machine's identifier from its firmware UUID, or from another stable source where the
// firmware gives none; empty when there is nothing usable.
QString readHostId();

// The 16 UUID bytes as upper-case text in the 8-4-4-4-12 form. `version` is the SMBIOS
// version as major * 256 + minor; from 2.6 on the first three fields are little-endian.
QString formatSmbiosUuid(const std::array<uint8_t, 16>& uuid, int version);

// The formatted system UUID found in a raw SMBIOS table of `size` bytes in the 'RSMB' layout
// (see platform/firmwaretable.h); empty for a malformed table, a table without a suitable
// system-information structure, or a UUID of all zeros or all ones. Reads nothing outside
// the buffer, whatever it holds.
QString hostIdFromSmbiosTable(const uint8_t* table, std::size_t size);
