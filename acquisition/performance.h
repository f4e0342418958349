// The daemon's cycle's utilisation figures, each asked once; shared inside
// the library, not exported.
#pragma once

#include <zelo/acquisition.h>

#include <cstdint>

namespace zelo::acquisition {

// One cycle's utilisation figures, each asked once. The first read, the
// system's current value, is the very request NM_Performance_IsSupported
// sends, so its answer also tells whether there are performance buffers.
struct CyclePerformance {
    int supported = 0;      // as NM_Performance_IsSupported answers
    uint8_t currentRc = 0;  // as GetPerformanceFromNM returns
    PerformanceData data{}; // on success: the four current values
    bool extremes = false;  // stats hold what ReadPerformanceDataFromXPM reads
    MetricStat stats[4]{};  // system, CPU, memory, I/O: current, maximum, minimum
};

// Reads the four current values, and with `withExtremes` their maxima and
// minima for a new record; nothing past the first read without buffers.
CyclePerformance readCyclePerformance(bool withExtremes);

// What CreateDataLog reads for its record: the support question, then with
// buffers the twelve reads of ReadPerformanceDataFromXPM.
CyclePerformance readRecordPerformance();

// The current values to the store, as GetPerformanceFromNM puts them there.
void publishPerformance(const CyclePerformance &perf);

} // namespace zelo::acquisition
