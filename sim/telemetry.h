// What the simulated firmware measures: a power model over firmware time and
// the snapshots it takes of it.
//
// Firmware time is milliseconds since the firmware last (re)started. DC power
// follows one profile in whole watts and only changes at known instants, so
// every running accumulator (W x ms) is exact: 350 W held for 30000 ms adds
// exactly 10500000. The other quantities follow the DC level:
//   AC = DC x 100 / efficiency; CPU, memory, cooling = their share (%) of DC;
//   each of the E power-supply entries draws AC / E;
//   outlet = inlet + DC x rise / 100 (rise: degrees C per 100 W),
// every division rounding down.
//
// Snapshots fall on firmware times 0, period, 2 x period, ... and are taken
// lazily: whoever asks first catches up on every boundary passed, so answers
// do not depend on when requests come. The one at time 0 has tag 1, each
// later one the next tag (0 skipped on wrap-around). Between snapshots, once
// per second of firmware time (at whole seconds s with previous <= s < this
// snapshot) the DC level is sampled into the histogram and the CPU
// utilisation (%) added to the effective-CPU counter.
//
// A restart drops everything: the snapshot at that instant has tag 1, firmware
// time 0 and zeroed counters, and the profile starts over.
//
// Each snapshot keeps the status byte and event word in force when it was
// taken, so a change while the simulator runs shows in the next snapshot,
// not in the one already taken. A power model changed at run time counts
// from that instant: what accumulated before it stays as it was.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace zelo::sim {

inline constexpr std::uint8_t kHistogramElement = 2;
inline constexpr std::uint8_t kSnapshotElement = 3;
inline constexpr std::uint8_t kInputPowerElement = 11;

// Register 0/7 bit: the snapshot carries its extended part.
inline constexpr std::uint8_t kCapsExtendedSnapshot = 0x80;
// Register 0/14 bits: blocks of the extended part, in buffer order.
inline constexpr std::uint32_t kExtOpaqueBlock = 0x08;
inline constexpr std::uint32_t kExtInputPower = 0x04; // ignored on blades
inline constexpr std::uint32_t kExtTimestamp = 0x10;
inline constexpr std::uint32_t kExtSubsystems = 0x20;
inline constexpr std::size_t kOpaqueBlockLen = 16;

inline constexpr std::uint32_t kMsPerSample = 1000;

struct PowerStep {
    std::uint32_t ms = 0; // at least 1
    std::uint16_t watts = 0;
    bool operator==(const PowerStep &) const = default;
};

struct PowerProfile {
    enum class Kind : std::uint8_t { Constant, Steps, Noisy };
    Kind kind = Kind::Constant;
    std::uint16_t watts = 250;   // constant level; noisy base
    std::uint16_t amplitude = 0; // noisy: base +- amplitude, new value each second
    std::uint64_t seed = 1;      // noisy
    std::vector<PowerStep> steps;
    bool hold = false; // steps: keep the last level after one pass, else repeat
    bool operator==(const PowerProfile &) const = default;
};

struct PowerModel {
    PowerProfile dc;
    std::uint8_t efficiencyPct = 94;
    std::uint8_t cpuPct = 45;
    std::uint8_t memoryPct = 20;
    std::uint8_t coolingPct = 10;
    std::uint8_t inletC = 24;
    std::uint8_t outletRiseC = 4;
    bool operator==(const PowerModel &) const = default;
};

// Quantities with a running accumulator, in this order.
enum Energy : std::size_t { kDc, kAc, kCpu, kMemory, kCooling, kEnergyCount };

struct PowerLevels {
    std::array<std::uint32_t, kEnergyCount> watts{};
    std::uint8_t inletC = 0;
    std::uint8_t outletC = 0;
};

std::uint16_t dcWatts(const PowerProfile &profile, std::uint64_t ms);
// First instant after ms at which the DC level may change.
std::uint64_t nextChange(const PowerProfile &profile, std::uint64_t ms);
PowerLevels levelsAt(const PowerModel &model, std::uint64_t ms);

enum class Subsystem : std::uint8_t { Cpu = 1, Memory = 2, Cooling = 4 };

struct HistogramSetup {
    std::uint16_t base = 100;
    std::uint8_t width = 50;      // watts per inner bucket, at least 1
    std::uint8_t inner = 10;      // buckets between "below base" and "at or above the top"
    std::uint8_t bucketBytes = 4; // 1, 2 or 4; counters wrap at that width
    std::size_t buckets() const { return std::size_t{inner} + 2; }
    bool operator==(const HistogramSetup &) const = default;
};

struct InputPowerSetup {
    std::uint8_t entries = 2;
    std::uint8_t repeat = 1; // entry i starts i x repeat x entryLen() in
    std::uint8_t lead = 1;   // bytes before the values, filled with the index
    std::uint8_t width1 = 2; // input watts
    std::uint8_t width2 = 2; // the supply's output label watts (0 past the fourth)
    std::size_t entryLen() const { return std::size_t{lead} + width1 + width2; }
    std::size_t blockLen() const { return std::size_t{entries} * repeat * entryLen(); }
    bool operator==(const InputPowerSetup &) const = default;
};

struct SnapshotSetup {
    std::uint32_t periodMs = 30000;
    std::uint16_t chunkSize = 64;
    bool blade = false;
    HistogramSetup histogram;
    InputPowerSetup inputPower;
    std::vector<Subsystem> subsystems{Subsystem::Cpu, Subsystem::Memory, Subsystem::Cooling};
    std::uint8_t status = 0;
    std::uint16_t event = 0;
    std::optional<std::uint64_t> restartAtMs; // since the simulator started
    std::uint32_t everyReads = 0;             // non-zero: also snapshot after that many reads
    bool overlongRead = false;                // reads claim one byte more than they carry
    bool operator==(const SnapshotSetup &) const = default;
};

// Buffer length with every optional block present; must fit the u16 size.
std::size_t largestSnapshotLen(const SnapshotSetup &setup);

struct Snapshot {
    std::uint16_t tag = 1;
    std::uint64_t ms = 0;                             // firmware time taken
    std::uint64_t stampMs = 0;                        // the time stamp it carries
    std::array<std::uint64_t, kEnergyCount> energy{}; // W x ms
    std::vector<std::uint64_t> histogram;
    std::uint32_t effectiveCpu = 0; // % x s
    PowerLevels levels;             // at ms
    std::uint8_t status = 0;        // status byte when taken
    std::uint16_t event = 0;        // event word when taken
};

// The register values that shape the buffer, read when it is built.
struct LayoutRegisters {
    std::uint8_t capabilities = 0;  // 0/7
    std::uint32_t extended = 0;     // 0/14
    std::uint64_t outputLabels = 0; // 10/1: four u16 watts, supply 0 first
};

std::vector<std::uint8_t> snapshotBuffer(const Snapshot &snap, const SnapshotSetup &setup,
                                         const LayoutRegisters &regs);

// Takes the snapshots; times given are since the simulator started. With a
// wall origin (milliseconds since the Unix epoch at start) the snapshots are
// stamped with the wall clock, which a restart does not reset; without one
// (0), with the firmware time since the last restart.
class Recorder {
  public:
    Recorder(PowerModel power, SnapshotSetup setup, std::uint8_t cpuPct,
             std::uint64_t wallOriginMs = 0);

    // Takes every snapshot due by now, restart included.
    void advanceTo(std::uint64_t now);
    // Catches up, then takes one more now.
    void snapshotNow(std::uint64_t now);
    // Catches up, then restarts now: tag 1 at firmware time 0.
    void restartNow(std::uint64_t now);
    // Catches up, then renames the current snapshot; the next one is tag + 1.
    void setTag(std::uint64_t now, std::uint16_t tag);
    // Catches up and accumulates to now under the old model, then takes the
    // new one. The histogram shape must not change; a new restart time is
    // armed again.
    void retune(std::uint64_t now, const PowerModel &power, const SnapshotSetup &setup,
                std::uint8_t cpuPct);
    const Snapshot &current() const { return snap_; }
    std::uint64_t firmwareMs(std::uint64_t now) const { return now - epoch_; }
    // The firmware's clock as it stamps what it reports.
    std::uint64_t stampMs(std::uint64_t now) const {
        return wallOriginMs_ == 0 ? firmwareMs(now) : wallOriginMs_ + now;
    }

  private:
    void start(std::uint64_t now);
    void accumulate(std::uint64_t to);
    void take(std::uint64_t firmwareMs);
    std::size_t bucketOf(std::uint16_t watts) const;

    PowerModel power_;
    SnapshotSetup setup_;
    std::uint8_t cpuPct_;
    bool restartPending_;
    std::uint64_t wallOriginMs_;
    std::uint64_t epoch_ = 0;
    std::uint64_t nextBoundary_ = 0; // firmware time
    Snapshot running_;               // the counters as of running_.ms, ahead of the snapshot
    Snapshot snap_;                  // the last snapshot taken
};

} // namespace zelo::sim
