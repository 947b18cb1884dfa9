#pragma once

#include <cstdint>

// A port on 127.0.0.1 that nobody listens on at the moment of asking, for a test server, outside
// the range the kernel hands out to sockets bound to port 0.
// `udp` picks among datagram ports (SRT), otherwise among stream ports.
uint16_t freeLoopbackPort(bool udp);
