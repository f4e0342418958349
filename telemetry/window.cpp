// Power over a window ending at the newest metric record, from the metric log
// (30-second intervals) and, for windows longer than the log, the persisted
// power history (150-second intervals) completed with the newer records.
#include <zelo/firmware.h>
#include <zelo/telemetry.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>

namespace zelo::telemetry {
namespace {

constexpr uint32_t kMaxWindowSeconds = 86400;
constexpr uint32_t kMetricLogSeconds = 3600;
constexpr uint64_t kRecordMs = 30'000;
constexpr uint64_t kSampleMs = 150'000;
// Every history slot, every record of the log.
constexpr std::size_t kMaxIntervals = ZELO_HISTORY_SLOTS + 120;

// A zeroed array from the C heap; empty when there was no memory.
template <class T>
struct Owned : std::unique_ptr<T[], decltype(&std::free)> {
    explicit Owned(std::size_t n)
        : std::unique_ptr<T[], decltype(&std::free)>(static_cast<T *>(std::calloc(n, sizeof(T))),
                                                     &std::free) {}
};

// Minimum, average and maximum watts of one quantity over one interval.
struct Watts {
    uint32_t min, avg, max;
};

// One interval ending at endMs. A metric record's interval runs from the
// previous record, up to two periods when a snapshot was missed; a history
// sample's never exceeds its period. A longer gap before it had no reading.
struct Interval {
    uint64_t endMs;
    uint64_t periodMs;
    uint64_t longestMs;
    bool known;
    Watts ac, dc;
};

uint32_t saturated(uint64_t value) {
    return static_cast<uint32_t>(std::min<uint64_t>(value, UINT32_MAX));
}

// A record's own minimum and maximum come from the histogram's coarse
// buckets; the history keeps the extremes of the 30-second averages, and so
// does every window, whichever source it reads.
Watts wattsOf(const MetricStat *stat) {
    const uint32_t avg = stat != nullptr ? saturated(stat->u64Avg) : 0;
    return {avg, avg, avg};
}

// The figures the writer publishes: on a blade the DC power is in the AC
// record. A record without DC power is a failed reading, as the history
// takes it, not a reading of 0 W.
Interval recordInterval(const SnapshotBuffer &s, bool blade) {
    const Watts ac = wattsOf(blade ? s.psSystemDC : s.psSystemAC);
    const Watts dc = wattsOf(blade ? s.psSystemAC : s.psSystemDC);
    return {s.u64Timestamp, kRecordMs, 2 * kRecordMs, dc.avg != 0, ac, dc};
}

Interval sampleInterval(const PowerHistoryItem &item) {
    const PowerHistorySample &s = item.sSample;
    return {uint64_t{s.timestamp} * 1000,
            kSampleMs,
            kSampleMs,
            item.u8Unknown == 0,
            Watts{s.minAC, s.avgAC, s.maxAC},
            Watts{s.minDC, s.avgDC, s.maxDC}};
}

struct Sums {
    uint64_t wattMs = 0; // 2^32 W over every interval at its longest stays below 2^59
    PowerWindowFigures *out;

    void add(const Watts &w, uint64_t ms, bool first) {
        out->u32Newest = w.avg; // the window's last interval is the newest
        out->u32Min = first ? w.min : std::min(out->u32Min, w.min);
        out->u32Max = first ? w.max : std::max(out->u32Max, w.max);
        wattMs += uint64_t{w.avg} * ms;
    }
    void finish(uint64_t knownMs) {
        out->u64EnergyJ = (wattMs + 500) / 1000;
        out->u32Avg = knownMs == 0 ? 0 : saturated((wattMs + knownMs / 2) / knownMs);
    }
};

void summarise(const Interval *intervals, std::size_t n, uint64_t windowMs, PowerWindowStats &st) {
    const uint64_t endMs = intervals[n - 1].endMs;
    const uint64_t windowStart = endMs > windowMs ? endMs - windowMs : 0;
    Sums ac{0, &st.sAC}, dc{0, &st.sDC};
    uint64_t knownMs = 0, startMs = endMs;
    const Interval *previous = nullptr;
    for (const Interval &iv : std::span(intervals, n)) {
        // After a clock step back the order says nothing: one period.
        const bool follows = previous != nullptr && iv.endMs > previous->endMs;
        const uint64_t gap = follows ? iv.endMs - previous->endMs : iv.periodMs;
        uint64_t span = gap <= iv.longestMs ? gap : iv.periodMs;
        uint64_t lost = follows && gap > span ? gap - span : 0;
        previous = &iv;
        if (iv.endMs <= windowStart || iv.endMs > endMs)
            continue;
        span = std::min(span, iv.endMs - windowStart);
        const uint64_t start = iv.endMs - span;
        lost = std::min(lost, start - windowStart);
        startMs = std::min(startMs, start - lost);
        st.u32UnknownIntervals += saturated((lost + iv.periodMs / 2) / iv.periodMs);
        if (!iv.known) {
            ++st.u32UnknownIntervals;
            continue;
        }
        const bool first = knownMs == 0;
        ac.add(iv.ac, span, first);
        dc.add(iv.dc, span, first);
        knownMs += span;
        ++st.u32Intervals;
    }
    ac.finish(knownMs);
    dc.finish(knownMs);
    st.u64Start = startMs / 1000;
    st.u64End = endMs / 1000;
}

} // namespace
} // namespace zelo::telemetry

using namespace zelo::telemetry;

extern "C" uint8_t GetPowerWindowStats(uint32_t u32WindowSeconds, PowerWindowStats *psStats) {
    if (psStats == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    *psStats = PowerWindowStats{};
    if (u32WindowSeconds == 0 || u32WindowSeconds > kMaxWindowSeconds)
        return ZELO_RC_INVALID_PARAMETER;

    // On the heap: a caller's thread may have a small stack.
    const Owned<Interval> intervals(kMaxIntervals);
    const Owned<PowerHistoryItem> items(ZELO_HISTORY_SLOTS);
    if (!intervals || !items)
        return ZELO_RC_NO_MEMORY;
    std::size_t n = 0;
    if (u32WindowSeconds > kMetricLogSeconds) {
        uint16_t stored = 0;
        const uint8_t rc = ReadPowerHistoryItems(items.get(), ZELO_HISTORY_SLOTS, &stored);
        if (rc != ZELO_RC_SUCCESS && rc != ZELO_RC_NO_DATA)
            return rc;
        for (uint16_t i = 0; i < stored; ++i)
            intervals[n++] = sampleInterval(items[i]);
    }

    SnapshotBuffer *buffers = nullptr;
    BladeInletSensorBuffer *inlets = nullptr;
    PerfMetricSet *perfs = nullptr;
    uint8_t count = 0, skipped = 0;
    const uint8_t rc = ReadMetricLog(&buffers, &inlets, &perfs, &count, &skipped);
    // A long window can do with the history alone.
    if (rc != ZELO_RC_SUCCESS && !(rc == ZELO_RC_NO_DATA && n != 0))
        return rc;
    if (count != 0) {
        // The records newer than the persisted history complete it; the
        // newest one ends the window, whatever the order of the others.
        const bool blade = IsBladeServer() != 0;
        const uint64_t historyEnd = n == 0 ? 0 : intervals[n - 1].endMs;
        for (uint8_t i = 0; i + 1 < count; ++i) {
            const Interval record = recordInterval(buffers[i], blade);
            if (record.endMs > historyEnd)
                intervals[n++] = record;
        }
        intervals[n++] = recordInterval(buffers[count - 1], blade);
        FreeMetricValue(buffers, inlets, perfs, count);
    }
    summarise(intervals.get(), n, uint64_t{u32WindowSeconds} * 1000, *psStats);
    return ZELO_RC_SUCCESS;
}
