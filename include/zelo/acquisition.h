/* Power data acquisition: the snapshot buffer and its parsed record, and the
 * host performance buffers. */
#ifndef ZELO_ACQUISITION_H
#define ZELO_ACQUISITION_H

#include <zelo/common.h>

/* One measured quantity. */
typedef struct {
    uint64_t u64Avg;
    uint64_t u64Max;
    uint64_t u64Min;
} MetricStat;

/* One parsed snapshot; every pointer is an owned array (a single value is an
 * array of one), null when its part is absent. Release with
 * FreeSnapshotBuffer. */
typedef struct {
    uint8_t u8PowerSupplyACNum;
    MetricStat *psPowerSupplyAC;
    uint8_t u8PowerSupplyDCNum;
    MetricStat *psPowerSupplyDC;
    MetricStat *psSystemAC;
    MetricStat *psSystemDC;
    MetricStat *psCPUPower;
    MetricStat *psMemoryPower;
    MetricStat *psCoolingPower;
    MetricStat *psEffectiveCPU;
    uint8_t u8InletTemperature;
    uint8_t u8OutletTemperature;
    uint64_t u64Timestamp; /* milliseconds; 0 when the snapshot carries none */
    uint8_t u8PowerStatus;
    uint16_t u16PowerEvent;
    uint16_t u16Tag;
} SnapshotBuffer;

/* The snapshot's power histogram; pu8BucketData belongs to the caller. */
typedef struct {
    uint16_t u16HistogramBase;
    uint8_t u8BucketNum;
    uint8_t u8BucketWidth;
    uint8_t u8BucketSize;
    uint8_t *pu8BucketData; /* u8BucketNum big-endian counters of u8BucketSize bytes */
} HistogramData;

/* Current host utilisation, 0 to 100 each. */
typedef struct {
    uint64_t u64SystemPerf;
    uint64_t u64CPUPerf;
    uint64_t u64MemoryPerf;
    uint64_t u64IOPerf;
    uint64_t u64PerfTimestamp;
} PerformanceData;

/* Average, maximum and minimum of each utilisation, one owned record each;
 * release with FreePerfBuffer. */
typedef struct {
    MetricStat *psSystemPerf;
    MetricStat *psCPUPerf;
    MetricStat *psMemoryPerf;
    MetricStat *psIOPerf;
} PerfMetricSet;

/* Response bytes 4 to 10 of one performance buffer read. */
typedef struct {
    uint8_t pu8Timestamp[4]; /* big-endian */
    uint8_t u8ReturnedSize;
    uint8_t u8Status;
    uint8_t u8Value;
} PerformanceBuffer;

#define ZELO_PERF_BUFFER_SYSTEM 0
#define ZELO_PERF_BUFFER_CPU 4
#define ZELO_PERF_BUFFER_MEMORY 5
#define ZELO_PERF_BUFFER_IO 6
#define ZELO_PERF_CURRENT 0
#define ZELO_PERF_MAXIMUM 1
#define ZELO_PERF_MINIMUM 2

ZELO_BEGIN_DECLS

/* Configuration blocks describing the snapshot buffer. */
ZELO_API uint8_t ZELO_ReadPowerHistogramConfiguration(uint8_t u8ModuleHandle,
                                                      uint16_t *pu16HistogramBase,
                                                      uint16_t *pu16Second,
                                                      uint8_t *pu8InnerBucketCount,
                                                      uint8_t *pu8BucketWidth,
                                                      uint8_t *pu8BucketSize, uint8_t *pu8Sixth);
ZELO_API uint8_t ZELO_ReadSnapshotBufferConfiguration(uint8_t u8ModuleHandle,
                                                      uint16_t *pu16ChunkSize, uint16_t *pu16Second,
                                                      uint16_t *pu16TotalSize);
ZELO_API uint8_t ZELO_ReadInputPowerBufferConfiguration(uint8_t u8ModuleHandle, uint8_t *pu8Out1,
                                                        uint8_t *pu8Out2, uint8_t *pu8Out3,
                                                        uint8_t *pu8Out4, uint8_t *pu8Out5,
                                                        uint8_t *pu8Out6, uint8_t *pu8Out7,
                                                        uint8_t *pu8Out8);

/* One chunk: at most u16Length bytes from u16Offset into pu8Destination. */
ZELO_API uint8_t ZELO_ReadSnapshotBuffer(uint8_t u8ModuleHandle, uint16_t u16Offset,
                                         uint16_t u16Length, uint16_t *pu16Tag,
                                         uint16_t *pu16ReturnedLength, uint8_t *pu8Destination);
/* The whole buffer, all chunks under one tag; pu8Destination holds at least
 * u16TotalSize bytes. */
ZELO_API uint8_t ReadTotalSnapshotBuffer(uint8_t u8ModuleHandle, uint16_t u16ChunkSize,
                                         uint16_t u16TotalSize, uint16_t *pu16BytesRead,
                                         uint8_t *pu8Destination, uint16_t *pu16Tag);

/* Reads and parses the current snapshot. On success *ppsBuffer is a new
 * record (FreeSnapshotBuffer) and psHistogram->pu8BucketData a new array
 * owned by the caller; psHistogram must not hold bucket data on entry. */
ZELO_API uint8_t GetSnapshotBufferFromZELO(SnapshotBuffer **ppsBuffer, HistogramData *psHistogram);
/* Parses u16RawLength raw bytes into a zeroed record; a layout that does not
 * fit the raw bytes is refused with ZELO_RC_FAILURE. What was allocated
 * before a failure stays in the record and histogram for the caller. */
ZELO_API uint8_t ParseSnapshotBuffer(uint8_t u8ModuleHandle, const uint8_t *pu8Raw,
                                     uint16_t u16RawLength, SnapshotBuffer *psBuffer,
                                     HistogramData *psHistogram);
/* Releases the record's arrays and the record itself; null is ignored. */
ZELO_API void FreeSnapshotBuffer(SnapshotBuffer *psBuffer);

/* Performance buffers, read through the XPM extension command. */
ZELO_API uint8_t GetXPMRequestBuffer(uint8_t u8Arg1, uint8_t u8Arg2, uint8_t u8Arg3, uint8_t u8Arg4,
                                     uint32_t u32RequestLen, uint8_t **ppu8Request);
ZELO_API uint8_t ZELO_ReadPerformanceBuffer(uint8_t u8BufferId, uint8_t u8Second,
                                            uint8_t u8Selector, uint8_t u8ExpectedSize,
                                            PerformanceBuffer *psBuffer);
/* 1 offered, 0 not offered, 2 out of memory. */
ZELO_API int NM_Performance_IsSupported(void);
ZELO_API uint8_t GetPerformanceFromNM(PerformanceData *psData);
/* psStats: four consecutive records, system, CPU, memory, I/O. */
ZELO_API uint8_t ReadPerformanceDataFromXPM(MetricStat *psStats);
ZELO_API void FreePerfBuffer(PerfMetricSet *psSet);

ZELO_END_DECLS

#endif
