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
#define ZELO_RC_BUSY 214     /* the metric log's lock stayed held longer than a reader waits */

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

/* One power quantity over a window, in watts. Each instant of the window is
 * read from the metric record that covers it, else from the history sample
 * that covers it; minimum and maximum are the troughs and peaks those carry
 * (a record its interval's, a history sample the extremes of its 30-second
 * averages), not extremes of averages. */
typedef struct {
    uint32_t u32Newest; /* average of the newest record (or sample) with a reading */
    uint32_t u32Min;
    uint32_t u32Avg; /* energy / the seconds with a reading */
    uint32_t u32Max;
    uint64_t u64EnergyJ; /* watt-seconds: each stretch's average x its duration in the window */
} PowerWindowFigures;

/* Power over a window ending at the newest metric record. */
typedef struct {
    PowerWindowFigures sAC; /* input power: what ZELO_total_ac_power_in_use_* publish */
    PowerWindowFigures sDC; /* DC power: what ZELO_total_dc_power_in_use_* publish */
    uint64_t u64Start;      /* seconds since the epoch: start of the oldest stretch used */
    uint64_t u64End;        /* seconds since the epoch: the newest metric record's time */
    uint32_t u32Intervals;  /* records and history samples with a reading that supplied time */
    /* Records and samples without a reading (no DC power) that supplied time,
     * and the time between them that none covers, in 30-second periods from
     * the oldest record on and in 150-second periods before it, rounded up. */
    uint32_t u32UnknownIntervals;
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
 * log is missing or empty, ZELO_RC_BAD_FILE when no file held a whole record
 * or something other than a file holds the lock's name. The lock is waited
 * for up to 30 s, then ZELO_RC_BUSY. */
ZELO_API uint8_t ReadMetricLog(SnapshotBuffer **ppsBuffers, BladeInletSensorBuffer **ppsInlets,
                               PerfMetricSet **ppsPerfs, uint8_t *pu8Count, uint8_t *pu8Skipped);

/* Power over the u32WindowSeconds (1 to 86400) that end at the newest metric
 * record. The metric records (30-second intervals) are preferred; where they
 * do not cover the window, the persisted power history (150-second samples)
 * fills in, so no time is counted twice and a stretch gives the same energy
 * in every window. Without any record the window ends at the newest history
 * sample. *psStats is cleared first. ZELO_RC_INVALID_PARAMETER for a window
 * out of range, ZELO_RC_NO_DATA when there is nothing to summarise,
 * ZELO_RC_BAD_FILE as the readers above. */
ZELO_API uint8_t GetPowerWindowStats(uint32_t u32WindowSeconds, PowerWindowStats *psStats);

ZELO_END_DECLS

#endif
