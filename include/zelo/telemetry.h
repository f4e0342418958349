/* Read-only telemetry: what the daemon has recorded, for people and for the
 * controller's other services. These operations read files only: they ask
 * the firmware nothing, change no state of the calling process (its own
 * history rings and trackers included), and hold the metric log lock only
 * while they read its files, so any process may call them while the daemon
 * runs. */
#ifndef ZELO_TELEMETRY_H
#define ZELO_TELEMETRY_H

#include <zelo/acquisition.h>
#include <zelo/common.h>
#include <zelo/history.h>
#include <zelo/metriclog.h>

/* Results of these operations besides ZELO_RC_SUCCESS, ZELO_RC_INVALID_PARAMETER
 * and ZELO_RC_NO_MEMORY. */
#define ZELO_RC_NO_DATA 211  /* nothing recorded yet: the file or the log is missing or empty */
#define ZELO_RC_BAD_FILE 212 /* a file is short, oversized or not a file of its kind */

/* One history item: the stored sample and whether it is unknown (no reading
 * arrived in its 150-second interval; its values then mean nothing). A power
 * sample is unknown when its avgDC is ZELO_POWER_HISTORY_UNKNOWN; a
 * performance sample when all six values are 0, as the tracker writes it. */
typedef struct {
    PowerHistorySample sSample;
    uint8_t u8Unknown;
} PowerHistoryItem;

typedef struct {
    PowerPerformanceSample sSample;
    uint8_t u8Unknown;
} PowerPerformanceItem;

/* One power quantity over a window, in watts. Minimum and maximum are the
 * extremes of the 30-second averages, as the 24-hour history keeps them. */
typedef struct {
    uint32_t u32Newest; /* average of the newest metric record */
    uint32_t u32Min;
    uint32_t u32Avg; /* time-weighted over the known intervals: energy / known seconds */
    uint32_t u32Max;
    uint64_t u64EnergyJ; /* watt-seconds: each known interval's average x its duration */
} PowerWindowFigures;

/* Power over a window ending at the newest metric record. */
typedef struct {
    PowerWindowFigures sAC; /* input power: what ZELO_total_ac_power_in_use_* publish */
    PowerWindowFigures sDC; /* DC power: what ZELO_total_dc_power_in_use_* publish */
    uint64_t u64Start;      /* seconds since the epoch: start of the oldest interval used */
    uint64_t u64End;        /* seconds since the epoch: the newest metric record's time */
    uint32_t u32Intervals;  /* known intervals used (metric records and history samples) */
    uint32_t u32UnknownIntervals; /* intervals with no reading, or none with DC power */
} PowerWindowStats;

ZELO_BEGIN_DECLS

/* The persisted 24-hour histories (/pstorage/power/PowerHistoryFull and
 * PowerPerformanceFull) in time order, oldest first, never-written slots left
 * out. At most u16Capacity items are written, the newest ones;
 * ZELO_HISTORY_SLOTS always suffices. *pu16Count is cleared first.
 * ZELO_RC_NO_DATA when the file is missing, ZELO_RC_BAD_FILE when it is not
 * exactly one ring (9218 bytes) or its slot index is out of range. */
ZELO_API uint8_t ReadPowerHistoryItems(PowerHistoryItem *psItems, uint16_t u16Capacity,
                                       uint16_t *pu16Count);
ZELO_API uint8_t ReadPowerPerformanceItems(PowerPerformanceItem *psItems, uint16_t u16Capacity,
                                           uint16_t *pu16Count);

/* The metric log's records, oldest first, in the shapes GetMetricValue hands
 * out; release them with FreeMetricValue. The performance statistics are
 * taken when a file holds them (the firmware is not asked); *ppsPerfs is an
 * array of *pu8Count sets whose pointers are null for a file without them.
 * A file that does not hold one whole record is left out and counted in
 * *pu8Skipped. Every out-parameter is cleared first. ZELO_RC_NO_DATA when the
 * log is missing or empty, ZELO_RC_BAD_FILE when no file held a whole record. */
ZELO_API uint8_t ReadMetricLog(SnapshotBuffer **ppsBuffers, BladeInletSensorBuffer **ppsInlets,
                               PerfMetricSet **ppsPerfs, uint8_t *pu8Count, uint8_t *pu8Skipped);

/* Power over the u32WindowSeconds (1 to 86400) that end at the newest metric
 * record. Windows up to an hour come from the metric log (30-second
 * intervals); longer ones from the persisted power history (150-second
 * intervals), completed with the metric records newer than its newest
 * sample. The newest metric record is always included; without any, a long
 * window ends at the newest history sample. *psStats is cleared first.
 * ZELO_RC_INVALID_PARAMETER for a window out of range, ZELO_RC_NO_DATA when
 * there is nothing to summarise, ZELO_RC_BAD_FILE as the readers above. */
ZELO_API uint8_t GetPowerWindowStats(uint32_t u32WindowSeconds, PowerWindowStats *psStats);

ZELO_END_DECLS

#endif
