// The trace log's verbosity, for the subsystems that set or consult it;
// shared inside the library, not exported.
#pragma once

#include <cstdint>

namespace zelo::trace {

// What WriteToPowerHistoryLog lets through: lines of this level and below.
int32_t verbosity();
// The daemon sets it from the store every cycle.
void setVerbosity(int32_t level);

} // namespace zelo::trace
