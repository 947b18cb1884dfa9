#include "crashstack.h"

namespace platform {

// The crash-reporting library's process-wide handler also reports a stack overflow on any
// thread: nothing to prepare.
void prepareThreadForCrashes() {}

} // namespace platform
