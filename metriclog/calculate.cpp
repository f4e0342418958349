// Interval figures: each running total of a new snapshot is differenced
// against the previous snapshot into an average, and the histogram's changed
// buckets give the DC minimum and maximum.
#include "calculate.h"
#include "acquisition/snapshot_records.h"
#include "report.h"
#include "state.h"

#include <zelo/firmware.h>
#include <zelo/metriclog.h>

#include <cmath>
#include <cstdlib>

namespace zelo::metriclog {

using acquisition::kSingleRecords;
using acquisition::kSupplyRecords;

SnapshotBuffer sLastSnapshotBuffer{};
HistogramData sLastHistogramData{};

namespace {

void trace(const char *level, const char *message) {
    zelo::report(zelo::traced("CalculateSnapshotValue", level), "%s", message);
}

struct Range {
    uint64_t min = 0;
    uint64_t max = 0;
};

// Lowest and highest bucket whose counter grew. Bucket 0 lies below the
// base; the last bucket is open-ended and contributes its lower edge.
Range histogramRange(const HistogramData &now, const HistogramData &before) {
    Range r;
    bool found = false;
    for (int i = 0; i < now.u8BucketNum; ++i) {
        const auto at = static_cast<uint32_t>(i * now.u8BucketSize);
        const uint64_t current = MSBMultiBytesToValue(at, now.pu8BucketData, now.u8BucketSize);
        const uint64_t previous = MSBMultiBytesToValue(at, before.pu8BucketData, now.u8BucketSize);
        if (current == previous)
            continue;
        const int64_t lower =
            static_cast<int64_t>(now.u16HistogramBase) + (i - 1) * int64_t{now.u8BucketWidth};
        if (!found && i != 0)
            r.min = static_cast<uint64_t>(lower);
        r.max = static_cast<uint64_t>(i == now.u8BucketNum - 1 ? lower : lower + now.u8BucketWidth);
        found = true;
    }
    return r;
}

} // namespace

void releaseHistogram(HistogramData &histogram) {
    std::free(histogram.pu8BucketData);
    histogram.pu8BucketData = nullptr;
}

void keepHistogram(HistogramData &histogram) {
    releaseHistogram(sLastHistogramData);
    sLastHistogramData = histogram;
    histogram.pu8BucketData = nullptr;
}

const SnapshotBuffer &baseline() {
    return sLastSnapshotBuffer;
}

void resetBaseline() {
    FreeSignalMetricValue(&sLastSnapshotBuffer, nullptr, nullptr);
    sLastSnapshotBuffer = SnapshotBuffer{};
    releaseHistogram(sLastHistogramData);
    sLastHistogramData = HistogramData{};
}

void setBaseline(const SnapshotBuffer &snapshot, HistogramData &histogram) {
    FreeSignalMetricValue(&sLastSnapshotBuffer, nullptr, nullptr);
    CopySnapshotBuffer(&sLastSnapshotBuffer, &snapshot);
    keepHistogram(histogram);
}

} // namespace zelo::metriclog

using namespace zelo::metriclog;

extern "C" {

void CalculateAverage(const MetricStat *psPrevious, MetricStat *psCurrent, uint64_t u64Elapsed) {
    if (psPrevious == nullptr || psCurrent == nullptr || psCurrent->u64Avg == 0)
        return;
    if (u64Elapsed == 0 || psPrevious->u64Avg == 0 || psPrevious->u64Avg >= psCurrent->u64Avg) {
        psCurrent->u64Avg = 0;
        return;
    }
    const double growth = static_cast<double>(psCurrent->u64Avg - psPrevious->u64Avg);
    psCurrent->u64Avg = static_cast<uint64_t>(std::round(growth / static_cast<double>(u64Elapsed)));
}

void SetMaxMinValue(MetricStat *psStats, uint8_t u8Count) {
    if (psStats == nullptr)
        return;
    for (uint8_t i = 0; i < u8Count; ++i) {
        if (psStats[i].u64Min == 0)
            psStats[i].u64Min = psStats[i].u64Avg;
        if (psStats[i].u64Max == 0)
            psStats[i].u64Max = psStats[i].u64Avg;
    }
}

void CalculateSnapshotValue(SnapshotBuffer *psBuffer, HistogramData sHistogramData) {
    calculateSnapshotValue(psBuffer, sHistogramData, IsBladeServer() != 0);
}

} // extern "C"

namespace zelo::metriclog {

void calculateSnapshotValue(SnapshotBuffer *psBuffer, HistogramData &h, bool blade) {
    if (psBuffer == nullptr || h.pu8BucketData == nullptr) {
        trace("ERROR", "Empty input buffer");
        // Released here too: nothing may leak, also on a call the daemon never makes.
        releaseHistogram(h);
        return;
    }
    SnapshotBuffer &s = *psBuffer;
    SnapshotBuffer &last = sLastSnapshotBuffer;
    if (last.u64Timestamp >= s.u64Timestamp) {
        trace("WARNING", "Time stamp is not right.");
        releaseHistogram(h);
        return;
    }

    SnapshotBuffer raw{};
    CopySnapshotBuffer(&raw, &s);
    const uint64_t elapsed = s.u64Timestamp - last.u64Timestamp;
    for (const auto &single : kSingleRecords)
        CalculateAverage(last.*single.record, s.*single.record,
                         single.perSecond ? elapsed / 1000 : elapsed);

    FreeSignalMetricValue(&last, nullptr, nullptr);
    CopySnapshotBuffer(&last, &raw);
    FreeSignalMetricValue(&raw, nullptr, nullptr);

    for (const auto &supplies : kSupplyRecords)
        SetMaxMinValue(s.*supplies.records, s.*supplies.count);
    for (const auto &single : kSingleRecords)
        SetMaxMinValue(s.*single.record, 1);

    if (h.u8BucketNum != sLastHistogramData.u8BucketNum ||
        h.u8BucketSize != sLastHistogramData.u8BucketSize) {
        trace("ERROR", "Different histogram data.");
        releaseHistogram(h);
        return;
    }
    const Range range = histogramRange(h, sLastHistogramData);
    if (MetricStat *dc = s.*zelo::acquisition::powerRecords(blade).dc; dc != nullptr) {
        dc->u64Min = range.min;
        dc->u64Max = range.max;
    }
    keepHistogram(h);
}

} // namespace zelo::metriclog
