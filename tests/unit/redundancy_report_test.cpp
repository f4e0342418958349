// The redundancy report, walked against the in-process simulated firmware.
#include "fake_platform.h"

#include "scenario.h"

#include <zelo.h>

namespace zelo::test {
namespace {

class RedundancyReportTest : public PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        fake().store["zelo_supported_0"] = 1;
        fake().store["zelo_module_handle_0"] = 5;
    }
    void TearDown() override {
        ZELO_FreeRedundancyConfigs(&report);
        PlatformTest::TearDown();
    }
    // Runs the report against the built-in firmware changed by `lines`.
    uint8_t run(const std::string &lines) {
        sim::Scenario scenario;
        std::string error;
        EXPECT_TRUE(sim::parseScenario(lines, "test.scn", scenario, error)) << error;
        firmware = std::make_unique<sim::Firmware>(scenario);
        fake().firmware = firmware.get();
        testing::internal::CaptureStdout();
        const uint8_t rc = ZELO_GetRedundancyConfigs(&report);
        testing::internal::GetCapturedStdout();
        return rc;
    }
    std::string description(int i) const { return report.descriptions[i]; }

    std::unique_ptr<sim::Firmware> firmware;
    RedundancyConfigs report{};
};

// Types 750 W and 1100 W; four configurations, the third active. Property
// bits: 0 power mode 2, 1 valid, 2 allowed policy1/target0, 3 policy0/target0,
// 4 policy1/target1, 5 policy0/target1, 6 active.
constexpr const char *kFourShapes = R"(
psutype 0 0 750
psutype 0 1 1100
redundancy 0 0 1+1 props 0x07 list 0,0
redundancy 0 1 1+1 props 0x22 list 0,0,0,0
redundancy 0 2 2+1 props 0x4A list 0,1,0,1
redundancy 0 3 1+0 props 0x27 list 1,1
)";

TEST_F(RedundancyReportTest, DescribesEveryShapeAndFindsTheActiveOne) {
    ASSERT_EQ(run(kFourShapes), 0) << report.errorText;
    EXPECT_STREQ(report.errorText, "");
    EXPECT_EQ(report.supportedPSUTypes, 2);
    EXPECT_EQ(report.supportedConfigs, 4);
    EXPECT_EQ(report.psuTypes[1].u16PSUWattage, 1100);
    EXPECT_EQ(description(0), "1+1 with one 750W power supply per feed");
    EXPECT_EQ(description(1), "1+1 with two 750W power supplies per feed");
    EXPECT_EQ(description(2), "2+1 with one 750W and 1100W power supply per feed");
    EXPECT_EQ(description(3), "1+0 with one 1100W power supply per feed");
    EXPECT_EQ(report.activeConfig, 2);
    EXPECT_EQ(report.firstPowerMode1Config, 1) << "entry 0 is power mode 2";
}

// Policy bit 0 and the target pick the property bit that allows an entry; an
// allowed entry not valid for the installed supplies counts but shows 0.
TEST_F(RedundancyReportTest, AllowedFollowsPolicyBit0AndTarget) {
    const struct {
        const char *lines;
        std::vector<uint8_t> allowed;
        int count;
        std::vector<uint8_t> policyClear; // bits 0 and 1
    } cases[] = {
        {"", {0, 0, 1, 0}, 1, {1, 1}},                                 // policy 0, target 0: bit 3
        {"reg 0 0 16 0x01\n", {1, 0, 0, 1}, 2, {0, 1}},                // policy 1, target 0: bit 2
        {"reg 0 0 16 0x03\nreg 0 10 30 1\n", {0, 0, 0, 0}, 0, {0, 0}}, // policy 1, target 1: bit 4
        {"reg 0 10 30 2\nredundancy 0 4 1+1 props 0x20 list 0,0\n",
         {0, 1, 0, 1, 0},
         3,
         {1, 1}}, // bit 5
    };
    for (const auto &c : cases) {
        ASSERT_EQ(run(std::string(kFourShapes) + c.lines), 0) << c.lines;
        EXPECT_EQ(std::vector<uint8_t>({report.policyBit0Clear, report.policyBit1Clear}),
                  c.policyClear)
            << c.lines;
        EXPECT_EQ(std::vector<uint8_t>(report.allowed, report.allowed + c.allowed.size()),
                  c.allowed)
            << c.lines;
        EXPECT_EQ(report.allowedConfigCount, c.count) << c.lines;
        ZELO_FreeRedundancyConfigs(&report);
    }
}

TEST_F(RedundancyReportTest, NoneOrSeveralActiveEntries) {
    ASSERT_EQ(run("psutype 0 0 800\n"
                  "redundancy 0 0 1+1 props 0x0A list 0,0\n"
                  "redundancy 0 1 2+0 props 0x0B list 0,0\n"),
              1);
    EXPECT_STREQ(report.errorText, "Error, no active configuration found");
    EXPECT_EQ(report.activeConfig, -1);
    EXPECT_EQ(description(1), "2+0 with one 800W power supply per feed");
    EXPECT_EQ(report.allowedConfigCount, 2);
    ZELO_FreeRedundancyConfigs(&report);

    ASSERT_EQ(run("psutype 0 0 800\n"
                  "redundancy 0 0 1+1 props 0x0042 list 0,0\n"
                  "redundancy 0 1 1+1 props 0x0042 list 0,0\n"),
              0);
    EXPECT_EQ(report.activeConfig, 1) << "the later active entry wins";
    EXPECT_EQ(report.firstPowerMode1Config, 0);
}

// What the report cannot describe, and a failed read naming its step and code.
TEST_F(RedundancyReportTest, RefusalsAndFailuresNameTheirCause) {
    const struct {
        const char *lines;
        uint8_t rc;
        const char *error;
    } cases[] = {
        {"psutype 0 0 800\nredundancy 0 0 1+1 props 0x40 list 0,1\n", 1,
         "Error, PSU index (1) is larger than number of supported types (1)"},
        {"psutype 0 0 800\nredundancy 0 0 1+1 props 0x40 list 0,0,0\n", 1,
         "Error, unexpected value for u8PSUTypeIndexLen=3"},
        {"psutype 0 0 800\nredundancy 0 0 1+1 props 0x40 list none\n", 1,
         "Error, unexpected value for u8PSUTypeIndexLen=0"},
        {"reg 0 0 14 0x140\n", 255,
         "Error reading supported PSU types indexed buffer for index=0, rc=255"},
        {"fault 0 10 0x82 0xC9\n", 0xC9, "Error reading redundancy target register, rc=201"},
        {"fault 0 10 0x80 0xC3\n", 0xC3,
         "Error reading power supply element configuration register, rc=195"},
        {"fault 0 10 0x87 0xCA\n", 0xCA,
         "Error reading supported PSU types indexed buffer for index=0, rc=202"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.lines);
        EXPECT_EQ(run(c.lines), c.rc);
        EXPECT_STREQ(report.errorText, c.error);
        ZELO_FreeRedundancyConfigs(&report);
    }
}

TEST_F(RedundancyReportTest, EmptyTablesAreRefused) {
    // A firmware whose configuration block counts no PSU types.
    fake().expect({0x2E, 0x81, concat(head(5, 10, 0x82), {30, 1}), okResponse({0})});
    fake().expect({0x2E, 0x81, concat(head(5, 0, 0x82), {16, 1}), okResponse({0})});
    fake().expect({0x2E, 0x81, head(5, 10, 0x80), okResponse({5, 0, 0, 3, 2, 2})});
    testing::internal::CaptureStdout();
    EXPECT_EQ(ZELO_GetRedundancyConfigs(&report), 1);
    testing::internal::GetCapturedStdout();
    EXPECT_STREQ(report.errorText,
                 "Error reading power supply element configuration register, unexpected values, "
                 "supportedConfigs=3 supportedPSUTypes=0");
}

TEST_F(RedundancyReportTest, WithoutAHandleNothingIsAsked) {
    fake().store.clear();
    fake().store["zelo_supported_0"] = 1; // supported, but no handle stored
    EXPECT_EQ(run(""), 1);
    EXPECT_STREQ(report.errorText, "Error getting ZELO module handle");
    EXPECT_EQ(report.activeConfig, -1);
    EXPECT_EQ(report.firstPowerMode1Config, -1);
}

} // namespace
} // namespace zelo::test
