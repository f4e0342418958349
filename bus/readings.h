// What zelo-dbus shows, worked out from the metric log, the daemon's pid
// file and the configuration store alone: no bus and no firmware here, so it
// can be tested on plain values.
#pragma once

#include <zelo/acquisition.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <optional>
#include <vector>

namespace zelo::bus {

inline constexpr double kNaN = NAN;

// One figure of a record: its interval's average, minimum and maximum.
struct Stat {
    double avg = kNaN;
    double min = kNaN;
    double max = kNaN;
};

// One metric record as the sensors read it; an absent figure is all NaN.
struct Record {
    uint64_t ms = 0; // the firmware's time stamp
    Stat ac, dc, cpu, memory, cooling;
    Stat inlet, outlet; // a reading, no extremes
    Stat system, cpuUse, memoryUse, ioUse;
};

// The record's figures from the library's shapes. On a blade the firmware's
// DC figures arrive in the AC record, and the snapshot has no temperatures.
Record toRecord(const SnapshotBuffer &snapshot, const PerfMetricSet *perf, bool blade);

enum class Unit { Watts, DegreesC, Percent, Joules };
const char *unitName(Unit unit);

// The sensors, written once: object path segments, unit and the figure.
struct SensorSpec {
    const char *kind; // power, temperature, utilization, energy
    const char *name;
    Unit unit;
    Stat Record::*stat; // null for the energy counter
};
inline constexpr std::array<SensorSpec, 12> kSensors{{
    {"power", "total_ac", Unit::Watts, &Record::ac},
    {"power", "total_dc", Unit::Watts, &Record::dc},
    {"power", "cpu", Unit::Watts, &Record::cpu},
    {"power", "memory", Unit::Watts, &Record::memory},
    {"power", "cooling", Unit::Watts, &Record::cooling},
    {"temperature", "inlet", Unit::DegreesC, &Record::inlet},
    {"temperature", "outlet", Unit::DegreesC, &Record::outlet},
    {"utilization", "system", Unit::Percent, &Record::system},
    {"utilization", "cpu", Unit::Percent, &Record::cpuUse},
    {"utilization", "memory", Unit::Percent, &Record::memoryUse},
    {"utilization", "io", Unit::Percent, &Record::ioUse},
    {"energy", "total_ac", Unit::Joules, nullptr},
}};

// What one sensor shows; Value is NaN whenever it is not available.
struct Reading {
    double value = kNaN;
    double min = kNaN;
    double max = kNaN;
    bool available = false;
};
// Equal figures, NaN equal to NaN: what decides whether a change is signalled.
bool same(const Reading &a, const Reading &b);

// The AC energy of the records seen while the service runs: each record's
// average times the time since the record before it. A record whose
// predecessor is unknown (the first after a firmware restart emptied the
// log) adds nothing, so the counter never goes down and never guesses.
class EnergyMeter {
  public:
    // Records oldest first; those newer than the newest counted are added.
    void add(const std::vector<Record> &records);
    double joules() const { return joules_; }

  private:
    double joules_ = 0;
    std::optional<uint64_t> newestMs_;
};

// How fresh the log is, and whether its writer still runs.
struct Freshness {
    bool daemonRunning = false;
    double ageSeconds = 0; // since the newest record was written
};

// The snapshot period, from the records' spacing (30 s when unknown).
double periodSeconds(const std::vector<Record> &records);

// Every sensor's reading, in kSensors' order. Nothing is available without
// a record, without the daemon, or when the newest record is older than
// three snapshot periods.
std::array<Reading, kSensors.size()> readings(const std::vector<Record> &records,
                                              const Freshness &fresh, double energyJoules);

// The power cap as the store holds it (a value it lacks is empty), and
// whether the firmware has capping enabled.
struct CapLimits {
    std::optional<uint32_t> cap, min, max, softMin;
    bool enabled = false;
};

enum class CapVerdict { Accepted, OutOfRange, NotEnabled };
// A new cap against the firmware's limits; capping must be enabled.
CapVerdict judgeCap(uint32_t watts, bool enabled, uint32_t min, uint32_t max);

} // namespace zelo::bus
