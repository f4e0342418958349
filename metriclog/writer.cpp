// The metric log writer: one little-endian file per new snapshot in 120
// rotating files, the counters, the published power figures and the power
// history sample.
#include "acquisition/cycle.h"
#include "acquisition/snapshot_records.h"
#include "files.h"
#include "inlet_internal.h"
#include "record_codec.h"
#include "report.h"
#include "state.h"

#include <zelo/firmware.h>
#include <zelo/history.h>
#include <zelo/metriclog.h>
#include <zelo/platform.h>
#include <zelo/tracelog.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <vector>

namespace zelo::metriclog {

uint8_t u8LogFileIndex = 0;
uint8_t u8LogFileNum = 0;

namespace {

void trace(const char *level, const char *message) {
    WriteToLog("CreateDataLog", level, message);
}

// The figures the cycle read (`cycle`), or read now as the exported writer
// does, into perf; false when there are none.
bool readPerformance(const zelo::acquisition::CyclePerformance *cycle, MetricStat *perf) {
    if (cycle != nullptr ? !cycle->extremes : (ReadPerformanceDataFromXPM(perf) & 0xFF) != 0) {
        zelo::print("%s - fails to read performance data from xpm", "CreateDataLog");
        return false;
    }
    if (cycle != nullptr)
        std::copy(std::begin(cycle->stats), std::end(cycle->stats), perf);
    static constexpr const char *kLines[kPerformanceRecords][3] = {
        {"SysPerf.Avg : %lld\n", "SysPerf.Max : %lld\n", "SysPerf.Min : %lld\n"},
        {"CPUPerf.Avg: %lld\n", "CPUPerf.Max: %lld\n", "CPUPerf.Min : %lld\n"},
        {"MemPerf.Avg: %lld\n", "MemPerf.Max: %lld\n", "MemPerf.Min : %lld\n"},
        {"IOPerf.Avg: %lld\n", "IOPerf.Max: %lld\n", "IOPerf.Min : %lld\n"},
    };
    for (std::size_t i = 0; i < kPerformanceRecords; ++i) {
        zelo::print(kLines[i][0], static_cast<long long>(perf[i].u64Avg));
        zelo::print(kLines[i][1], static_cast<long long>(perf[i].u64Max));
        zelo::print(kLines[i][2], static_cast<long long>(perf[i].u64Min));
    }
    zelo::print("Write perf datas into /tmp/zelo_*.log \n");
    return true;
}

// Publishes one record's three figures; an absent record publishes zeros.
void publish(const char *avgKey, const char *minKey, const char *maxKey, const MetricStat *stat) {
    const MetricStat zero{};
    const MetricStat &s = stat != nullptr ? *stat : zero;
    (void)kiv_config_set_int64(avgKey, static_cast<int64_t>(s.u64Avg), 0);
    (void)kiv_config_set_int64(minKey, static_cast<int64_t>(s.u64Min), 0);
    (void)kiv_config_set_int64(maxKey, static_cast<int64_t>(s.u64Max), 0);
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

} // namespace zelo::metriclog

using namespace zelo::metriclog;

extern "C" {

size_t WriteZeroIfNullOrValueZero(FILE *psFile, const MetricStat *psStat, int s32Mode) {
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

void CreateDataLog(SnapshotBuffer *psBuffer, HistogramData sHistogramData) {
    (void)createDataLog(psBuffer, sHistogramData, IsBladeServer() != 0, nullptr);
}

} // extern "C"

int zelo::metriclog::createDataLog(SnapshotBuffer *psBuffer, HistogramData &sHistogramData,
                                   bool blade, const acquisition::CyclePerformance *perf) {
    if (psBuffer == nullptr) {
        trace("ERROR", "Empty input buffer.");
        releaseHistogram(sHistogramData);
        return EINVAL;
    }
    SnapshotBuffer &s = *psBuffer;
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
        const int error = errno;
        std::snprintf(message, sizeof message, "Can't create file: %.1000s", path);
        trace("ERROR", message);
        releaseHistogram(sHistogramData);
        return error != 0 ? error : EIO;
    }

    calculateSnapshotValue(&s, sHistogramData, blade);

    const BladeInletSensorBuffer *readings = nullptr;
    if (gatherInletReadings(blade) == 1) {
        trace("ERROR", " -- Failed to get inlet temperature!");
    } else {
        zelo::print("%s -- there are totally [%d] inlet temperature!\n", "CreateDataLog",
                    sBladeInletSensorBuffer.u8SensorNum);
        readings = &sBladeInletSensorBuffer;
    }
    MetricStat performance[kPerformanceRecords] = {};
    const bool withPerformance =
        (perf != nullptr ? perf->supported : NM_Performance_IsSupported()) == 1 &&
        readPerformance(perf, performance);
    std::vector<uint8_t> bytes;
    bytes.reserve(512);
    encode(s, readings, withPerformance ? performance : nullptr, bytes);
    // A record not written whole is not counted: the counters keep naming
    // the previous newest, and its slot is tried again next time.
    int error = 0;
    if (std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size() && record.commit()) {
        if (u8LogFileNum < kLogFileCount)
            writeCounter(kNumFile, ++u8LogFileNum);
        writeCounter(kLastFile, u8LogFileIndex);
        u8LogFileIndex = static_cast<uint8_t>((u8LogFileIndex + 1) % kLogFileCount);
    } else {
        error = errno != 0 ? errno : EIO;
        std::snprintf(message, sizeof message, "Can't write file: %.900s (%s)", path,
                      std::strerror(error));
        trace("ERROR", message);
    }

    // On a blade the DC figures are in the AC record: the dc keys carry it,
    // published first.
    const auto power = zelo::acquisition::powerRecords(blade);
    const MetricStat *acRecord = s.*power.ac;
    const MetricStat *dcRecord = s.*power.dc;
    const auto publishAc = [acRecord] {
        publish("ZELO_total_ac_power_in_use_Avg", "ZELO_total_ac_power_in_use_Min",
                "ZELO_total_ac_power_in_use_Max", acRecord);
    };
    const auto publishDc = [dcRecord] {
        publish("ZELO_total_dc_power_in_use_Avg", "ZELO_total_dc_power_in_use_Min",
                "ZELO_total_dc_power_in_use_Max", dcRecord);
    };
    if (blade) {
        publishDc();
        publishAc();
    } else {
        publishAc();
        publishDc();
    }
    publish("ZELO_consumptionCPU_Avg", "ZELO_consumptionCPU_Min", "ZELO_consumptionCPU_Max",
            s.psCPUPower);
    publish("ZELO_consumptionMemory_Avg", "ZELO_consumptionMemory_Min",
            "ZELO_consumptionMemory_Max", s.psMemoryPower);
    publish("ZELO_consumptionCooling_Avg", "ZELO_consumptionCooling_Min",
            "ZELO_consumptionCooling_Max", s.psCoolingPower);
    (void)kiv_config_set_int64("ZELO_timestamp", static_cast<int64_t>(s.u64Timestamp), 0);

    trackPowerHistory(s.u64Timestamp, acRecord != nullptr ? acRecord->u64Avg : 0,
                      dcRecord != nullptr ? dcRecord->u64Avg : 0);
    return error;
}
