// The history ring and metric log files as the daemon leaves them, byte by byte.
#pragma once

#include <zelo/history.h>
#include <zelo/metriclog.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace zelo::test::files {

using Bytes = std::vector<uint8_t>;

inline void putLe(Bytes &out, uint64_t value, int width) {
    for (int i = 0; i < width; ++i)
        out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

inline void writeFile(const std::string &path, const Bytes &bytes) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char *>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

// A full history file; the performance ring's six values take the same places.
inline Bytes ringFile(uint16_t next, const std::map<uint16_t, PowerHistorySample> &slots) {
    Bytes out;
    putLe(out, next, 2);
    for (uint16_t i = 0; i < ZELO_HISTORY_SLOTS; ++i) {
        const auto it = slots.find(i);
        const PowerHistorySample s = it != slots.end() ? it->second : PowerHistorySample{};
        putLe(out, s.timestamp, 4);
        for (uint16_t v : {s.minAC, s.avgAC, s.maxAC, s.minDC, s.avgDC, s.maxDC})
            putLe(out, v, 2);
    }
    return out;
}

struct Record {
    uint64_t ms;
    uint32_t ac, dc; // average; minimum and maximum 10 below and above, or 0 with it
};

// A metric log file: two AC supplies, system AC and DC, two inlet readings.
inline Bytes recordFile(const Record &r, bool perf = false, const std::string &reading = "") {
    Bytes out;
    const auto stat = [&out](uint64_t avg, uint64_t max, uint64_t min) {
        putLe(out, avg, 8);
        putLe(out, max, 8);
        putLe(out, min, 8);
    };
    out.push_back(2);
    stat(200, 210, 190);
    stat(201, 211, 191);
    // No figure is all zeros, as in the first record after a firmware restart.
    const auto figure = [&stat](uint64_t avg) {
        stat(avg, avg == 0 ? 0 : avg + 10, avg == 0 ? 0 : avg - 10);
    };
    out.insert(out.end(), {0, 1}); // no DC supplies, system AC
    figure(r.ac);
    out.push_back(1);
    figure(r.dc);
    out.insert(out.end(), {0, 0, 0, 0, 24, 31}); // four absent records, inlet, outlet
    putLe(out, r.ms, 8);
    out.insert(out.end(), {0x21, 2});
    for (uint32_t index : {0u, 3u}) {
        putLe(out, index, 4);
        std::string text = reading.empty() ? "2" + std::to_string(index) + ".5" : reading;
        text.resize(ZELO_INLET_TEMPERATURE_TEXT, '\0');
        out.insert(out.end(), text.begin(), text.end());
    }
    if (perf)
        for (uint64_t v : {40, 50, 60, 70}) {
            out.push_back(1);
            stat(v, v + 5, v - 5);
        }
    return out;
}

// The whole metric log as a reader gets it, released with the scope.
struct LogRead {
    SnapshotBuffer *buffers = nullptr;
    BladeInletSensorBuffer *inlets = nullptr;
    PerfMetricSet *perfs = nullptr;
    uint8_t count = 0;
    ~LogRead() { FreeMetricValue(buffers, inlets, perfs, count); }
    int get() { return GetMetricValue(&buffers, &inlets, &perfs, &count); }
};

inline void writeLog(const std::string &root, const std::vector<Bytes> &records, uint8_t last) {
    const std::string dir = root + "/tmp/zelo_log/";
    std::filesystem::create_directories(dir);
    for (std::size_t i = 0; i < records.size(); ++i)
        writeFile(dir + "zelo_" + std::to_string(i) + ".log", records[i]);
    writeFile(dir + "zelo_num.log", {static_cast<uint8_t>(records.size())});
    writeFile(dir + "zelo_last.log", {last});
}

} // namespace zelo::test::files
