#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

// One way of streaming the framed area to a listener on 127.0.0.1, measured by
// measureSender().
class Sender {
public:
    virtual ~Sender() = default;
    virtual const char* name() const = 0;
    // Begins streaming to 127.0.0.1:port; the SRT latency asked of the listener is given so
    // that a sender that sets its own can match it.
    virtual bool start(uint16_t port, int latencyMs) = 0;
    // The process that does the sending, for its CPU time and memory.
    virtual pid_t pid() const = 0;
    virtual void stop() = 0;
    std::string error;
};
