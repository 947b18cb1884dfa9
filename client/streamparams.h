#pragma once

#include <cstdint>
#include <string>

// The stream settings the connection form hands to the writer. Texts are UTF-8 bytes.
struct StreamParams {
    std::string hostPort;
    std::string streamId;
    int32_t videoBitrateKbps = 5000;
    int32_t audioBitrateKbps = 128; // the sound's, when config.ini asks for sound
    int32_t latency = 10;           // SRT peer latency, milliseconds
};
