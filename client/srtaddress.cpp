#include "srtaddress.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

namespace {

constexpr const char* scheme = "srt://";
constexpr std::size_t schemeLength = 6;
constexpr const char* urlFormText = "SRT address must be srt://HOST:PORT?option=value";
// libsrt's limits, in the bytes it counts: a stream id of at most 512, a passphrase of 10 to 79.
constexpr std::size_t maxStreamId = 512;
constexpr std::size_t minPassphrase = 10;
constexpr std::size_t maxPassphrase = 79;
// Above a minute the number is far more likely microseconds, as some tools count it.
constexpr long maxLatencyMs = 60000;
constexpr const char* mask = "***";

bool isUrl(const std::string& text) {
    if (text.size() < schemeLength)
        return false;
    return std::equal(text.begin(), text.begin() + schemeLength, scheme, [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == b;
    });
}

int hexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    const int lower = std::tolower(static_cast<unsigned char>(c));
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

bool percentDecoded(const std::string& text, std::string& decoded) {
    decoded.clear();
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        const int high = i + 2 < text.size() ? hexValue(text[i + 1]) : -1;
        const int low = high < 0 ? -1 : hexValue(text[i + 2]);
        if (low < 0)
            return false;
        decoded += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return true;
}

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// One "name=value" piece of the query, decoded; a piece without '=' has an empty value.
bool splitOption(const std::string& piece, std::string& name, std::string& value) {
    const std::size_t equals = piece.find('=');
    return percentDecoded(piece.substr(0, equals), name) &&
           percentDecoded(equals == std::string::npos ? "" : piece.substr(equals + 1), value);
}

// A control byte would cut a host name short where the C library reads it, and has no place in
// a stream id that servers match as text.
bool hasControlByte(const std::string& text) {
    return std::any_of(text.begin(), text.end(),
                       [](unsigned char c) { return c < 0x20 || c == 0x7f; });
}

// Up to nine digits: far from where strtol would overflow, on every platform.
bool wholeNumber(const std::string& text, long& value) {
    if (text.empty() || text.size() > 9 ||
        !std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); }))
        return false;
    value = std::strtol(text.c_str(), nullptr, 10);
    return true;
}

// Options whose values the log may show: they tune the link and carry nothing secret. The
// stream id is kept out of the debug channel only, as the stream id of the form is.
bool shownInLog(const std::string& name, bool inFile) {
    return name == "latency" || name == "pbkeylen" || (inFile && name == "streamid");
}

std::string maskedOptions(const std::string& text, bool inFile) {
    const std::size_t query = text.find('?');
    if (!isUrl(text) || query == std::string::npos)
        return text;
    std::string result = text.substr(0, query + 1);
    std::size_t begin = query + 1;
    while (begin <= text.size()) {
        const std::size_t end = std::min(text.find('&', begin), text.size());
        const std::string piece = text.substr(begin, end - begin);
        const std::size_t equals = piece.find('=');
        std::string name;
        std::string value;
        // A piece without a name, or one that cannot be decoded, might be anything: masked whole.
        if (equals == std::string::npos || !splitOption(piece, name, value))
            result += piece.empty() ? "" : mask;
        else if (shownInLog(lowerCase(name), inFile))
            result += piece;
        else
            result += piece.substr(0, equals) + "=" + mask;
        if (end < text.size())
            result += '&';
        begin = end + 1;
    }
    return result;
}

bool setInt(SRTSOCKET socket, SRT_SOCKOPT option, const char* name, int value,
            std::string& errorText) {
    if (srt_setsockopt(socket, 0, option, &value, sizeof value) != SRT_ERROR)
        return true;
    errorText = std::string("failed to set ") + name + ": " + srt_getlasterror_str();
    return false;
}

} // namespace

bool SrtAddress::parse(const std::string& text, SrtAddress& address, std::string& errorText) {
    address = SrtAddress();
    if (isUrl(text))
        return address.parseUrl(text, errorText);
    return parseHostPort(text, address.host, address.port, errorText);
}

bool SrtAddress::parseHostPort(const std::string& hostPort, std::string& host, int32_t& port,
                               std::string& errorText) {
    const std::size_t colon = hostPort.rfind(':');
    if (hostPort.empty() || colon == std::string::npos || colon == 0 ||
        colon == hostPort.size() - 1) {
        errorText = "SRT address must be HOST:PORT";
        return false;
    }
    const std::string portText = hostPort.substr(colon + 1);
    char* end = nullptr;
    // Compared as long before narrowing: where long is 64 bits, a huge number must not wrap
    // into the valid range.
    const long value = std::strtol(portText.c_str(), &end, 10);
    if (!end || *end != '\0' || value < 1 || value > 65535) {
        errorText = "SRT port is invalid";
        return false;
    }
    if (hasControlByte(hostPort.substr(0, colon))) {
        errorText = "SRT host must not contain control characters";
        return false;
    }
    host = hostPort.substr(0, colon);
    port = static_cast<int32_t>(value);
    return true;
}

bool SrtAddress::parseUrl(const std::string& text, std::string& errorText) {
    const std::size_t query = text.find('?', schemeLength);
    std::string authority = text.substr(schemeLength, query - schemeLength);
    if (!authority.empty() && authority.back() == '/')
        authority.pop_back();
    std::string hostText = authority;
    std::string portText;
    if (!authority.empty() && authority.front() == '[') {
        const std::size_t close = authority.find(']');
        if (close == std::string::npos || authority.compare(close + 1, 1, ":") != 0) {
            errorText = urlFormText;
            return false;
        }
        hostText = authority.substr(1, close - 1);
        portText = authority.substr(close + 2);
    } else {
        const std::size_t colon = authority.rfind(':');
        if (colon == std::string::npos) {
            errorText = urlFormText;
            return false;
        }
        hostText = authority.substr(0, colon);
        portText = authority.substr(colon + 1);
    }
    std::string decodedHost;
    if (!percentDecoded(hostText, decodedHost)) {
        errorText = "SRT address has a broken percent escape";
        return false;
    }
    // The plain form's rules check host and port, so both forms answer with the same texts.
    if (!parseHostPort(decodedHost + ":" + portText, host, port, errorText))
        return false;

    std::size_t begin = query == std::string::npos ? text.size() : query + 1;
    while (begin < text.size()) {
        const std::size_t end = std::min(text.find('&', begin), text.size());
        const std::string piece = text.substr(begin, end - begin);
        begin = end + 1;
        if (piece.empty())
            continue;
        std::string name;
        std::string value;
        if (!splitOption(piece, name, value)) {
            errorText = "SRT address has a broken percent escape";
            return false;
        }
        if (!setOption(lowerCase(name), value, errorText))
            return false;
    }
    return true;
}

bool SrtAddress::setOption(const std::string& name, const std::string& value,
                           std::string& errorText) {
    long number = 0;
    if (name == "streamid") {
        if (value.size() > maxStreamId) {
            errorText = "SRT stream id must be at most 512 bytes";
            return false;
        }
        if (hasControlByte(value)) {
            errorText = "SRT stream id must not contain control characters";
            return false;
        }
        streamId = value;
    } else if (name == "passphrase") {
        if (value.size() < minPassphrase || value.size() > maxPassphrase) {
            errorText = "SRT passphrase must be 10 to 79 bytes";
            return false;
        }
        passphrase = value;
    } else if (name == "pbkeylen") {
        if (!wholeNumber(value, number) || (number != 16 && number != 24 && number != 32)) {
            errorText = "SRT pbkeylen must be 16, 24 or 32";
            return false;
        }
        keyLength = static_cast<int32_t>(number);
    } else if (name == "latency") {
        if (!wholeNumber(value, number) || number > maxLatencyMs) {
            errorText = "SRT latency must be 0 to 60000 milliseconds";
            return false;
        }
        latency = static_cast<int32_t>(number);
    } else {
        errorText = "unknown SRT option: " + name;
        return false;
    }
    return true;
}

logfile::Masked SrtAddress::masked(const std::string& text) {
    return {maskedOptions(text, true), maskedOptions(text, false)};
}

bool SrtAddress::applyTo(SRTSOCKET socket, std::string& errorText) const {
    if (!passphrase.empty() && srt_setsockopt(socket, 0, SRTO_PASSPHRASE, passphrase.data(),
                                              static_cast<int>(passphrase.size())) == SRT_ERROR) {
        errorText = std::string("failed to set SRTO_PASSPHRASE: ") + srt_getlasterror_str();
        return false;
    }
    if (keyLength != 0 && !setInt(socket, SRTO_PBKEYLEN, "SRTO_PBKEYLEN", keyLength, errorText))
        return false;
    if (latency >= 0 && (!setInt(socket, SRTO_LATENCY, "SRTO_LATENCY", latency, errorText) ||
                         !setInt(socket, SRTO_PEERLATENCY, "SRTO_PEERLATENCY", latency, errorText)))
        return false;
    return true;
}
