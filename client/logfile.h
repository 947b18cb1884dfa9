#pragma once

#include "logfilepath.h"

#include <QDebug>
#include <QString>
#include <ostream>
#include <string>

// The run's log file; null until openLogFile has run, never closed afterwards.
extern std::ostream* logStream;

// Opens "<prefix>_YYYY_MM_DD_hh_mm_ss.txt" in the machine-wide logs folder, shared by every
// user; where another's file holds that name, the same name with "_2", "_3", ... before ".txt".
// Never fails visibly: a file that cannot be had leaves the debug channel as the only output.
void openLogFile(std::string prefix);

// Toolkit strings reach the narrow log file as UTF-8.
inline std::ostream& operator<<(std::ostream& out, const QString& text) {
    return out << text.toUtf8().constData();
}

namespace logfile {

// An item the log file and the debug channel get in different forms. The file is private to its
// owner; the debug channel's copy goes to standard error, where session logs and the journal
// keep it for others to read, so secrets are masked there.
struct Masked {
    std::string file;
    std::string debug;
};

// A secret such as a stream id: in the file as it is, on the debug channel masked.
Masked secret(const std::string& text);

inline std::ostream& operator<<(std::ostream& out, const Masked& item) {
    return out << item.file;
}

long long steadyMilliseconds();

// Serialises whole lines, so lines of the UI and the streaming threads never interleave.
void lockLine();
void unlockLine();

template <typename Item> const Item& debugItem(const Item& item) {
    return item;
}
inline const char* debugItem(const std::string& item) {
    return item.c_str();
}
inline const char* debugItem(const Masked& item) {
    return item.debug.c_str();
}

// One log line: time stamp, two blanks, the items run together, two blanks, the source path,
// two blanks, the line number.
template <typename... Items>
void writeLine(std::ostream& out, long long milliseconds, const char* file, int line,
               const Items&... items) {
    out << milliseconds << "  ";
    (out << ... << items);
    out << "  " << file << "  " << line << '\n';
    out.flush();
}

template <typename... Items> void write(const char* file, int line, const Items&... items) {
    if (logStream) {
        lockLine();
        writeLine(*logStream, steadyMilliseconds(), file, line, items...);
        unlockLine();
    }
    QDebug debug = QMessageLogger().debug().noquote();
    ((debug << debugItem(items)), ...);
    debug << file << line;
}

} // namespace logfile

// The one logging statement: the items go to the run's log file and the debug channel, with
// the statement's source file and line. Items that hold secrets are given as logfile::Masked.
#define logLine(...) ::logfile::write(__FILE__, __LINE__, __VA_ARGS__)
