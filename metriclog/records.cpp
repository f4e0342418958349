// The metric log read for other processes: every file decoded whole, the
// performance statistics taken when the file holds them, so that reading
// asks the firmware nothing.
#include "files.h"
#include "record_codec.h"
#include "report.h"
#include "state.h"

#include <zelo/telemetry.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <unistd.h>

namespace zelo::metriclog {
namespace {

// One file into one record; the record stays empty unless the file held it
// whole. The file tells whether it holds performance figures: the block is
// read when it does.
bool decodeRecord(const uint8_t *data, std::size_t length, SnapshotBuffer &s,
                  BladeInletSensorBuffer &l, PerfMetricSet &f) {
    if (decode(data, length, 1, s, l, &f) == Decoded::Whole)
        return true;
    FreeSignalMetricValue(&s, &l, &f);
    s = SnapshotBuffer{};
    l = BladeInletSensorBuffer{};
    f = PerfMetricSet{};
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
        formatText(name, sizeof name, "%szelo_%u.log", kLogDir, index);
        std::size_t length = 0;
        if (logPath(name, path, sizeof path) &&
            readWholeFile(path, buffer, kMaxRecordBytes, &length) == FileRead::Whole &&
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
    auto *buffer = static_cast<uint8_t *>(std::malloc(kMaxRecordBytes));
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
