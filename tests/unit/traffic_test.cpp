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
        scenario = std::make_unique<sim::Scenario>();
        std::string error;
        ASSERT_TRUE(sim::loadScenarioFile(ZELO_SCENARIO_DIR "/lively.scn", *scenario, error))
            << error;
        // The firmware's clock moves only when the test moves it, and
        // snapshots come when the test asks.
        firmware = std::make_unique<sim::Firmware>(*scenario, [this] { return ms; });
        fake().firmware = firmware.get();
    }
    std::size_t exchangesOf(const std::function<void()> &operation) {
        const std::size_t before = fake().exchanges;
        operation();
        return fake().exchanges - before;
    }
    std::size_t cycle() {
        testing::internal::CaptureStdout(); // the writer reports what it wrote
        const std::size_t n = exchangesOf([&] { d.cycle(); });
        testing::internal::GetCapturedStdout();
        return n;
    }
    void control(const char *line) {
        std::string error;
        ASSERT_TRUE(firmware->control(line, error)) << line << ": " << error;
    }
    // Ten seconds on, then a new snapshot.
    void snapshot() {
        ms += 10'000;
        control("snapshot-now");
    }
    std::unique_ptr<sim::Scenario> scenario;
    uint64_t ms = 1000;
    daemon::Daemon d;
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

// The layout (the snapshot, histogram and input power configurations, the
// two capability registers) is read in the first cycle only. A new snapshot
// costs its five chunks, the twelve utilisation figures (the first of which
// also tells that there are performance buffers) and the five power-cap
// registers; an idle cycle the first chunk, whose tag shows nothing new, and
// the four current figures.
TEST_F(TrafficTest, ACycleAsksOnlyWhatCanHaveChanged) {
    EXPECT_EQ(cycle(), 1u + 5 + 5 + 12 + 5) << "discovery and the first snapshot after start";
    snapshot();
    EXPECT_EQ(cycle(), 22u) << "a new-snapshot cycle";
    EXPECT_EQ(cycle(), 5u) << "an idle cycle";
    snapshot();
    EXPECT_EQ(cycle(), 22u) << "the next new snapshot";
}

// A firmware restart may bring another layout. One seen by its tag 1 has the
// layout read again before the chunks; one missed (tag 7, totals fallen) is
// read with the kept layout, is the new baseline, and the layout is read
// again with the next snapshot. Either way once.
TEST_F(TrafficTest, AFirmwareRestartHasTheLayoutReadAgain) {
    const struct {
        const char *what;
        std::vector<const char *> lines;
        std::size_t restartCycle, nextNew;
    } cases[] = {
        {"seen", {"restart-now"}, 1 + 5 + 5 + 4, 22},
        {"missed", {"restart-now", "snapshot-now", "tag 7"}, 5 + 4, 5 + 22},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        firmware = std::make_unique<sim::Firmware>(*scenario, [this] { return ms; });
        fake().firmware = firmware.get();
        d = {};
        cycle();
        snapshot();
        ASSERT_EQ(cycle(), 22u);
        ms += 10'000;
        for (const char *line : c.lines)
            control(line);
        EXPECT_EQ(cycle(), c.restartCycle) << "the restart's snapshot";
        EXPECT_EQ(d.u16LastTag, c.lines.size() == 1 ? 1 : 7);
        snapshot();
        EXPECT_EQ(cycle(), c.nextNew) << "the next new snapshot";
        snapshot();
        EXPECT_EQ(cycle(), 22u);
    }
}

} // namespace
} // namespace zelo::test
