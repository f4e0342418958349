// The road of one new snapshot through the metric log: the readings it needs
// beside the snapshot, its interval figures, its record and its published
// figures, each a step of the daemon's cycle; CreateDataLog is the four in a
// row.
#include "cycle.h"

#include "acquisition/snapshot_records.h"
#include "calculate.h"
#include "inlet_internal.h"
#include "record_codec.h"
#include "report.h"
#include "state.h"
#include "store.h"

#include <zelo/firmware.h>
#include <zelo/history.h>
#include <zelo/platform.h>

#include <vector>

namespace zelo::metriclog {

namespace {

// Publishes one record's three figures; an absent record publishes zeros.
void publish(const char *avgKey, const char *minKey, const char *maxKey, const MetricStat *stat) {
    const MetricStat zero{};
    const MetricStat &s = stat != nullptr ? *stat : zero;
    (void)kiv_config_set_int64(avgKey, static_cast<int64_t>(s.u64Avg), 0);
    (void)kiv_config_set_int64(minKey, static_cast<int64_t>(s.u64Min), 0);
    (void)kiv_config_set_int64(maxKey, static_cast<int64_t>(s.u64Max), 0);
}

// The utilisation figures the record carries, told on the console; null
// when the firmware gave none.
const MetricStat *performanceOf(const acquisition::CyclePerformance &perf) {
    if (perf.supported != 1)
        return nullptr;
    if (!perf.extremes) {
        zelo::print("%s - fails to read performance data from xpm", "CreateDataLog");
        return nullptr;
    }
    static constexpr const char *kLines[kPerformanceRecords][3] = {
        {"SysPerf.Avg : %lld\n", "SysPerf.Max : %lld\n", "SysPerf.Min : %lld\n"},
        {"CPUPerf.Avg: %lld\n", "CPUPerf.Max: %lld\n", "CPUPerf.Min : %lld\n"},
        {"MemPerf.Avg: %lld\n", "MemPerf.Max: %lld\n", "MemPerf.Min : %lld\n"},
        {"IOPerf.Avg: %lld\n", "IOPerf.Max: %lld\n", "IOPerf.Min : %lld\n"},
    };
    for (std::size_t i = 0; i < kPerformanceRecords; ++i) {
        zelo::print(kLines[i][0], static_cast<long long>(perf.stats[i].u64Avg));
        zelo::print(kLines[i][1], static_cast<long long>(perf.stats[i].u64Max));
        zelo::print(kLines[i][2], static_cast<long long>(perf.stats[i].u64Min));
    }
    zelo::print("Write perf datas into /tmp/zelo_*.log \n");
    return perf.stats;
}

} // namespace

void acquireInlets(bool blade) {
    if (gatherInletReadings(blade) == 1) {
        zelo::report(zelo::traced("CreateDataLog", "ERROR"),
                     " -- Failed to get inlet temperature!");
        releaseCycleInlets(); // the record carries none
        return;
    }
    zelo::print("%s -- there are totally [%d] inlet temperature!\n", "CreateDataLog",
                sBladeInletSensorBuffer.u8SensorNum);
}

void computeIntervals(SnapshotBuffer &s, HistogramData &histogram, bool blade) {
    calculateSnapshotValue(&s, histogram, blade);
}

int recordSnapshot(const SnapshotBuffer &s, const acquisition::CyclePerformance &perf) {
    std::vector<uint8_t> bytes;
    bytes.reserve(512);
    encode(s, &sBladeInletSensorBuffer, performanceOf(perf), bytes);
    return storeRecord(bytes);
}

void publishFigures(const SnapshotBuffer &s, bool blade) {
    // On a blade the DC figures are in the AC record: the dc keys carry it,
    // published first.
    const auto power = acquisition::powerRecords(blade);
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
}

} // namespace zelo::metriclog

using namespace zelo::metriclog;

extern "C" void CreateDataLog(SnapshotBuffer *psBuffer, HistogramData sHistogramData) {
    if (psBuffer == nullptr) {
        zelo::report(zelo::traced("CreateDataLog", "ERROR"), "Empty input buffer.");
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
