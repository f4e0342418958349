// The two sample shapes of the history mechanism. Everything in which the
// performance history differs from the power history is one member here;
// the mechanism (mechanism.h) is written once for both.
#pragma once

#include "support.h"

#include <zelo/history.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace zelo::history {

// One measured quantity and where it goes in a sample; a quantity without
// minimum and maximum keeps only its mean.
template <class Sample>
struct Channel {
    uint16_t Sample::*min;
    uint16_t Sample::*avg;
    uint16_t Sample::*max;
};

template <std::size_t N>
constexpr std::array<uint16_t, N> filled(uint16_t value) {
    std::array<uint16_t, N> a{};
    a.fill(value);
    return a;
}

// The interval being accumulated: sums and extremes, per channel. The sums
// are 32 bits wide, so that five readings of a big server's 20 kW do not wrap.
template <std::size_t N>
struct Accumulator {
    std::array<uint32_t, N> sum{};
    std::array<uint16_t, N> min = filled<N>(0xFFFF);
    std::array<uint16_t, N> max{};
    uint16_t count = 0;
};

// A summary-file maximum that also goes to the configuration store.
template <class Sample>
struct Maximum {
    uint16_t Sample::*field;
    const char *storeKey;
};

// Operation names, as the trace log shows them.
struct Names {
    const char *track;
    const char *add;
    const char *load;
    const char *save;
    const char *generateFile;
};

struct Texts {
    const char *initialising;
    const char *fileIndex;       // next index, start index
    const char *fileRecord;      // six values, time stamp, index, count, path
    const char *fileHeaderError; // path, error
    const char *fileRecordError; // record, path, error
    const char *readHeaderError; // path, error
    const char *readDataError;   // path, error
    const char *fromScratch;     // path
    const char *saving;          // path
    const char *saveOpenError;   // path, reason
    const char *saveHeaderError; // path, error
    const char *saveDataError;   // path, error
    const char *printLoadFailed;
};

// Trace levels of the messages whose level differs between the histories.
struct Levels {
    int32_t saveCheck;
    int32_t fileIndex;
    int32_t fileRecord;
    int32_t fileUnknown;
    int32_t saving;
};

struct Files {
    const char *full;
    std::array<const char *, 4> summaries; // 1, 6, 12 and 24 hours
};

struct PowerPolicy {
    using Sample = PowerHistorySample;
    enum : std::size_t { kAC, kDC };
    static constexpr std::array<Channel<Sample>, 2> kChannels{{
        {&Sample::minAC, &Sample::avgAC, &Sample::maxAC},
        {&Sample::minDC, &Sample::avgDC, &Sample::maxDC},
    }};
    using Reading = std::array<uint64_t, kChannels.size()>;
    using Acc = Accumulator<kChannels.size()>;

    static constexpr std::array<uint16_t Sample::*, 6> kRecord{&Sample::minAC, &Sample::avgAC,
                                                               &Sample::maxAC, &Sample::minDC,
                                                               &Sample::avgDC, &Sample::maxDC};
    static constexpr std::array<uint16_t Sample::*, 6> kPrinted{&Sample::minDC, &Sample::avgDC,
                                                                &Sample::maxDC, &Sample::minAC,
                                                                &Sample::avgAC, &Sample::maxAC};
    static constexpr std::array<const char *, 8> kPrintHeader{
        "Index", "Timestamp", "MinDC", "AvgDC", "MaxDC", "MinAC", "AvgAC", "MaxAC"};

    // Snapshot time stamps are milliseconds.
    static constexpr uint64_t kTicksPerSecond = 1000;
    static constexpr uint16_t kUnknownValue = ZELO_POWER_HISTORY_UNKNOWN;
    static constexpr std::array<Maximum<Sample>, 2> kMaxima{{
        {&Sample::maxDC, "ZELO_max_dc_last_24hours"},
        {&Sample::maxAC, "ZELO_max_ac_last_24hours"},
    }};
    static constexpr Files kFiles{"/pstorage/power/PowerHistoryFull",
                                  {"/tmp/PowerHistoryLast1Hour", "/tmp/PowerHistoryLast6Hours",
                                   "/tmp/PowerHistoryLast12Hours", "/tmp/PowerHistoryLast24Hours"}};
    static constexpr Names kNames{.track = "trackPowerHistory",
                                  .add = "addSampleToPowerHistory",
                                  .load = "loadPowerHistory",
                                  .save = "savePowerHistory",
                                  .generateFile = "generatePowerHistoryFile"};
    static constexpr Levels kLevels{
        .saveCheck = 1, .fileIndex = 2, .fileRecord = 2, .fileUnknown = 1, .saving = 1};
    static constexpr Texts kTexts{
        // Spelt as log readers have always matched it.
        .initialising = "Initializing power hisotry",
        .fileIndex = "nextSampleIndex=%i, idx=%i",
        .fileRecord =
            "minAC=%i, avgAC=%i, maxAC=%i, minDC=%i, avgDC=%i, maxDC=%i, tstamp=%i, idx=%i, "
            "numsamplesforavg=%i fname=%s",
        .fileHeaderError = "Writing power history data header for file '%s', error code=%i",
        .fileRecordError = "Writing power history data sample %i for file '%s', error code=%i",
        .readHeaderError = "Reading power history data header for file '%s', error code=%i",
        .readDataError = "Reading power history data for file '%s', error code=%i",
        .fromScratch = "Could not open power history file '%s', starting from scratch",
        .saving = "Writing full power history file '%s'",
        .saveOpenError = "Could not open power history file '%s', %s",
        .saveHeaderError = "Writing full power history data header for file '%s', error code=%i",
        .saveDataError = "Writing full power history data for file '%s', error code=%i",
        .printLoadFailed = "Error loading power history file",
    };

    // A snapshot without DC power is a failed reading, not a reading of 0.
    static bool rejects(const Reading &r) { return r[kDC] == 0; }
    // Unknown samples are told apart by their DC mean alone.
    static bool counts(const Sample &s) { return s.timestamp != 0 && s.avgDC != kUnknownValue; }

    static void describe(uint64_t t, uint64_t endtime, uint16_t next, const Reading &r,
                         const Acc &a) {
        traceLine(1, kNames.track, "Info",
                  "timestamp=%i, endtime=%i, nextSampleIndex=%i, powerAC=%i, accpowerAC=%i, "
                  "minPowerAC=%i, maxPowerAC=%i, powerDC=%i, accpowerDC=%i, minPowerDC=%i, "
                  "maxPowerDC=%i accCount=%i",
                  static_cast<int>(t), static_cast<int>(endtime), next, static_cast<int>(r[kAC]),
                  a.sum[kAC], a.min[kAC], a.max[kAC], static_cast<int>(r[kDC]), a.sum[kDC],
                  a.min[kDC], a.max[kDC], a.count);
    }
};

struct PerformancePolicy {
    using Sample = PowerPerformanceSample;
    enum : std::size_t { kSystem, kCpu, kMem, kIo };
    static constexpr std::array<Channel<Sample>, 4> kChannels{{
        {&Sample::min, &Sample::avg, &Sample::max},
        {nullptr, &Sample::cpu, nullptr},
        {nullptr, &Sample::mem, nullptr},
        {nullptr, &Sample::io, nullptr},
    }};
    using Reading = std::array<uint64_t, kChannels.size()>;
    using Acc = Accumulator<kChannels.size()>;

    static constexpr std::array<uint16_t Sample::*, 6> kRecord{
        &Sample::min, &Sample::avg, &Sample::max, &Sample::cpu, &Sample::mem, &Sample::io};
    static constexpr std::array<uint16_t Sample::*, 6> kPrinted = kRecord;
    static constexpr std::array<const char *, 8> kPrintHeader{"Index", "Timestamp", "Min", "Avg",
                                                              "Max",   "CPU",       "Mem", "IO"};

    // Performance readings carry seconds.
    static constexpr uint64_t kTicksPerSecond = 1;
    static constexpr uint16_t kUnknownValue = 0;
    static constexpr std::array<Maximum<Sample>, 0> kMaxima{};
    static constexpr Files kFiles{
        "/pstorage/power/PowerPerformanceFull",
        {"/tmp/PowerPerformanceLast1Hour", "/tmp/PowerPerformanceLast6Hours",
         "/tmp/PowerPerformanceLast12Hours", "/tmp/PowerPerformanceLast24Hours"}};
    static constexpr Names kNames{.track = "trackPowerPerformance",
                                  .add = "addSampleToPowerPerformance",
                                  .load = "loadPowerPerformance",
                                  .save = "savePowerPerformance",
                                  .generateFile = "generatePowerPerformanceFile"};
    static constexpr Levels kLevels{
        .saveCheck = 0, .fileIndex = 0, .fileRecord = 0, .fileUnknown = 0, .saving = 0};
    static constexpr Texts kTexts{
        .initialising = "Initializing power performance",
        .fileIndex = "nextPerformanceSampleIndex=%i, idx=%i",
        .fileRecord = "min=%i, avg=%i, max=%i, cpu=%i, mem=%i, io=%i, tstamp=%i, idx=%i, "
                      "numsamplesforavg=%i fname=%s",
        .fileHeaderError = "Writing power performance data header for file '%s', error code=%i",
        .fileRecordError = "Writing power performance data sample %i for file '%s', error code=%i",
        .readHeaderError = "Reading power performance data header for file '%s', error code=%i",
        .readDataError = "Reading power performance data for file '%s', error code=%i",
        .fromScratch = "Could not open power performance file '%s', starting from scratch",
        .saving = "Writing full power performance file '%s'",
        .saveOpenError = "Could not open power performance file '%s', %s",
        .saveHeaderError =
            "Writing full power performance data header for file '%s', error code=%i",
        .saveDataError = "Writing full power performance data for file '%s', error code=%i",
        .printLoadFailed = "Error loading power performance file",
    };

    // Every reading counts, 0 % included.
    static bool rejects(const Reading &) { return false; }
    // Unknown samples hold zeros and count as readings of 0.
    static bool counts(const Sample &s) { return s.timestamp != 0; }

    static void describe(uint64_t t, uint64_t endtime, uint16_t next, const Reading &,
                         const Acc &a) {
        traceLine(0, kNames.track, "Info",
                  "timestamp=%i, endtime=%i, nextPerformanceSampleIndex=%i, maxsystem=%i, "
                  "accsystem=%i, minsystem=%i, cpu=%i, mem=%i, io=%i, accCount=%i",
                  static_cast<int>(t), static_cast<int>(endtime), next, a.max[kSystem],
                  a.sum[kSystem], a.min[kSystem], a.sum[kCpu], a.sum[kMem], a.sum[kIo], a.count);
    }
};

} // namespace zelo::history
