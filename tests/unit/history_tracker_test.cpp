// The history trackers on explicit figures: clock steps, a failed save,
// restarts, and what the performance twin does otherwise. The grid, gaps, the
// save pacing and the 16-bit arithmetic: history_equivalence_test.
#include "fake_platform.h"

#include "history/history_internal.h"
#include "report.h"
#include "tracelog/state.h"

#include <zelo/history.h>
#include <zelo/telemetry.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <filesystem>

namespace zelo::test {
namespace {

using history::gPerformance;
using history::gPower;

constexpr uint64_t kT0 = 1'700'000'000;
int64_t gMonotonic = 0;
std::time_t gWall = 1'800'000'000;

class HistoryTrackerTest : public PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        gMonotonic = 0;
        gWall = 1'800'000'000;
        trace::s32PowerHistoryLogLevel = 2;
        std::filesystem::create_directories(root + "/tmp/zelo_trace");
        std::filesystem::create_directories(root + "/pstorage/power");
        restart();
    }
    // A new process: fresh trackers on the test's clocks, after the start-up call.
    void restart() {
        history::resetHistories();
        hooks->monotonicSeconds = [] { return gMonotonic; };
        hooks->time = [](std::time_t *) { return gWall; };
        trackPowerHistory(0, 0, 0);
    }
    static void snap(uint64_t t, uint64_t ac = 500, uint64_t dc = 400) {
        trackPowerHistory(t * 1000, ac, dc);
    }
};

using Values = std::array<uint16_t, 6>;
Values values(const PowerHistorySample &s) {
    return {s.minAC, s.avgAC, s.maxAC, s.minDC, s.avgDC, s.maxDC};
}
Values values(const PowerPerformanceSample &s) {
    return {s.min, s.avg, s.max, s.cpu, s.mem, s.io};
}

// The library's own formatter writes what vsnprintf writes, cut where it
// cuts, and leaves every other conversion to it.
TEST(HistoryFormat, PlainTextsAsTheGeneralFormatterWritesThem) {
    const auto both = [](std::size_t cap, const char *format, ...) {
        va_list args, again;
        va_start(args, format);
        va_copy(again, args);
        std::vector<char> plain(cap, 'x'), general(cap, 'x');
        const bool handled = zelo::formatPlain(plain.data(), cap, format, args);
        if (handled)
            std::vsnprintf(general.data(), cap, format, again);
        va_end(again);
        va_end(args);
        return std::make_pair(handled, handled ? std::string(plain.data()) == general.data()
                                               : plain[0] == '\0');
    };
    EXPECT_EQ(both(64, "min=%i, avg=%d, max=%u %s%%", INT_MIN, -7, UINT_MAX, "fname"),
              std::make_pair(true, true));
    EXPECT_EQ(both(64, "%s and %s", static_cast<const char *>(nullptr), ""),
              std::make_pair(true, true));
    EXPECT_EQ(both(12, "tstamp=%i, idx=%i", 1800000000, 575), std::make_pair(true, true));
    EXPECT_EQ(both(4, "%s", "longer"), std::make_pair(true, true));
    for (const char *other : {"%llu", "%5i", "%x", "%i and %lu", "trailing %"})
        EXPECT_EQ(both(64, other, 1), std::make_pair(false, true)) << other;
    // formatText returns the whole length, as vsnprintf does, also when cut.
    char cut[4];
    EXPECT_EQ(zelo::formatText(cut, sizeof cut, "%s", "longer"), 6);
    EXPECT_EQ(zelo::formatText(cut, sizeof cut, "%llu", 1234567ULL), 7);
    EXPECT_EQ(zelo::formatText(cut, sizeof cut, "%s", "abc"), 3);
    EXPECT_STREQ(cut, "abc");
}

TEST_F(HistoryTrackerTest, TheStartUpCallWritesTheSummaries) {
    for (const char *name : {"1Hour", "6Hours", "12Hours", "24Hours"})
        EXPECT_EQ(std::filesystem::file_size(root + "/tmp/PowerHistoryLast" + name), 386u);
}

TEST_F(HistoryTrackerTest, ClockGoingBackShiftsEveryWrittenSlotByTheWholeStep) {
    for (uint64_t i = 0; i < 6; ++i)
        snap(kT0 + 30 * i);
    ASSERT_EQ(gPower.nextIndex, 1);
    snap(kT0 + 150);
    EXPECT_EQ(gPower.ring[0].timestamp, kT0 + 120 - 30);
    EXPECT_EQ(gPower.endtime, kT0 + 270 - 30);

    // 72 000 s back (20 h, past what 16 bits hold) plus the 30, to written
    // slots only; the history then records on from there.
    snap(kT0 + 150 - 72'000);
    EXPECT_EQ(gPower.ring[0].timestamp, kT0 + 120 - 30 - 72'030);
    EXPECT_EQ(gPower.ring[575].timestamp, 0u);
    EXPECT_EQ(gPower.endtime, kT0 + 270 - 30 - 72'030);
    for (uint64_t i = 1; i <= 10; ++i)
        snap(kT0 + 150 - 72'000 + 30 * i, 420, 400);
    EXPECT_EQ(gPower.nextIndex, 3);
    EXPECT_EQ(values(gPower.ring[2]), (Values{420, 420, 420, 400, 400, 400}));
}

// A firmware clock restarted near zero: the step cannot be shifted away
// without stamps going below zero, so a new grid follows the newest sample,
// and the history goes on advancing, reloaded or not.
TEST_F(HistoryTrackerTest, AStepBackToNearZeroStartsANewGridAndNeverStampsEmptySlots) {
    for (uint64_t t = 100; t <= 850; t += 30)
        snap(t);
    snap(965);
    snap(5);
    for (uint64_t t = 35; t <= 485; t += 30)
        snap(t);
    ASSERT_EQ(savePowerHistory(), 1);
    gWall = 1000;
    restart();
    for (uint64_t t = 515; t <= 1055; t += 30)
        snap(t);
    ASSERT_EQ(savePowerHistory(), 1);

    std::array<PowerHistoryItem, ZELO_HISTORY_SLOTS> items{};
    uint16_t count = 0;
    ASSERT_EQ(ReadPowerHistoryItems(items.data(), ZELO_HISTORY_SLOTS, &count), ZELO_RC_SUCCESS);
    std::vector<uint32_t> stamps;
    for (uint16_t i = 0; i < count; ++i)
        stamps.push_back(items[i].sSample.timestamp);
    // 220 to 820 of the old grid; 125 to 1025 of the new one, its open
    // interval at the reload lost.
    EXPECT_EQ(stamps,
              (std::vector<uint32_t>{220, 370, 520, 670, 820, 125, 275, 425, 575, 725, 875, 1025}));
}

// Back by 220 s with the oldest sample at 220: shifted, it would read as an
// unwritten slot.
TEST_F(HistoryTrackerTest, AStepThatWouldStampASampleZeroStartsANewGrid) {
    for (uint64_t t = 100; t <= 220; t += 30)
        snap(t);
    ASSERT_EQ(gPower.ring[0].timestamp, 220u);
    snap(30);
    EXPECT_EQ(gPower.ring[0].timestamp, 220u);
    EXPECT_EQ(gPower.endtime, 150u);
}

TEST_F(HistoryTrackerTest, AFailedSaveIsRetriedWithTheNextSample) {
    const PowerHistorySample s{static_cast<uint32_t>(kT0), 1, 2, 3, 4, 5, 6};
    // The pacing itself: history_equivalence_test. A failed save keeps the
    // old save time, so the next sample tries again.
    std::filesystem::remove_all(root + "/pstorage/power");
    gMonotonic = 600;
    addSampleToPowerHistory(&s);
    EXPECT_EQ(gPower.lastSaveTime, 0);
    std::filesystem::create_directories(root + "/pstorage/power");
    gMonotonic = 601;
    addSampleToPowerHistory(&s);
    EXPECT_EQ(gPower.lastSaveTime, 601);
    EXPECT_EQ(std::filesystem::file_size(root + "/pstorage/power/PowerHistoryFull"), 9218u);
}

TEST_F(HistoryTrackerTest, RestartContinuesOnTheGridOfTheStoredSamples) {
    snap(0x7FFFFFFFu - 149); // a time whose interval would end past what a stamp holds
    EXPECT_EQ(gPower.endtime, 0u);
    for (uint64_t i = 0; i < 10; ++i)
        snap(kT0 + 30 * i);
    ASSERT_EQ(savePowerHistory(), 1);
    restart();
    EXPECT_EQ(gPower.endtime, kT0 + 270);
    snap(kT0 + 270 + 600);
    EXPECT_EQ(gPower.nextIndex, 2 + 3 + 1);
    EXPECT_EQ(values(gPower.ring[2]), (Values{8888, 8888, 8888, 8888, 8888, 8888})) << "unknown";
    EXPECT_EQ(gPower.ring[5].timestamp, kT0 + 870);
}

// Five readings of 20 kW sum past 16 bits; the sample's mean is still 20 kW.
TEST_F(HistoryTrackerTest, ABigServersSamplesAverageItsReadings) {
    for (uint64_t i = 0; i <= 10; ++i)
        snap(kT0 + 30 * i, 20000, 19000 + 100 * (i % 2));
    ASSERT_GE(gPower.nextIndex, 1);
    const PowerHistorySample &s = gPower.ring[gPower.nextIndex - 1];
    EXPECT_EQ(s.avgAC, 20000);
    EXPECT_EQ(s.minDC, 19000);
    EXPECT_EQ(s.maxDC, 19100);
    EXPECT_NEAR(s.avgDC, 19050, 50);
}

TEST_F(HistoryTrackerTest, PerformanceCountsZeroReadingsAndFillsGapsWithZeros) {
    trace::s32PowerHistoryLogLevel = 0;
    trackPowerPerformance(0, 0, 0, 0, 0);
    for (uint64_t i = 0; i < 5; ++i)
        trackPowerPerformance(kT0 + 30 * i, i == 0 ? 0 : 40 + i, 10 * i, 7, 70'001);
    EXPECT_EQ(gPerformance.ring[0].timestamp, kT0 + 120);
    EXPECT_EQ(values(gPerformance.ring[0]), (Values{0, 34, 44, 20, 7, 4465}));

    trackPowerPerformance(kT0 + 270 + 180, 50, 50, 50, 50);
    EXPECT_EQ(gPerformance.ring[1].timestamp, kT0 + 420);
    EXPECT_EQ(values(gPerformance.ring[1]), Values{});
    // Its interval line is always wanted; the power tracker's is not.
    EXPECT_TRUE(traced("\"trackPowerPerformance\": timestamp=1700000030, endtime=1700000120, "
                       "nextPerformanceSampleIndex=0, maxsystem=41, accsystem=41, minsystem=0, "
                       "cpu=10, mem=14, io=8930, accCount=2\n"));
}

} // namespace
} // namespace zelo::test
