// Commands that read what the daemon recorded, never the firmware: power
// over a window, the 24-hour histories and the metric records.
#include "zeloctl.h"

#include "acquisition/snapshot_records.h"

#include <zelo.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <utility>
#include <vector>

namespace zeloctl {
namespace {

// Whole seconds or a number with one unit: 30s, 90m, 1h, 24h.
bool parseWindow(const std::string &text, uint32_t *seconds) {
    static constexpr std::pair<char, uint64_t> kUnits[] = {{'s', 1}, {'m', 60}, {'h', 3600}};
    std::string digits = text;
    uint64_t unit = 1;
    for (const auto &[suffix, factor] : kUnits)
        if (!digits.empty() && digits.back() == suffix) {
            digits.pop_back();
            unit = factor;
            break;
        }
    uint64_t n = 0;
    if (!parseNumber(digits, 86400, &n) || n == 0 || n * unit > 86400)
        return false;
    *seconds = static_cast<uint32_t>(n * unit);
    return true;
}

double kWh(uint64_t joules) {
    return std::round(static_cast<double>(joules) / 3600.0) / 1000.0; // Wh precision
}

Json figures(const PowerWindowFigures &f, uint32_t minutes) {
    return {{"PowerConsumedWatts", f.u32Newest}, {"AverageConsumedWatts", f.u32Avg},
            {"MinConsumedWatts", f.u32Min},      {"MaxConsumedWatts", f.u32Max},
            {"IntervalInMin", minutes},          {"EnergykWh", kWh(f.u64EnergyJ)}};
}

// The field names and values of one history sample, in record order.
struct Row {
    const char *name;
    uint16_t value;
};

std::array<Row, 6> rowOf(const PowerHistorySample &s) {
    return {{{"MinACWatts", s.minAC},
             {"AvgACWatts", s.avgAC},
             {"MaxACWatts", s.maxAC},
             {"MinDCWatts", s.minDC},
             {"AvgDCWatts", s.avgDC},
             {"MaxDCWatts", s.maxDC}}};
}

std::array<Row, 6> rowOf(const PowerPerformanceSample &s) {
    return {{{"MinPercent", s.min},
             {"AvgPercent", s.avg},
             {"MaxPercent", s.max},
             {"CPUPercent", s.cpu},
             {"MemoryPercent", s.mem},
             {"IOPercent", s.io}}};
}

template <class Item>
void printHistory(const std::vector<Item> &items, const char *kind, HistoryFormat format) {
    const auto header = rowOf(decltype(Item::sSample){});
    if (format == HistoryFormat::Json) {
        Json list = Json::array();
        for (const Item &item : items) {
            Json entry{{"Date", isoUtc(item.sSample.timestamp)}};
            for (const Row &r : rowOf(item.sSample))
                entry[r.name] = item.u8Unknown ? Json(nullptr) : Json(r.value);
            list.push_back(entry);
        }
        emit({{"History", kind}, {"Items", list}});
        return;
    }
    const bool csv = format == HistoryFormat::Csv;
    std::fprintf(gOutput.out, csv ? "Date" : "%-20s", "Date");
    for (const Row &r : header)
        std::fprintf(gOutput.out, csv ? ",%s" : " %13s", r.name);
    std::fprintf(gOutput.out, "\n");
    for (const Item &item : items) {
        std::fprintf(gOutput.out, csv ? "%s" : "%-20s", isoUtc(item.sSample.timestamp).c_str());
        for (const Row &r : rowOf(item.sSample)) {
            if (item.u8Unknown)
                std::fprintf(gOutput.out, csv ? "," : " %13s", "unknown");
            else
                std::fprintf(gOutput.out, csv ? ",%u" : " %13u", r.value);
        }
        std::fprintf(gOutput.out, "\n");
    }
}

// The items of the last `hours` before the newest one, gaps listed unknown.
template <class Item>
std::vector<Item> lastHours(std::vector<Item> items, uint16_t count, unsigned hours) {
    items.resize(count);
    const uint64_t newest = count != 0 ? items.back().sSample.timestamp : 0;
    const uint64_t span = uint64_t{hours} * 3600;
    return itemsAfter(items, newest > span ? newest - span : 0);
}

Json stat(const MetricStat *s) {
    if (s == nullptr)
        return nullptr;
    return {{"Avg", s->u64Avg}, {"Max", s->u64Max}, {"Min", s->u64Min}};
}

// A figure differenced from running totals, in a record without a DC
// reading: an average of 0 there is no figure but the lack of an earlier
// total (the first record after a firmware restart). It reads unknown, as
// power counts such a record; the history leaves its reading out.
Json differenced(const MetricStat *s, bool noReading) {
    if (s == nullptr || !noReading || s->u64Avg != 0)
        return stat(s);
    return {{"Avg", nullptr}, {"Max", nullptr}, {"Min", nullptr}};
}

Json stats(const MetricStat *s, uint8_t count) {
    Json list = Json::array();
    for (uint8_t i = 0; s != nullptr && i < count; ++i)
        list.push_back(stat(&s[i]));
    return list;
}

Json record(const SnapshotBuffer &s, const BladeInletSensorBuffer &inlet, const PerfMetricSet &perf,
            bool blade) {
    const MetricStat *dc = s.*zelo::acquisition::powerRecords(blade).dc;
    const bool noReading = dc == nullptr || dc->u64Avg == 0;
    Json readings = Json::array();
    const InletSensorTemperature *node = inlet.psSensor;
    for (unsigned i = 0; i < inlet.u8SensorNum && node != nullptr; ++i, node = node->psNext)
        readings.push_back({{"SensorIndex", node->u32SensorIndex},
                            {"Temperature", std::string(node->szTemperature)}});
    const bool withPerf = perf.psSystemPerf != nullptr || perf.psCPUPerf != nullptr ||
                          perf.psMemoryPerf != nullptr || perf.psIOPerf != nullptr;
    Json out = {{"Date", isoUtc(static_cast<std::time_t>(s.u64Timestamp / 1000))},
                {"TimestampMs", s.u64Timestamp},
                {"PowerStatus", s.u8PowerStatus}};
    for (const auto &supplies : zelo::acquisition::kSupplyRecords)
        out[supplies.label] = stats(s.*supplies.records, s.*supplies.count);
    for (const auto &single : zelo::acquisition::kSingleRecords)
        out[single.label] = differenced(s.*single.record, noReading);
    out["InletTemperature"] = s.u8InletTemperature;
    out["OutletTemperature"] = s.u8OutletTemperature;
    out["InletReadings"] = readings;
    out["Performance"] = withPerf ? Json{{"System", stat(perf.psSystemPerf)},
                                         {"CPU", stat(perf.psCPUPerf)},
                                         {"Memory", stat(perf.psMemoryPerf)},
                                         {"IO", stat(perf.psIOPerf)}}
                                  : Json(nullptr);
    return out;
}

// Text output: every field of the JSON record, one per line, nested parts
// indented under their name.
void printField(const std::string &label, const Json &value, int indent) {
    std::string text;
    if (value.is_null())
        text = "-";
    else if (value.is_object() && value.contains("Avg") && value["Avg"].is_null())
        text = "unknown";
    else if (value.is_object() && value.contains("Avg"))
        text = "avg " + value["Avg"].dump() + ", max " + value["Max"].dump() + ", min " +
               value["Min"].dump();
    else if (value.is_object() && value.contains("SensorIndex"))
        text = value["Temperature"].get<std::string>();
    else if (value.is_string())
        text = value.get<std::string>();
    else if (value.is_array() && value.empty())
        text = "none";
    else if (!value.is_structured())
        text = value.dump();
    if (text.empty()) // a heading: its parts follow, indented
        std::fprintf(gOutput.out, "%*s%s\n", indent, "", label.c_str());
    else
        std::fprintf(gOutput.out, "%*s%-*s %s\n", indent, "", 20 - indent, label.c_str(),
                     printable(text).c_str());
    if (!text.empty())
        return;
    unsigned n = 0;
    for (const auto &[key, part] : value.items()) {
        ++n;
        if (!value.is_array())
            printField(key, part, indent + 2);
        else if (part.is_object() && part.contains("SensorIndex"))
            printField("sensor " + part["SensorIndex"].dump(), part, indent + 2);
        else
            printField("#" + std::to_string(n), part, indent + 2);
    }
}

void printRecord(const Json &r, unsigned number, unsigned count) {
    std::fprintf(gOutput.out, "%srecord %u of %u, %s\n", number > 1 ? "\n" : "", number, count,
                 r["Date"].get<std::string>().c_str());
    for (const auto &[key, value] : r.items())
        if (key != "Date")
            printField(key, value, 2);
}

} // namespace

int cmdPower(const std::string &windowText) {
    uint32_t window = 0;
    if (!parseWindow(windowText, &window))
        return usageError("bad window '" + printable(windowText) + "' (" + kWindowForms + ")");
    PowerWindowStats st{};
    const uint8_t rc = GetPowerWindowStats(window, &st);
    if (rc != ZELO_RC_SUCCESS)
        return telemetryFailure("power figures", rc, // past an hour the history is read too
                                window > 3600 ? std::vector{Source::PowerHistory, Source::MetricLog}
                                              : std::vector{Source::MetricLog});
    const auto minutes = static_cast<uint32_t>((st.u64End - st.u64Start + 30) / 60);
    const std::string start = isoUtc(static_cast<std::time_t>(st.u64Start));
    const std::string end = isoUtc(static_cast<std::time_t>(st.u64End));
    if (gOutput.json) {
        Json object = figures(st.sAC, minutes);
        object["Start"] = start;
        object["End"] = end;
        object["Intervals"] = st.u32Intervals;
        object["UnknownIntervals"] = st.u32UnknownIntervals;
        object["DC"] = figures(st.sDC, minutes);
        emit(object);
        return 0;
    }
    FILE *out = gOutput.out;
    std::fprintf(out, "window     %s to %s (%s)\n", start.c_str(), end.c_str(),
                 span(st.u64End - st.u64Start).c_str());
    std::fprintf(out, "           %8s %8s %8s %8s %12s\n", "now", "min", "avg", "max", "energy");
    for (const auto &[label, f] : {std::pair{"AC input", st.sAC}, std::pair{"DC", st.sDC}})
        std::fprintf(out, "%-10s %6u W %6u W %6u W %6u W %8.3f kWh\n", label, f.u32Newest, f.u32Min,
                     f.u32Avg, f.u32Max, kWh(f.u64EnergyJ));
    std::fprintf(out, "intervals  %u measured, %u unknown\n", st.u32Intervals,
                 st.u32UnknownIntervals);
    return 0;
}

int cmdHistory(bool performance, const std::string &hoursText, HistoryFormat format) {
    unsigned hours = 0;
    if (!parseHours(hoursText, &hours))
        return usageError("bad hours '" + printable(hoursText) + "' (1-24)");
    uint16_t count = 0;
    if (performance) {
        std::vector<PowerPerformanceItem> items(ZELO_HISTORY_SLOTS);
        const uint8_t rc = ReadPowerPerformanceItems(items.data(), ZELO_HISTORY_SLOTS, &count);
        if (rc != ZELO_RC_SUCCESS)
            return telemetryFailure("performance history", rc, {Source::PerformanceHistory});
        printHistory(lastHours(std::move(items), count, hours), "performance", format);
    } else {
        std::vector<PowerHistoryItem> items(ZELO_HISTORY_SLOTS);
        const uint8_t rc = ReadPowerHistoryItems(items.data(), ZELO_HISTORY_SLOTS, &count);
        if (rc != ZELO_RC_SUCCESS)
            return telemetryFailure("power history", rc, {Source::PowerHistory});
        printHistory(lastHours(std::move(items), count, hours), "power", format);
    }
    return 0;
}

int cmdMetrics(const std::string &lastText) {
    uint64_t last = 0;
    if (!parseNumber(lastText, 120, &last) || last == 0)
        return usageError("bad count '" + printable(lastText) + "' (1-120)");
    SnapshotBuffer *buffers = nullptr;
    BladeInletSensorBuffer *inlets = nullptr;
    PerfMetricSet *perfs = nullptr;
    uint8_t count = 0, skipped = 0;
    const uint8_t rc = ReadMetricLog(&buffers, &inlets, &perfs, &count, &skipped);
    if (rc != ZELO_RC_SUCCESS)
        return telemetryFailure("metric records", rc, {Source::MetricLog});
    const unsigned first = count > last ? count - static_cast<unsigned>(last) : 0;
    const bool blade = IsBladeServer() != 0;
    Json records = Json::array();
    for (unsigned i = first; i < count; ++i)
        records.push_back(record(buffers[i], inlets[i], perfs[i], blade));
    FreeMetricValue(buffers, inlets, perfs, count);
    if (gOutput.json) {
        emit({{"Records", records}, {"Skipped", skipped}});
        return 0;
    }
    unsigned n = 0;
    for (const Json &r : records) {
        printRecord(r, ++n, static_cast<unsigned>(records.size()));
    }
    if (skipped != 0)
        std::fprintf(gOutput.out, "(%u damaged record files left out)\n", skipped);
    return 0;
}

} // namespace zeloctl
