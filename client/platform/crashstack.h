#pragma once

namespace platform {

// Gives the calling thread what the crash handlers need to report even a stack overflow on
// it. The crash handlers' installation does it for its own thread; every thread the program
// starts does it first. A thread that has not still reports every other crash.
void prepareThreadForCrashes();

} // namespace platform
