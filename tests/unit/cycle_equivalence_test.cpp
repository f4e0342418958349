// The daemon's outputs pinned to those of its cycle before it asked the
// firmware less (the layout kept, idle cycles stopped after the first chunk,
// utilisation read once) and wrote the summaries in one write: the same
// scenario and seed leave the same bytes in every file and the same values
// in the store. What did change leaves no trace here: the store is written
// fewer times a cycle and in another order, the final values being the
// same, and the summaries are no longer synced, their bytes being the same.
//
// The digests are those of ee4077d. To make them again, put this file into
// tests/unit/ of a work tree of that commit, build zelo_unit_tests there and
// run it with --gtest_filter='CycleEquivalence*': each failure names a file
// and shows its digest.
#include "fake_platform.h"

#include "daemon/daemon_internal.h"
#include "metriclog/cycle.h"
#include "scenario.h"

#include <zelo.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace zelo::test {
namespace {

// The firmware's clock and the hooks' (milliseconds since the firmware booted).
uint64_t gMs = 0;
constexpr uint64_t kOriginMs = 1'700'000'000'000; // the firmware's wall time at boot

// 64-bit FNV-1a.
uint64_t fnv1a(uint64_t hash, const void *data, std::size_t size) {
    const auto *bytes = static_cast<const uint8_t *>(data);
    for (std::size_t i = 0; i < size; ++i)
        hash = (hash ^ bytes[i]) * 0x100000001b3ULL;
    return hash;
}
constexpr uint64_t kFnvBasis = 0xcbf29ce484222325ULL;

uint64_t digest(const Bytes &bytes, uint64_t hash = kFnvBasis) {
    return fnv1a(hash, bytes.data(), bytes.size());
}

std::string hex(uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%016llx", static_cast<unsigned long long>(value));
    return text;
}

class CycleEquivalenceTest : public PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        for (const char *dir : {"/tmp/zelo_log", "/tmp/zelo_trace", "/pstorage/power"})
            std::filesystem::create_directories(root + dir);
        gMs = 0;
        hooks->usleep = [](useconds_t) { return 0; };
        hooks->sync = [](int) { return 0; };
        hooks->monotonicSeconds = [] { return static_cast<int64_t>(gMs / 1000); };
        hooks->time = [](std::time_t *out) {
            const auto now = static_cast<std::time_t>((kOriginMs + gMs) / 1000);
            if (out != nullptr)
                *out = now;
            return now;
        };
        std::string error;
        ASSERT_TRUE(sim::loadScenarioFile(ZELO_SCENARIO_DIR "/lively.scn", scenario, error))
            << error;
        // A snapshot every third cycle, so that idle cycles come between.
        ASSERT_TRUE(sim::parseScenario("snapshot-period 30000\n", "t.scn", scenario, error))
            << error;
        firmware = std::make_unique<sim::Firmware>(
            scenario, [] { return gMs; }, kOriginMs);
        fake().firmware = firmware.get();
    }
    // The daemon's start: the first snapshot is the baseline, ten seconds
    // later the first utilisation and the first cycle.
    void start() {
        trackPowerHistory(0, 0, 0);
        trackPowerPerformance(0, 0, 0, 0, 0);
        WaitValueLock();
        SnapshotBuffer *buffer = nullptr;
        HistogramData histogram{};
        ASSERT_EQ(GetSnapshotBufferFromZELO(&buffer, &histogram), ZELO_RC_SUCCESS);
        metriclog::setBaseline(*buffer, histogram);
        d.u16LastTag = buffer->u16Tag;
        FreeSnapshotBuffer(buffer);
        UnlockValue();
        gMs += 10'000;
        d.firstPerformance();
    }
    // The file's digest by its path under the root, the log's records in one.
    std::map<std::string, uint64_t> outputs() const {
        std::map<std::string, uint64_t> out;
        std::vector<std::string> logs;
        for (const auto &entry : std::filesystem::directory_iterator(root + "/tmp/zelo_log"))
            logs.push_back(entry.path().filename().string());
        std::sort(logs.begin(), logs.end());
        uint64_t records = kFnvBasis;
        for (const auto &name : logs) {
            const Bytes bytes = fileBytes(root + "/tmp/zelo_log/" + name);
            if (name == "zelo_num.log" || name == "zelo_last.log") {
                out["/tmp/zelo_log/" + name] = digest(bytes);
                continue;
            }
            records = digest(bytes, fnv1a(records, name.c_str(), name.size() + 1));
        }
        out["/tmp/zelo_log/zelo_*.log"] = records;
        for (const char *history : {"History", "Performance"}) {
            const std::string full = std::string("/pstorage/power/Power") + history + "Full";
            out[full] = digest(fileBytes(root + full));
            for (const char *span : {"1Hour", "6Hours", "12Hours", "24Hours"}) {
                const std::string summary = std::string("/tmp/Power") + history + "Last" + span;
                out[summary] = digest(fileBytes(root + summary));
            }
        }
        std::string store;
        for (const auto &[key, value] : fake().store)
            store += key + "=" + std::to_string(value) + "\n";
        out["store"] = fnv1a(kFnvBasis, store.data(), store.size());
        return out;
    }
    sim::Scenario scenario;
    daemon::Daemon d;
};

// An hour and a half of ten-second cycles: some 36 history intervals
// closed, the metric log's 120 files filled, the histories saved every ten
// minutes and at the end. On the way a power cap changes, the
// utilisation changes, and the firmware restarts (seen by its tag 1), which
// starts the metric log afresh.
TEST_F(CycleEquivalenceTest, ARunWritesWhatTheEarlierCycleWrote) {
    const std::map<int, const char *> changes = {
        {100, "reg 0 7 2 650"}, {180, "perf 30 50 20 5"}, {360, "restart-now"}};
    start();
    for (int i = 0; i < 540; ++i) {
        if (const auto change = changes.find(i); change != changes.end()) {
            std::string error;
            ASSERT_TRUE(firmware->control(change->second, error)) << error;
        }
        testing::internal::CaptureStdout(); // the library reports every exchange
        d.cycle();
        testing::internal::GetCapturedStdout();
        gMs += 10'000;
    }
    d.saveAndEnd();

    const std::map<std::string, uint64_t> expected = {
        {"/tmp/zelo_log/zelo_*.log", 0x2623569cb1bb7328ULL},
        {"/tmp/zelo_log/zelo_num.log", 0xaf63b64c8601abfaULL},
        {"/tmp/zelo_log/zelo_last.log", 0xaf63b74c8601adadULL},
        {"/pstorage/power/PowerHistoryFull", 0xee7005326f48092cULL},
        {"/pstorage/power/PowerPerformanceFull", 0xa471cd1c4abe8430ULL},
        {"/tmp/PowerHistoryLast1Hour", 0x3b87edc591d3fdc1ULL},
        {"/tmp/PowerHistoryLast6Hours", 0xab1f04e9491d0483ULL},
        {"/tmp/PowerHistoryLast12Hours", 0x16404768746631d0ULL},
        {"/tmp/PowerHistoryLast24Hours", 0x62c259a49b06a56dULL},
        {"/tmp/PowerPerformanceLast1Hour", 0x843271bd5196e583ULL},
        {"/tmp/PowerPerformanceLast6Hours", 0x7ef6463003dcaf53ULL},
        {"/tmp/PowerPerformanceLast12Hours", 0x59b2c8bd9bce1aedULL},
        {"/tmp/PowerPerformanceLast24Hours", 0xbfe2a9b6bc33605eULL},
        {"store", 0x013f7f7866356663ULL},
    };
    const auto actual = outputs();
    for (const auto &[file, value] : expected)
        EXPECT_EQ(hex(actual.at(file)), hex(value)) << file;
}

} // namespace
} // namespace zelo::test
