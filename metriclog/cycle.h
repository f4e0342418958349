// What the daemon's cycle asks of the metric log: its baseline, its file
// numbering, the cycle's inlet readings and the lock wait. Shared inside the
// library; not exported.
#pragma once

#include "acquisition/cycle.h"

#include <zelo/metriclog.h>

namespace zelo::metriclog {

inline constexpr const char *kLogDir = "/tmp/zelo_log/";

// The metric log owns every histogram handed to it: the baseline keeps one,
// the rest are released here. The histogram is left without buckets.
void releaseHistogram(HistogramData &histogram);

// The previous processed snapshot, raw running totals.
const SnapshotBuffer &baseline();
// No baseline yet: the next snapshot is the first.
void resetBaseline();
// The snapshot (copied) and its histogram (taken over) become what the next
// snapshot is differenced against; the previous baseline is released.
void setBaseline(const SnapshotBuffer &snapshot, HistogramData &histogram);

// CreateDataLog for a blade (`blade`) or not: the daemon asks the platform
// family once for its whole cycle, and the utilisation figures (`perf`) once
// for the record and the history; null: asked here, as CreateDataLog does.
// 0 when the record was put in place, else why not (an errno value).
int createDataLog(SnapshotBuffer *psBuffer, HistogramData &histogram, bool blade,
                  const acquisition::CyclePerformance *perf);

// The next record goes to file 0 and no file is counted.
void restartFileNumbering();

// Empties the inlet readings gathered for the cycle's record.
void releaseCycleInlets();

// A wait for the lock gives up, lockless, once `abandon` returns true (null:
// never), so that SIGTERM is not held up by a lock another process keeps.
void abandonLockWaitWhen(bool (*abandon)());

} // namespace zelo::metriclog
