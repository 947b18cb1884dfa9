#pragma once

#include "logfile.h"

#include <srt/srt.h>

#include <cstdint>
#include <string>

// A server address as the user types it: a plain "HOST:PORT", or
// "srt://HOST:PORT?option=value&..." with the options servers commonly ask for. Option values
// are percent-decoded; an IPv6 host in the srt:// form is written in brackets.
class SrtAddress {
public:
    // Parses without touching the network; errorText names what is wrong.
    static bool parse(const std::string& text, SrtAddress& address, std::string& errorText);
    // Splits "HOST:PORT" at its last ':' so that an unbracketed IPv6 host keeps its colons.
    static bool parseHostPort(const std::string& hostPort, std::string& host, int32_t& port,
                              std::string& errorText);
    // The address as it may be logged. In an srt:// text every option's value is masked but
    // those of latency, pbkeylen and, in the file only, streamid: a misspelt passphrase is as
    // secret as the right one.
    static logfile::Masked masked(const std::string& text);

    // Sets the passphrase, key length and latency that the address carries.
    bool applyTo(SRTSOCKET socket, std::string& errorText) const;

    std::string host;
    int32_t port = 0;
    std::string streamId;
    std::string passphrase;
    int32_t keyLength = 0; // bytes; 0 leaves libsrt's default
    int32_t latency = -1;  // milliseconds; negative leaves the stream's own peer latency

private:
    bool parseUrl(const std::string& text, std::string& errorText);
    bool setOption(const std::string& name, const std::string& value, std::string& errorText);
};
