// Firmware exchanges per operation, pinned: every exchange costs the shared,
// slow channel to the host's firmware, and the daemon makes them holding the
// metric log lock.
#include "fake_platform.h"
#include "telemetry_files.h"

#include "daemon/daemon_internal.h"
#include "scenario.h"

#include <zelo.h>

#include <filesystem>

namespace zelo::test {
namespace {

class TrafficTest : public PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        for (const char *dir : {"/tmp/zelo_log", "/tmp/zelo_trace", "/pstorage/power"})
            std::filesystem::create_directories(root + dir);
        hooks->usleep = [](useconds_t) { return 0; };
        sim::Scenario scenario;
        std::string error;
        ASSERT_TRUE(sim::loadScenarioFile(ZELO_SCENARIO_DIR "/lively.scn", scenario, error))
            << error;
        // The firmware's clock stands still: snapshots come when the test asks.
        firmware = std::make_unique<sim::Firmware>(scenario, [] { return uint64_t{1000}; });
        fake().firmware = firmware.get();
    }
    std::size_t exchangesOf(const std::function<void()> &operation) {
        const std::size_t before = fake().exchanges;
        operation();
        return fake().exchanges - before;
    }
};

TEST_F(TrafficTest, AFullMetricLogIsReadAndReleasedWithOneQuestion) {
    std::vector<files::Bytes> records;
    for (uint64_t i = 0; i < 120; ++i)
        records.push_back(files::recordFile({(i + 1) * 30000, 400, 350}, true));
    files::writeLog(root, records, 119);
    SnapshotBuffer *buffers = nullptr;
    BladeInletSensorBuffer *inlets = nullptr;
    PerfMetricSet *perfs = nullptr;
    uint8_t count = 0;
    testing::internal::CaptureStdout(); // the reader prints each file's reading count
    EXPECT_EQ(exchangesOf([&] { GetMetricValue(&buffers, &inlets, &perfs, &count); }), 1u);
    testing::internal::GetCapturedStdout();
    ASSERT_EQ(count, 120);
    ASSERT_NE(perfs[119].psIOPerf, nullptr);
    EXPECT_EQ(exchangesOf([&] { FreeMetricValue(buffers, inlets, perfs, count); }), 0u);
}

TEST_F(TrafficTest, ACycleAsksThePerformanceQuestionOnce) {
    daemon::Daemon d;
    std::string error;
    const auto cycle = [&] {
        testing::internal::CaptureStdout(); // the writer reports what it wrote
        const std::size_t n = exchangesOf([&] { d.cycle(); });
        testing::internal::GetCapturedStdout();
        return n;
    };
    cycle(); // the first snapshot after start
    ASSERT_TRUE(firmware->control("snapshot-now", error)) << error;
    // Snapshot configuration and chunks, the layout's registers, the
    // performance question and figures, the power-cap registers, then the
    // four current performance buffers.
    EXPECT_EQ(cycle(), 32u) << "a new-snapshot cycle";
    EXPECT_EQ(cycle(), 14u) << "an idle cycle: the snapshot read and the four buffers";
}

} // namespace
} // namespace zelo::test
