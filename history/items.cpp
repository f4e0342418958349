// The persisted histories read for other processes: straight from the file
// into the caller's items, never through this process's own trackers.
#include "files.h"
#include "mechanism.h"

#include <zelo/telemetry.h>

namespace zelo::history {
namespace {

// Power marks an unknown interval in its DC mean; performance writes zeros.
bool unknown(const PowerHistorySample &s) {
    return s.avgDC == PowerPolicy::kUnknownValue;
}
bool unknown(const PowerPerformanceSample &s) {
    for (auto field : PerformancePolicy::kRecord)
        if (s.*field != 0)
            return false;
    return true;
}

template <class P, class Item>
uint8_t readItems(Item *items, uint16_t capacity, uint16_t *count) {
    if (count == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    *count = 0;
    if (items == nullptr && capacity != 0)
        return ZELO_RC_INVALID_PARAMETER;
    char path[PATH_MAX];
    if (!resolvePath(P::kFiles.full, path, sizeof path))
        return ZELO_RC_NO_DATA;
    uint8_t image[kFullFileBytes];
    std::size_t length = 0;
    switch (readWholeFile(path, image, sizeof image, &length)) {
    case FileRead::Whole:
        break;
    case FileRead::Missing:
        return ZELO_RC_NO_DATA;
    case FileRead::Failed:
        return ZELO_RC_FAILURE;
    default:
        return ZELO_RC_BAD_FILE;
    }
    const uint16_t next = getLe16(image);
    if (length != kFullFileBytes || next >= kSlots)
        return ZELO_RC_BAD_FILE;

    // Oldest first: once wrapped, the next slot to write holds the oldest.
    typename P::Sample ring[kSlots];
    uint16_t written = 0;
    for (uint16_t i = 0; i < kSlots; ++i) {
        const auto sample = decode<P>(image + 2 + ((next + i) % kSlots) * kSampleBytes);
        if (sample.timestamp != 0)
            ring[written++] = sample;
    }
    // Too little room keeps the newest.
    for (uint16_t i = written > capacity ? written - capacity : 0; i < written; ++i)
        items[(*count)++] = Item{ring[i], static_cast<uint8_t>(unknown(ring[i]))};
    return ZELO_RC_SUCCESS;
}

} // namespace
} // namespace zelo::history

using namespace zelo::history;

extern "C" {

uint8_t ReadPowerHistoryItems(PowerHistoryItem *psItems, uint16_t u16Capacity,
                              uint16_t *pu16Count) {
    return readItems<PowerPolicy>(psItems, u16Capacity, pu16Count);
}

uint8_t ReadPowerPerformanceItems(PowerPerformanceItem *psItems, uint16_t u16Capacity,
                                  uint16_t *pu16Count) {
    return readItems<PerformancePolicy>(psItems, u16Capacity, pu16Count);
}

} // extern "C"
