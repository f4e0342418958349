// The records of a snapshot, named once: whatever walks over them (the
// parser, the interval calculation, the metric log file, copy and release,
// the printer, the programs) takes them from these tables, in the record's
// own order. Header only and not exported, so that the programs can include
// it as well.
#pragma once

#include <zelo/acquisition.h>

#include <array>
#include <cstdlib>

namespace zelo::acquisition {

// A count and its array of records, one per power supply.
struct SupplyRecords {
    uint8_t SnapshotBuffer::*count;
    MetricStat *SnapshotBuffer::*records;
    const char *label; // as the printer and the programs name it
};

inline constexpr std::array<SupplyRecords, 2> kSupplyRecords{{
    {&SnapshotBuffer::u8PowerSupplyACNum, &SnapshotBuffer::psPowerSupplyAC, "PowerSupplyAC"},
    {&SnapshotBuffer::u8PowerSupplyDCNum, &SnapshotBuffer::psPowerSupplyDC, "PowerSupplyDC"},
}};

// A record of one value, null when the snapshot lacks it.
struct SingleRecord {
    MetricStat *SnapshotBuffer::*record;
    const char *label;
    // Its average is a figure per second, the others per millisecond.
    bool perSecond;
};

inline constexpr std::array<SingleRecord, 6> kSingleRecords{{
    {&SnapshotBuffer::psSystemAC, "SystemAC", false},
    {&SnapshotBuffer::psSystemDC, "SystemDC", false},
    {&SnapshotBuffer::psCPUPower, "CPUPower", false},
    {&SnapshotBuffer::psMemoryPower, "MemoryPower", false},
    {&SnapshotBuffer::psCoolingPower, "CoolingPower", false},
    {&SnapshotBuffer::psEffectiveCPU, "EffectiveCPU", true},
}};

// Releases the record's arrays; the pointers are left as they were.
inline void releaseRecords(SnapshotBuffer &s) {
    for (const SupplyRecords &supplies : kSupplyRecords)
        std::free(s.*supplies.records);
    for (const SingleRecord &single : kSingleRecords)
        std::free(s.*single.record);
}

// The records that hold the AC and the DC power. A blade's snapshot has one
// power value, its DC power, and it is stored in the AC record; the DC
// record, absent there, stands for its AC power.
struct PowerRecords {
    MetricStat *SnapshotBuffer::*ac;
    MetricStat *SnapshotBuffer::*dc;
};

constexpr PowerRecords powerRecords(bool blade) {
    return blade ? PowerRecords{&SnapshotBuffer::psSystemDC, &SnapshotBuffer::psSystemAC}
                 : PowerRecords{&SnapshotBuffer::psSystemAC, &SnapshotBuffer::psSystemDC};
}

} // namespace zelo::acquisition
