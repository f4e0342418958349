// The metric log reader and printer. A file may come from anywhere (the
// daemon reads any path it is given), so every count from the file bounds
// what is allocated and nothing is trusted to be terminated.
#include "bytes.h"
#include "files.h"
#include "inlet_internal.h"
#include "state.h"

#include <zelo/metriclog.h>
#include <zelo/tracelog.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <unistd.h>

namespace zelo::metriclog {
namespace {

bool getLE(FILE *file, uint64_t *value, int width) {
    uint8_t bytes[8] = {};
    if (std::fread(bytes, 1, static_cast<std::size_t>(width), file) !=
        static_cast<std::size_t>(width))
        return false;
    *value = getLe(bytes, static_cast<std::size_t>(width));
    return true;
}

template <typename T>
void getField(FILE *file, T *field) {
    uint64_t value = 0;
    getLE(file, &value, sizeof(T));
    *field = static_cast<T>(value);
}

enum class Reading { Linked, Skipped, EndOfFile };

// Reads one inlet reading and links a node for it at the front of the list.
// Its bytes are consumed even when no node can be had, so the rest of the
// file is read in step.
Reading getReading(FILE *file, BladeInletSensorBuffer &list) {
    uint64_t index = 0;
    char text[ZELO_INLET_TEMPERATURE_TEXT];
    if (!getLE(file, &index, 4) || std::fread(text, 1, sizeof text, file) != sizeof text)
        return Reading::EndOfFile;
    auto *node =
        static_cast<InletSensorTemperature *>(std::calloc(1, sizeof(InletSensorTemperature)));
    if (node == nullptr)
        return Reading::Skipped;
    node->u32SensorIndex = static_cast<uint32_t>(index);
    std::memcpy(node->szTemperature, text, sizeof text);
    node->szTemperature[sizeof text - 1] = '\0'; // a foreign file need not terminate it
    node->psNext = list.psSensor;
    list.psSensor = node;
    return Reading::Linked;
}

bool readStoredFile(uint8_t index, SnapshotBuffer *s, BladeInletSensorBuffer *l, PerfMetricSet *f,
                    int perfSupported) {
    char name[32];
    std::snprintf(name, sizeof name, "%szelo_%u.log", kLogDir, static_cast<unsigned>(index));
    char path[PATH_MAX];
    return logPath(name, path, sizeof path) && readMetricFile(path, s, l, f, perfSupported) == 0;
}

} // namespace
} // namespace zelo::metriclog

using namespace zelo::metriclog;

extern "C" {

void ReadMetricData(FILE *psFile, uint8_t *pu8Count, MetricStat **ppsStats) {
    if (psFile == nullptr || ppsStats == nullptr || pu8Count == nullptr)
        return;
    uint64_t count = 0;
    getLE(psFile, &count, 1); // end of file counts as 0
    *pu8Count = static_cast<uint8_t>(count);
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
    for (uint64_t i = 0; i < count; ++i) {
        getLE(psFile, &stats[i].u64Avg, 8);
        getLE(psFile, &stats[i].u64Max, 8);
        getLE(psFile, &stats[i].u64Min, 8);
    }
    *ppsStats = stats;
}

int ReadMeticValueFromFile(const char *pszPath, SnapshotBuffer *psBuffer,
                           BladeInletSensorBuffer *psInlet, PerfMetricSet *psPerf) {
    return readMetricFile(pszPath, psBuffer, psInlet, psPerf, kAskWhenNeeded);
}

} // extern "C"

namespace zelo::metriclog {

int readMetricFile(const char *pszPath, SnapshotBuffer *psBuffer, BladeInletSensorBuffer *psInlet,
                   PerfMetricSet *psPerf, int perfSupported) {
    if (pszPath == nullptr || psBuffer == nullptr || psInlet == nullptr)
        return 1;
    FILE *file = zelo::openRegularStream(pszPath); // a FIFO at the path is refused, not waited on
    if (file == nullptr)
        return 2;
    SnapshotBuffer &s = *psBuffer;
    ReadMetricData(file, &s.u8PowerSupplyACNum, &s.psPowerSupplyAC);
    ReadMetricData(file, &s.u8PowerSupplyDCNum, &s.psPowerSupplyDC);
    uint8_t present = 0;
    for (MetricStat **single : {&s.psSystemAC, &s.psSystemDC, &s.psCPUPower, &s.psMemoryPower,
                                &s.psCoolingPower, &s.psEffectiveCPU})
        ReadMetricData(file, &present, single);
    getField(file, &s.u8InletTemperature);
    getField(file, &s.u8OutletTemperature);
    getField(file, &s.u64Timestamp);
    getField(file, &s.u8PowerStatus);

    uint64_t count = 0;
    const bool haveCount = getLE(file, &count, 1);
    psInlet->u8SensorNum = static_cast<uint8_t>(count);
    std::printf("%s -- inlet sensor number is %u\n", "ReadMeticValueFromFile",
                static_cast<unsigned>(psInlet->u8SensorNum));
    if (!haveCount) {
        std::fclose(file);
        return -1;
    }
    // Each reading goes to the front, so the list comes back in reverse
    // file order. A reading the file does not hold is not counted.
    uint8_t linked = 0;
    for (uint64_t i = 0; i < count; ++i) {
        const Reading r = getReading(file, *psInlet);
        if (r == Reading::EndOfFile)
            break;
        linked += r == Reading::Linked;
    }
    psInlet->u8SensorNum = linked;

    if (psPerf != nullptr && perfSupported == kAskWhenNeeded)
        perfSupported = NM_Performance_IsSupported();
    if (psPerf != nullptr && perfSupported == 1) {
        for (MetricStat **perf :
             {&psPerf->psSystemPerf, &psPerf->psCPUPerf, &psPerf->psMemoryPerf, &psPerf->psIOPerf})
            ReadMetricData(file, &present, perf);
    }
    std::fclose(file);
    return 0;
}

} // namespace zelo::metriclog

extern "C" {

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
        std::printf("%s Avg:%llu Max:%llu Min:%llu\r\n", label,
                    static_cast<unsigned long long>(psStats->u64Avg),
                    static_cast<unsigned long long>(psStats->u64Max),
                    static_cast<unsigned long long>(psStats->u64Min));
        return;
    }
    for (int i = 0; i < s32Count; ++i)
        std::printf("%s[%u] Avg:%llu Max:%llu Min:%llu\r\n", label, static_cast<unsigned>(i),
                    static_cast<unsigned long long>(psStats[i].u64Avg),
                    static_cast<unsigned long long>(psStats[i].u64Max),
                    static_cast<unsigned long long>(psStats[i].u64Min));
}

void PrintAllMetricValue(const SnapshotBuffer *psBuffer, const BladeInletSensorBuffer *psInlet,
                         const PerfMetricSet *psPerf) {
    if (psBuffer == nullptr)
        return;
    const SnapshotBuffer &s = *psBuffer;
    PrintMetricValue(s.psPowerSupplyAC, s.u8PowerSupplyACNum, "PowerSupplyAC");
    PrintMetricValue(s.psPowerSupplyDC, s.u8PowerSupplyDCNum, "PowerSupplyDC");
    PrintMetricValue(s.psSystemAC, 1, "SystemAC");
    PrintMetricValue(s.psSystemDC, 1, "SystemDC");
    PrintMetricValue(s.psCPUPower, 1, "CPUPower");
    PrintMetricValue(s.psMemoryPower, 1, "MemoryPower");
    PrintMetricValue(s.psCoolingPower, 1, "CoolingPower");
    PrintMetricValue(s.psEffectiveCPU, 1, "EffectiveCPU");
    std::printf("InletTemperature: %u\r\n", static_cast<unsigned>(s.u8InletTemperature));
    std::printf("OutletTemperature: %u\r\n", static_cast<unsigned>(s.u8OutletTemperature));
    std::printf("Timestamp: %llu\r\n", static_cast<unsigned long long>(s.u64Timestamp));
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
            std::printf("InletSensorName:%s  Temperature:%s\n",
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
