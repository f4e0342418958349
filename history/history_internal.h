// State of the two history trackers, shared inside the library and with its
// tests; not exported.
#pragma once

#include "policies.h"

#include <cstdint>

namespace zelo::history {

inline constexpr uint16_t kSlots = ZELO_HISTORY_SLOTS;
inline constexpr std::size_t kSampleBytes = 16;
inline constexpr std::size_t kFullFileBytes = 2 + kSlots * kSampleBytes;
inline constexpr uint16_t kSummaryRecords = 24;
inline constexpr std::size_t kSummaryFileBytes = 2 + kSummaryRecords * kSampleBytes;

// One history: the ring, the interval being accumulated and the save clock.
// Only ring and nextIndex are persisted.
template <class P>
struct Tracker {
    typename P::Sample ring[kSlots]{};
    uint16_t nextIndex = 0; // slot of the next sample; the oldest once wrapped
    int32_t lastSaveTime = 0;
    uint8_t initialising = 1;
    uint64_t endtime = 0; // end of the open interval, seconds; 0: none yet
    uint64_t lastTimestamp = 0;
    typename P::Acc acc{};
};

extern Tracker<PowerPolicy> gPower;
extern Tracker<PerformancePolicy> gPerformance;

// Both trackers as at process start.
void resetHistories();

} // namespace zelo::history
