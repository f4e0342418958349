// The metric log reader and printer. A file may come from anywhere (the
// daemon reads any path it is given): it is decoded as the log's own files
// are, and a file cut short is refused.
#include "acquisition/snapshot_records.h"
#include "files.h"
#include "inlet_internal.h"
#include "record_codec.h"
#include "report.h"
#include "state.h"

#include <zelo/metriclog.h>
#include <zelo/tracelog.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace zelo::metriclog {
namespace {

// The exported reader with the performance-support answer, asked once per
// call: by the caller, or here (kAskHere) when a performance set is given and
// the file could be read.
constexpr int kAskHere = -1;

int readMetricFile(const char *pszPath, SnapshotBuffer *psBuffer, BladeInletSensorBuffer *psInlet,
                   PerfMetricSet *psPerf, int perfSupported) {
    if (pszPath == nullptr || psBuffer == nullptr || psInlet == nullptr)
        return 1;
    FILE *file = zelo::openRegularStream(pszPath); // a FIFO at the path is refused, not waited on
    if (file == nullptr)
        return 2;
    // No record is longer; what a file holds beyond it is never read.
    auto *bytes = static_cast<uint8_t *>(std::malloc(kMaxRecordBytes));
    if (bytes == nullptr) {
        std::fclose(file);
        WriteToLog("ReadMetricData", "ERROR", "Memory allcate fail");
        return -1;
    }
    const std::size_t length = std::fread(bytes, 1, kMaxRecordBytes, file);
    std::fclose(file);
    if (psPerf != nullptr && perfSupported == kAskHere)
        perfSupported = NM_Performance_IsSupported();
    // Performance figures the platform does not offer are not read: the
    // bytes after the readings are left as they are.
    const Decoded decoded = decode(bytes, length, perfSupported, *psBuffer, *psInlet, psPerf);
    std::free(bytes);
    if (decoded == Decoded::NoMemory)
        WriteToLog("ReadMetricData", "ERROR", "Memory allcate fail");
    zelo::print("%s -- inlet sensor number is %u\n", "ReadMeticValueFromFile",
                static_cast<unsigned>(psInlet->u8SensorNum));
    return decoded == Decoded::Damaged ? -1 : 0;
}

bool readStoredFile(uint8_t index, SnapshotBuffer *s, BladeInletSensorBuffer *l, PerfMetricSet *f,
                    int perfSupported) {
    char name[32];
    zelo::formatText(name, sizeof name, "%szelo_%u.log", kLogDir, static_cast<unsigned>(index));
    char path[PATH_MAX];
    return logPath(name, path, sizeof path) && readMetricFile(path, s, l, f, perfSupported) == 0;
}

} // namespace
} // namespace zelo::metriclog

using namespace zelo::metriclog;

extern "C" {

// Bytes the file does not hold read as 0, as a count byte at the end of the
// file does.
void ReadMetricData(FILE *psFile, uint8_t *pu8Count, MetricStat **ppsStats) {
    if (psFile == nullptr || ppsStats == nullptr || pu8Count == nullptr)
        return;
    uint8_t count = 0;
    if (std::fread(&count, 1, 1, psFile) != 1)
        count = 0;
    *pu8Count = count;
    *ppsStats = nullptr;
    if (count == 0)
        return;
    auto *stats = static_cast<MetricStat *>(std::calloc(count, sizeof(MetricStat)));
    if (stats == nullptr) {
        WriteToLog("ReadMetricData", "ERROR", "Memory allcate fail");
        // Skip the records so the rest of the file is still read in step.
        std::fseek(psFile, static_cast<long>(count * kStatBytes), SEEK_CUR);
        return;
    }
    for (uint8_t i = 0; i < count; ++i) {
        uint8_t bytes[kStatBytes];
        const std::size_t got = std::fread(bytes, 1, sizeof bytes, psFile);
        std::memset(bytes + got, 0, sizeof bytes - got);
        stats[i] = getStat(bytes);
    }
    *ppsStats = stats;
}

int ReadMeticValueFromFile(const char *pszPath, SnapshotBuffer *psBuffer,
                           BladeInletSensorBuffer *psInlet, PerfMetricSet *psPerf) {
    return readMetricFile(pszPath, psBuffer, psInlet, psPerf, kAskHere);
}

int GetMetricValue(SnapshotBuffer **ppsBuffers, BladeInletSensorBuffer **ppsInlets,
                   PerfMetricSet **ppsPerfs, uint8_t *pu8Count) {
    if (ppsBuffers == nullptr || ppsInlets == nullptr || ppsPerfs == nullptr || pu8Count == nullptr)
        return 1;
    *ppsBuffers = nullptr;
    *ppsInlets = nullptr;
    *ppsPerfs = nullptr;
    *pu8Count = 0;
    char dir[PATH_MAX], numPath[PATH_MAX], lastPath[PATH_MAX];
    if (!logPath(kLogDir, dir, sizeof dir) || ::access(dir, R_OK | X_OK) != 0 ||
        !logPath(kNumFile, numPath, sizeof numPath) ||
        !logPath(kLastFile, lastPath, sizeof lastPath)) {
        WriteToLog("GetMetricValue", "ERROR", "Can't access log path /tmp/zelo_log/");
        return 3;
    }

    const ReaderLock lock(0);
    if (!lock.usable()) {
        WriteToLog("GetMetricValue", "ERROR", "Can't take the lock /tmp/zelo_log/zelo.lock");
        return 3;
    }
    uint8_t count = 0, last = 0;
    ReadUCFromFile(numPath, &count);
    ReadUCFromFile(lastPath, &last);
    // A foreign counter file cannot make us read more than the log can hold.
    if (count > kLogFileCount)
        count = kLogFileCount;
    if (count == 0)
        return 0;
    // Asked once for the whole log, under the lock.
    const int supported = NM_Performance_IsSupported();
    const bool withPerf = supported == 1;
    auto *buffers = static_cast<SnapshotBuffer *>(std::calloc(count, sizeof(SnapshotBuffer)));
    auto *inlets =
        static_cast<BladeInletSensorBuffer *>(std::calloc(count, sizeof(BladeInletSensorBuffer)));
    auto *perfs = withPerf ? static_cast<PerfMetricSet *>(std::calloc(count, sizeof(PerfMetricSet)))
                           : nullptr;
    if (buffers == nullptr || inlets == nullptr || (withPerf && perfs == nullptr)) {
        WriteToLog("GetMetricValue", "ERROR", "Memory allcate fail");
        std::free(buffers);
        std::free(inlets);
        std::free(perfs);
        return 0;
    }

    uint8_t filled = 0;
    const unsigned attempts = count;
    unsigned index = oldestFile(count, last);
    for (unsigned attempt = 0; attempt < attempts; ++attempt) {
        PerfMetricSet *perf = perfs != nullptr ? &perfs[filled] : nullptr;
        if (readStoredFile(static_cast<uint8_t>(index), &buffers[filled], &inlets[filled], perf,
                           supported)) {
            ++filled;
        } else {
            WriteToLog("GetMetricValue", "ERROR", "File doesn't exist");
            // Whatever a failed read allocated is released; the slot is reused.
            FreeSignalMetricValue(&buffers[filled], &inlets[filled], perf);
            buffers[filled] = SnapshotBuffer{};
            inlets[filled] = BladeInletSensorBuffer{};
            if (perf != nullptr)
                *perf = PerfMetricSet{};
        }
        index = (index + 1) % kLogFileCount;
    }
    if (filled == 0) {
        std::free(buffers);
        std::free(inlets);
        std::free(perfs);
    } else {
        *ppsBuffers = buffers;
        *ppsInlets = inlets;
        *ppsPerfs = perfs;
    }
    *pu8Count = filled;
    return 0;
}

void FreeMetricValue(SnapshotBuffer *psBuffers, BladeInletSensorBuffer *psInlets,
                     PerfMetricSet *psPerfs, uint8_t u8Count) {
    for (uint8_t i = 0; i < u8Count; ++i)
        FreeSignalMetricValue(psBuffers != nullptr ? &psBuffers[i] : nullptr,
                              psInlets != nullptr ? &psInlets[i] : nullptr,
                              psPerfs != nullptr ? &psPerfs[i] : nullptr);
    std::free(psBuffers);
    std::free(psInlets);
    std::free(psPerfs);
}

void PrintMetricValue(const MetricStat *psStats, int s32Count, const char *pszLabel) {
    if (psStats == nullptr || s32Count <= 0)
        return;
    const char *label = pszLabel != nullptr ? pszLabel : "";
    if (s32Count == 1) {
        zelo::print("%s Avg:%llu Max:%llu Min:%llu\r\n", label,
                    static_cast<unsigned long long>(psStats->u64Avg),
                    static_cast<unsigned long long>(psStats->u64Max),
                    static_cast<unsigned long long>(psStats->u64Min));
        return;
    }
    for (int i = 0; i < s32Count; ++i)
        zelo::print("%s[%u] Avg:%llu Max:%llu Min:%llu\r\n", label, static_cast<unsigned>(i),
                    static_cast<unsigned long long>(psStats[i].u64Avg),
                    static_cast<unsigned long long>(psStats[i].u64Max),
                    static_cast<unsigned long long>(psStats[i].u64Min));
}

void PrintAllMetricValue(const SnapshotBuffer *psBuffer, const BladeInletSensorBuffer *psInlet,
                         const PerfMetricSet *psPerf) {
    if (psBuffer == nullptr)
        return;
    const SnapshotBuffer &s = *psBuffer;
    for (const auto &supplies : zelo::acquisition::kSupplyRecords)
        PrintMetricValue(s.*supplies.records, s.*supplies.count, supplies.label);
    for (const auto &single : zelo::acquisition::kSingleRecords)
        PrintMetricValue(s.*single.record, 1, single.label);
    zelo::print("InletTemperature: %u\r\n", static_cast<unsigned>(s.u8InletTemperature));
    zelo::print("OutletTemperature: %u\r\n", static_cast<unsigned>(s.u8OutletTemperature));
    zelo::print("Timestamp: %llu\r\n", static_cast<unsigned long long>(s.u64Timestamp));
    if (psInlet != nullptr) {
        constexpr unsigned kMaxPrinted = 5;
        const InletSensorTemperature *node = psInlet->psSensor;
        for (unsigned i = 0; i < psInlet->u8SensorNum && i < kMaxPrinted && node != nullptr;
             ++i, node = node->psNext) {
            // The reading is the sensor's text as it came: no raw control bytes on a terminal.
            char temperature[4 * sizeof node->szTemperature + 1];
            EscapeControlBytes(
                node->szTemperature,
                static_cast<uint32_t>(strnlen(node->szTemperature, sizeof node->szTemperature)),
                temperature, sizeof temperature);
            zelo::print("InletSensorName:%s  Temperature:%s\n",
                        inletSensorName(node->u32SensorIndex), temperature);
        }
    }
    if (psPerf != nullptr && NM_Performance_IsSupported() == 1) {
        PrintMetricValue(psPerf->psSystemPerf, 1, "SystemPerf");
        PrintMetricValue(psPerf->psCPUPerf, 1, "CPUPerf");
        PrintMetricValue(psPerf->psMemoryPerf, 1, "MemoryPerf");
        PrintMetricValue(psPerf->psIOPerf, 1, "IOPerf");
    }
}

} // extern "C"
