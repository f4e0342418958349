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
//
// Errors name the file and line: "lab.scn:12: unknown register 0/99".
#pragma once

#include "registers.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zelo::sim {

inline constexpr unsigned kInstanceCount = 2;
inline constexpr int kAnyInstance = -1;
inline constexpr std::uint32_t kMaxDelayMs = 60000;

struct InstanceSetup {
    bool defined = false;
    std::uint8_t handle = 0;
    std::uint8_t descriptor1 = 0;
    std::uint8_t descriptor2 = 0;
    RegisterValues registers = initialRegisterValues();
};

struct Fault {
    bool discovery = false; // else an element method
    int instance = kAnyInstance;
    std::uint8_t element = 0;
    std::uint8_t method = 0;
    std::uint8_t cc = 0;
};

// Default-constructed, this is the built-in firmware.
struct Scenario {
    Scenario();

    bool present = true;
    std::uint32_t delayMs = 0;
    std::array<InstanceSetup, kInstanceCount> instances;
    std::vector<Fault> faults; // a later line wins over an earlier one
};

// Applies the lines of text on top of scenario; name prefixes error messages.
// On failure scenario is left unchanged and error says "name:line: what".
bool parseScenario(std::string_view text, std::string_view name, Scenario &scenario,
                   std::string &error);

// Same, for a file; messages are prefixed with path as given.
bool loadScenarioFile(const std::string &path, Scenario &scenario, std::string &error);

} // namespace zelo::sim
