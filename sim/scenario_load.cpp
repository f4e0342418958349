// Scenario lines that shape the load and the snapshots: the power model,
// shares, temperatures, histogram, input power block, subsystems, performance.
#include "scenario_lines.h"

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <iterator>
#include <utility>

namespace zelo::sim::lines {

namespace {

constexpr std::pair<std::string_view, Subsystem> kSubsystemNames[] = {
    {"cpu", Subsystem::Cpu},
    {"memory", Subsystem::Memory},
    {"cooling", Subsystem::Cooling},
};

} // namespace

bool LineParser::power() {
    static constexpr const char *kUsage = "power constant <W> | power steps "
                                          "<ms>:<W>[,<ms>:<W>...] [hold] | power noisy "
                                          "<base> <amplitude> [seed <s>]";
    const std::size_t n = words_.size();
    PowerProfile p;
    if (n == 3 && words_[1] == "constant") {
        if (!u16(2, p.watts))
            return false;
    } else if ((n == 3 || (n == 4 && words_[3] == "hold")) && words_[1] == "steps") {
        p.kind = PowerProfile::Kind::Steps;
        p.hold = n == 4;
        if (!powerSteps(words_[2], p.steps))
            return false;
    } else if ((n == 4 || (n == 6 && words_[4] == "seed")) && words_[1] == "noisy") {
        p.kind = PowerProfile::Kind::Noisy;
        if (!u16(2, p.watts) || !u16(3, p.amplitude) || (n == 6 && !number(5, UINT64_MAX, p.seed)))
            return false;
        if (p.amplitude > p.watts || p.watts + p.amplitude > 0xFFFF)
            return fail("noisy power must stay within 0-65535 W");
    } else {
        return usage(kUsage);
    }
    sc_.power.dc = std::move(p);
    return true;
}

bool LineParser::powerSteps(std::string_view word, std::vector<PowerStep> &out) {
    for (;;) {
        const std::size_t comma = word.find(',');
        const std::string_view item = word.substr(0, comma);
        const std::size_t colon = item.find(':');
        std::uint64_t ms = 0;
        std::uint64_t watts = 0;
        const bool good = colon != std::string_view::npos &&
                          numberIn(item.substr(0, colon), UINT32_MAX, ms, 1) &&
                          numberIn(item.substr(colon + 1), 0xFFFF, watts);
        if (!good) // replaces the number's message: the whole step is what is wrong
            return fail(format("bad step '%.*s' (<ms>:<W>, ms at least 1, e.g. 60000:350)",
                               static_cast<int>(item.size()), item.data()));
        out.push_back({static_cast<std::uint32_t>(ms), static_cast<std::uint16_t>(watts)});
        if (comma == std::string_view::npos)
            return true;
        word.remove_prefix(comma + 1);
    }
}

bool LineParser::shares() {
    std::array<std::uint64_t, 3> v{};
    if (!numbers("shares <cpu%> <memory%> <cooling%>", {100, 100, 100}, v))
        return false;
    if (v[0] + v[1] + v[2] > 100)
        return fail("shares add up to more than 100%");
    sc_.power.cpuPct = static_cast<std::uint8_t>(v[0]);
    sc_.power.memoryPct = static_cast<std::uint8_t>(v[1]);
    sc_.power.coolingPct = static_cast<std::uint8_t>(v[2]);
    return true;
}

bool LineParser::temperatures() {
    std::array<std::uint64_t, 2> v{};
    if (!numbers("temperatures <inlet C> <rise C per 100 W>", {0xFF, 0xFF}, v))
        return false;
    sc_.power.inletC = static_cast<std::uint8_t>(v[0]);
    sc_.power.outletRiseC = static_cast<std::uint8_t>(v[1]);
    return true;
}

// The buffer size travels as a u16; only these lines can grow it past.
bool LineParser::bufferFits() {
    const std::size_t len = largestSnapshotLen(sc_.snapshots);
    return len <= 0xFFFF || fail(format("snapshot buffer of up to %zu bytes exceeds 65535", len));
}

bool LineParser::histogram() {
    std::array<std::uint64_t, 4> v{};
    if (!numbers("histogram <base> <width> <inner> <bucket-bytes>", {0xFFFF, 0xFF, 0xFF, 4}, v))
        return false;
    if (v[1] == 0)
        return fail("histogram width must be at least 1");
    if (v[3] != 1 && v[3] != 2 && v[3] != 4)
        return fail("bucket bytes must be 1, 2 or 4");
    sc_.snapshots.histogram = {static_cast<std::uint16_t>(v[0]), static_cast<std::uint8_t>(v[1]),
                               static_cast<std::uint8_t>(v[2]), static_cast<std::uint8_t>(v[3])};
    return bufferFits();
}

bool LineParser::inputPower() {
    std::array<std::uint64_t, 5> v{};
    if (!numbers("input-power <E> <R> <A> <W1> <W2>", {0xFF, 0xFF, 0xFF, 8, 8}, v))
        return false;
    if (v[1] == 0 || v[3] == 0 || v[4] == 0)
        return fail("input-power repeat and widths must be at least 1");
    sc_.snapshots.inputPower = {static_cast<std::uint8_t>(v[0]), static_cast<std::uint8_t>(v[1]),
                                static_cast<std::uint8_t>(v[2]), static_cast<std::uint8_t>(v[3]),
                                static_cast<std::uint8_t>(v[4])};
    return bufferFits();
}

bool LineParser::blade() {
    return yesNo("blade yes|no", sc_.snapshots.blade);
}

bool LineParser::subsystems() {
    static constexpr const char *kUsage = "subsystems cpu,memory,cooling|none";
    if (words_.size() != 2)
        return usage(kUsage);
    std::vector<Subsystem> list;
    for (std::string_view word = words_[1]; word != "none";) {
        const std::size_t comma = word.find(',');
        const std::string_view name = word.substr(0, comma);
        const auto known = std::find_if(std::begin(kSubsystemNames), std::end(kSubsystemNames),
                                        [&](const auto &entry) { return entry.first == name; });
        if (known == std::end(kSubsystemNames))
            return fail(format("unknown subsystem '%.*s' (cpu, memory, cooling)",
                               static_cast<int>(name.size()), name.data()));
        list.push_back(known->second);
        if (comma == std::string_view::npos)
            break;
        word.remove_prefix(comma + 1);
    }
    sc_.snapshots.subsystems = std::move(list);
    return bufferFits();
}

bool LineParser::perf() {
    if (words_.size() == 2 && words_[1] == "none") {
        sc_.perf.present = false;
        return true;
    }
    std::array<std::uint64_t, 4> v{};
    if (!numbers("perf <system> <cpu> <memory> <io> | perf none", {0xFF, 0xFF, 0xFF, 0xFF}, v))
        return false;
    sc_.perf.present = true;
    for (std::size_t i = 0; i < v.size(); ++i)
        sc_.perf.current[i] = static_cast<std::uint8_t>(v[i]);
    return true;
}

} // namespace zelo::sim::lines
