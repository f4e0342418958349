// The metric log read for other processes: every file decoded whole through
// a bounded cursor, the performance statistics taken when the file holds
// them, so that reading asks the firmware nothing.
#include "bytes.h"
#include "files.h"
#include "state.h"

#include <zelo/telemetry.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <unistd.h>

namespace zelo::metriclog {
namespace {

// Two counts of 255 supplies, six single records, 255 inlet readings and the
// four performance records: anything longer is not a metric log file.
constexpr std::size_t kMaxFileBytes = 2 * (1 + 255 * kStatBytes) + 6 * kOptionalBytes + 11 + 1 +
                                      255 * kInletReadingBytes + 4 * kOptionalBytes;

// Little-endian reads that stop at the end of the file; one failed read
// fails the whole record.
class Cursor {
  public:
    Cursor(const uint8_t *data, std::size_t length) : at_(data), left_(length) {}
    uint64_t take(std::size_t width) {
        if (width > left_) {
            ok_ = false;
            left_ = 0;
            return 0;
        }
        const uint64_t value = getLe(at_, width);
        at_ += width;
        left_ -= width;
        return value;
    }
    const uint8_t *bytes(std::size_t n) {
        const uint8_t *start = at_;
        if (n > left_) {
            ok_ = false;
            left_ = 0;
            return nullptr;
        }
        at_ += n;
        left_ -= n;
        return start;
    }
    bool ok() const { return ok_; }
    bool atEnd() const { return left_ == 0; }

  private:
    const uint8_t *at_;
    std::size_t left_;
    bool ok_ = true;
};

bool takeStats(Cursor &in, std::size_t count, MetricStat **out) {
    if (count == 0)
        return in.ok();
    auto *stats = static_cast<MetricStat *>(std::calloc(count, sizeof(MetricStat)));
    if (stats == nullptr)
        return false;
    *out = stats;
    for (std::size_t i = 0; i < count; ++i) {
        stats[i].u64Avg = in.take(8);
        stats[i].u64Max = in.take(8);
        stats[i].u64Min = in.take(8);
    }
    return in.ok();
}

// A single record: a presence byte of 0 or 1, then the record.
bool takeOptional(Cursor &in, MetricStat **out) {
    const uint64_t present = in.take(1);
    return present <= 1 && takeStats(in, present, out);
}

bool takeReadings(Cursor &in, BladeInletSensorBuffer &list) {
    const auto count = static_cast<uint8_t>(in.take(1));
    InletSensorTemperature **tail = &list.psSensor;
    for (unsigned i = 0; i < count && in.ok(); ++i) {
        const auto index = static_cast<uint32_t>(in.take(4));
        const uint8_t *text = in.bytes(ZELO_INLET_TEMPERATURE_TEXT);
        if (text == nullptr)
            return false;
        auto *node =
            static_cast<InletSensorTemperature *>(std::calloc(1, sizeof(InletSensorTemperature)));
        if (node == nullptr)
            return false;
        node->u32SensorIndex = index;
        std::memcpy(node->szTemperature, text, ZELO_INLET_TEMPERATURE_TEXT);
        node->szTemperature[ZELO_INLET_TEMPERATURE_TEXT - 1] = '\0';
        *tail = node;
        tail = &node->psNext;
        ++list.u8SensorNum;
    }
    return in.ok();
}

void release(SnapshotBuffer &s, BladeInletSensorBuffer &l, PerfMetricSet &f) {
    FreeSignalMetricValue(&s, &l, nullptr);
    for (MetricStat *perf : {f.psSystemPerf, f.psCPUPerf, f.psMemoryPerf, f.psIOPerf})
        std::free(perf);
    s = SnapshotBuffer{};
    l = BladeInletSensorBuffer{};
    f = PerfMetricSet{};
}

// One file into one record; the record stays empty unless the file held it whole.
bool decodeRecord(const uint8_t *data, std::size_t length, SnapshotBuffer &s,
                  BladeInletSensorBuffer &l, PerfMetricSet &f) {
    Cursor in(data, length);
    s.u8PowerSupplyACNum = static_cast<uint8_t>(in.take(1));
    bool ok = takeStats(in, s.u8PowerSupplyACNum, &s.psPowerSupplyAC);
    s.u8PowerSupplyDCNum = static_cast<uint8_t>(in.take(1));
    ok = ok && takeStats(in, s.u8PowerSupplyDCNum, &s.psPowerSupplyDC);
    for (MetricStat **single : {&s.psSystemAC, &s.psSystemDC, &s.psCPUPower, &s.psMemoryPower,
                                &s.psCoolingPower, &s.psEffectiveCPU})
        ok = ok && takeOptional(in, single);
    s.u8InletTemperature = static_cast<uint8_t>(in.take(1));
    s.u8OutletTemperature = static_cast<uint8_t>(in.take(1));
    s.u64Timestamp = in.take(8);
    s.u8PowerStatus = static_cast<uint8_t>(in.take(1));
    ok = ok && takeReadings(in, l);
    // The performance block is there when the writer's platform offered it.
    if (ok && !in.atEnd())
        for (MetricStat **perf : {&f.psSystemPerf, &f.psCPUPerf, &f.psMemoryPerf, &f.psIOPerf})
            ok = ok && takeOptional(in, perf);
    if (ok && in.atEnd())
        return true;
    release(s, l, f);
    return false;
}

uint8_t readCounter(const char *absPath) {
    char path[PATH_MAX];
    uint8_t value = 0;
    std::size_t length = 0;
    if (!logPath(absPath, path, sizeof path) ||
        readWholeFile(path, &value, 1, &length) != FileRead::Whole || length != 1)
        return 0;
    return value;
}

struct Log {
    SnapshotBuffer *buffers;
    BladeInletSensorBuffer *inlets;
    PerfMetricSet *perfs;
};

// Reads the stored files oldest first into log; returns how many held a
// whole record.
uint8_t readFiles(uint8_t count, uint8_t last, Log log, uint8_t *buffer) {
    uint8_t filled = 0;
    unsigned index = oldestFile(count, last);
    for (unsigned n = 0; n < count; ++n, index = (index + 1) % kLogFileCount) {
        char name[32], path[PATH_MAX];
        std::snprintf(name, sizeof name, "%szelo_%u.log", kLogDir, index);
        std::size_t length = 0;
        if (logPath(name, path, sizeof path) &&
            readWholeFile(path, buffer, kMaxFileBytes, &length) == FileRead::Whole &&
            decodeRecord(buffer, length, log.buffers[filled], log.inlets[filled],
                         log.perfs[filled]))
            ++filled;
    }
    return filled;
}

} // namespace
} // namespace zelo::metriclog

using namespace zelo::metriclog;

extern "C" uint8_t ReadMetricLog(SnapshotBuffer **ppsBuffers, BladeInletSensorBuffer **ppsInlets,
                                 PerfMetricSet **ppsPerfs, uint8_t *pu8Count, uint8_t *pu8Skipped) {
    if (ppsBuffers == nullptr || ppsInlets == nullptr || ppsPerfs == nullptr ||
        pu8Count == nullptr || pu8Skipped == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    *ppsBuffers = nullptr;
    *ppsInlets = nullptr;
    *ppsPerfs = nullptr;
    *pu8Count = 0;
    *pu8Skipped = 0;
    char dir[PATH_MAX];
    if (!logPath(kLogDir, dir, sizeof dir) || ::access(dir, R_OK | X_OK) != 0)
        return ZELO_RC_NO_DATA;

    Log log{static_cast<SnapshotBuffer *>(std::calloc(kLogFileCount, sizeof(SnapshotBuffer))),
            static_cast<BladeInletSensorBuffer *>(
                std::calloc(kLogFileCount, sizeof(BladeInletSensorBuffer))),
            static_cast<PerfMetricSet *>(std::calloc(kLogFileCount, sizeof(PerfMetricSet)))};
    auto *buffer = static_cast<uint8_t *>(std::malloc(kMaxFileBytes));
    uint8_t result = ZELO_RC_NO_MEMORY;
    if (log.buffers != nullptr && log.inlets != nullptr && log.perfs != nullptr &&
        buffer != nullptr) {
        ReaderLock lock(kReaderLockSeconds);
        // A foreign counter cannot make us read more than the log can hold.
        const uint8_t count = lock.usable() ? std::min(readCounter(kNumFile), kLogFileCount) : 0;
        const uint8_t filled =
            count == 0 ? 0 : readFiles(count, readCounter(kLastFile), log, buffer);
        *pu8Skipped = static_cast<uint8_t>(count - filled);
        result = lock.result() == LockWait::TimedOut ? ZELO_RC_BUSY
                 : !lock.usable()                    ? ZELO_RC_BAD_FILE
                 : count == 0                        ? ZELO_RC_NO_DATA
                 : filled == 0                       ? ZELO_RC_BAD_FILE
                                                     : ZELO_RC_SUCCESS;
        if (filled != 0) {
            *ppsBuffers = log.buffers;
            *ppsInlets = log.inlets;
            *ppsPerfs = log.perfs;
            *pu8Count = filled;
            log = Log{};
        }
    }
    std::free(buffer);
    std::free(log.buffers);
    std::free(log.inlets);
    std::free(log.perfs);
    return result;
}
