// The read-only telemetry: history items, metric log records and power over a
// window, from files the tests write byte by byte. No script is set, so any
// firmware exchange fails the test.
#include "fake_platform.h"
#include "telemetry_files.h"

#include "history/history_internal.h"
#include "metriclog/state.h"

#include <zelo.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <poll.h>
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
    // A rotated log (file 2 written last, so file 3 is the oldest), and one
    // not yet full whose second counter a kill left one behind: its files
    // are 0 up whatever that counter says.
    const struct { unsigned files, last, oldest; } cases[] = {{120, 2, 3}, {7, 5, 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.files);
        fs::remove_all(root + "/tmp/zelo_log");
        std::vector<Bytes> files;
        const unsigned newest = (c.oldest + c.files - 1) % c.files;
        for (unsigned i = 0; i < c.files; ++i)
            files.push_back(
                recordFile({(i < c.oldest ? i + c.files : i) * 30000ull, 400, 350}, i == newest));
        writeLog(root, files, static_cast<uint8_t>(c.last));
        // Whoever holds the lock is waited for, and the lock is released after.
        writeFile(root + "/tmp/zelo_log/zelo.lock", {1});
        hooks->poll = [](struct pollfd *fds, nfds_t count, int) {
            fs::remove(std::string(std::getenv("ZELO_ROOT")) + "/tmp/zelo_log/zelo.lock");
            return ::poll(fds, count, 0);
        };
        LogRead log;
        uint8_t skipped = 9;
        ASSERT_EQ(ReadMetricLog(&log.buffers, &log.inlets, &log.perfs, &log.count, &skipped),
                  ZELO_RC_SUCCESS);
        ASSERT_EQ(log.count, c.files);
        EXPECT_EQ(skipped, 0);
        EXPECT_FALSE(fs::exists(root + "/tmp/zelo_log/zelo.lock"));
        for (unsigned i = 0; i < log.count; ++i)
            EXPECT_EQ(log.buffers[i].u64Timestamp, (i + c.oldest) * 30000ull) << i;
        // The fields themselves: zeloctl's metrics test. Here the inlet order:
        // the writer stores its list as collected, each sensor put in front,
        // so the reader's list, built the same way, is in the sensors' order.
        const auto &inlets = log.inlets[log.count - 1];
        ASSERT_EQ(inlets.u8SensorNum, 2);
        EXPECT_STREQ(inlets.psSensor->szTemperature, "23.5") << "the file's last reading first";
        EXPECT_EQ(inlets.psSensor->psNext->u32SensorIndex, 0u);
    }
}

// Both readers decode the same way: a cut file is refused by the daemon's
// reader too (-1), which leaves bytes after a whole record unread. The
// platform offers performance figures, so it reads their block.
TEST_F(TelemetryTest, AMetricFileThatIsNotOneWholeRecordIsLeftOut) {
    useFirmware("perf 30 40 50 60\n");
    const Bytes good = recordFile({30000, 400, 350}), withPerf = recordFile({30000, 1, 1}, true);
    Bytes badPresence = good;
    badPresence[1 + 2 * 24 + 1] = 2; // the system AC presence byte
    const struct {
        const char *what;
        Bytes bytes;
        int exported; // ReadMeticValueFromFile's result
    } cases[] = {
        {"cut in a record", Bytes(good.begin(), good.end() - 70), -1},
        {"cut in the performance block", Bytes(withPerf.begin(), withPerf.end() - 1), -1},
        {"trailing bytes", concat(withPerf, {0}), 0},
        {"presence byte 2", badPresence, -1},
        {"counts beyond the file", Bytes{255, 1, 2, 3}, -1},
        {"empty", {}, -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        for (const bool alone : {false, true}) {
            writeLog(root, alone ? std::vector<Bytes>{c.bytes} : std::vector<Bytes>{good, c.bytes},
                     alone ? 0 : 1);
            LogRead log;
            uint8_t skipped = 0;
            const std::size_t exchanges = fake().exchanges;
            EXPECT_EQ(ReadMetricLog(&log.buffers, &log.inlets, &log.perfs, &log.count, &skipped),
                      alone ? ZELO_RC_BAD_FILE : ZELO_RC_SUCCESS);
            EXPECT_EQ(fake().exchanges, exchanges) << "the firmware is not asked";
            EXPECT_EQ(log.count, alone ? 0 : 1);
            EXPECT_EQ(skipped, 1);
            EXPECT_EQ(log.buffers == nullptr, alone);
        }
        SnapshotBuffer s{};
        BladeInletSensorBuffer l{};
        PerfMetricSet f{};
        testing::internal::CaptureStdout();
        const std::string path = root + "/tmp/zelo_log/zelo_0.log";
        EXPECT_EQ(ReadMeticValueFromFile(path.c_str(), &s, &l, &f), c.exported);
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(s.psSystemAC != nullptr && l.psSensor != nullptr && f.psIOPerf != nullptr,
                  c.exported == 0)
            << "all of a whole record, nothing of a cut one";
        FreeSignalMetricValue(&s, &l, &f);
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

// Start, end, known and unknown intervals; then AC and DC each: energy,
// newest, minimum, average, maximum.
using Want = std::array<uint64_t, 14>;
Want figuresOf(const PowerWindowStats &st) {
    const auto &a = st.sAC, &d = st.sDC;
    return {st.u64Start,  st.u64End,    st.u32Intervals, st.u32UnknownIntervals,
            a.u64EnergyJ, a.u32Newest,  a.u32Min,        a.u32Avg,
            a.u32Max,     d.u64EnergyJ, d.u32Newest,     d.u32Min,
            d.u32Avg,     d.u32Max};
}

uint64_t avg(uint64_t joules, uint64_t seconds) {
    return static_cast<uint64_t>(std::lround(static_cast<double>(joules) / seconds));
}

TEST_F(TelemetryTest, ADayOfKnownStepsAgainstHandComputedFigures) {
    // Eight hours of history ending at E, and the metric log of the 21
    // minutes since a firmware restart emptied it. The sample ending at
    // E - 150 k, by its age k:
    //   k 120-191  DC 50/200/600 W (trough/average/peak), AC 230/250/290
    //   k 9-119    DC 380/400/450, AC 460/480/520; k 100 unknown, k 30-31 never
    //              written (five minutes without a reading)
    //   k 8        the restart's interval: DC 280/350/410, AC 340/420/490
    //   k 0-7      what the records below made of it, newest at E: the save
    //              came with the newest record
    // The records: the placeholder at E - 1230 (no figure), then DC 300 W and
    // AC 360 W up to E - 600, DC 500 W and AC 600 W after, each 10 W either
    // side of its average at its trough and peak.
    constexpr uint64_t E = 1'700'000'100; // on the 150-second grid
    std::map<uint16_t, PowerHistorySample> ring;
    for (uint16_t k = 0; k < 192; ++k) {
        const auto t = static_cast<uint32_t>(E - 150 * k);
        const auto slot = static_cast<uint16_t>(191 - k);
        if (k == 30 || k == 31)
            continue;
        ring[slot] = k == 100  ? PowerHistorySample{t, U, U, U, U, U, U}
                     : k > 119 ? PowerHistorySample{t, 230, 250, 290, 50, 200, 600}
                     : k > 8   ? PowerHistorySample{t, 460, 480, 520, 380, 400, 450}
                     : k == 8  ? PowerHistorySample{t, 340, 420, 490, 280, 350, 410}
                     : k > 3   ? PowerHistorySample{t, 360, 360, 360, 300, 300, 300}
                               : PowerHistorySample{t, 600, 600, 600, 500, 500, 500};
    }
    writeHistory(ringFile(192, ring));
    std::vector<Record> records = {{(E - 1230) * 1000, 0, 0}};
    for (uint64_t t = E - 1200; t <= E; t += 30)
        records.push_back({t * 1000, t <= E - 600 ? 360u : 600u, t <= E - 600 ? 300u : 500u});
    writeRecords(records);

    // The records' 1230 s with a reading: 630 s at the first step, 600 at the second.
    constexpr uint64_t acRecords = 360 * 630 + 600 * 600, dcRecords = 300 * 630 + 500 * 600;
    // The history before them starts with 90 s of the restart's sample.
    constexpr uint64_t acBefore = 420 * 90, dcBefore = 350 * 90;
    // Full samples at 400 W DC between the restart and two hours back, the
    // gap's two left out: k 9-47 but 30 and 31; up to six hours also k 48-119
    // but 100.
    constexpr uint64_t twoHours = 37 * 150, sixHours = twoHours + 71 * 150;
    // Newest 600 W AC and 500 W DC in every window; the averages are energy
    // over the seconds with a reading.
    const auto figures = [&](uint64_t start, uint32_t known, uint32_t unknown, uint64_t acJ,
                             uint64_t dcJ, uint64_t seconds, std::array<uint64_t, 4> extremes) {
        const uint64_t acAvg = avg(acJ, seconds), dcAvg = avg(dcJ, seconds);
        const auto [acMin, acMax, dcMin, dcMax] = extremes;
        return Want{start, E,     known, unknown, acJ,   600,   acMin,
                    acAvg, acMax, dcJ,   500,     dcMin, dcAvg, dcMax};
    };
    const std::vector<std::pair<uint32_t, Want>> windows = {
        // The newest record alone.
        {30, {E - 30, E, 1, 0, 600 * 30, 600, 590, 600, 610, 500 * 30, 500, 490, 500, 510}},
        // 37 minutes: the records, the restart's 90 s, k 9-13 and 120 s of k 14.
        {37 * 60, figures(E - 37 * 60, 41 + 7, 1, acBefore + 480 * 870 + acRecords,
                          dcBefore + 400 * 870 + dcRecords, 2220 - 30, {340, 610, 280, 510})},
        {3600, figures(E - 3600, 41 + 16, 1, acBefore + 480 * 2250 + acRecords,
                       dcBefore + 400 * 2250 + dcRecords, 3600 - 30, {340, 610, 280, 510})},
        // The gap: two unknown 150-second periods.
        {7200,
         figures(E - 7200, 41 + 1 + 37, 1 + 2, acBefore + 480 * twoHours + acRecords,
                 dcBefore + 400 * twoHours + dcRecords, 7200 - 30 - 300, {340, 610, 280, 510})},
        // Three hours more: 24 samples of the first step and the unknown one.
        {6 * 3600, figures(E - 6 * 3600, 41 + 1 + 108 + 24, 1 + 2 + 1,
                           acBefore + 480 * sixHours + 250 * 24 * 150 + acRecords,
                           dcBefore + 400 * sixHours + 200 * 24 * 150 + dcRecords,
                           6 * 3600 - 30 - 300 - 150, {230, 610, 50, 600})},
        // The whole history: eight hours.
        {86400, figures(E - 8 * 3600, 41 + 1 + 108 + 72, 1 + 2 + 1,
                        acBefore + 480 * sixHours + 250 * 72 * 150 + acRecords,
                        dcBefore + 400 * sixHours + 200 * 72 * 150 + dcRecords,
                        8 * 3600 - 30 - 300 - 150, {230, 610, 50, 600})},
    };
    for (const auto &[seconds, want] : windows)
        EXPECT_EQ(figuresOf(window(seconds)), want) << seconds << " s";
}

TEST_F(TelemetryTest, WindowsAtTheEdges) {
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
    const Ring grid = {{0, {1200, 90, 100, 110, 80, 90, 100}},
                       {1, {1350, U, U, U, U, U, U}},
                       {2, {1500, 190, 200, 210, 180, 190, 200}}};
    // The history ran ahead before the firmware clock was set back.
    const Ring ahead = {{0, {5000, 100, 100, 100, 100, 100, 100}},
                        {1, {5150, 100, 100, 100, 100, 100, 100}}};
    const std::vector<Record> stepped = {{4000000, 200, 200}, {1000000, 300, 300}};
    const std::vector<Record> one = {{30000, 400, 350}};
    const auto check = [&](const char *what, const Ring *history,
                           const std::vector<Record> *records, uint32_t seconds, const Want &want) {
        SCOPED_TRACE(what);
        fs::remove_all(root + "/tmp/zelo_log");
        fs::remove_all(root + "/pstorage");
        if (history != nullptr)
            writeHistory(ringFile(static_cast<uint16_t>(history->size()), *history));
        if (records != nullptr)
            writeRecords(*records);
        EXPECT_EQ(figuresOf(window(seconds)), want);
    };
    check("an hour of records covers exactly the hour", nullptr, &hour, 3600,
          {E - 3600, E, 120, 0, 372 * 3600, 372, 362, 372, 382, //
           350 * 3600 + 50 * 30, 350, 340, 350, 410});
    check("a window cuts the oldest record it reaches", nullptr, &hour, 45,
          {E - 45, E, 2, 0, 372 * 45, 372, 362, 372, 382, 350 * 45, 350, 340, 350, 360});
    check("gaps folded or counted unknown", nullptr, &gaps, 3600,
          {0, 450, 4, 10, 400 * 150, 400, 390, 400, 410, 300 * 90 + 500 * 60, 500, 290, 380, 510});
    check("the history alone", &grid, nullptr, 86400,
          {1050, 1500, 2, 1, 100 * 150 + 200 * 150, 200, 90, 150, 210, //
           90 * 150 + 190 * 150, 190, 80, 140, 200});
    check("a short window from the history alone", &grid, nullptr, 60,
          {1440, 1500, 1, 0, 200 * 60, 200, 190, 200, 210, 190 * 60, 190, 180, 190, 200});
    check("a clock step back ends the window at the newest record", &ahead, &stepped, 86400,
          {970, 1000, 1, 0, 300 * 30, 300, 290, 300, 310, 300 * 30, 300, 290, 300, 310});
    ::setenv("RUX_FAMILY", "blade", 1);
    check("on a blade the DC figures come from the AC record", nullptr, &one, 30,
          {0, 30, 1, 0, 350 * 30, 350, 340, 350, 360, 400 * 30, 400, 390, 400, 410});
}

} // namespace
} // namespace zelo::test
