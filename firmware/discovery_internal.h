// Seams of firmware discovery for tests; not exported.
#pragma once

#include <sys/sysinfo.h>

namespace zelo::firmware {

// Source of the system uptime; tests replace it to step the clock.
using SysinfoFn = int (*)(struct sysinfo *);
extern SysinfoFn gSysinfo;

// Forgets the per-process support cache, as if the library were just loaded.
void resetSupportCache();

} // namespace zelo::firmware
