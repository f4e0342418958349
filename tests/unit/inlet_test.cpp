// Inlet readings of a blade collected from the platform's sensor records, and
// the copy and release of such lists.
#include "fake_platform.h"

#include "metriclog/inlet_internal.h"
#include "tracelog/state.h"

#include <zelo/metriclog.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <utility>

namespace zelo::test {
namespace {

constexpr std::size_t kRecordLen = 1492;
constexpr std::size_t kArea = 1145856;
using Readings = std::vector<std::pair<uint32_t, std::string>>;

Bytes record(uint8_t status, const std::string &name, const std::string &reading = "24 C") {
    Bytes r(kRecordLen, 0);
    r[2] = status;
    std::copy(name.begin(), name.end(), r.begin() + 6);
    std::copy(reading.begin(), reading.end(), r.begin() + 198);
    return r;
}

Readings readings(const BladeInletSensorBuffer &list) {
    Readings out;
    for (auto *n = list.psSensor; n != nullptr; n = n->psNext)
        out.emplace_back(n->u32SensorIndex, n->szTemperature);
    return out;
}

class InletTest : public PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        ::setenv("RUX_FAMILY", "blade", 1);
        trace::u32TraceLogIndex = 0;
        std::filesystem::create_directories(root + "/tmp/zelo_trace");
    }
    void TearDown() override {
        FreeBladeInletSensorBuffer(&list);
        ::unsetenv("RUX_FAMILY");
        PlatformTest::TearDown();
    }
    // One collection; its standard output lands in `out`.
    int collect(const std::vector<Bytes> &records) {
        for (const auto &r : records)
            fake().sensorRecords.insert(fake().sensorRecords.end(), r.begin(), r.end());
        testing::internal::CaptureStdout();
        const int rc = WriteBladeInletTemperatureFromInletSensor();
        out = testing::internal::GetCapturedStdout();
        return rc;
    }
    BladeInletSensorBuffer &list = metriclog::sBladeInletSensorBuffer;
    std::string out;
};

TEST(InletNames, OnlyExactTableNamesHaveAnIndex) {
    const char *names[] = {"Inlet Temp",     "Inlet 1 Temp", "Inlet 2 Temp", "PEN Inlet Temp",
                           "SEN Inlet Temp", "Outlet Temp",  "inlet temp",   "Inlet Temp "};
    for (uint32_t i = 0; i < std::size(names); ++i) {
        EXPECT_EQ(GetInletSensorIndexPerSensorName(names[i]), std::min(i, 5u)) << names[i];
        EXPECT_STREQ(metriclog::inletSensorName(std::min(i, 5u)), i < 5 ? names[i] : "Unknown");
    }
    EXPECT_EQ(GetInletSensorIndexPerSensorName(nullptr), 5u);
}

TEST_F(InletTest, NonBladeAsksNoSensorsAndFailedPlatformOrAreaGivesNone) {
    ::unsetenv("RUX_FAMILY");
    EXPECT_EQ(collect({record(0, "Inlet Temp")}), 0);
    EXPECT_TRUE(fake().sensorTypes.empty());
    ::setenv("RUX_FAMILY", "blade", 1);
    fake().sensorResult = -111;
    EXPECT_EQ(collect({}), 1);
    EXPECT_EQ(list.psSensor, nullptr);

    fake().sensorResult = 0;
    fake().sensorTypes.clear();
    hooks->calloc = [](std::size_t, std::size_t) -> void * { return nullptr; };
    EXPECT_EQ(collect({record(0, "Inlet Temp")}), 1);
    EXPECT_EQ(out, "Unable to malloc (1145856 bytes)memory for sensor info\n)");
    EXPECT_TRUE(fake().sensorTypes.empty());
    EXPECT_EQ(list.psSensor, nullptr);
}

TEST_F(InletTest, KeepsUsableInletRecordsNewestFirst) {
    Bytes unterminated = record(0, "");
    std::fill(unterminated.begin() + 6, unterminated.end(), 'A');
    EXPECT_EQ(collect({record(0, "Inlet 1 Temp", "21 C"), record(0, "CPU Temp"),
                       record(1, "Inlet Temp"), unterminated, record(0, "Inlet 2 Temp", "22 C"),
                       record(0, "PEN Inlet Temp", "Unavailable")}),
              0);
    EXPECT_EQ(out, "totally there are 6 sensor info for type 1\n");
    EXPECT_EQ(fake().sensorTypes, Bytes{1});
    EXPECT_EQ(fake().sensorAreaSize, kArea);
    EXPECT_EQ(readings(list), (Readings{{3, "Unavailable"}, {2, "22 C"}, {1, "21 C"}}));
    EXPECT_EQ(list.u8SensorNum, 3);

    const std::string logged = trace();
    EXPECT_TRUE(logged.ends_with(" [WARN] \"WriteBladeInletTemperatureFromInletSensor\": "
                                 "Sensor[PEN Inlet Temp] 's inlet temp is Unavailable\n"))
        << logged;
    EXPECT_EQ(std::count(logged.begin(), logged.end(), '\n'), 1) << logged;
}

TEST_F(InletTest, OnlyWholeRecordsWithinTheAreaAreRead) {
    Bytes cut = record(0, "Inlet 2 Temp");
    cut.pop_back();
    EXPECT_EQ(collect({cut}), 1);

    // 1492 + 1491 bytes: one record is examined; its 70-character reading is cut.
    fake() = {};
    EXPECT_EQ(collect({record(0, "Inlet Temp", std::string(70, '7')), cut}), 0);
    EXPECT_EQ(out, "totally there are 1 sensor info for type 1\n");
    EXPECT_EQ(readings(list), (Readings{{0, std::string(63, '7')}}));
    FreeBladeInletSensorBuffer(&list);

    // A platform claiming more than the area, with texts running into the
    // area's last byte: nothing beyond the area is read.
    for (const bool nameRuns : {false, true}) {
        fake() = {};
        fake().sensorClaimed = kArea + 3 * kRecordLen;
        Bytes last = record(0, "SEN Inlet Temp");
        std::fill(last.begin() + (nameRuns ? 6 : 198), last.end(), 'x');
        EXPECT_EQ(collect({Bytes(kArea - kRecordLen, 0), last}), 0);
        EXPECT_EQ(out, "totally there are 768 sensor info for type 1\n");
        const Readings kept = nameRuns ? Readings{} : Readings{{4, std::string(63, 'x')}};
        EXPECT_EQ(readings(list), kept);
        FreeBladeInletSensorBuffer(&list);
    }
}

TEST_F(InletTest, CountStopsAtWhatItsByteHolds) {
    EXPECT_EQ(collect(std::vector<Bytes>(300, record(0, "Inlet Temp"))), 0);
    EXPECT_EQ(list.u8SensorNum, 255);
    EXPECT_EQ(readings(list).size(), 255u);
}

TEST_F(InletTest, CopyAndFreeFollowTheNodesNotTheCount) {
    collect({record(0, "Inlet Temp", "20 C"), record(0, "Inlet 1 Temp", "21 C"),
             record(0, "Inlet 2 Temp", "22 C")});
    BladeInletSensorBuffer copy{9, nullptr};
    testing::internal::CaptureStdout();
    CopyInletTemperatureSnapshotBuffer(&copy, &list);
    CopyInletTemperatureSnapshotBuffer(nullptr, &list);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(copy.u8SensorNum, 3);
    EXPECT_EQ(readings(copy), readings(list));
    EXPECT_NE(copy.psSensor, list.psSensor);
    FreeBladeInletSensorBuffer(&copy);

    // A source counting more nodes than it has: the copy counts what it holds.
    list.u8SensorNum = 5;
    testing::internal::CaptureStdout();
    CopyInletTemperatureSnapshotBuffer(&copy, &list);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(copy.u8SensorNum, 3);
    FreeBladeInletSensorBuffer(&copy);
    // Freeing stops at the end of the short list too.
    FreeBladeInletSensorBuffer(&list);
    EXPECT_EQ(list.u8SensorNum, 0);
    EXPECT_EQ(list.psSensor, nullptr);
    FreeBladeInletSensorBuffer(nullptr);
}

} // namespace
} // namespace zelo::test
