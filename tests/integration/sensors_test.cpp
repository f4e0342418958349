// The controller's sensors through the host platform library and the real
// simulator; the road test collects a blade's inlets on top of them.
#include "sim_process.h"

#include <zelo/platform.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace zelo::test {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kRecordLen = 1492;
constexpr uint8_t kTemperature = 1;

class SensorsTest : public ::testing::Test {
  protected:
    TempRoot root;
};

TEST_F(SensorsTest, BladeSensorsArriveAsRecordsInScenarioOrder) {
    SimProcess sim(root.path(), scenarioFile("blade.scn"));
    const struct {
        uint8_t status;
        std::string name, reading;
    } expected[] = {{0, "Inlet Temp", "24 degrees C"},
                    {0, "Inlet 1 Temp", "Unavailable"},
                    {0, "CPU Temp", "58 degrees C"},
                    {1, "Inlet 2 Temp", "0 degrees C"}};
    // Room for 2.5 records, one guard byte after the area.
    Bytes area(5 * kRecordLen / 2 + 1, 0xEE);
    uint32_t delivered = 0;
    ASSERT_EQ(GetAllSensorInfoByType(&delivered, static_cast<uint32_t>(area.size() - 1),
                                     &kTemperature, area.data()),
              0);
    EXPECT_EQ(delivered, 2 * kRecordLen);
    EXPECT_TRUE(std::all_of(area.begin() + 2 * kRecordLen, area.end(),
                            [](uint8_t b) { return b == 0xEE; }));

    area.assign(768 * kRecordLen, 0xEE);
    ASSERT_EQ(GetAllSensorInfoByType(&delivered, static_cast<uint32_t>(area.size()), &kTemperature,
                                     area.data()),
              0);
    ASSERT_EQ(delivered, 4 * kRecordLen);
    for (std::size_t i = 0; i < 4; ++i) {
        const uint8_t *r = area.data() + i * kRecordLen;
        const auto &e = expected[i];
        EXPECT_EQ(r[2], e.status);
        EXPECT_EQ(reinterpret_cast<const char *>(r + 6), e.name);
        EXPECT_EQ(reinterpret_cast<const char *>(r + 198), e.reading);
        EXPECT_EQ(std::count(r, r + kRecordLen, 0) + (e.status != 0) + e.name.size() +
                      e.reading.size(),
                  kRecordLen)
            << "the rest of record " << i << " is zero";
    }
}

TEST_F(SensorsTest, RefusingOrMissingSimulatorDeliversNothing) {
    uint32_t delivered = 7;
    Bytes area(kRecordLen);
    {
        SimProcess sim(root.path(), "sensor \"Inlet Temp\" 0 24 C\nfault sensors 0xC3\n");
        EXPECT_EQ(GetAllSensorInfoByType(&delivered, kRecordLen, &kTemperature, area.data()), 0xC3);
        EXPECT_EQ(delivered, 0u);
    }
    EXPECT_LT(GetAllSensorInfoByType(&delivered, kRecordLen, &kTemperature, area.data()), 0);
    EXPECT_EQ(delivered, 0u);
}

} // namespace
} // namespace zelo::test
