/* Metric data log: the lock and counter files, the interval calculation, the
 * 120 rotating metric log files, their reader and printer, the inlet sensor
 * readings of a blade, and the copy and release of stored records. */
#ifndef ZELO_METRICLOG_H
#define ZELO_METRICLOG_H

#include <stdio.h>
#include <zelo/acquisition.h>
#include <zelo/common.h>

#define ZELO_INLET_TEMPERATURE_TEXT 64
#define ZELO_INLET_SENSOR_UNKNOWN 5

/* One inlet temperature reading, a list node. */
typedef struct InletSensorTemperature {
    uint32_t u32SensorIndex; /* index in the inlet sensor name table; 5 = not there */
    char szTemperature[ZELO_INLET_TEMPERATURE_TEXT];
    struct InletSensorTemperature *psNext;
} InletSensorTemperature;

/* A list of inlet readings; it owns its nodes. */
typedef struct {
    uint8_t u8SensorNum;
    InletSensorTemperature *psSensor;
} BladeInletSensorBuffer;

ZELO_BEGIN_DECLS

/* Lock and counter files. */
ZELO_API void WaitValueLock(void);
ZELO_API int UnlockValue(void);
ZELO_API void WriteUCToFile(const char *pszPath, uint8_t u8Value);
ZELO_API void ReadUCFromFile(const char *pszPath, uint8_t *pu8Value);

/* Interval calculation against the previous snapshot. */
ZELO_API void CalculateSnapshotValue(SnapshotBuffer *psBuffer, HistogramData sHistogramData);
ZELO_API void CalculateAverage(const MetricStat *psPrevious, MetricStat *psCurrent,
                               uint64_t u64Elapsed);
ZELO_API void SetMaxMinValue(MetricStat *psStats, uint8_t u8Count);

/* Writer. */
ZELO_API void CreateDataLog(SnapshotBuffer *psBuffer, HistogramData sHistogramData);
ZELO_API size_t WriteZeroIfNullOrValueZero(FILE *psFile, const MetricStat *psStat, int s32Mode);

/* Reader and printer. */
ZELO_API void ReadMetricData(FILE *psFile, uint8_t *pu8Count, MetricStat **ppsStats);
/* One metric log file. -1 when it is cut short or is no metric record; then
 * nothing of it is kept. The inlet readings come in the reverse of the file's
 * order: the order the platform listed the sensors in. The performance records
 * are read when psPerf is given and the firmware offers them. */
ZELO_API int ReadMeticValueFromFile(const char *pszPath, SnapshotBuffer *psBuffer,
                                    BladeInletSensorBuffer *psInlet, PerfMetricSet *psPerf);
/* Every stored record, oldest first. The firmware is asked once per call,
 * under the lock, whether it offers performance figures; the answer serves
 * every file. */
ZELO_API int GetMetricValue(SnapshotBuffer **ppsBuffers, BladeInletSensorBuffer **ppsInlets,
                            PerfMetricSet **ppsPerfs, uint8_t *pu8Count);
/* Releases what GetMetricValue handed out. Like FreeSignalMetricValue it
 * never asks the firmware: a non-null performance record was allocated by the
 * library and is released whatever the firmware would answer now. */
ZELO_API void FreeMetricValue(SnapshotBuffer *psBuffers, BladeInletSensorBuffer *psInlets,
                              PerfMetricSet *psPerfs, uint8_t u8Count);
ZELO_API void PrintMetricValue(const MetricStat *psStats, int s32Count, const char *pszLabel);
ZELO_API void PrintAllMetricValue(const SnapshotBuffer *psBuffer,
                                  const BladeInletSensorBuffer *psInlet,
                                  const PerfMetricSet *psPerf);

/* Inlet temperatures of a blade, from the controller's own sensors. */
ZELO_API uint32_t GetInletSensorIndexPerSensorName(const char *pszName);
ZELO_API int WriteBladeInletTemperatureFromInletSensor(void);
ZELO_API void CopyInletTemperatureSnapshotBuffer(BladeInletSensorBuffer *psDest,
                                                 const BladeInletSensorBuffer *psSource);
ZELO_API void FreeBladeInletSensorBuffer(BladeInletSensorBuffer *psList);

/* Copy and release of stored records. */
ZELO_API void CreateAndCopyData(MetricStat **ppsDest, const MetricStat *psSource, uint8_t u8Count);
ZELO_API void CopySnapshotBuffer(SnapshotBuffer *psDest, const SnapshotBuffer *psSource);
ZELO_API void CopyXPMPerfDataBuffer(PerfMetricSet *psDest, const PerfMetricSet *psSource);
ZELO_API void FreeIfNotNull(void *pvPointer);
ZELO_API void FreeSignalMetricValue(SnapshotBuffer *psBuffer, BladeInletSensorBuffer *psInlet,
                                    PerfMetricSet *psPerf);

ZELO_END_DECLS

#endif
