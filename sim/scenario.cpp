#include "scenario.h"

#include "scenario_lines.h"

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

namespace lines {

std::string format(const char *fmt, ...) {
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

std::string_view skipBlanks(std::string_view text) {
    const std::size_t start = text.find_first_not_of(kBlanks);
    return start == std::string_view::npos ? std::string_view{} : text.substr(start);
}

} // namespace lines

using namespace lines;

namespace {

// Handles of the built-in firmware; any unique non-zero values would do.
constexpr std::uint8_t kServerHandle = 5;
constexpr std::uint8_t kExpansionHandle = 9;

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

// One line's worth of parsing; every check leaves its message in error.

} // namespace

namespace lines {

bool LineParser::apply() {
    using Handler = bool (LineParser::*)();
    static constexpr std::pair<std::string_view, Handler> kKeywords[] = {
        {"present", &LineParser::present},
        {"bridge", &LineParser::bridge},
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
    return fail(format("unknown keyword '%.*s'", static_cast<int>(keyword.size()), keyword.data()));
}

bool LineParser::numberLine(const NumberLine &line) {
    if (words_.size() != 2)
        return usage(line.usage);
    std::uint64_t v = 0;
    if (!number(1, line.max, v, line.min))
        return false;
    line.set(sc_, v);
    return true;
}

} // namespace lines

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
