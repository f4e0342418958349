// The daemon's cycle against the simulated firmware in-process: firmware
// exchanges, bytes and I/O system calls per new-snapshot and per idle cycle,
// and a full metric log read and released. Run under callgrind by
// scripts/bench-cycle, it also counts the library's own instructions: the
// simulator's work is left out of the collection.
//
//   zelo_cycle_bench [--cycles N] [--verbosity 0|1|2] [--collect new|idle]
#include "daemon/daemon_internal.h"
#include "model.h"
#include "scenario.h"

#include <zelo.h>
#include <zelo/platform.h>

#include <valgrind/callgrind.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>

namespace {

std::unique_ptr<zelo::sim::Firmware> gFirmware;
uint64_t gExchanges = 0;
bool gCollecting = false;
std::string gPhase;   // the phase being measured
std::string gCollect; // the phase whose instructions callgrind collects
std::map<std::string, int64_t> gStore;

// Instructions are collected only while the library runs, not the simulator.
void collect(bool on) {
    if (on != gCollecting) {
        CALLGRIND_TOGGLE_COLLECT;
        gCollecting = on;
    }
}

// The platform's own work (store, events) is not the library's either.
struct PlatformCall {
    bool was = gCollecting;
    PlatformCall() { collect(false); }
    ~PlatformCall() { collect(was); }
};

struct Io {
    uint64_t wchar = 0, syscr = 0, syscw = 0;
};

Io io() {
    Io now;
    std::ifstream in("/proc/self/io");
    std::string key;
    uint64_t value = 0;
    while (in >> key >> value) {
        if (key == "wchar:")
            now.wchar = value;
        else if (key == "syscr:")
            now.syscr = value;
        else if (key == "syscw:")
            now.syscw = value;
    }
    return now;
}

struct PerCycle {
    double exchanges, bytes, syscalls;
};

PerCycle measure(int cycles, const std::function<void()> &before, zelo::daemon::Daemon &d) {
    uint64_t exchanges = 0;
    Io total;
    for (int i = 0; i < cycles; ++i) {
        before();
        const uint64_t e0 = gExchanges;
        const Io a = io();
        collect(gCollect.empty() || gCollect == gPhase);
        d.cycle();
        collect(false);
        const Io b = io();
        exchanges += gExchanges - e0;
        total.wchar += b.wchar - a.wchar;
        total.syscr += b.syscr - a.syscr;
        total.syscw += b.syscw - a.syscw;
    }
    return {double(exchanges) / cycles, double(total.wchar) / cycles,
            double(total.syscr + total.syscw) / cycles};
}

} // namespace

extern "C" {

int IPMI_DoIPMICmd(uint8_t netFn, uint8_t cmd, const uint8_t *request, uint32_t requestLen,
                   uint8_t *response, uint32_t *responseLen) {
    const PlatformCall call;
    ++gExchanges;
    const auto answer = gFirmware->handle(netFn, cmd, {request, requestLen});
    const auto n = std::min<std::size_t>(answer.size(), *responseLen);
    std::copy_n(answer.begin(), n, response);
    *responseLen = static_cast<uint32_t>(n);
    return 0;
}
int GetAllSensorInfoByType(uint32_t *, uint32_t, const uint8_t *, uint8_t *) {
    return -1;
}
int kiv_config_get_bool(const char *key, uint8_t *value) {
    const PlatformCall call;
    const auto it = gStore.find(key);
    return it == gStore.end() ? 0 : (*value = static_cast<uint8_t>(it->second), 1);
}
int kiv_config_get_int(const char *key, int *value) {
    const PlatformCall call;
    const auto it = gStore.find(key);
    return it == gStore.end() ? 0 : (*value = static_cast<int>(it->second), 1);
}
int kiv_config_set_bool(const char *key, uint8_t value, int) {
    const PlatformCall call;
    gStore[key] = value;
    return 1;
}
int kiv_config_set_int(const char *key, int value, int) {
    const PlatformCall call;
    gStore[key] = value;
    return 1;
}
int kiv_config_set_int64(const char *key, int64_t value, int) {
    const PlatformCall call;
    gStore[key] = value;
    return 1;
}
int kiv_config_clear(const char *key) {
    const PlatformCall call;
    gStore.erase(key);
    return 1;
}
int sw_msg_dispatcher(uint16_t, void *) {
    return 0;
}
FILE *secure_popen(const char *, const char *) {
    return nullptr;
}
int secure_pclose(FILE *) {
    return -1;
}

} // extern "C"

int main(int argc, char **argv) {
    int cycles = 20, verbosity = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--cycles") == 0)
            cycles = std::max(1, std::atoi(argv[i + 1]));
        else if (std::strcmp(argv[i], "--verbosity") == 0)
            verbosity = std::atoi(argv[i + 1]);
        else if (std::strcmp(argv[i], "--collect") == 0)
            gCollect = argv[i + 1];
    }
    char tmpl[] = "/tmp/zelo-bench-XXXXXX";
    if (::mkdtemp(tmpl) == nullptr)
        return 1;
    const std::string root = tmpl;
    ::setenv("ZELO_ROOT", root.c_str(), 1);
    for (const char *dir : {"/tmp/zelo_log", "/tmp/zelo_trace", "/pstorage/power"})
        std::filesystem::create_directories(root + dir);
    gStore["ZELO_power_history_log_level"] = verbosity;

    zelo::sim::Scenario scenario;
    std::string error;
    if (!zelo::sim::loadScenarioFile(ZELO_SCENARIO_DIR "/lively.scn", scenario, error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    // Snapshots come when the bench asks; the firmware's clock runs on by the
    // daemon's ten seconds every cycle, new snapshot or not.
    std::string line;
    if (!zelo::sim::parseScenario("snapshot-period 86400000\n", "bench", scenario, error))
        return 1;
    uint64_t ms = 1'000;
    gFirmware = std::make_unique<zelo::sim::Firmware>(
        scenario, [&ms] { return ms; }, uint64_t{1'700'000'000'000});

    // The library's diagnostics go where the daemon's standard output goes.
    if (std::freopen((root + "/stdout").c_str(), "w", stdout) == nullptr)
        return 1;
    trackPowerHistory(0, 0, 0);
    trackPowerPerformance(0, 0, 0, 0, 0);
    zelo::daemon::Daemon d;
    d.cycle(); // the first snapshot after start
    gPhase = "new";
    const PerCycle fresh = measure(
        cycles,
        [&] {
            ms += 10'000;
            gFirmware->control("snapshot-now", line);
        },
        d);
    gPhase = "idle";
    const PerCycle idle = measure(
        cycles, [&] { ms += 10'000; }, d);

    // The whole log (120 records), read and released as another service would.
    for (int i = 1 + cycles; i < 120; ++i) { // one record a new snapshot
        ms += 10'000;
        gFirmware->control("snapshot-now", line);
        d.cycle();
    }
    const uint64_t e0 = gExchanges;
    SnapshotBuffer *buffers = nullptr;
    BladeInletSensorBuffer *inlets = nullptr;
    PerfMetricSet *perfs = nullptr;
    uint8_t count = 0;
    const auto t0 = std::chrono::steady_clock::now();
    GetMetricValue(&buffers, &inlets, &perfs, &count);
    const auto t1 = std::chrono::steady_clock::now();
    FreeMetricValue(buffers, inlets, perfs, count);
    const uint64_t logExchanges = gExchanges - e0;
    const double lockMs = std::chrono::duration<double, std::milli>(t1 - t0).count();

    std::fflush(stdout);
    std::fprintf(
        stderr,
        "cycle-bench verbosity=%d cycles=%d new: exchanges=%.1f bytes=%.0f io-syscalls=%.1f "
        "idle: exchanges=%.1f bytes=%.0f io-syscalls=%.1f log: records=%u exchanges=%llu "
        "lock-ms=%.2f\n",
        verbosity, cycles, fresh.exchanges, fresh.bytes, fresh.syscalls, idle.exchanges, idle.bytes,
        idle.syscalls, static_cast<unsigned>(count), static_cast<unsigned long long>(logExchanges),
        lockMs);
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
    return 0;
}
