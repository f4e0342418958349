#include "readings.h"

#include "acquisition/snapshot_records.h"

#include <algorithm>

namespace zelo::bus {
namespace {

Stat stat(const MetricStat *s) {
    if (s == nullptr)
        return {};
    return {static_cast<double>(s->u64Avg), static_cast<double>(s->u64Min),
            static_cast<double>(s->u64Max)};
}

bool sameFigure(double a, double b) {
    return a == b || (std::isnan(a) && std::isnan(b));
}

} // namespace

Record toRecord(const SnapshotBuffer &s, const PerfMetricSet *perf, bool blade) {
    Record r;
    r.ms = s.u64Timestamp;
    const auto power = acquisition::powerRecords(blade);
    r.ac = stat(s.*power.ac);
    r.dc = stat(s.*power.dc);
    r.cpu = stat(s.psCPUPower);
    r.memory = stat(s.psMemoryPower);
    r.cooling = stat(s.psCoolingPower);
    if (!blade) {
        r.inlet.avg = s.u8InletTemperature;
        r.outlet.avg = s.u8OutletTemperature;
    }
    if (perf != nullptr) {
        r.system = stat(perf->psSystemPerf);
        r.cpuUse = stat(perf->psCPUPerf);
        r.memoryUse = stat(perf->psMemoryPerf);
        r.ioUse = stat(perf->psIOPerf);
    }
    return r;
}

const char *unitName(Unit unit) {
    switch (unit) {
    case Unit::Watts:
        return "xyz.openbmc_project.Sensor.Value.Unit.Watts";
    case Unit::DegreesC:
        return "xyz.openbmc_project.Sensor.Value.Unit.DegreesC";
    case Unit::Percent:
        return "xyz.openbmc_project.Sensor.Value.Unit.Percent";
    case Unit::Joules:
        return "xyz.openbmc_project.Sensor.Value.Unit.Joules";
    }
    return "";
}

bool same(const Reading &a, const Reading &b) {
    return a.available == b.available && sameFigure(a.value, b.value) && sameFigure(a.min, b.min) &&
           sameFigure(a.max, b.max);
}

void EnergyMeter::add(const std::vector<Record> &records) {
    for (std::size_t i = 0; i < records.size(); ++i) {
        const Record &r = records[i];
        if (newestMs_ && r.ms <= *newestMs_)
            continue;
        if (i > 0 && records[i - 1].ms < r.ms && !std::isnan(r.ac.avg))
            joules_ += r.ac.avg * static_cast<double>(r.ms - records[i - 1].ms) / 1000.0;
        newestMs_ = r.ms;
    }
}

double periodSeconds(const std::vector<Record> &records) {
    std::vector<uint64_t> gaps;
    for (std::size_t i = 1; i < records.size(); ++i)
        if (records[i].ms > records[i - 1].ms)
            gaps.push_back(records[i].ms - records[i - 1].ms);
    if (gaps.empty())
        return 30;
    // The median: one long gap (the daemon stopped a while) does not count.
    std::nth_element(gaps.begin(), gaps.begin() + gaps.size() / 2, gaps.end());
    return static_cast<double>(gaps[gaps.size() / 2]) / 1000.0;
}

std::array<Reading, kSensors.size()> readings(const std::vector<Record> &records,
                                              const Freshness &fresh, double energyJoules) {
    std::array<Reading, kSensors.size()> out{};
    const bool live =
        !records.empty() && fresh.daemonRunning && fresh.ageSeconds <= 3 * periodSeconds(records);
    for (std::size_t i = 0; i < kSensors.size(); ++i) {
        if (kSensors[i].stat == nullptr) {
            // The counter keeps its value; only a reading of it needs the daemon.
            out[i] = {energyJoules, 0, kNaN, live};
            continue;
        }
        const Stat figure = live ? records.back().*kSensors[i].stat : Stat{};
        out[i] = {figure.avg, figure.min, figure.max, !std::isnan(figure.avg)};
    }
    return out;
}

CapVerdict judgeCap(uint32_t watts, bool enabled, uint32_t min, uint32_t max) {
    if (!enabled)
        return CapVerdict::NotEnabled;
    return watts < min || watts > max ? CapVerdict::OutOfRange : CapVerdict::Accepted;
}

} // namespace zelo::bus
