// Deep copy and release of the records that make up one stored snapshot.
#include "acquisition/snapshot_records.h"

#include <zelo/acquisition.h>
#include <zelo/metriclog.h>

#include <cstdlib>
#include <cstring>

using zelo::acquisition::kSingleRecords;
using zelo::acquisition::kSupplyRecords;

extern "C" {

void CreateAndCopyData(MetricStat **ppsDest, const MetricStat *psSource, uint8_t u8Count) {
    if (ppsDest == nullptr)
        return;
    *ppsDest = nullptr;
    if (u8Count == 0 || psSource == nullptr)
        return;
    auto *copy = static_cast<MetricStat *>(std::malloc(u8Count * sizeof(MetricStat)));
    if (copy == nullptr)
        return;
    std::memcpy(copy, psSource, u8Count * sizeof(MetricStat));
    *ppsDest = copy;
}

void CopySnapshotBuffer(SnapshotBuffer *psDest, const SnapshotBuffer *psSource) {
    if (psDest == nullptr || psSource == nullptr)
        return;
    // The tag and the event word stay the destination's own.
    psDest->u8PowerSupplyACNum = psSource->u8PowerSupplyACNum;
    psDest->u8PowerSupplyDCNum = psSource->u8PowerSupplyDCNum;
    psDest->u8InletTemperature = psSource->u8InletTemperature;
    psDest->u8OutletTemperature = psSource->u8OutletTemperature;
    psDest->u64Timestamp = psSource->u64Timestamp;
    psDest->u8PowerStatus = psSource->u8PowerStatus;
    for (const auto &supplies : kSupplyRecords)
        CreateAndCopyData(&(psDest->*supplies.records), psSource->*supplies.records,
                          psSource->*supplies.count);
    for (const auto &single : kSingleRecords)
        CreateAndCopyData(&(psDest->*single.record), psSource->*single.record, 1);
}

void CopyXPMPerfDataBuffer(PerfMetricSet *psDest, const PerfMetricSet *psSource) {
    if (psDest == nullptr || psSource == nullptr)
        return;
    CreateAndCopyData(&psDest->psSystemPerf, psSource->psSystemPerf, 1);
    CreateAndCopyData(&psDest->psCPUPerf, psSource->psCPUPerf, 1);
    CreateAndCopyData(&psDest->psMemoryPerf, psSource->psMemoryPerf, 1);
    CreateAndCopyData(&psDest->psIOPerf, psSource->psIOPerf, 1);
}

void FreeIfNotNull(void *pvPointer) {
    if (pvPointer != nullptr)
        std::free(pvPointer);
}

void FreeSignalMetricValue(SnapshotBuffer *psBuffer, BladeInletSensorBuffer *psInlet,
                           PerfMetricSet *psPerf) {
    if (psBuffer != nullptr)
        zelo::acquisition::releaseRecords(*psBuffer);
    if (psInlet != nullptr) {
        InletSensorTemperature *node = psInlet->psSensor;
        for (unsigned i = 0; i < psInlet->u8SensorNum && node != nullptr; ++i) {
            InletSensorTemperature *next = node->psNext;
            std::free(node);
            node = next;
        }
    }
    // The firmware is not asked: a non-null record was allocated here, so its
    // answer could only leak it (when it stops answering) or cost an exchange.
    if (psPerf != nullptr) {
        FreeIfNotNull(psPerf->psSystemPerf);
        FreeIfNotNull(psPerf->psCPUPerf);
        FreeIfNotNull(psPerf->psMemoryPerf);
        FreeIfNotNull(psPerf->psIOPerf);
    }
}

} // extern "C"
