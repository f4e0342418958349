// Scenario: what the simulated firmware looks like and how it misbehaves.
//
// A scenario file is read line by line on top of the built-in firmware
// (instance 0 and expansion instance 1 present, every register at its table
// default), so a file lists only what differs. `#` starts a comment, blank
// lines are ignored, numbers are decimal or 0x hex.
//
//   present yes|no                      no: the firmware answers 0xC1 to everything
//   instance <n> handle <h> [descriptors <d1> <d2>]
//                                       n is 0 (server) or 1 (expansion unit);
//                                       h is 1-255 and unique among instances
//   instance <n> none                   discovery of n answers handle 0
//   reg <n> <element> <register> <value>
//                                       register value of instance n; the width
//                                       comes from the register table
//   fault <n> <element> <method> <cc>   that element method of instance n
//                                       answers completion code cc
//   fault discovery [<n>] <cc>          discovery (of instance n, or of any)
//                                       answers cc
//   delay <ms>                          wait before every answer (0-60000)
//   bridge yes|no                       no: on a bus (--bus), the IPMB bridge's
//                                       name is released, as when the bridge
//                                       service is gone
//
// Power-supply tables of element 10, per instance (both start with the
// built-in server tables). Indices are given densely from 0, in order; the
// first psutype (redundancy) line for an instance replaces its built-in list.
//
//   psu-factors <n> <f1> <f2> [byte0 <v>]
//                                       f1 x f2 is the longest type list the
//                                       configurations carry (built-in 2 2);
//                                       byte0 is the first configuration byte
//   psutype <n> <index> <watts> [bytes <b0> <b1>]
//                                       power-supply type; bytes default 0 0
//   redundancy <n> <index> <N>+<M> props <p> list <i>,<i>... [byte0 <v>]
//              [words <w1> <w2> <w3>] [entrylen <v>]
//                                       redundancy configuration: N supplies
//                                       carry the load, M spare; p the 16
//                                       property bits; the list names PSU
//                                       types (list none: empty). Neither the
//                                       list length nor its indices are
//                                       checked against the factors or types,
//                                       so broken firmware can be staged;
//                                       entrylen overrides the entry length
//                                       the firmware reports (else 11 + list)
//
// Property bits: 0 power mode 2 (clear: mode 1), 1 valid for the installed
// supplies, 2-5 allowed with policy bit 0 set / clear and a redundancy target
// of 0 (bits 2, 3) or non-zero (bits 4, 5), 6 active.
//
// Power, snapshots and utilisation (model in sim/telemetry.h; elements 2, 3
// and 11 answer on instance 0 only). Built-in values in brackets.
//
//   power constant <W>                  DC power, 0-65535 W [250]
//   power steps <ms>:<W>[,<ms>:<W>...] [hold]
//                                       each level for its duration, the list
//                                       repeated, or with hold the last kept
//   power noisy <base> <amplitude> [seed <s>]
//                                       base +- amplitude, a new pseudo-random
//                                       level each second, the same per seed
//   efficiency <percent>                AC = DC x 100 / percent (1-100) [94]
//   shares <cpu> <memory> <cooling>     percent of DC each, sum <= 100 [45 20 10]
//   temperatures <inlet> <rise>         C; outlet = inlet + rise per 100 W [24 4]
//   snapshot-period <ms>                100-86400000 [30000]
//   chunk-size <bytes>                  chunk size the firmware reports [64]
//   histogram <base> <width> <inner> <bucket-bytes>
//                                       bucket 0 below base, inner buckets of
//                                       width W (1-255), the last one open;
//                                       counters of 1, 2 or 4 bytes [100 50 10 4]
//   input-power <E> <R> <A> <W1> <W2>   E supply entries R x (A + W1 + W2) bytes
//                                       apart: A bytes of index, input W (W1
//                                       bytes), output label W (W2); R >= 1,
//                                       widths 1-8 [2 1 1 2 2]
//   blade yes|no                        blade layout: no AC accumulator,
//                                       temperatures or input power [no]
//   subsystems <name>,<name>...|none    cpu, memory, cooling: what the
//                                       subsystem list carries [all, that order]
//   status-byte <v>                     snapshot status byte [0]
//   event-word <v>                      snapshot event word [0]
//   perf <system> <cpu> <memory> <io>   current utilisation % (0-255, so a
//                                       client can be shown nonsense) for the
//                                       XPM command; max / min are +-10 within
//                                       0-100; cpu % also drives the
//                                       effective-CPU counter [35 40 25 10]
//   perf none                           every XPM request answers 0xC1
//   perf-status <v>                     XPM status byte [0]
//
// More misbehaviour:
//   fault xpm <cc> [count <k>]          the next k XPM requests (else every one)
//                                       answer cc
//   short-answer <element> <method> <bytes> | short-answer xpm <bytes>
//                                       answers cut to that many bytes
//   overlong-read                       buffer reads claim one more byte than
//                                       they carry
//   restart-at <ms>                     the firmware restarts once, that long
//                                       after the simulator started
//   snapshot-every-reads <k>            also a snapshot after every k buffer
//                                       reads (0: only on time) [0]
//
// The controller's own temperature sensors (IPMI sensor type 1), in the
// order the controller lists them. They belong to the controller, not to the
// firmware, so they answer also with `present no` (network function 0x3A,
// platform/ipmi_wire.h). Built in: none.
//
//   sensor <name> <status> <reading>    name: one word, or text between
//                                       double quotes ("Inlet Temp") that
//                                       holds none, at most 191 characters; status: the record's
//                                       status byte, 0 = usable; reading: the
//                                       rest of the line as written (24 degrees
//                                       C), at most 1293 characters, or between
//                                       double quotes to be empty or keep outer
//                                       blanks. `#` always starts a comment, so
//                                       neither text can hold one; at most
//                                       65536 sensors
//   fault sensors <cc>                  every sensor request answers cc
//
// Errors name the file and line: "lab.scn:12: unknown register 0/99".
//
// A running simulator takes any of these lines one at a time (zelo-fwsim
// --control, sim/model.h), except `histogram`, plus three of its own:
//
//   restart-now                         the firmware restarts now: tag 1,
//                                       firmware time 0, counters zeroed
//   snapshot-now                        a snapshot now, tag + 1
//   tag <n>                             the current snapshot's tag becomes n
//                                       (0-65535); the next one is n + 1
#pragma once

#include "registers.h"
#include "telemetry.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zelo::sim {

inline constexpr unsigned kInstanceCount = 2;
inline constexpr int kAnyInstance = -1;
inline constexpr std::uint32_t kMaxDelayMs = 60000;

inline constexpr std::uint8_t kPowerSupplyElement = 10;

// Redundancy configuration property bits.
inline constexpr std::uint16_t kPropPowerMode2 = 1U << 0;
inline constexpr std::uint16_t kPropValid = 1U << 1;
inline constexpr std::uint16_t kPropAllowedPolicySetNoTarget = 1U << 2;
inline constexpr std::uint16_t kPropAllowedPolicyClearNoTarget = 1U << 3;
inline constexpr std::uint16_t kPropAllowedPolicySetTarget = 1U << 4;
inline constexpr std::uint16_t kPropAllowedPolicyClearTarget = 1U << 5;
inline constexpr std::uint16_t kPropActive = 1U << 6;

// An entry's length fits a byte: 11 fixed bytes and the type list.
inline constexpr std::size_t kRedundancyFixedLen = 11;
inline constexpr std::size_t kMaxTypeListLen = 0xFF - kRedundancyFixedLen;
// Counts are bytes on the wire.
inline constexpr std::size_t kMaxTableEntries = 0xFF;
// Sensor record indices travel as 16 bits.
inline constexpr std::size_t kMaxSensors = 0x10000;

struct PsuType {
    std::uint16_t watts = 0;
    std::array<std::uint8_t, 2> bytes{}; // passed through to clients as is
    bool operator==(const PsuType &) const = default;
};

struct RedundancyConfig {
    std::uint8_t byte0 = 0;
    std::uint16_t properties = 0;
    std::uint8_t n = 0; // supplies carrying the load
    std::uint8_t m = 0; // spares
    std::array<std::uint16_t, 3> words{};
    std::vector<std::uint8_t> typeList;      // indices into the PSU types
    std::optional<std::uint8_t> entryLength; // set: the firmware misreports it
    bool operator==(const RedundancyConfig &) const = default;
};

struct PowerSupplyTables {
    std::uint8_t configByte0 = 0;
    std::uint8_t factor1 = 2;
    std::uint8_t factor2 = 2;
    std::vector<PsuType> types;
    std::vector<RedundancyConfig> configs;
    bool operator==(const PowerSupplyTables &) const = default;
};

struct InstanceSetup {
    bool defined = false;
    std::uint8_t handle = 0;
    std::uint8_t descriptor1 = 0;
    std::uint8_t descriptor2 = 0;
    RegisterValues registers = initialRegisterValues();
    PowerSupplyTables psu;
};

struct Fault {
    bool discovery = false; // else an element method
    int instance = kAnyInstance;
    std::uint8_t element = 0;
    std::uint8_t method = 0;
    std::uint8_t cc = 0;
};

// Answers of the XPM command (network function 0x2E, command 0x84).
struct Performance {
    bool present = true;
    std::array<std::uint8_t, 4> current{35, 40, 25, 10}; // system, CPU, memory, I/O
    std::uint8_t status = 0;
    bool operator==(const Performance &) const = default;
};

struct XpmFault {
    std::uint8_t cc = 0;
    std::optional<std::uint32_t> remaining; // unset: forever
};

struct ShortAnswer {
    bool xpm = false; // else an element method
    std::uint8_t element = 0;
    std::uint8_t method = 0;
    std::uint16_t bytes = 0;
};

// One controller sensor record.
struct Sensor {
    std::string name;
    std::uint8_t status = 0;
    std::string reading;
    bool operator==(const Sensor &) const = default;
};

// Default-constructed, this is the built-in firmware.
struct Scenario {
    Scenario();

    bool present = true;
    bool bridge = true;
    std::uint32_t delayMs = 0;
    std::array<InstanceSetup, kInstanceCount> instances;
    std::vector<Fault> faults; // a later line wins over an earlier one
    PowerModel power;
    SnapshotSetup snapshots;
    Performance perf;
    std::optional<XpmFault> xpmFault;
    std::vector<ShortAnswer> shortAnswers; // a later line wins here too
    std::vector<Sensor> sensors;
    std::optional<std::uint8_t> sensorFault;
};

// Applies the lines of text on top of scenario; name prefixes error messages.
// On failure scenario is left unchanged and error says "name:line: what".
bool parseScenario(std::string_view text, std::string_view name, Scenario &scenario,
                   std::string &error);

// What a control line asks of the running firmware beyond a scenario change.
struct ControlAction {
    enum class Kind : std::uint8_t { Apply, RestartNow, SnapshotNow, Tag };
    Kind kind = Kind::Apply;
    std::uint16_t tag = 0;
};

// One line for a running firmware: applied to scenario (left unchanged on
// failure, error then says what without a line number); the runtime-only
// lines come back in action.
bool parseControlLine(std::string_view line, Scenario &scenario, ControlAction &action,
                      std::string &error);

// Same, for a file; messages are prefixed with path as given.
bool loadScenarioFile(const std::string &path, Scenario &scenario, std::string &error);

} // namespace zelo::sim
