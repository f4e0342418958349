// The road of a snapshot against the real simulator: fetch, calculate,
// write the metric log, publish, and read it back oldest first.
#include "sim_process.h"
#include "telemetry_files.h"

#include "metriclog/cycle.h"

#include <zelo.h>
#include <zelo/platform.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdlib>
#include <filesystem>

namespace zelo::test {
namespace {

class MetricLogRoadTest : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char *dir : {"/tmp/zelo_log", "/tmp/zelo_trace", "/pstorage/power"})
            std::filesystem::create_directories(root.path() + dir);
        ASSERT_NE(kiv_config_set_bool("zelo_supported_0", 1, 1), 0);
        ASSERT_NE(kiv_config_set_int("zelo_module_handle_0", 5, 1), 0);
        testing::internal::CaptureStdout(); // the writer and reader report as they go
    }
    void TearDown() override {
        testing::internal::GetCapturedStdout();
        metriclog::resetBaseline();
        metriclog::restartFileNumbering();
        ::unsetenv("RUX_FAMILY");
    }
    // Fetches snapshots until the tag passes `after`, and logs that one or
    // keeps it as the baseline. The boot snapshot's totals are all 0: a
    // baseline comes after tag 1.
    uint16_t next(uint16_t after, bool log = true) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (std::chrono::steady_clock::now() < deadline) {
            SnapshotBuffer *s = nullptr;
            HistogramData h{};
            if (GetSnapshotBufferFromZELO(&s, &h) != 0) {
                ADD_FAILURE() << "fetch failed";
                return after;
            }
            const uint16_t tag = s->u16Tag;
            if (tag <= after) {
                std::free(h.pu8BucketData);
            } else if (log) {
                CreateDataLog(s, h); // takes the bucket data
            } else {
                metriclog::setBaseline(*s, h);
            }
            FreeSnapshotBuffer(s);
            if (tag > after)
                return tag;
        }
        ADD_FAILURE() << "no snapshot after tag " << after;
        return after;
    }
    TempRoot root;
};

TEST_F(MetricLogRoadTest, AConstant350WattLoadReadsBack350) {
    SimProcess sim(root.path(), "power constant 350\nperf 35 40 25 10\n", {"--time-scale", "1000"});
    uint16_t tag = next(1, false);
    for (int i = 0; i < 4; ++i)
        tag = next(tag);

    files::LogRead log;
    ASSERT_EQ(log.get(), 0);
    ASSERT_EQ(log.count, 4);
    ASSERT_NE(log.perfs, nullptr);
    for (int i = 0; i < log.count; ++i) {
        SCOPED_TRACE(i);
        const SnapshotBuffer &b = log.buffers[i];
        EXPECT_GT(b.u64Timestamp, i > 0 ? log.buffers[i - 1].u64Timestamp : 0) << "oldest first";
        EXPECT_EQ(b.psSystemDC->u64Avg, 350u);
        EXPECT_EQ(b.psSystemDC->u64Min, 350u) << "histogram bucket 350-400";
        EXPECT_EQ(b.psSystemDC->u64Max, 400u);
        EXPECT_EQ(b.psSystemAC->u64Avg, 350u * 100 / 94);
        EXPECT_EQ(b.psCPUPower->u64Avg, 350u * 45 / 100);
        EXPECT_EQ(b.psEffectiveCPU->u64Avg, 40u);
        EXPECT_EQ(b.u8InletTemperature, 24);
        EXPECT_EQ(log.perfs[i].psSystemPerf->u64Avg, 35u);
        EXPECT_EQ(log.perfs[i].psIOPerf->u64Avg, 10u);
    }

    int published = 0;
    ASSERT_NE(kiv_config_get_int("ZELO_total_dc_power_in_use_Avg", &published), 0);
    EXPECT_EQ(published, 350);
    ASSERT_NE(kiv_config_get_int("ZELO_total_ac_power_in_use_Avg", &published), 0);
    EXPECT_EQ(published, 350 * 100 / 94);
}

// A sensor's text, quotes, backslash and control byte included, reaches
// scripts as it was and a terminal escaped.
TEST_F(MetricLogRoadTest, ABladeStoresItsInletReadingsAsTheSensorsTellThem) {
    ::setenv("RUX_FAMILY", "blade", 1);
    const std::string reading = "24 \"deg\\\" C\x01";
    SimProcess sim(
        root.path(),
        "blade yes\nperf none\nsensor \"Inlet Temp\" 0 " + reading +
            "\n"
            "sensor \"Inlet 1 Temp\" 0 Unavailable\nsensor \"CPU Temp\" 0 58 degrees C\n",
        {"--time-scale", "1000"});
    next(next(1, false));
    files::LogRead log;
    ASSERT_EQ(log.get(), 0);
    ASSERT_EQ(log.count, 1);
    // Collected in reverse platform order, read back in reverse file order.
    ASSERT_EQ(log.inlets[0].u8SensorNum, 2);
    EXPECT_EQ(log.inlets[0].psSensor->szTemperature, reading);
    EXPECT_STREQ(log.inlets[0].psSensor->psNext->szTemperature, "Unavailable");
    EXPECT_EQ(log.buffers[0].psSystemDC, nullptr) << "a blade reports no system DC";

    const auto json = runProgram(ZELO_ZELOCTL_PATH, {"--json", "metrics"});
    ASSERT_EQ(json.status, 0) << json.err;
    // The same order: the platform's.
    EXPECT_EQ(nlohmann::json::parse(json.out)["Records"][0]["InletReadings"][0]["Temperature"],
              reading);
    const auto text = runProgram(ZELO_ZELOCTL_PATH, {"metrics"}).out;
    EXPECT_NE(text.find("24 \"deg\\\" C\\x01"), std::string::npos) << text;
    EXPECT_EQ(text.find('\x01'), std::string::npos);
}

} // namespace
} // namespace zelo::test
