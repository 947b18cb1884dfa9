#pragma once

#include <cstdint>

// A port on 127.0.0.1 that nobody listens on at the moment of asking, for a test server.
// `udp` picks among datagram ports (SRT), otherwise among stream ports.
uint16_t freeLoopbackPort(bool udp);
