// The daemon's cycle against the simulated firmware in-process, an hour of
// ten-second cycles with a snapshot every 30 s: firmware exchanges, bytes and
// I/O system calls per new-snapshot, idle and interval-closing cycle (one
// that writes the history summaries), exchanges and syncs an hour (the host
// store's and the history files'), and a full metric log read and released.
// With --history full the daemon starts from a full 24-hour history. Run
// under callgrind by scripts/bench-cycle with --dump, it dumps the library's
// own instructions after each cycle, named by its kind: the simulator's and
// the platform's work is left out of the collection.
//
//   zelo_cycle_bench [--cycles N] [--verbosity 0|1|2] [--history empty|full] [--dump]
#include "daemon/daemon_internal.h"
#include "model.h"
#include "report.h"
#include "scenario.h"

#include <zelo.h>
#include <zelo/platform.h>

#include <valgrind/callgrind.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <dlfcn.h>

namespace {

std::unique_ptr<zelo::sim::Firmware> gFirmware;
uint64_t gExchanges = 0;
bool gCollecting = false;
uint64_t gStoreSyncs = 0, gFileSyncs = 0;

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

enum Kind { kNew, kIdle, kClosing, kKinds };
constexpr const char *kKindNames[kKinds] = {"new", "idle", "closing"};

struct Totals {
    unsigned cycles = 0;
    uint64_t exchanges = 0, wchar = 0, syscalls = 0;
    double per(uint64_t v) const { return cycles != 0 ? double(v) / cycles : 0; }
};

// The summary file's identity: a rewrite replaces it with a new inode.
ino_t inodeOf(const std::string &path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

} // namespace

// Counts each sync, the host store's apart, and goes on to the kernel.
extern "C" int fsync(int fd) {
    char link[64], target[512];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t n = ::readlink(link, target, sizeof target - 1);
    target[n > 0 ? n : 0] = '\0';
    ++(std::strstr(target, "/var/lib/zelo/kiv/") != nullptr ? gStoreSyncs : gFileSyncs);
    return static_cast<int>(::syscall(SYS_fsync, fd));
}

namespace {

// The host store, as the daemon uses it on a development machine.
template <class F>
F *hostStore(const char *name) {
    static_assert(sizeof(F *) == sizeof(void *));
    static void *const library = ::dlopen(ZELO_HOST_STORE, RTLD_NOW | RTLD_LOCAL);
    void *symbol = library != nullptr ? ::dlsym(library, name) : nullptr;
    if (symbol == nullptr) {
        std::fprintf(stderr, "no host store: %s\n", name);
        std::exit(1);
    }
    F *f = nullptr;
    std::memcpy(&f, &symbol, sizeof f);
    return f;
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
    static auto *f = hostStore<int(const char *, uint8_t *)>("kiv_config_get_bool");
    return f(key, value);
}
int kiv_config_get_int(const char *key, int *value) {
    const PlatformCall call;
    static auto *f = hostStore<int(const char *, int *)>("kiv_config_get_int");
    return f(key, value);
}
int kiv_config_set_bool(const char *key, uint8_t value, int flag) {
    const PlatformCall call;
    static auto *f = hostStore<int(const char *, uint8_t, int)>("kiv_config_set_bool");
    return f(key, value, flag);
}
int kiv_config_set_int(const char *key, int value, int flag) {
    const PlatformCall call;
    static auto *f = hostStore<int(const char *, int, int)>("kiv_config_set_int");
    return f(key, value, flag);
}
int kiv_config_set_int64(const char *key, int64_t value, int flag) {
    const PlatformCall call;
    static auto *f = hostStore<int(const char *, int64_t, int)>("kiv_config_set_int64");
    return f(key, value, flag);
}
int kiv_config_clear(const char *key) {
    const PlatformCall call;
    static auto *f = hostStore<int(const char *)>("kiv_config_clear");
    return f(key);
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

namespace {

// A full 24-hour ring ending just before `end` (seconds), 150 s apart:
// the index and 576 little-endian samples, time stamp and six values.
void writeFullHistory(const std::string &path, uint32_t end, std::array<uint16_t, 6> values) {
    std::string bytes(2, '\0'); // the next slot: the oldest, the ring being full
    for (uint32_t i = 0; i < ZELO_HISTORY_SLOTS; ++i) {
        const uint32_t stamp = end - 150 * (ZELO_HISTORY_SLOTS - i);
        for (int b = 0; b < 4; ++b)
            bytes += static_cast<char>(stamp >> (8 * b));
        for (const uint16_t v : values) {
            bytes += static_cast<char>(v & 0xFF);
            bytes += static_cast<char>(v >> 8);
        }
    }
    std::ofstream(path, std::ios::binary) << bytes;
}

} // namespace

int main(int argc, char **argv) {
    int cycles = 360, verbosity = 0;
    bool full = false, dump = false;
    for (int i = 1; i < argc; ++i) {
        const bool value = i + 1 < argc;
        if (std::strcmp(argv[i], "--cycles") == 0 && value)
            cycles = std::max(1, std::atoi(argv[++i]));
        else if (std::strcmp(argv[i], "--verbosity") == 0 && value)
            verbosity = std::atoi(argv[++i]);
        else if (std::strcmp(argv[i], "--history") == 0 && value)
            full = std::strcmp(argv[++i], "full") == 0;
        else if (std::strcmp(argv[i], "--dump") == 0)
            dump = true;
    }
    char tmpl[] = "/tmp/zelo-bench-XXXXXX";
    if (::mkdtemp(tmpl) == nullptr)
        return 1;
    const std::string root = tmpl;
    ::setenv("ZELO_ROOT", root.c_str(), 1);
    ::unsetenv("ZELO_KIV_DIR");
    zelo::setConsole(false); // as the daemon runs without -d
    for (const char *dir : {"/tmp/zelo_log", "/tmp/zelo_trace", "/pstorage/power"})
        std::filesystem::create_directories(root + dir);
    kiv_config_set_int("ZELO_power_history_log_level", verbosity, 1);

    zelo::sim::Scenario scenario;
    std::string error;
    if (!zelo::sim::loadScenarioFile(ZELO_SCENARIO_DIR "/lively.scn", scenario, error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    // The firmware's own period: a new snapshot every third cycle. Its clock
    // runs on by the daemon's ten seconds every cycle.
    std::string line;
    if (!zelo::sim::parseScenario("snapshot-period 30000\n", "bench", scenario, error))
        return 1;
    constexpr uint64_t kOriginMs = 1'700'000'000'000;
    uint64_t ms = 1'000;
    gFirmware = std::make_unique<zelo::sim::Firmware>(
        scenario, [&ms] { return ms; }, kOriginMs);
    if (full) {
        const auto end = static_cast<uint32_t>(kOriginMs / 1000);
        writeFullHistory(root + "/pstorage/power/PowerHistoryFull", end,
                         {380, 420, 470, 350, 390, 440});
        writeFullHistory(root + "/pstorage/power/PowerPerformanceFull", end,
                         {40, 62, 80, 78, 41, 15});
    }

    // The library's diagnostics go where the daemon's standard output goes.
    if (std::freopen((root + "/stdout").c_str(), "w", stdout) == nullptr)
        return 1;
    const std::string summaries[] = {root + "/tmp/PowerHistoryLast1Hour",
                                     root + "/tmp/PowerPerformanceLast1Hour"};
    trackPowerHistory(0, 0, 0);
    trackPowerPerformance(0, 0, 0, 0, 0);
    zelo::daemon::Daemon d;
    collect(true);
    d.cycle(); // the first snapshot after start
    collect(false);
    if (dump)
        CALLGRIND_DUMP_STATS_AT("start");

    Totals totals[kKinds];
    const uint64_t storeSyncs0 = gStoreSyncs, fileSyncs0 = gFileSyncs, exchanges0 = gExchanges;
    for (int i = 0; i < cycles; ++i) {
        ms += 10'000;
        const uint16_t tag = d.u16LastTag;
        const ino_t before[] = {inodeOf(summaries[0]), inodeOf(summaries[1])};
        const uint64_t e0 = gExchanges;
        const Io a = io();
        collect(true);
        d.cycle();
        collect(false);
        const Io b = io();
        const bool closing =
            inodeOf(summaries[0]) != before[0] || inodeOf(summaries[1]) != before[1];
        const Kind kind = closing ? kClosing : d.u16LastTag != tag ? kNew : kIdle;
        if (dump)
            CALLGRIND_DUMP_STATS_AT(kKindNames[kind]);
        Totals &t = totals[kind];
        ++t.cycles;
        t.exchanges += gExchanges - e0;
        t.wchar += b.wchar - a.wchar;
        t.syscalls += (b.syscr - a.syscr) + (b.syscw - a.syscw);
    }
    const double hours = cycles * 10.0 / 3600;
    const double exchangesHour = double(gExchanges - exchanges0) / hours;
    const double storeSyncsHour = double(gStoreSyncs - storeSyncs0) / hours;
    const double fileSyncsHour = double(gFileSyncs - fileSyncs0) / hours;

    // The whole log (up to 120 records), read and released as another service would.
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
    std::fprintf(stderr, "cycle-bench verbosity=%d history=%s cycles=%d", verbosity,
                 full ? "full" : "empty", cycles);
    for (int k = 0; k < kKinds; ++k) {
        const Totals &t = totals[k];
        std::fprintf(stderr, " %s: cycles=%u exchanges=%.1f bytes=%.0f io-syscalls=%.1f",
                     kKindNames[k], t.cycles, t.per(t.exchanges), t.per(t.wchar),
                     t.per(t.syscalls));
    }
    std::fprintf(stderr,
                 " hour: exchanges=%.0f store-fsyncs=%.0f file-fsyncs=%.0f log: records=%u "
                 "exchanges=%llu lock-ms=%.2f\n",
                 exchangesHour, storeSyncsHour, fileSyncsHour, static_cast<unsigned>(count),
                 static_cast<unsigned long long>(logExchanges), lockMs);
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
    return 0;
}
