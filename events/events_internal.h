// What the status-bit check has reported, kept for the daemon's process
// (0 or 1 each, 0 at start, never persisted); not exported.
#pragma once

#include <cstdint>

namespace zelo::events {

extern uint8_t u8StatusBit4Reported;     // status bit 4 (event 127)
extern uint8_t u8StatusBit5Reported;     // status bit 5 (event 126)
extern uint8_t u8StatusBothReported;     // status bits 4 and 5 together (event 125)
extern uint8_t u8PowerEventBit3Reported; // event word bit 3 reported set (117 / 130)
extern uint8_t u8PowerEventBit2Reported; // event word bit 2 reported set (118 / 131)

} // namespace zelo::events
