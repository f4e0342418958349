// zeloctl's parts: the output every command writes through, the firmware
// commands, the telemetry commands and the chart.
#pragma once

#include <nlohmann/json.hpp>
#include <zelo.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace zeloctl {

inline constexpr int kExitFailure = 1; // the firmware or the library said no, or nothing yet
inline constexpr int kExitUsage = 2;   // the command line was wrong

using Json = nlohmann::ordered_json;

// Where results go. Standard output carries only what zeloctl prints (the
// library's own diagnostics are moved away), so --json output stays clean.
struct Output {
    FILE *out = stdout;
    bool json = false;
    bool verbose = false; // failures explained in detail, the library's diagnostics shown
    int32_t instance = 0;
};
extern Output gOutput;

// One JSON object on one line; text that is not UTF-8 is replaced, not fatal.
void emit(const Json &object);
// Text safe for a terminal: control bytes become \xNN.
std::string printable(std::string_view text);
// ISO 8601 in UTC, e.g. 2026-11-24T12:00:00Z.
std::string isoUtc(std::time_t seconds);

// A length of time as the text output gives it: "30 s" under a minute, else
// whole minutes, "90 min".
std::string span(uint64_t seconds);

// What --window takes, for its refusal.
inline constexpr const char *kWindowForms =
    "a number with s, m or h, e.g. 30s, 90m, 2h, 24h, or seconds alone; 1 s to 24 h";

// "zeloctl: WHAT failed, result code RC" on stderr; returns kExitFailure.
int fail(const std::string &what, unsigned rc);
// "zeloctl: MESSAGE" and the hint on stderr; returns kExitUsage.
int usageError(const std::string &message);
// What a telemetry command reads.
enum class Source { MetricLog, PowerHistory, PerformanceHistory };

// Why `what` could not be read from the sources, on stderr: the path at fault
// and its cause (missing, permission denied, an unreadable directory, an
// empty log, a damaged file), the result code when the files show none; with
// --verbose the details. Returns kExitFailure.
int telemetryFailure(const char *what, unsigned rc, const std::vector<Source> &sources);
// "zeloctl: ZELO_ROOT names ..., which does not exist" on stderr when so.
void noteMissingRoot();

// An unsigned decimal or 0x-prefixed hexadecimal number no larger than max;
// signs, blanks and octal-looking leading zeros are refused.
bool parseNumber(const std::string &text, uint64_t max, uint64_t *value);

int cmdDiscover();
int cmdRegisters();
int cmdRead(const std::string &name);
int cmdWrite(const std::string &name, const std::string &value);
int cmdRaw(const std::string &element, const std::string &reg, const std::string &length);
int cmdPsu();
int cmdRedundancy();
int cmdExpansion();

int cmdPower(const std::string &window);
enum class HistoryFormat { Text, Json, Csv };
int cmdHistory(bool performance, const std::string &hours, HistoryFormat format);
int cmdMetrics(const std::string &last);
int cmdChart(const std::string &hours, const std::string &outPath);

// Hours for history and chart: 1 to 24.
bool parseHours(const std::string &text, unsigned *hours);

// The history items that end after `after` (seconds since the epoch), in the
// ring's order, with each 150-second interval missing between two items
// listed as an unknown item of its own: history, chart and power count time
// without a reading alike. A stamp far off fills at most one ring's worth.
template <class Item>
std::vector<Item> itemsAfter(const std::vector<Item> &items, uint64_t after) {
    constexpr uint64_t kSampleSeconds = 150;
    std::vector<Item> kept;
    std::size_t filled = 0;
    const Item *previous = nullptr;
    for (const Item &item : items) {
        const uint64_t t = item.sSample.timestamp;
        uint64_t missing = previous != nullptr ? previous->sSample.timestamp + kSampleSeconds : t;
        if (missing <= after) // the first one after, on the previous item's grid
            missing += (after - missing) / kSampleSeconds * kSampleSeconds + kSampleSeconds;
        for (; missing < t && filled < ZELO_HISTORY_SLOTS; missing += kSampleSeconds, ++filled) {
            Item gap{};
            gap.sSample.timestamp = static_cast<uint32_t>(missing);
            gap.u8Unknown = 1;
            kept.push_back(gap);
        }
        if (t > after)
            kept.push_back(item);
        previous = &item;
    }
    return kept;
}

} // namespace zeloctl
