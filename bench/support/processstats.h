#pragma once

#include <sys/types.h>

// What /proc tells about one running process: works the same for the bench itself and for
// the programs it starts, so that every row of a table is measured alike.
struct ProcessSample {
    double cpuSeconds = 0; // user and system time of all its threads so far
    double residentMb = 0; // resident memory now
    double peakMb = 0;     // highest resident memory so far
};

// Zeros when the process is gone.
ProcessSample sampleProcess(pid_t pid);

// CLOCK_MONOTONIC in microseconds: one clock for every process on the machine.
long long monotonicMicros();
