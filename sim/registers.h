// Register file of the simulated firmware: one row per register the system
// reads or writes, with the value a freshly booted server reports.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace zelo::sim {

struct RegisterDef {
    std::uint8_t element;
    std::uint8_t id;
    std::uint8_t width; // bytes on the wire, most significant first (1..8)
    bool writable;
    std::uint64_t initial;
    const char *name;
};

inline constexpr std::array kRegisters = {
    // element 0: status and control
    RegisterDef{0, 0, 1, false, 0x01, "power status"},
    RegisterDef{0, 1, 2, false, 0x0000, "power event"},
    RegisterDef{0, 2, 1, false, 0x00, "hardware error"},
    RegisterDef{0, 3, 1, true, 0x00, "SMS power control policy"},
    RegisterDef{0, 5, 1, false, 0x02, "POST power settings"}, // bit1: capping enabled
    // Bit 7: register 14 exists, snapshots carry their extended part.
    RegisterDef{0, 7, 1, false, 0x81, "firmware capabilities"},
    RegisterDef{0, 8, 1, false, 0x07, "server power capabilities"},
    RegisterDef{0, 9, 1, false, 0x01, "server power settings"}, // bits0-2: capping setting
    // Bits 2-5 pick snapshot blocks (sim/telemetry.h); 6, 8, 9 capping and
    // redundancy features.
    RegisterDef{0, 14, 4, false, 0x37C, "extended capabilities"},
    RegisterDef{0, 16, 1, true, 0x00, "CFF power control policy"},
    // element 1: energy accumulators (joules)
    RegisterDef{1, 0, 8, false, 1234567890, "DC energy accumulator"},
    RegisterDef{1, 1, 8, false, 1301234567, "AC energy accumulator"},
    // element 4: clock
    RegisterDef{4, 0, 4, false, 0x00100000, "clock accumulator"},
    RegisterDef{4, 1, 2, false, 1000, "clock rate"},
    // element 7: power caps, watts
    RegisterDef{7, 0, 2, true, 450, "power cap"},
    RegisterDef{7, 1, 2, false, 600, "max hot-plug cap"},
    RegisterDef{7, 2, 2, false, 650, "cap max"},
    RegisterDef{7, 4, 2, false, 200, "cap min"},
    RegisterDef{7, 5, 2, false, 700, "aux max"},
    RegisterDef{7, 6, 2, false, 250, "soft min"},
    RegisterDef{7, 9, 2, false, 800, "nameplate power"},
    RegisterDef{7, 10, 1, true, 0x01, "capping mode"},
    RegisterDef{7, 12, 2, false, 220, "min hot-plug cap"},
    // element 9: thermal
    RegisterDef{9, 0, 1, false, 35, "exhaust heat index"},
    RegisterDef{9, 1, 1, false, 24, "inlet temperature"},
    // element 10: power supplies. The per-supply registers come in four
    // instances, selected by bits 3-4 of the id; this firmware fills the first.
    RegisterDef{10, 0, 1, false, 0x01, "max power supplies"},                 // (low nibble) + 1
    RegisterDef{10, 1, 8, false, 0x0320032000000000, "output label power 0"}, // u16 W each
    RegisterDef{10, 9, 8, false, 0, "output label power 1"},
    RegisterDef{10, 17, 8, false, 0, "output label power 2"},
    RegisterDef{10, 25, 8, false, 0, "output label power 3"},
    RegisterDef{10, 2, 1, false, 0x03, "supply presence 0"}, // bit i: supply i
    RegisterDef{10, 10, 1, false, 0, "supply presence 1"},
    RegisterDef{10, 18, 1, false, 0, "supply presence 2"},
    RegisterDef{10, 26, 1, false, 0, "supply presence 3"},
    // High byte: supplies reporting; low byte: 2-bit code per supply (220 V).
    RegisterDef{10, 4, 2, false, 0x0305, "input voltage 0"},
    RegisterDef{10, 12, 2, false, 0, "input voltage 1"},
    RegisterDef{10, 20, 2, false, 0, "input voltage 2"},
    RegisterDef{10, 28, 2, false, 0, "input voltage 3"},
    RegisterDef{10, 30, 1, true, 0x00, "redundancy target"},
    RegisterDef{10, 31, 1, true, 0x00, "target redundancy configuration"},
    // element 13: server power-down; standby is byte 2 a u8, bytes 3-4 the watts
    RegisterDef{13, 0, 2, false, 0x0001, "server power-down support"},
    RegisterDef{13, 1, 8, false, 0x000007001E000000, "standby power"},
    RegisterDef{13, 2, 2, false, 90, "IPL time"},
    RegisterDef{13, 3, 4, false, 0x002A0003, "power cycles"}, // two u16
    RegisterDef{13, 4, 2, false, 0, "wakes from S3"},
    // element 14: power maximizer
    RegisterDef{14, 6, 1, false, 0x00, "maximizer status"},
};

inline constexpr std::size_t kRegisterCount = kRegisters.size();
using RegisterValues = std::array<std::uint64_t, kRegisterCount>;

// Largest value a register of the given width holds.
constexpr std::uint64_t maxValue(std::uint8_t width) {
    return width >= 8 ? UINT64_MAX : (std::uint64_t{1} << (8U * width)) - 1;
}

// Row of the register, if the firmware has it.
constexpr std::optional<std::size_t> findRegister(std::uint8_t element, std::uint8_t id) {
    for (std::size_t i = 0; i < kRegisterCount; ++i) {
        if (kRegisters[i].element == element && kRegisters[i].id == id)
            return i;
    }
    return std::nullopt;
}

constexpr RegisterValues initialRegisterValues() {
    RegisterValues values{};
    for (std::size_t i = 0; i < kRegisterCount; ++i)
        values[i] = kRegisters[i].initial;
    return values;
}

// A typo in the table would otherwise surface as a puzzling client failure.
constexpr bool registerTableIsSound() {
    for (std::size_t i = 0; i < kRegisterCount; ++i) {
        const RegisterDef &r = kRegisters[i];
        if (r.width < 1 || r.width > 8 || r.initial > maxValue(r.width))
            return false;
        if (findRegister(r.element, r.id) != i)
            return false;
    }
    return true;
}
static_assert(registerTableIsSound(), "register table: bad width, default or duplicate row");

} // namespace zelo::sim
