#include "logcapture.h"

#include "logfile.h"

LogCapture::LogCapture() : previous(logStream) {
    logfile::lockLine();
    logStream = &buffer;
    logfile::unlockLine();
}

LogCapture::~LogCapture() {
    logfile::lockLine();
    logStream = previous;
    logfile::unlockLine();
}

std::string LogCapture::text() const {
    logfile::lockLine();
    std::string copy = buffer.str();
    logfile::unlockLine();
    return copy;
}
