// Trace-log state, shared with its tests; the other subsystems go through
// verbosity.h. Not exported.
#pragma once

#include "verbosity.h"

#include <cstdint>

namespace zelo::trace {

// Verbosity for WriteToPowerHistoryLog; the daemon reads it from the store.
extern int32_t s32PowerHistoryLogLevel;
// Which of the two trace files is current (0 or 1).
extern uint32_t u32TraceLogIndex;

inline constexpr uint32_t kRotateAboveBytes = 524288;

} // namespace zelo::trace
