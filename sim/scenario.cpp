#include "scenario.h"

#include "ipmi_wire.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <utility>

namespace zelo::sim {

namespace {

// Handles of the built-in firmware; any unique non-zero values would do.
constexpr std::uint8_t kServerHandle = 5;
constexpr std::uint8_t kExpansionHandle = 9;

[[gnu::format(printf, 1, 2)]] std::string format(const char *fmt, ...) {
    std::va_list args;
    va_start(args, fmt);
    std::va_list again;
    va_copy(again, args);
    const int n = std::vsnprintf(nullptr, 0, fmt, args);
    va_end(args);
    std::string out(n > 0 ? static_cast<std::size_t>(n) : 0, '\0');
    if (n > 0)
        std::vsnprintf(out.data(), out.size() + 1, fmt, again);
    va_end(again);
    return out;
}

constexpr const char *kBlanks = " \t\r";

std::string_view skipBlanks(std::string_view text) {
    const std::size_t start = text.find_first_not_of(kBlanks);
    return start == std::string_view::npos ? std::string_view{} : text.substr(start);
}

std::vector<std::string_view> splitWords(std::string_view line) {
    std::vector<std::string_view> words;
    if (const auto hash = line.find('#'); hash != std::string_view::npos)
        line = line.substr(0, hash);
    std::size_t pos = 0;
    while (pos < line.size()) {
        const std::size_t start = line.find_first_not_of(kBlanks, pos);
        if (start == std::string_view::npos)
            break;
        std::size_t end = line.find_first_of(kBlanks, start);
        if (end == std::string_view::npos)
            end = line.size();
        words.push_back(line.substr(start, end - start));
        pos = end;
    }
    return words;
}

// A believable two-supply server: two PSU types, four configurations of
// which 1+1 on the installed 800 W pair is active.
PowerSupplyTables builtInPowerSupplies() {
    PowerSupplyTables t;
    t.types = {{800, {0x01, 0x00}}, {1100, {0x02, 0x00}}};
    const std::uint16_t allowedAlways = kPropAllowedPolicySetNoTarget |
                                        kPropAllowedPolicyClearNoTarget |
                                        kPropAllowedPolicySetTarget | kPropAllowedPolicyClearTarget;
    RedundancyConfig c;
    c.n = 1;
    c.m = 1;
    c.typeList = {0, 0};
    c.properties = kPropValid | allowedAlways | kPropActive;
    t.configs.push_back(c);
    // Both supplies share the load: no redundancy, so only without a target.
    c.n = 2;
    c.m = 0;
    c.properties = kPropPowerMode2 | kPropValid | kPropAllowedPolicySetNoTarget |
                   kPropAllowedPolicyClearNoTarget;
    t.configs.push_back(c);
    c.n = 1;
    c.m = 1;
    c.typeList = {0, 0, 0, 0};
    c.properties = kPropValid | kPropAllowedPolicySetNoTarget | kPropAllowedPolicySetTarget;
    t.configs.push_back(c);
    c.typeList = {0, 1, 0, 1};
    c.properties = kPropValid;
    t.configs.push_back(c);
    return t;
}

// Per instance: whether this text already started its own type and
// configuration lists (the first line replaces the built-in one).
struct ListsStarted {
    std::array<bool, kInstanceCount> types{};
    std::array<bool, kInstanceCount> configs{};
};

// Lines that set one number.
struct NumberLine {
    std::string_view keyword;
    const char *usage;
    std::uint64_t min;
    std::uint64_t max;
    void (*set)(Scenario &, std::uint64_t);
};

template <typename T>
T narrow(std::uint64_t v) {
    return static_cast<T>(v); // the line's range makes it fit
}

constexpr NumberLine kNumberLines[] = {
    {"delay", "delay <ms>", 0, kMaxDelayMs,
     [](Scenario &s, std::uint64_t v) { s.delayMs = narrow<std::uint32_t>(v); }},
    {"efficiency", "efficiency <percent>", 1, 100,
     [](Scenario &s, std::uint64_t v) { s.power.efficiencyPct = narrow<std::uint8_t>(v); }},
    {"snapshot-period", "snapshot-period <ms>", 100, 86400000,
     [](Scenario &s, std::uint64_t v) { s.snapshots.periodMs = narrow<std::uint32_t>(v); }},
    {"chunk-size", "chunk-size <bytes>", 0, 0xFFFF,
     [](Scenario &s, std::uint64_t v) { s.snapshots.chunkSize = narrow<std::uint16_t>(v); }},
    {"status-byte", "status-byte <v>", 0, 0xFF,
     [](Scenario &s, std::uint64_t v) { s.snapshots.status = narrow<std::uint8_t>(v); }},
    {"event-word", "event-word <v>", 0, 0xFFFF,
     [](Scenario &s, std::uint64_t v) { s.snapshots.event = narrow<std::uint16_t>(v); }},
    {"restart-at", "restart-at <ms>", 0, UINT64_MAX,
     [](Scenario &s, std::uint64_t v) { s.snapshots.restartAtMs = v; }},
    {"snapshot-every-reads", "snapshot-every-reads <k>", 0, UINT32_MAX,
     [](Scenario &s, std::uint64_t v) { s.snapshots.everyReads = narrow<std::uint32_t>(v); }},
    {"perf-status", "perf-status <v>", 0, 0xFF,
     [](Scenario &s, std::uint64_t v) { s.perf.status = narrow<std::uint8_t>(v); }},
};

constexpr std::pair<std::string_view, Subsystem> kSubsystemNames[] = {
    {"cpu", Subsystem::Cpu},
    {"memory", Subsystem::Memory},
    {"cooling", Subsystem::Cooling},
};

// One line's worth of parsing; every check leaves its message in error.
class LineParser {
  public:
    // action: where the lines only a running simulator takes go; null for a
    // scenario file.
    LineParser(const std::vector<std::string_view> &words, Scenario &scenario,
               ListsStarted &started, std::string &error, ControlAction *action = nullptr)
        : words_(words), sc_(scenario), started_(started), error_(error), action_(action) {}

    bool apply() {
        using Handler = bool (LineParser::*)();
        static constexpr std::pair<std::string_view, Handler> kKeywords[] = {
            {"present", &LineParser::present},
            {"instance", &LineParser::instance},
            {"reg", &LineParser::reg},
            {"fault", &LineParser::fault},
            {"psu-factors", &LineParser::psuFactors},
            {"psutype", &LineParser::psuType},
            {"redundancy", &LineParser::redundancy},
            {"power", &LineParser::power},
            {"shares", &LineParser::shares},
            {"temperatures", &LineParser::temperatures},
            {"histogram", &LineParser::histogram},
            {"input-power", &LineParser::inputPower},
            {"blade", &LineParser::blade},
            {"subsystems", &LineParser::subsystems},
            {"perf", &LineParser::perf},
            {"short-answer", &LineParser::shortAnswer},
            {"overlong-read", &LineParser::overlongRead},
            {"sensor", &LineParser::sensor},
            {"restart-now", &LineParser::restartNow},
            {"snapshot-now", &LineParser::snapshotNow},
            {"tag", &LineParser::tag},
        };
        const std::string_view keyword = words_[0];
        for (const auto &[name, handler] : kKeywords) {
            if (keyword == name)
                return (this->*handler)();
        }
        for (const NumberLine &line : kNumberLines) {
            if (keyword == line.keyword)
                return numberLine(line);
        }
        return fail(
            format("unknown keyword '%.*s'", static_cast<int>(keyword.size()), keyword.data()));
    }

  private:
    bool fail(std::string message) {
        error_ = std::move(message);
        return false;
    }

    bool usage(const char *text) { return fail(std::string("usage: ") + text); }

    bool number(std::size_t index, std::uint64_t max, std::uint64_t &out, std::uint64_t min = 0) {
        return numberIn(words_[index], max, out, min);
    }

    bool numberIn(const std::string_view shownWord, std::uint64_t max, std::uint64_t &out,
                  std::uint64_t min = 0) {
        std::string_view word = shownWord;
        int base = 10;
        if (word.size() > 2 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X')) {
            word.remove_prefix(2);
            base = 16;
        }
        const char *end = word.data() + word.size();
        const auto [ptr, ec] = std::from_chars(word.data(), end, out, base);
        const int shown = static_cast<int>(shownWord.size());
        if (ec == std::errc::result_out_of_range ||
            (ec == std::errc() && ptr == end && (out > max || out < min)))
            return fail(format("%.*s out of range (%" PRIu64 "-%" PRIu64 ")", shown,
                               shownWord.data(), min, max));
        if (ec != std::errc() || ptr != end || word.empty())
            return fail(format("bad number '%.*s'", shown, shownWord.data()));
        return true;
    }

    bool u16(std::size_t index, std::uint16_t &out) {
        std::uint64_t v = 0;
        if (!number(index, 0xFFFF, v))
            return false;
        out = static_cast<std::uint16_t>(v);
        return true;
    }

    // Next index of a dense table; the first line of this text for the
    // instance replaces the built-in entries.
    template <typename T>
    bool tableIndex(std::vector<T> &table, bool &started, const char *what, std::size_t &out) {
        std::uint64_t index = 0;
        if (!number(2, kMaxTableEntries - 1, index))
            return false;
        const std::size_t next = started ? table.size() : 0;
        if (index != next)
            return fail(
                format("%s index %" PRIu64 " out of order; next is %zu", what, index, next));
        if (!started)
            table.clear();
        started = true;
        out = next;
        return true;
    }

    bool byte(std::size_t index, std::uint8_t &out) {
        std::uint64_t v = 0;
        if (!number(index, 0xFF, v))
            return false;
        out = static_cast<std::uint8_t>(v);
        return true;
    }

    bool instanceNumber(std::size_t index, unsigned &out) {
        std::uint64_t v = 0;
        if (!number(index, kInstanceCount - 1, v))
            return false;
        out = static_cast<unsigned>(v);
        return true;
    }

    bool present() { return yesNo("present yes|no", sc_.present); }

    bool runtimeOnly() {
        return action_ != nullptr ||
               fail(format("'%.*s' works only on a running simulator (zelo-fwsim --control)",
                           static_cast<int>(words_[0].size()), words_[0].data()));
    }

    bool restartNow() {
        if (!runtimeOnly())
            return false;
        if (words_.size() != 1)
            return usage("restart-now");
        action_->kind = ControlAction::Kind::RestartNow;
        return true;
    }

    bool snapshotNow() {
        if (!runtimeOnly())
            return false;
        if (words_.size() != 1)
            return usage("snapshot-now");
        action_->kind = ControlAction::Kind::SnapshotNow;
        return true;
    }

    bool tag() {
        if (!runtimeOnly())
            return false;
        if (words_.size() != 2)
            return usage("tag <n>");
        if (!u16(1, action_->tag))
            return false;
        action_->kind = ControlAction::Kind::Tag;
        return true;
    }

    bool instance() {
        static constexpr const char *kUsage =
            "instance <n> handle <h> [descriptors <d1> <d2>] | instance <n> none";
        unsigned n = 0;
        if (words_.size() < 3)
            return usage(kUsage);
        if (!instanceNumber(1, n))
            return false;
        InstanceSetup &inst = sc_.instances[n];
        if (words_.size() == 3 && words_[2] == "none") {
            inst.defined = false;
            return true;
        }
        const bool withDescriptors = words_.size() == 7 && words_[4] == "descriptors";
        if (words_[2] != "handle" || (words_.size() != 4 && !withDescriptors))
            return usage(kUsage);
        std::uint8_t handle = 0;
        if (!byte(3, handle))
            return false;
        if (handle == 0)
            return fail("handle 0 means no instance; use 1-255");
        for (unsigned other = 0; other < kInstanceCount; ++other) {
            const InstanceSetup &o = sc_.instances[other];
            if (other != n && o.defined && o.handle == handle)
                return fail(
                    format("handle %u already used by instance %u", unsigned{handle}, other));
        }
        if (withDescriptors && (!byte(5, inst.descriptor1) || !byte(6, inst.descriptor2)))
            return false;
        inst.defined = true;
        inst.handle = handle;
        return true;
    }

    bool reg() {
        if (words_.size() != 5)
            return usage("reg <instance> <element> <register> <value>");
        unsigned n = 0;
        std::uint8_t element = 0;
        std::uint8_t id = 0;
        if (!instanceNumber(1, n) || !byte(2, element) || !byte(3, id))
            return false;
        const auto row = findRegister(element, id);
        if (!row)
            return fail(format("unknown register %u/%u", unsigned{element}, unsigned{id}));
        std::uint64_t value = 0;
        if (!number(4, UINT64_MAX, value))
            return false;
        const RegisterDef &def = kRegisters[*row];
        if (value > maxValue(def.width))
            return fail(format("value %.*s too wide for register %u/%u (%u bytes)",
                               static_cast<int>(words_[4].size()), words_[4].data(),
                               unsigned{element}, unsigned{id}, unsigned{def.width}));
        sc_.instances[n].registers[*row] = value;
        return true;
    }

    bool fault() {
        if (words_.size() >= 2 && words_[1] == "xpm")
            return xpmFault();
        if (words_.size() >= 2 && words_[1] == "sensors")
            return sensorFault();
        Fault f;
        std::size_t ccIndex = 0;
        if (words_.size() >= 3 && words_[1] == "discovery") {
            if (words_.size() > 4)
                return usage("fault discovery [<instance>] <cc>");
            f.discovery = true;
            if (words_.size() == 4) {
                unsigned n = 0;
                if (!instanceNumber(2, n))
                    return false;
                f.instance = static_cast<int>(n);
            }
            ccIndex = words_.size() - 1;
        } else {
            if (words_.size() != 5)
                return usage("fault <instance> <element> <method> <cc> | fault discovery "
                             "[<instance>] <cc>");
            unsigned n = 0;
            if (!instanceNumber(1, n) || !byte(2, f.element) || !byte(3, f.method))
                return false;
            f.instance = static_cast<int>(n);
            ccIndex = 4;
        }
        if (!completionCode(ccIndex, f.cc))
            return false;
        sc_.faults.push_back(f);
        return true;
    }

    bool completionCode(std::size_t index, std::uint8_t &out) {
        if (!byte(index, out))
            return false;
        return out != 0 || fail("completion code 0 is success, not a fault");
    }

    bool xpmFault() {
        const bool counted = words_.size() == 5 && words_[3] == "count";
        if (words_.size() != 3 && !counted)
            return usage("fault xpm <cc> [count <k>]");
        XpmFault f;
        if (!completionCode(2, f.cc))
            return false;
        if (counted) {
            std::uint64_t k = 0;
            if (!number(4, UINT32_MAX, k, 1))
                return false;
            f.remaining = static_cast<std::uint32_t>(k);
        }
        sc_.xpmFault = f;
        return true;
    }

    bool sensorFault() {
        if (words_.size() != 3)
            return usage("fault sensors <cc>");
        std::uint8_t cc = 0;
        if (!completionCode(2, cc))
            return false;
        sc_.sensorFault = cc;
        return true;
    }

    // The texts come from the line itself rather than its words, so a quoted
    // name or a reading keeps its inner blanks as written.
    bool sensor() {
        static constexpr const char *kUsage = "sensor <name> <status> <reading>";
        if (words_.size() < 2)
            return usage(kUsage);
        const std::string_view last = words_.back();
        std::string_view rest(words_[1].data(), static_cast<std::size_t>(last.data() + last.size() -
                                                                         words_[1].data()));
        std::string_view name;
        if (rest.front() == '"') {
            const std::size_t close = rest.find('"', 1);
            if (close == std::string_view::npos)
                return fail("sensor name misses its closing quote");
            name = rest.substr(1, close - 1);
            rest.remove_prefix(close + 1);
            if (!rest.empty() &&
                std::string_view(kBlanks).find(rest.front()) == std::string_view::npos)
                return fail("blank expected after the sensor name's closing quote");
        } else {
            const std::size_t end = std::min(rest.find_first_of(kBlanks), rest.size());
            name = rest.substr(0, end);
            rest.remove_prefix(end);
        }
        rest = skipBlanks(rest);
        const std::size_t statusEnd = rest.find_first_of(kBlanks);
        if (statusEnd == std::string_view::npos)
            return usage(kUsage);
        std::uint64_t status = 0;
        if (!numberIn(rest.substr(0, statusEnd), 0xFF, status))
            return false;
        std::string_view reading = skipBlanks(rest.substr(statusEnd));
        if (reading.front() == '"') {
            if (reading.size() < 2 || reading.back() != '"')
                return fail("sensor reading misses its closing quote");
            reading = reading.substr(1, reading.size() - 2);
        }
        if (name.size() > wire::kSensorNameMax)
            return fail(format("sensor name longer than %zu characters", wire::kSensorNameMax));
        if (reading.size() > wire::kSensorReadingMax)
            return fail(
                format("sensor reading longer than %zu characters", wire::kSensorReadingMax));
        if (sc_.sensors.size() == kMaxSensors)
            return fail(format("more than %zu sensors", kMaxSensors));
        sc_.sensors.push_back(
            {std::string(name), static_cast<std::uint8_t>(status), std::string(reading)});
        return true;
    }

    bool numberLine(const NumberLine &line) {
        if (words_.size() != 2)
            return usage(line.usage);
        std::uint64_t v = 0;
        if (!number(1, line.max, v, line.min))
            return false;
        line.set(sc_, v);
        return true;
    }

    // The values of a line with only numbers after the keyword.
    template <std::size_t N>
    bool numbers(const char *usageText, const std::array<std::uint64_t, N> &max,
                 std::array<std::uint64_t, N> &out) {
        if (words_.size() != N + 1)
            return usage(usageText);
        for (std::size_t i = 0; i < N; ++i) {
            if (!number(i + 1, max[i], out[i]))
                return false;
        }
        return true;
    }

    bool yesNo(const char *usageText, bool &out) {
        if (words_.size() != 2 || (words_[1] != "yes" && words_[1] != "no"))
            return usage(usageText);
        out = words_[1] == "yes";
        return true;
    }

    bool power() {
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
            if (!u16(2, p.watts) || !u16(3, p.amplitude) ||
                (n == 6 && !number(5, UINT64_MAX, p.seed)))
                return false;
            if (p.amplitude > p.watts || p.watts + p.amplitude > 0xFFFF)
                return fail("noisy power must stay within 0-65535 W");
        } else {
            return usage(kUsage);
        }
        sc_.power.dc = std::move(p);
        return true;
    }

    bool powerSteps(std::string_view word, std::vector<PowerStep> &out) {
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

    bool shares() {
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

    bool temperatures() {
        std::array<std::uint64_t, 2> v{};
        if (!numbers("temperatures <inlet C> <rise C per 100 W>", {0xFF, 0xFF}, v))
            return false;
        sc_.power.inletC = static_cast<std::uint8_t>(v[0]);
        sc_.power.outletRiseC = static_cast<std::uint8_t>(v[1]);
        return true;
    }

    // The buffer size travels as a u16; only these lines can grow it past.
    bool bufferFits() {
        const std::size_t len = largestSnapshotLen(sc_.snapshots);
        return len <= 0xFFFF ||
               fail(format("snapshot buffer of up to %zu bytes exceeds 65535", len));
    }

    bool histogram() {
        std::array<std::uint64_t, 4> v{};
        if (!numbers("histogram <base> <width> <inner> <bucket-bytes>", {0xFFFF, 0xFF, 0xFF, 4}, v))
            return false;
        if (v[1] == 0)
            return fail("histogram width must be at least 1");
        if (v[3] != 1 && v[3] != 2 && v[3] != 4)
            return fail("bucket bytes must be 1, 2 or 4");
        sc_.snapshots.histogram = {static_cast<std::uint16_t>(v[0]),
                                   static_cast<std::uint8_t>(v[1]), static_cast<std::uint8_t>(v[2]),
                                   static_cast<std::uint8_t>(v[3])};
        return bufferFits();
    }

    bool inputPower() {
        std::array<std::uint64_t, 5> v{};
        if (!numbers("input-power <E> <R> <A> <W1> <W2>", {0xFF, 0xFF, 0xFF, 8, 8}, v))
            return false;
        if (v[1] == 0 || v[3] == 0 || v[4] == 0)
            return fail("input-power repeat and widths must be at least 1");
        sc_.snapshots.inputPower = {
            static_cast<std::uint8_t>(v[0]), static_cast<std::uint8_t>(v[1]),
            static_cast<std::uint8_t>(v[2]), static_cast<std::uint8_t>(v[3]),
            static_cast<std::uint8_t>(v[4])};
        return bufferFits();
    }

    bool blade() { return yesNo("blade yes|no", sc_.snapshots.blade); }

    bool subsystems() {
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

    bool perf() {
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

    bool shortAnswer() {
        ShortAnswer a;
        std::size_t bytesIndex = 3;
        if (words_.size() == 3 && words_[1] == "xpm") {
            a.xpm = true;
            bytesIndex = 2;
        } else if (words_.size() != 4) {
            return usage("short-answer <element> <method> <bytes> | short-answer xpm <bytes>");
        } else if (!byte(1, a.element) || !byte(2, a.method)) {
            return false;
        }
        if (!u16(bytesIndex, a.bytes))
            return false;
        sc_.shortAnswers.push_back(a);
        return true;
    }

    bool overlongRead() {
        if (words_.size() != 1)
            return usage("overlong-read");
        sc_.snapshots.overlongRead = true;
        return true;
    }

    bool psuFactors() {
        const bool withByte0 = words_.size() == 6 && words_[4] == "byte0";
        if (words_.size() != 4 && !withByte0)
            return usage("psu-factors <instance> <f1> <f2> [byte0 <v>]");
        unsigned n = 0;
        if (!instanceNumber(1, n))
            return false;
        PowerSupplyTables &t = sc_.instances[n].psu;
        if (!byte(2, t.factor1) || !byte(3, t.factor2))
            return false;
        return !withByte0 || byte(5, t.configByte0);
    }

    bool psuType() {
        const bool withBytes = words_.size() == 7 && words_[4] == "bytes";
        if (words_.size() != 4 && !withBytes)
            return usage("psutype <instance> <index> <watts> [bytes <b0> <b1>]");
        unsigned n = 0;
        PsuType type;
        if (!instanceNumber(1, n) || !u16(3, type.watts))
            return false;
        if (withBytes && (!byte(5, type.bytes[0]) || !byte(6, type.bytes[1])))
            return false;
        PowerSupplyTables &t = sc_.instances[n].psu;
        std::size_t index = 0;
        if (!tableIndex(t.types, started_.types[n], "psutype", index))
            return false;
        t.types.push_back(type);
        return true;
    }

    bool redundancy() {
        static constexpr const char *kUsage =
            "redundancy <instance> <index> <N>+<M> props <p> list <i>,<i>...|none "
            "[byte0 <v>] [words <w1> <w2> <w3>] [entrylen <v>]";
        if (words_.size() < 8 || words_[4] != "props" || words_[6] != "list")
            return usage(kUsage);
        unsigned n = 0;
        RedundancyConfig c;
        if (!instanceNumber(1, n) || !redundancyShape(words_[3], c) || !u16(5, c.properties) ||
            !typeList(words_[7], c.typeList))
            return false;
        for (std::size_t i = 8; i < words_.size();) {
            const std::string_view option = words_[i];
            std::size_t values = 1;
            if (option == "words")
                values = 3;
            else if (option != "byte0" && option != "entrylen")
                return usage(kUsage);
            if (i + values >= words_.size())
                return usage(kUsage);
            if (option == "byte0" && !byte(i + 1, c.byte0))
                return false;
            if (option == "words") {
                for (std::size_t w = 0; w < c.words.size(); ++w) {
                    if (!u16(i + 1 + w, c.words[w]))
                        return false;
                }
            }
            if (option == "entrylen") {
                std::uint8_t length = 0;
                if (!byte(i + 1, length))
                    return false;
                c.entryLength = length;
            }
            i += 1 + values;
        }
        PowerSupplyTables &t = sc_.instances[n].psu;
        std::size_t index = 0;
        if (!tableIndex(t.configs, started_.configs[n], "redundancy", index))
            return false;
        t.configs.push_back(std::move(c));
        return true;
    }

    bool redundancyShape(std::string_view word, RedundancyConfig &c) {
        const std::size_t plus = word.find('+');
        std::uint64_t n = 0;
        std::uint64_t m = 0;
        const bool good = plus != std::string_view::npos &&
                          numberIn(word.substr(0, plus), 0xFF, n) &&
                          numberIn(word.substr(plus + 1), 0xFF, m);
        if (!good) // replaces the number's message: the whole word is what is wrong
            return fail(format("bad N+M '%.*s' (e.g. 2+1, each 0-255)",
                               static_cast<int>(word.size()), word.data()));
        c.n = static_cast<std::uint8_t>(n);
        c.m = static_cast<std::uint8_t>(m);
        return true;
    }

    bool typeList(std::string_view word, std::vector<std::uint8_t> &out) {
        if (word == "none")
            return true;
        for (;;) {
            const std::size_t comma = word.find(',');
            std::uint64_t index = 0;
            if (!numberIn(word.substr(0, comma), 0xFF, index))
                return false;
            if (out.size() == kMaxTypeListLen)
                return fail(format("type list longer than %zu entries", kMaxTypeListLen));
            out.push_back(static_cast<std::uint8_t>(index));
            if (comma == std::string_view::npos)
                return true;
            word.remove_prefix(comma + 1);
        }
    }

    const std::vector<std::string_view> &words_;
    Scenario &sc_;
    ListsStarted &started_;
    std::string &error_;
    ControlAction *action_;
};

} // namespace

Scenario::Scenario() {
    instances[0].defined = true;
    instances[0].handle = kServerHandle;
    instances[0].descriptor1 = 0x01;
    instances[0].descriptor2 = 0x02;

    instances[0].psu = builtInPowerSupplies();

    // The expansion unit is a larger chassis with its own supplies.
    InstanceSetup &exp = instances[1];
    exp.defined = true;
    exp.handle = kExpansionHandle;
    exp.descriptor1 = 0x01;
    exp.descriptor2 = 0x03;
    exp.registers[*findRegister(7, 9)] = 1600;
    exp.registers[*findRegister(13, 1)] = 0x0000050014000000; // 20 W
    exp.psu = instances[0].psu;
}

bool parseScenario(std::string_view text, std::string_view name, Scenario &scenario,
                   std::string &error) {
    Scenario work = scenario;
    ListsStarted started;
    unsigned lineNo = 0;
    while (!text.empty()) {
        ++lineNo;
        const std::size_t nl = text.find('\n');
        const std::string_view line = text.substr(0, nl);
        text = nl == std::string_view::npos ? std::string_view{} : text.substr(nl + 1);
        const auto words = splitWords(line);
        if (words.empty())
            continue;
        std::string what;
        if (!LineParser(words, work, started, what).apply()) {
            error = format("%.*s:%u: ", static_cast<int>(name.size()), name.data(), lineNo) + what;
            return false;
        }
    }
    scenario = std::move(work);
    return true;
}

bool parseControlLine(std::string_view line, Scenario &scenario, ControlAction &action,
                      std::string &error) {
    action = ControlAction{};
    if (line.find('\n') != std::string_view::npos) {
        error = "one line per control request";
        return false;
    }
    const auto words = splitWords(line);
    if (words.empty())
        return true;
    Scenario work = scenario;
    ListsStarted started;
    if (!LineParser(words, work, started, error, &action).apply())
        return false;
    // Snapshots already taken carry counters of the old shape.
    if (work.snapshots.histogram != scenario.snapshots.histogram) {
        error = "the histogram cannot change while the firmware runs";
        return false;
    }
    scenario = std::move(work);
    return true;
}

bool loadScenarioFile(const std::string &path, Scenario &scenario, std::string &error) {
    std::FILE *f = std::fopen(path.c_str(), "r");
    if (f == nullptr) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    std::string text;
    char buf[4096];
    std::size_t got = 0;
    while ((got = std::fread(buf, 1, sizeof buf, f)) > 0)
        text.append(buf, got);
    const bool readError = std::ferror(f) != 0;
    std::fclose(f);
    if (readError) {
        error = path + ": read error";
        return false;
    }
    return parseScenario(text, path, scenario, error);
}

} // namespace zelo::sim
