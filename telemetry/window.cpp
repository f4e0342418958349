// Power over a window ending at the newest metric record. Every instant of
// the window is read from one source: the metric record that covers it, else
// the persisted history sample (150 seconds) that covers it, else it had no
// reading. So energy is the same sum whatever window a stretch is read in.
#include "acquisition/snapshot_records.h"

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
constexpr uint64_t kRecordMs = 30'000;
constexpr uint64_t kSampleMs = 150'000;
constexpr std::size_t kMaxRecords = UINT8_MAX;
// A piece per record and per sample, and one more for each record that
// starts inside a sample.
constexpr std::size_t kMaxPieces = ZELO_HISTORY_SLOTS + 2 * kMaxRecords;

// Trough, average and peak watts of one quantity over one stretch.
struct Watts {
    uint32_t min, avg, max;
};

// What one metric record or history sample stands for: (startMs, endMs].
struct Span {
    uint64_t startMs, endMs;
    bool known;
    bool used; // supplied time to the window
    Watts ac, dc;
};

// What counts of a span: its part inside the window and, for a sample,
// outside every record.
struct Piece {
    uint64_t startMs, endMs;
    Span *source;
};

// On the heap: a caller's thread may have a small stack.
struct Work {
    PowerHistoryItem items[ZELO_HISTORY_SLOTS];
    Span records[kMaxRecords];
    Span samples[ZELO_HISTORY_SLOTS];
    Piece pieces[kMaxPieces];
};

uint32_t saturated(uint64_t value) {
    return static_cast<uint32_t>(std::min<uint64_t>(value, UINT32_MAX));
}

// A trough and a peak widened, where needed, to take in the average.
Watts bounded(uint32_t min, uint32_t avg, uint32_t max) {
    return {std::min(min, avg), avg, std::max(max, avg)};
}

// A record carries its interval's trough and peak: for DC the edges of the
// histogram buckets that grew, which may fall on either side of the average
// (the top bucket is open-ended); for AC the average itself. Both 0: no
// bucket grew, the average stands for them.
Watts wattsOf(const MetricStat *stat) {
    if (stat == nullptr)
        return {0, 0, 0};
    const uint32_t avg = saturated(stat->u64Avg);
    if (stat->u64Min == 0 && stat->u64Max == 0)
        return {avg, avg, avg};
    return bounded(saturated(stat->u64Min), avg, saturated(stat->u64Max));
}

// The figures the writer publishes: on a blade the DC power is in the AC
// record. A record without DC power is a failed reading, as the history
// takes it, not a reading of 0 W; so is the first one after a firmware
// restart, which had no running total to difference against.
Span recordSpan(const SnapshotBuffer &s, bool blade) {
    const auto power = acquisition::powerRecords(blade);
    const Watts ac = wattsOf(s.*power.ac), dc = wattsOf(s.*power.dc);
    return {0, s.u64Timestamp, dc.avg != 0, false, ac, dc};
}

Span sampleSpan(const PowerHistoryItem &item) {
    const PowerHistorySample &s = item.sSample;
    const Watts ac = bounded(s.minAC, s.avgAC, s.maxAC), dc = bounded(s.minDC, s.avgDC, s.maxDC);
    return {0, uint64_t{s.timestamp} * 1000, item.u8Unknown == 0, false, ac, dc};
}

// Sorts the spans by end and lets each start where the one before ended,
// when that is at most longestMs back; otherwise it stands for one period
// and the time before it had no reading. A record's average covers the time
// since the record before it, up to two periods when a snapshot was missed.
// Whatever the files' order, no instant is covered twice.
void place(std::span<Span> spans, uint64_t periodMs, uint64_t longestMs) {
    std::stable_sort(spans.begin(), spans.end(),
                     [](const Span &a, const Span &b) { return a.endMs < b.endMs; });
    const Span *previous = nullptr;
    for (Span &s : spans) {
        const bool follows = previous != nullptr && s.endMs - previous->endMs <= longestMs;
        s.startMs = follows ? previous->endMs : s.endMs > periodMs ? s.endMs - periodMs : 0;
        previous = &s;
    }
}

struct Sums {
    uint64_t wattMs = 0; // 2^32 W over a whole day stays below 2^59
    PowerWindowFigures *out;

    void extremes(const Watts &w, bool first) {
        out->u32Min = first ? w.min : std::min(out->u32Min, w.min);
        out->u32Max = first ? w.max : std::max(out->u32Max, w.max);
    }
    void add(const Watts &w, uint64_t ms) {
        out->u32Newest = w.avg; // pieces come oldest first
        wattMs += uint64_t{w.avg} * ms;
    }
    void finish(uint64_t knownMs) {
        out->u64EnergyJ = (wattMs + 500) / 1000;
        out->u32Avg = knownMs == 0 ? 0 : saturated((wattMs + knownMs / 2) / knownMs);
    }
};

class Window {
  public:
    Window(uint64_t endMs, uint64_t lengthMs, Piece *pieces)
        : startMs_(endMs > lengthMs ? endMs - lengthMs : 0), endMs_(endMs), pieces_(pieces) {}

    // The records first: where they exist they are preferred.
    void addRecords(std::span<Span> records) {
        records_ = records;
        for (Span &r : records)
            cut(r, r.startMs, r.endMs);
    }
    // Milliseconds of the window no record covers.
    uint64_t uncoveredMs() const {
        uint64_t covered = 0;
        for (const Piece &p : std::span(pieces_, n_))
            covered += p.endMs - p.startMs;
        return endMs_ - startMs_ - covered;
    }
    // The history where no record is. Both lists are sorted and disjoint.
    void addSamples(std::span<Span> samples) {
        std::size_t first = 0;
        for (Span &s : samples) {
            uint64_t from = s.startMs;
            while (first < records_.size() && records_[first].endMs <= from)
                ++first;
            for (const Span &r : records_.subspan(first)) {
                if (r.startMs >= s.endMs)
                    break;
                if (r.startMs > from)
                    cut(s, from, r.startMs);
                from = std::max(from, r.endMs);
            }
            if (from < s.endMs)
                cut(s, from, s.endMs);
        }
    }
    void summarise(PowerWindowStats &st) {
        std::sort(pieces_, pieces_ + n_,
                  [](const Piece &a, const Piece &b) { return a.startMs < b.startMs; });
        // Before the oldest record only the history could have had a reading.
        const uint64_t recordsFrom = records_.empty() ? endMs_ : records_.front().startMs;
        Sums ac{0, &st.sAC}, dc{0, &st.sDC};
        uint64_t knownMs = 0, reachedMs = 0;
        for (const Piece &p : std::span(pieces_, n_)) {
            if (reachedMs != 0 && p.startMs > reachedMs) {
                const uint64_t period = reachedMs < recordsFrom ? kSampleMs : kRecordMs;
                st.u32UnknownIntervals += saturated((p.startMs - reachedMs + period - 1) / period);
            }
            reachedMs = p.endMs;
            Span &s = *p.source;
            if (!s.used) {
                s.used = true;
                if (s.known) {
                    ac.extremes(s.ac, st.u32Intervals == 0);
                    dc.extremes(s.dc, st.u32Intervals == 0);
                    ++st.u32Intervals;
                } else {
                    ++st.u32UnknownIntervals;
                }
            }
            if (!s.known)
                continue;
            ac.add(s.ac, p.endMs - p.startMs);
            dc.add(s.dc, p.endMs - p.startMs);
            knownMs += p.endMs - p.startMs;
        }
        ac.finish(knownMs);
        dc.finish(knownMs);
        st.u64Start = (n_ != 0 ? pieces_[0].startMs : endMs_) / 1000;
        st.u64End = endMs_ / 1000;
    }

  private:
    void cut(Span &s, uint64_t from, uint64_t to) {
        from = std::max(from, startMs_);
        to = std::min(to, endMs_);
        if (from < to)
            pieces_[n_++] = {from, to, &s};
    }

    uint64_t startMs_, endMs_;
    Piece *pieces_;
    std::size_t n_ = 0;
    std::span<Span> records_;
};

} // namespace
} // namespace zelo::telemetry

using namespace zelo::telemetry;

extern "C" uint8_t GetPowerWindowStats(uint32_t u32WindowSeconds, PowerWindowStats *psStats) {
    if (psStats == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    *psStats = PowerWindowStats{};
    if (u32WindowSeconds == 0 || u32WindowSeconds > kMaxWindowSeconds)
        return ZELO_RC_INVALID_PARAMETER;
    const std::unique_ptr<Work, decltype(&std::free)> work(
        static_cast<Work *>(std::calloc(1, sizeof(Work))), &std::free);
    if (!work)
        return ZELO_RC_NO_MEMORY;

    SnapshotBuffer *buffers = nullptr;
    BladeInletSensorBuffer *inlets = nullptr;
    PerfMetricSet *perfs = nullptr;
    uint8_t count = 0, skipped = 0;
    uint8_t rc = ReadMetricLog(&buffers, &inlets, &perfs, &count, &skipped);
    // The history alone can do when nothing is logged yet.
    if (rc != ZELO_RC_SUCCESS && rc != ZELO_RC_NO_DATA)
        return rc;
    const bool blade = count != 0 && IsBladeServer() != 0;
    for (uint8_t i = 0; i < count; ++i)
        work->records[i] = recordSpan(buffers[i], blade);
    // The newest record ends the window, whatever the order of the others.
    const uint64_t endMs = count != 0 ? buffers[count - 1].u64Timestamp : 0;
    FreeMetricValue(buffers, inlets, perfs, count);
    const std::span<Span> records(work->records, count);
    place(records, kRecordMs, 2 * kRecordMs);

    const uint64_t lengthMs = uint64_t{u32WindowSeconds} * 1000;
    Window window(endMs, lengthMs, work->pieces);
    window.addRecords(records);
    uint16_t stored = 0;
    if (count == 0 || window.uncoveredMs() != 0) {
        rc = ReadPowerHistoryItems(work->items, ZELO_HISTORY_SLOTS, &stored);
        if (rc != ZELO_RC_SUCCESS && !(rc == ZELO_RC_NO_DATA && count != 0))
            return rc;
        if (stored == 0 && count == 0)
            return ZELO_RC_NO_DATA;
    }
    for (uint16_t i = 0; i < stored; ++i)
        work->samples[i] = sampleSpan(work->items[i]);
    const std::span<Span> samples(work->samples, stored);
    if (count == 0) // the newest sample, in the ring's order
        window = Window(samples.back().endMs, lengthMs, work->pieces);
    place(samples, kSampleMs, kSampleMs);
    window.addSamples(samples);
    window.summarise(*psStats);
    return ZELO_RC_SUCCESS;
}
