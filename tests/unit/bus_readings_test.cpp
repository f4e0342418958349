// What zelo-dbus shows, worked out from records on their own: availability,
// the energy counter across rotation and restarts, the snapshot period, the
// blade's swapped records and the cap's verdicts.
#include "readings.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

namespace zelo::bus {
namespace {

Record at(uint64_t seconds, double acWatts) {
    Record r;
    r.ms = seconds * 1000;
    r.ac = {acWatts, acWatts - 10, acWatts + 10};
    return r;
}

std::size_t sensor(const char *kind, const char *name) {
    for (std::size_t i = 0; i < kSensors.size(); ++i)
        if (std::string(kSensors[i].kind) == kind && std::string(kSensors[i].name) == name)
            return i;
    return kSensors.size();
}

TEST(BusReadings, OnlyAFreshRecordOfARunningDaemonIsAvailable) {
    const std::vector<Record> records{at(0, 300), at(30, 350)};
    const std::size_t ac = sensor("power", "total_ac"), dc = sensor("power", "total_dc");
    const std::size_t energy = sensor("energy", "total_ac");

    auto shown = readings(records, {true, 90}, 1234);
    EXPECT_TRUE(shown[ac].available);
    EXPECT_EQ(shown[ac].value, 350);
    EXPECT_EQ(shown[ac].min, 340);
    EXPECT_EQ(shown[ac].max, 360);
    EXPECT_FALSE(shown[dc].available) << "a record without DC figures";
    EXPECT_TRUE(std::isnan(shown[dc].value));
    EXPECT_EQ(shown[energy].value, 1234);

    const struct {
        const char *what;
        std::vector<Record> records;
        Freshness fresh;
    } gone[] = {{"no record", {}, {true, 0}},
                {"no daemon", records, {false, 0}},
                {"older than three periods", records, {true, 91}}};
    for (const auto &c : gone) {
        shown = readings(c.records, c.fresh, 1234);
        EXPECT_FALSE(shown[ac].available) << c.what;
        EXPECT_TRUE(std::isnan(shown[ac].value)) << c.what;
        EXPECT_FALSE(shown[energy].available) << c.what;
        EXPECT_EQ(shown[energy].value, 1234) << c.what << ": the counter keeps its value";
    }
    EXPECT_TRUE(same(shown[ac], readings(records, {false, 0}, 0)[ac])) << "NaN equals NaN";
}

TEST(BusReadings, EnergyCountsEachIntervalOnceAndNeverGuesses) {
    EnergyMeter meter;
    meter.add({at(0, 100), at(30, 200), at(60, 400)});
    EXPECT_DOUBLE_EQ(meter.joules(), 200 * 30 + 400 * 30);
    // The log rotated: the oldest record is gone, one is new.
    meter.add({at(30, 200), at(60, 400), at(90, 100)});
    EXPECT_DOUBLE_EQ(meter.joules(), 200 * 30 + 400 * 30 + 100 * 30);
    // A firmware restart emptied the log: the first record after it has no
    // known start and adds nothing; the second adds its interval.
    meter.add({at(120, 900)});
    meter.add({at(120, 900), at(150, 300)});
    EXPECT_DOUBLE_EQ(meter.joules(), 200 * 30 + 400 * 30 + 100 * 30 + 300 * 30);
    meter.add({at(10, 500), at(20, 500)}); // older than what was counted
    EXPECT_DOUBLE_EQ(meter.joules(), 200 * 30 + 400 * 30 + 100 * 30 + 300 * 30);
}

TEST(BusReadings, ThePeriodIsTheMedianSpacing) {
    EXPECT_EQ(periodSeconds({}), 30);
    EXPECT_EQ(periodSeconds({at(0, 1), at(10, 1), at(20, 1), at(3600, 1)}), 10);
}

TEST(BusReadings, ABladesDcFiguresArriveInTheAcRecordAndItHasNoTemperatures) {
    MetricStat ac{500, 600, 400}, dc{450, 0, 0}; // average, maximum, minimum
    SnapshotBuffer s{};
    s.psSystemAC = &ac;
    s.psSystemDC = &dc;
    s.u8InletTemperature = 25;
    const Record server = toRecord(s, nullptr, false), blade = toRecord(s, nullptr, true);
    EXPECT_EQ(server.ac.avg, 500);
    EXPECT_EQ(server.inlet.avg, 25);
    EXPECT_EQ(blade.ac.avg, 450);
    EXPECT_EQ(blade.dc.max, 600);
    EXPECT_TRUE(std::isnan(blade.inlet.avg));
    EXPECT_TRUE(std::isnan(server.system.avg)) << "no performance figures";
}

TEST(BusReadings, ACapMustLieWithinTheLimitsWithCappingEnabled) {
    EXPECT_EQ(judgeCap(200, true, 200, 650), CapVerdict::Accepted);
    EXPECT_EQ(judgeCap(650, true, 200, 650), CapVerdict::Accepted);
    EXPECT_EQ(judgeCap(199, true, 200, 650), CapVerdict::OutOfRange);
    EXPECT_EQ(judgeCap(651, true, 200, 650), CapVerdict::OutOfRange);
    EXPECT_EQ(judgeCap(400, false, 200, 650), CapVerdict::NotEnabled);
}

} // namespace
} // namespace zelo::bus
