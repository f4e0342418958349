// The interval calculation's baseline, shared by the metric log's own files
// (and its tests); not exported.
#pragma once

#include <zelo/metriclog.h>

namespace zelo::metriclog {

// The previous processed snapshot (raw accumulators) and its histogram, the
// one owner of bucket data that outlives a cycle.
extern SnapshotBuffer sLastSnapshotBuffer;
extern HistogramData sLastHistogramData;

// The baseline takes over the histogram's buckets, releasing those it held.
void keepHistogram(HistogramData &histogram);

// CalculateSnapshotValue for a blade (`blade`) or not.
void calculateSnapshotValue(SnapshotBuffer *psBuffer, HistogramData &histogram, bool blade);

} // namespace zelo::metriclog
