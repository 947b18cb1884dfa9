#pragma once

#include <sstream>
#include <string>

// Points the run's log at a buffer for its lifetime, so a test can read the exact lines.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::string text() const;
    bool contains(const std::string& part) const { return text().find(part) != std::string::npos; }

private:
    std::ostringstream buffer;
    std::ostream* previous;
};
