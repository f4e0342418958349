/* Power and performance history: 24-hour rings of 150-second samples, their
 * persisted files under /pstorage/power and summary files under /tmp. */
#ifndef ZELO_HISTORY_H
#define ZELO_HISTORY_H

#include <zelo/common.h>

/* Slots of each ring: 576 samples of 150 seconds are 24 hours. */
#define ZELO_HISTORY_SLOTS 576
/* Every value of a power sample for an interval without a snapshot. */
#define ZELO_POWER_HISTORY_UNKNOWN 8888

/* One power history entry: ring slot and file record (16 bytes, little-endian
 * on disk). timestamp is the end of the interval in seconds since the epoch,
 * 0 for a slot never written. */
typedef struct {
    uint32_t timestamp;
    uint16_t minAC;
    uint16_t avgAC;
    uint16_t maxAC;
    uint16_t minDC;
    uint16_t avgDC;
    uint16_t maxDC;
} PowerHistorySample;

/* One performance history entry: system utilisation minimum, mean and
 * maximum, and the means of processor, memory and I/O utilisation. */
typedef struct {
    uint32_t timestamp;
    uint16_t min;
    uint16_t avg;
    uint16_t max;
    uint16_t cpu;
    uint16_t mem;
    uint16_t io;
} PowerPerformanceSample;

ZELO_BEGIN_DECLS

/* Feeds one snapshot: its time in milliseconds and its average AC and DC
 * power. The first call loads the persisted history; all zeros only do that. */
ZELO_API void trackPowerHistory(uint64_t timestampMs, uint64_t powerAC, uint64_t powerDC);
ZELO_API void addSampleToPowerHistory(const PowerHistorySample *sample);
/* 1 when /pstorage/power/PowerHistoryFull was read and is usable, 0 when the
 * history was started from scratch. */
ZELO_API int loadPowerHistory(void);
/* 1 when the whole file was written, 0 otherwise. */
ZELO_API int savePowerHistory(void);
ZELO_API void printFullPowerHistory(void);
/* The 1-, 6-, 12- and 24-hour summary files and the two 24-hour maxima in the
 * configuration store. */
ZELO_API void generatePowerHistoryFiles(void);
/* One summary file of 24 records of entriesPerRecord (1 to 24) ring entries
 * each, ending before nextSampleIndex; *maxDC and *maxAC get the largest
 * record maxima, -1 when a record had no valid entry. 1 when the file was
 * replaced whole, 0 otherwise. */
ZELO_API int generatePowerHistoryFile(const char *path, int nextSampleIndex, int entriesPerRecord,
                                      int *maxDC, int *maxAC);

/* The performance twins; timestamp in seconds. */
ZELO_API void trackPowerPerformance(uint64_t timestamp, uint64_t system, uint64_t cpu, uint64_t mem,
                                    uint64_t io);
ZELO_API void addSampleToPowerPerformance(const PowerPerformanceSample *sample);
ZELO_API int loadPowerPerformance(void);
ZELO_API int savePowerPerformance(void);
ZELO_API void printFullPowerPerformance(void);
ZELO_API void generatePowerPerformanceFiles(void);
ZELO_API int generatePowerPerformanceFile(const char *path, int nextPerformanceSampleIndex,
                                          int entriesPerRecord);

ZELO_END_DECLS

#endif
