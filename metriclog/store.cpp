// The metric log's store: one record per new snapshot in 120 rotating files,
// and the two counters that tell readers which files there are.
#include "store.h"
#include "files.h"
#include "record_codec.h"
#include "report.h"
#include "state.h"

#include <zelo/metriclog.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

namespace zelo::metriclog {

uint8_t u8LogFileIndex = 0;
uint8_t u8LogFileNum = 0;

namespace {

void trace(const char *level, const char *message) {
    zelo::report(zelo::traced("CreateDataLog", level), "%s", message);
}

void writeCounter(const char *absPath, uint8_t value) {
    char path[PATH_MAX];
    if (logPath(absPath, path, sizeof path))
        WriteUCToFile(path, value);
}

} // namespace

void restartFileNumbering() {
    u8LogFileIndex = 0;
    u8LogFileNum = 0;
}

int storeRecord(const std::vector<uint8_t> &bytes) {
    char name[32];
    zelo::formatText(name, sizeof name, "%szelo_%u.log", kLogDir,
                     static_cast<unsigned>(u8LogFileIndex));
    char path[PATH_MAX];
    char message[1024];
    // Written whole under a temporary name, then put in place: a full disk
    // keeps the slot's previous record, and nothing planted at the name is
    // written through or waited on.
    zelo::ReplacedFile record(name, {});
    FILE *file = logPath(name, path, sizeof path) ? record.stream() : nullptr;
    if (file == nullptr) {
        const int error = errno != 0 ? errno : EIO;
        zelo::formatText(message, sizeof message, "Can't create file: %.1000s", path);
        trace("ERROR", message);
        return error;
    }
    // A record not written whole is not counted: the counters keep naming
    // the previous newest, and its slot is tried again next time.
    if (std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size() || !record.commit()) {
        const int error = errno != 0 ? errno : EIO;
        zelo::formatText(message, sizeof message, "Can't write file: %.900s (%s)", path,
                         std::strerror(error));
        trace("ERROR", message);
        return error;
    }
    if (u8LogFileNum < kLogFileCount)
        writeCounter(kNumFile, ++u8LogFileNum);
    writeCounter(kLastFile, u8LogFileIndex);
    u8LogFileIndex = static_cast<uint8_t>((u8LogFileIndex + 1) % kLogFileCount);
    return 0;
}

} // namespace zelo::metriclog

using namespace zelo::metriclog;

extern "C" size_t WriteZeroIfNullOrValueZero(FILE *psFile, const MetricStat *psStat, int s32Mode) {
    if (psFile == nullptr)
        return 0;
    const bool present = psStat != nullptr && !(s32Mode == 1 && psStat->u64Avg == 0);
    uint8_t bytes[kOptionalBytes];
    const std::size_t length = putOptional(present ? psStat : nullptr, bytes);
    if (!present)
        return std::fwrite(bytes, 1, length, psFile);
    // The count of the last field's bytes, as fwrite of each field returned.
    return std::fwrite(bytes, 1, length, psFile) == length ? 8 : 0;
}
