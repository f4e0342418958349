// The metric log writer: one little-endian file per new snapshot in 120
// rotating files, the counters, the published power figures and the power
// history sample.
#include "acquisition/cycle.h"
#include "bytes.h"
#include "files.h"
#include "inlet_internal.h"
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
#include <initializer_list>
#include <iterator>
#include <vector>

namespace zelo::metriclog {

uint8_t u8LogFileIndex = 0;
uint8_t u8LogFileNum = 0;

namespace {

void trace(const char *level, const char *message) {
    zelo::report(zelo::traced("CreateDataLog", level), "%s", message);
}

// A record built in memory, little-endian, field by field: the file never
// depends on the host's layout, and it is written with one call.
class Encoder {
  public:
    Encoder() { bytes_.reserve(512); }
    void le(uint64_t value, std::size_t width) {
        uint8_t at[8];
        putLe(at, value, width);
        bytes_.insert(bytes_.end(), at, at + width);
    }
    void stat(const MetricStat &s) {
        le(s.u64Avg, 8);
        le(s.u64Max, 8);
        le(s.u64Min, 8);
    }
    // A presence byte, then the record when there is one.
    void optional(const MetricStat *s) {
        le(s != nullptr ? 1 : 0, 1);
        if (s != nullptr)
            stat(*s);
    }
    // A count byte and that many records (none when the array is missing).
    void array(uint8_t count, const MetricStat *stats) {
        le(count, 1);
        for (uint8_t i = 0; stats != nullptr && i < count; ++i)
            stat(stats[i]);
    }
    void raw(const char *text, std::size_t n) { bytes_.insert(bytes_.end(), text, text + n); }
    bool writeTo(FILE *file) const {
        return std::fwrite(bytes_.data(), 1, bytes_.size(), file) == bytes_.size();
    }

  private:
    std::vector<uint8_t> bytes_;
};

void putInletReadings(Encoder &out) {
    const BladeInletSensorBuffer &list = sBladeInletSensorBuffer;
    out.le(list.u8SensorNum, 1);
    const InletSensorTemperature *node = list.psSensor;
    for (unsigned i = 0; i < list.u8SensorNum && node != nullptr; ++i, node = node->psNext) {
        out.le(node->u32SensorIndex, 4);
        out.raw(node->szTemperature, sizeof node->szTemperature);
    }
}

// The utilisation figures read for the record, when the firmware has them.
void putPerformance(Encoder &out, const zelo::acquisition::CyclePerformance &perf) {
    if (!perf.extremes) {
        zelo::print("%s - fails to read performance data from xpm", "CreateDataLog");
        return;
    }
    static constexpr const char *kLines[4][3] = {
        {"SysPerf.Avg : %lld\n", "SysPerf.Max : %lld\n", "SysPerf.Min : %lld\n"},
        {"CPUPerf.Avg: %lld\n", "CPUPerf.Max: %lld\n", "CPUPerf.Min : %lld\n"},
        {"MemPerf.Avg: %lld\n", "MemPerf.Max: %lld\n", "MemPerf.Min : %lld\n"},
        {"IOPerf.Avg: %lld\n", "IOPerf.Max: %lld\n", "IOPerf.Min : %lld\n"},
    };
    for (int i = 0; i < 4; ++i) {
        zelo::print(kLines[i][0], static_cast<long long>(perf.stats[i].u64Avg));
        zelo::print(kLines[i][1], static_cast<long long>(perf.stats[i].u64Max));
        zelo::print(kLines[i][2], static_cast<long long>(perf.stats[i].u64Min));
    }
    for (const MetricStat &stat : perf.stats)
        out.optional(&stat);
    zelo::print("Write perf datas into /tmp/zelo_*.log \n");
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
    uint8_t bytes[1 + kStatBytes] = {present ? uint8_t{1} : uint8_t{0}};
    if (!present)
        return std::fwrite(bytes, 1, 1, psFile);
    zelo::putLe(bytes + 1, psStat->u64Avg, 8);
    zelo::putLe(bytes + 9, psStat->u64Max, 8);
    zelo::putLe(bytes + 17, psStat->u64Min, 8);
    // The count of the last field's bytes, as fwrite of each field returned.
    return std::fwrite(bytes, 1, sizeof bytes, psFile) == sizeof bytes ? 8 : 0;
}

void CreateDataLog(SnapshotBuffer *psBuffer, HistogramData sHistogramData) {
    if (psBuffer == nullptr) {
        trace("ERROR", "Empty input buffer.");
        releaseHistogram(sHistogramData);
        return;
    }
    const bool blade = IsBladeServer() != 0;
    acquireInlets(blade);
    const auto perf = zelo::acquisition::readRecordPerformance();
    computeIntervals(*psBuffer, sHistogramData, blade);
    (void)recordSnapshot(*psBuffer, perf);
    publishFigures(*psBuffer, blade);
    releaseCycleInlets();
}

} // extern "C"

void zelo::metriclog::computeIntervals(SnapshotBuffer &s, HistogramData &histogram, bool blade) {
    calculateSnapshotValue(&s, histogram, blade);
}

int zelo::metriclog::recordSnapshot(const SnapshotBuffer &s,
                                    const acquisition::CyclePerformance &perf) {
    Encoder out;
    out.array(s.u8PowerSupplyACNum, s.psPowerSupplyAC);
    out.array(s.u8PowerSupplyDCNum, s.psPowerSupplyDC);
    for (const MetricStat *single : {s.psSystemAC, s.psSystemDC, s.psCPUPower, s.psMemoryPower,
                                     s.psCoolingPower, s.psEffectiveCPU})
        out.optional(single);
    out.le(s.u8InletTemperature, 1);
    out.le(s.u8OutletTemperature, 1);
    out.le(s.u64Timestamp, 8);
    out.le(s.u8PowerStatus, 1);
    putInletReadings(out);
    if (perf.supported == 1)
        putPerformance(out, perf);

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
    if (!out.writeTo(file) || !record.commit()) {
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

void zelo::metriclog::publishFigures(const SnapshotBuffer &s, bool blade) {
    // On a blade the DC figures are in the AC record: the dc keys carry it,
    // published first.
    const MetricStat *acRecord = blade ? s.psSystemDC : s.psSystemAC;
    const MetricStat *dcRecord = blade ? s.psSystemAC : s.psSystemDC;
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
}
