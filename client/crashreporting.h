#pragma once

#include <string>

// Installs the crash reporter so that a crash leaves a report in the data folder's "crashs"
// folder. Safe before any toolkit object exists. Returns true once installed.
bool installCrashReporting();

// The machine-wide data folder; "." when it cannot be had.
std::string appDataFolder();
