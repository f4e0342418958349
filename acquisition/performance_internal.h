// Seam of the performance reads for tests; not exported.
#pragma once

#include <unistd.h>

namespace zelo::acquisition {

// How the XPM retry waits; tests count the waits instead of sleeping.
using SleepFn = int (*)(useconds_t);
extern SleepFn gSleep;

} // namespace zelo::acquisition
