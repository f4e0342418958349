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

// The road of one new snapshot through the metric log, in the cycle's order:
// acquire, compute, record, publish. CreateDataLog is the four in a row.

// The blade's inlet readings for the cycle's record; none when they cannot
// be had (traced).
void acquireInlets(bool blade);

// The interval figures: the snapshot is differenced against the baseline and
// averaged in place, then becomes the baseline with its histogram.
void computeIntervals(SnapshotBuffer &snapshot, HistogramData &histogram, bool blade);

// The record of the computed snapshot, with the cycle's inlet readings and
// utilisation figures, put in the log. 0 when it was put in place, else why
// not (an errno value): the record is lost, its figures still published.
int recordSnapshot(const SnapshotBuffer &snapshot, const acquisition::CyclePerformance &perf);

// The computed snapshot's figures to the store and the power history.
void publishFigures(const SnapshotBuffer &snapshot, bool blade);

// The next record goes to file 0 and no file is counted.
void restartFileNumbering();

// Empties the inlet readings gathered for the cycle's record.
void releaseCycleInlets();

// A wait for the lock gives up, lockless, once `abandon` returns true (null:
// never), so that SIGTERM is not held up by a lock another process keeps.
void abandonLockWaitWhen(bool (*abandon)());

} // namespace zelo::metriclog
