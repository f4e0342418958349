// The read-only telemetry: history items, metric log records and power over a
// window, from files the tests write byte by byte. No script is set, so any
// firmware exchange fails the test.
#include "fake_platform.h"
#include "telemetry_files.h"

#include "history/history_internal.h"
#include "metriclog/state.h"

#include <zelo.h>

#include <cstring>
#include <filesystem>
#include <sys/stat.h>

namespace zelo::test {
namespace {

namespace fs = std::filesystem;
using namespace files;
constexpr uint16_t U = ZELO_POWER_HISTORY_UNKNOWN;

class TelemetryTest : public PlatformTest {
  protected:
    void writeRecords(const std::vector<Record> &records) {
        std::vector<Bytes> all;
        for (const Record &r : records)
            all.push_back(recordFile(r));
        writeLog(root, all, static_cast<uint8_t>(all.size() - 1));
    }
    void writeHistory(const Bytes &bytes) {
        writeFile(root + "/pstorage/power/PowerHistoryFull", bytes);
    }

    PowerWindowStats window(uint32_t seconds, uint8_t expect = ZELO_RC_SUCCESS) {
        PowerWindowStats st;
        std::memset(&st, 0xA5, sizeof st);
        EXPECT_EQ(GetPowerWindowStats(seconds, &st), expect) << seconds << " s";
        return st;
    }
};

TEST_F(TelemetryTest, HistoryItemsComeOldestFirstWithoutEmptySlotsAndUnknownsMarked) {
    // Wrapped ring: next slot 2 holds the oldest (t=1000), slots 0 and 1 the newest.
    writeHistory(ringFile(2, {{2, {1000, 1, 2, 3, 4, 5, 6}},
                              {575, {2000, U, U, U, U, U, U}},
                              {0, {2150, 7, 8, 9, 10, 11, 12}},
                              {1, {2300, 1, 1, 1, 1, 1, 1}}}));
    std::array<PowerHistoryItem, ZELO_HISTORY_SLOTS> items{};
    uint16_t count = 99;
    ASSERT_EQ(ReadPowerHistoryItems(items.data(), items.size(), &count), ZELO_RC_SUCCESS);
    ASSERT_EQ(count, 4);
    const uint32_t times[] = {1000, 2000, 2150, 2300};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(items[i].sSample.timestamp, times[i]);
        EXPECT_EQ(items[i].u8Unknown, i == 1) << i;
    }
    EXPECT_EQ(items[2].sSample.avgDC, 11);

    // Too little room keeps the newest.
    ASSERT_EQ(ReadPowerHistoryItems(items.data(), 2, &count), ZELO_RC_SUCCESS);
    EXPECT_EQ(items[0].sSample.timestamp, 2150u);

    // The reader leaves this process's own tracker alone.
    EXPECT_EQ(history::gPower.nextIndex, 0);
    EXPECT_EQ(history::gPower.ring[0].timestamp, 0u);
    // Performance items: zeloctl's history test.
}

TEST_F(TelemetryTest, AHistoryFileThatIsNotExactlyOneRingIsRefused) {
    const std::string path = root + "/pstorage/power/PowerHistoryFull";
    std::array<PowerHistoryItem, 1> items{};
    uint16_t count = 7;
    EXPECT_EQ(ReadPowerHistoryItems(items.data(), 1, &count), ZELO_RC_NO_DATA) << "missing";
    EXPECT_EQ(count, 0);

    const Bytes whole = ringFile(0, {{0, {100, 1, 1, 1, 1, 1, 1}}});
    const std::vector<std::pair<const char *, Bytes>> cases = {
        {"empty", {}},
        {"one byte short", Bytes(whole.begin(), whole.end() - 1)},
        {"one byte over", concat(whole, {0})},
        {"index out of range", ringFile(576, {{0, {100, 1, 1, 1, 1, 1, 1}}})},
    };
    for (const auto &[what, bytes] : cases) {
        writeFile(path, bytes);
        EXPECT_EQ(ReadPowerHistoryItems(items.data(), 1, &count), ZELO_RC_BAD_FILE) << what;
        EXPECT_EQ(count, 0) << what;
    }
    // Neither a FIFO nor a directory holds the caller up.
    fs::remove(path);
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(ReadPowerHistoryItems(items.data(), 1, &count), ZELO_RC_BAD_FILE) << "FIFO";
    fs::remove(path);
    fs::create_directory(path);
    EXPECT_EQ(ReadPowerHistoryItems(items.data(), 1, &count), ZELO_RC_BAD_FILE) << "directory";
    EXPECT_EQ(ReadPowerHistoryItems(nullptr, 1, &count), ZELO_RC_INVALID_PARAMETER);
}

TEST_F(TelemetryTest, MetricLogRecordsComeWholeOldestFirstUnderTheLock) {
    // A rotated log: file 2 was written last, so file 3 is the oldest.
    constexpr unsigned kFiles = 5;
    std::vector<Bytes> files;
    for (unsigned i = 0; i < kFiles; ++i)
        files.push_back(recordFile({(i < 3 ? i + kFiles : i) * 30000ull, 400, 350}, i == 2));
    writeLog(root, files, 2);
    // Whoever holds the lock is waited for, and the lock is released after.
    writeFile(root + "/tmp/zelo_log/zelo.lock", {1});
    hooks->sleep = [](unsigned) -> unsigned {
        fs::remove(std::string(std::getenv("ZELO_ROOT")) + "/tmp/zelo_log/zelo.lock");
        return 0;
    };
    LogRead log;
    uint8_t skipped = 9;
    ASSERT_EQ(ReadMetricLog(&log.buffers, &log.inlets, &log.perfs, &log.count, &skipped),
              ZELO_RC_SUCCESS);
    ASSERT_EQ(log.count, kFiles);
    EXPECT_EQ(skipped, 0);
    EXPECT_FALSE(fs::exists(root + "/tmp/zelo_log/zelo.lock"));
    for (unsigned i = 0; i < log.count; ++i)
        EXPECT_EQ(log.buffers[i].u64Timestamp, (i + 3) * 30000ull) << i;
    // The fields themselves: zeloctl's metrics test. Here the inlet order.
    const auto &newest = log.inlets[log.count - 1];
    ASSERT_EQ(newest.u8SensorNum, 2);
    EXPECT_STREQ(newest.psSensor->szTemperature, "20.5") << "file order";
    EXPECT_EQ(newest.psSensor->psNext->u32SensorIndex, 3u);
}

TEST_F(TelemetryTest, AMetricFileThatIsNotOneWholeRecordIsLeftOut) {
    const Bytes good = recordFile({30000, 400, 350});
    Bytes badPresence = good;
    badPresence[1 + 2 * 24 + 1] = 2; // the system AC presence byte
    const std::vector<std::pair<const char *, Bytes>> cases = {
        {"cut in a record", Bytes(good.begin(), good.end() - 70)},
        {"trailing bytes", concat(good, {0})},
        {"presence byte 2", badPresence},
        {"counts beyond the file", Bytes{255, 1, 2, 3}},
        {"empty", {}},
    };
    for (const auto &[what, bytes] : cases) {
        SCOPED_TRACE(what);
        for (const bool alone : {false, true}) {
            writeLog(root, alone ? std::vector<Bytes>{bytes} : std::vector<Bytes>{good, bytes},
                     alone ? 0 : 1);
            LogRead log;
            uint8_t skipped = 0;
            EXPECT_EQ(ReadMetricLog(&log.buffers, &log.inlets, &log.perfs, &log.count, &skipped),
                      alone ? ZELO_RC_BAD_FILE : ZELO_RC_SUCCESS);
            EXPECT_EQ(log.count, alone ? 0 : 1);
            EXPECT_EQ(skipped, 1);
            EXPECT_EQ(log.buffers == nullptr, alone);
        }
    }
}

TEST_F(TelemetryTest, NothingToSummariseAndWindowsOutOfRange) {
    window(3600, ZELO_RC_NO_DATA);  // no log directory
    window(86400, ZELO_RC_NO_DATA); // nor history
    writeRecords({{30000, 400, 350}});
    window(0, ZELO_RC_INVALID_PARAMETER);
    window(86401, ZELO_RC_INVALID_PARAMETER);
    EXPECT_EQ(GetPowerWindowStats(60, nullptr), ZELO_RC_INVALID_PARAMETER);
    writeLog(root, {}, 0);
    window(60, ZELO_RC_NO_DATA);
}

TEST_F(TelemetryTest, WindowsAgainstHandComputedFigures) {
    using Ring = std::map<uint16_t, PowerHistorySample>;
    constexpr uint64_t T = 1'700'000'000, E = T + 119 * 30;
    std::vector<Record> hour; // 120 records, one at 400 W DC
    for (uint64_t i = 0; i < 120; ++i)
        hour.push_back({(T + i * 30) * 1000, 372, i == 60 ? 400u : 350u});
    // A missed snapshot (60 s) is one interval; five minutes stopped are nine
    // unknown intervals; a record without DC power is one more.
    const std::vector<Record> gaps = {{30000, 400, 300},
                                      {90000, 400, 300},
                                      {390000, 400, 500},
                                      {420000, 400, 500},
                                      {450000, 0, 0}};
    // On the 150-s grid ending at 1500 s, one sample unknown; of the records
    // only those after 1500 s count.
    const Ring grid = {{0, {1200, 90, 100, 110, 80, 90, 100}},
                       {1, {1350, U, U, U, U, U, U}},
                       {2, {1500, 190, 200, 210, 180, 190, 200}}};
    const std::vector<Record> after = {{1470000, 1000, 1000},
                                       {1500000, 1000, 1000},
                                       {1530000, 300, 250},
                                       {1560000, 300, 250},
                                       {1590000, 310, 260}};
    // The history ran ahead before the firmware clock was set back.
    const Ring ahead = {{0, {5000, 100, 100, 100, 100, 100, 100}},
                        {1, {5150, 100, 100, 100, 100, 100, 100}}};
    const std::vector<Record> stepped = {{4000000, 200, 200}, {1000000, 300, 300}};
    const std::vector<Record> one = {{30000, 400, 350}};
    // Start, end, known and unknown intervals; then AC and DC each: energy,
    // newest, minimum, average, maximum.
    using Want = std::array<uint64_t, 14>;
    const auto check = [&](const char *what, const Ring *history,
                           const std::vector<Record> *records, uint32_t seconds, const Want &want) {
        SCOPED_TRACE(what);
        fs::remove_all(root + "/tmp/zelo_log");
        fs::remove_all(root + "/pstorage");
        if (history != nullptr)
            writeHistory(ringFile(static_cast<uint16_t>(history->size()), *history));
        if (records != nullptr)
            writeRecords(*records);
        const auto st = window(seconds);
        const auto &a = st.sAC, &d = st.sDC;
        EXPECT_EQ(want, (Want{st.u64Start, st.u64End, st.u32Intervals, st.u32UnknownIntervals,
                              a.u64EnergyJ, a.u32Newest, a.u32Min, a.u32Avg, a.u32Max, d.u64EnergyJ,
                              d.u32Newest, d.u32Min, d.u32Avg, d.u32Max}));
    };
    check("an hour of records covers exactly the hour", nullptr, &hour, 3600,
          {E - 3600, E, 120, 0, 372 * 3600, 372, 372, 372, 372, //
           350 * 3600 + 50 * 30, 350, 350, 350, 400});
    check("the shortest window is the newest record", nullptr, &hour, 30,
          {E - 30, E, 1, 0, 372 * 30, 372, 372, 372, 372, 350 * 30, 350, 350, 350, 350});
    check("a window cuts the oldest record it reaches", nullptr, &hour, 45,
          {E - 45, E, 2, 0, 372 * 45, 372, 372, 372, 372, 350 * 45, 350, 350, 350, 350});
    check("gaps folded or counted unknown", nullptr, &gaps, 3600,
          {0, 450, 4, 10, 400 * 150, 400, 400, 400, 400, 300 * 90 + 500 * 60, 500, 300, 380, 500});
    check("history, then the records newer than it", &grid, &after, 86400,
          {1050, 1590, 5, 1, 100 * 150 + 200 * 150 + 300 * 60 + 310 * 30, 310, 90, 185, 310, //
           90 * 150 + 190 * 150 + 250 * 60 + 260 * 30, 260, 80, 166, 260});
    check("history only", &grid, nullptr, 86400,
          {1050, 1500, 2, 1, 100 * 150 + 200 * 150, 200, 90, 150, 210, //
           90 * 150 + 190 * 150, 190, 80, 140, 200});
    check("a clock step back ends the window at the newest record", &ahead, &stepped, 86400,
          {970, 1000, 1, 0, 300 * 30, 300, 300, 300, 300, 300 * 30, 300, 300, 300, 300});
    ::setenv("RUX_FAMILY", "blade", 1);
    check("on a blade the DC figures come from the AC record", nullptr, &one, 30,
          {0, 30, 1, 0, 350 * 30, 350, 350, 350, 350, 400 * 30, 400, 400, 400, 400});
    // A short window needs the log.
    fs::remove_all(root + "/tmp/zelo_log");
    writeHistory(ringFile(3, grid));
    window(3600, ZELO_RC_NO_DATA);
}

} // namespace
} // namespace zelo::test
