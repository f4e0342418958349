// The trace log's directory and verbosity, for the subsystems that set or
// consult them; shared inside the library, not exported.
#pragma once

#include <cstdint>

namespace zelo::trace {

// Checked (and made) by the daemon at start-up.
inline constexpr const char *kTraceDir = "/tmp/zelo_trace/";

// What the trace keeps of leveled lines (the library's, through its
// diagnostic channel, and WriteToPowerHistoryLog's): this level and below.
int32_t verbosity();
// The daemon sets it from the store every cycle.
void setVerbosity(int32_t level);

} // namespace zelo::trace
