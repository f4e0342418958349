// The metric log file: one processed snapshot, its inlet readings and, where
// the platform offers them, its performance figures, as one packed
// little-endian record. Only encode writes it and only decode reads it, so
// the writer and every reader agree byte for byte.
#pragma once

#include <zelo/metriclog.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zelo::metriclog {

inline constexpr std::size_t kStatBytes = 24;                 // u64Avg, u64Max, u64Min
inline constexpr std::size_t kOptionalBytes = 1 + kStatBytes; // a presence byte, then the record
inline constexpr std::size_t kInletReadingBytes = 4 + ZELO_INLET_TEMPERATURE_TEXT;
inline constexpr std::size_t kPerformanceRecords = 4; // system, CPU, memory, I/O
static_assert(kInletReadingBytes == 68);
// A rack snapshot with six single records, no supplies, no readings.
static_assert(1 + 1 + 6 * kOptionalBytes + 1 + 1 + 8 + 1 + 1 == 164);
// The same with the performance records.
static_assert(164 + kPerformanceRecords * kOptionalBytes == 264);
// Two counts of 255 supplies, six single records, 255 inlet readings and the
// performance records: no record is longer.
inline constexpr std::size_t kMaxRecordBytes = 2 * (1 + 255 * kStatBytes) + 6 * kOptionalBytes +
                                               11 + 1 + 255 * kInletReadingBytes +
                                               kPerformanceRecords * kOptionalBytes;

// One optional record into out (kOptionalBytes of room): its presence byte
// and, when there is one, the record. The count of bytes put.
std::size_t putOptional(const MetricStat *stat, uint8_t *out);

// One record from its kStatBytes bytes.
MetricStat getStat(const uint8_t *bytes);

// The record of snapshot s with the readings (none when null) and the
// kPerformanceRecords performance records (none when null), appended to out.
void encode(const SnapshotBuffer &s, const BladeInletSensorBuffer *inlets,
            const MetricStat *performance, std::vector<uint8_t> &out);

enum class Decoded {
    Whole,    // the record and nothing after it
    Trailing, // the record, then bytes not read (performance figures not asked for, or more)
    NoMemory, // the record, less the parts that could not be allocated (read past, left null)
    Damaged,  // the bytes end inside the record, or a presence byte is neither 0 nor 1;
              // nothing of it is kept
};

// Reads one record into s (all but its tag and event word, which the file
// does not hold) and into inlets, which it fills afresh. The performance
// records are read into `performance` when it is given, perfSupported is 1
// (the platform offers them, as NM_Performance_IsSupported answers) and the
// file goes on after the readings; else those pointers are left alone. The
// readings come back in the reverse of the file's order: the writer stores
// its list as it was collected, each sensor put in front, so the reader's
// list has the sensors in the order the platform gave them.
Decoded decode(const uint8_t *data, std::size_t length, int perfSupported, SnapshotBuffer &s,
               BladeInletSensorBuffer &inlets, PerfMetricSet *performance);

} // namespace zelo::metriclog
