// The history files: summary records and their keys, the full file's bytes,
// the load refusals, the print, and a save killed half-way.
#include "fake_platform.h"

#include "history/history_internal.h"
#include "tracelog/state.h"

#include <zelo/history.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zelo::test {
namespace {

using history::gPerformance;
using history::gPower;

constexpr std::time_t kNow = 1'800'000'000;

class HistoryFilesTest : public PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        history::gTime = [](std::time_t *) { return kNow; };
        history::gMonotonicSeconds = [] { return int64_t{0}; };
        trace::s32PowerHistoryLogLevel = 2;
        trace::u32TraceLogIndex = 0;
        std::filesystem::create_directories(root + "/tmp/zelo_trace");
        std::filesystem::create_directories(root + "/pstorage/power");
    }
    void TearDown() override {
        trace::s32PowerHistoryLogLevel = 0;
        PlatformTest::TearDown();
    }
    Bytes read(const std::string &path) const {
        std::ifstream in(root + path, std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(in), {});
    }
    void write(const std::string &path, const Bytes &bytes) const {
        std::ofstream(root + path, std::ios::binary)
            .write(reinterpret_cast<const char *>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
    }
    std::string trace() const {
        const auto bytes = read("/tmp/zelo_trace/zelo_trace_log_0.txt");
        return std::string(bytes.begin(), bytes.end());
    }
    bool traced(const std::string &text) const { return trace().find(text) != std::string::npos; }
};

// Time stamp and six values, little-endian, in record order.
Bytes le(uint32_t timestamp, std::array<uint16_t, 6> values) {
    Bytes b{static_cast<uint8_t>(timestamp), static_cast<uint8_t>(timestamp >> 8),
            static_cast<uint8_t>(timestamp >> 16), static_cast<uint8_t>(timestamp >> 24)};
    for (uint16_t v : values)
        b.insert(b.end(), {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8)});
    return b;
}
Bytes le(const PowerHistorySample &s) {
    return le(s.timestamp, {s.minAC, s.avgAC, s.maxAC, s.minDC, s.avgDC, s.maxDC});
}
Bytes zeros(std::size_t n) {
    return Bytes(n, 0);
}
Bytes summaryHead() {
    return {24, 0};
}

TEST_F(HistoryFilesTest, AnEmptyRingGivesZeroRecordsAndKeysOfMinusOne) {
    generatePowerHistoryFiles();
    for (const char *name : {"1Hour", "6Hours", "12Hours", "24Hours"})
        EXPECT_EQ(read(std::string("/tmp/PowerHistoryLast") + name),
                  concat(summaryHead(), zeros(384)))
            << name;
    EXPECT_EQ(fake().storeCalls,
              (std::vector<std::string>{"set_int ZELO_max_dc_last_24hours=-1 flag 0",
                                        "set_int ZELO_max_ac_last_24hours=-1 flag 0"}));
}

TEST_F(HistoryFilesTest, RecordsEndBeforeTheNextIndexAndWalkOnFromTheStart) {
    gPower.ring[0] = {0x01020304, 10, 20, 30, 40, 50, 60};
    int dc = 7, ac = 7;
    EXPECT_EQ(generatePowerHistoryFile("/tmp/h1", 1, 1, &dc, &ac), 1);
    EXPECT_EQ(read("/tmp/h1"), concat(concat(summaryHead(), zeros(23 * 16)),
                                      {4, 3, 2, 1, 10, 0, 20, 0, 30, 0, 40, 0, 50, 0, 60, 0}));
    EXPECT_EQ(dc, -1);
    EXPECT_EQ(ac, -1);

    // Six entries a record from slot 100 - 144 + 576 = 532 on, through 575 to 0.
    for (uint32_t i = 0; i < 576; ++i)
        gPower.ring[i] = {1000 + i, 1, 2, 3, 4, 5, 6};
    EXPECT_EQ(generatePowerHistoryFile("/tmp/h6", 100, 6, &dc, &ac), 1);
    const Bytes six = read("/tmp/h6");
    EXPECT_EQ(Bytes(six.begin() + 2, six.begin() + 18), le(1537, {1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(Bytes(six.end() - 16, six.end()), le(1099, {1, 2, 3, 4, 5, 6}));
    EXPECT_TRUE(traced("\"generatePowerHistoryFile\": nextSampleIndex=100, idx=532\n"));
    EXPECT_EQ(dc, 6);
    EXPECT_EQ(ac, 3);
}

TEST_F(HistoryFilesTest, HoursFoldValidEntriesOnlyIn16BitSums) {
    // Next index 0: the whole ring from slot 0, an hour per record.
    for (uint16_t i = 0; i < 576; ++i)
        gPower.ring[i] = {1000u + 150u * i,
                          1000,
                          3000,
                          static_cast<uint16_t>(5000 + i),
                          900,
                          950,
                          static_cast<uint16_t>(1000 + i)};
    for (int i = 24; i < 72; ++i) // hours 1 and 2 unknown ...
        gPower.ring[i] = {gPower.ring[i].timestamp, 8888, 8888, 8888, 8888, 8888, 8888};
    gPower.ring[53] = {1, 7, 8, 9, 10, 11, 12};                      // ... but one sample
    gPower.ring[72] = {0, 60000, 60000, 60000, 60000, 60000, 60000}; // never written
    gPower.ring[73].maxAC = 8888; // only avgDC marks an unknown sample
    int dc = 0, ac = 0;
    ASSERT_EQ(generatePowerHistoryFile("/tmp/h24", 0, 24, &dc, &ac), 1);
    const Bytes bytes = read("/tmp/h24");
    auto record = [&](int r) {
        return Bytes(bytes.begin() + 2 + 16 * r, bytes.begin() + 18 + 16 * r);
    };
    // 24 x 3000 = 72 000 wraps to 6464; 6464 / 24 = 269.
    EXPECT_EQ(record(0), le(1000 + 150 * 23, {1000, 269, 5023, 900, 950, 1023}));
    EXPECT_EQ(record(1), zeros(16));
    EXPECT_EQ(record(2), le(1000 + 150 * 71, {7, 8, 9, 10, 11, 12}));
    EXPECT_EQ(record(3), le(1000 + 150 * 95, {1000, 3000 * 23 % 65536 / 23, 8888, 900, 950, 1095}));
    EXPECT_EQ(dc, -1);
    EXPECT_EQ(ac, -1);
    EXPECT_TRUE(traced("[Info] \"generatePowerHistoryFile\": Writing unknown data sample 1 "
                       "timestamp=8050 for file '/tmp/h24'\n"));
    EXPECT_TRUE(traced("minAC=7, avgAC=8, maxAC=9, minDC=10, avgDC=11, maxDC=12, tstamp=11650, "
                       "idx=72, numsamplesforavg=1 fname=/tmp/h24\n"));

    for (uint16_t i = 24; i < 48; ++i) // hour 1 known again
        gPower.ring[i] = {1000u + 150u * i,
                          1000,
                          3000,
                          static_cast<uint16_t>(5000 + i),
                          900,
                          950,
                          static_cast<uint16_t>(1000 + i)};
    generatePowerHistoryFiles();
    EXPECT_EQ(fake().store["ZELO_max_dc_last_24hours"], 1575);
    EXPECT_EQ(fake().store["ZELO_max_ac_last_24hours"], 8888);
}

TEST_F(HistoryFilesTest, PerformanceUnknownSamplesCountAsZeroAndNoKeyIsWritten) {
    for (uint16_t i = 0; i < 576; ++i)
        gPerformance.ring[i] = {100u + i, 20, 30, 40, 12, 13, 14};
    gPerformance.ring[575] = {675, 0, 0, 0, 0, 0, 0};
    gPerformance.nextIndex = 0;
    trace::s32PowerHistoryLogLevel = 0;
    generatePowerPerformanceFiles();
    const Bytes hour = read("/tmp/PowerPerformanceLast24Hours");
    EXPECT_EQ(Bytes(hour.end() - 16, hour.end()),
              le(675, {0, 30 * 23 / 24, 40, 12 * 23 / 24, 13 * 23 / 24, 14 * 23 / 24}));
    EXPECT_TRUE(fake().storeCalls.empty());
    EXPECT_TRUE(traced("\"generatePowerPerformanceFile\": min=0, avg=28, max=40, cpu=11, mem=12, "
                       "io=13, tstamp=675, idx=0, numsamplesforavg=24 "
                       "fname=/tmp/PowerPerformanceLast24Hours\n"));
}

TEST_F(HistoryFilesTest, ASummaryFileThatCannotBeWrittenKeepsItsOutputsAtZero) {
    int dc = 5, ac = 5;
    EXPECT_EQ(generatePowerHistoryFile("/missing/dir/file", 0, 1, &dc, &ac), 0);
    EXPECT_EQ(dc, 0);
    EXPECT_EQ(ac, 0);
    EXPECT_TRUE(traced("[Error, couldn't open file] \"generatePowerHistoryFile\": "
                       "/missing/dir/file\n"));
    EXPECT_EQ(generatePowerHistoryFile("/tmp/x", 576, 1, &dc, &ac), 0);
    EXPECT_EQ(generatePowerHistoryFile("/tmp/x", 0, 25, &dc, &ac), 0);
    EXPECT_FALSE(std::filesystem::exists(root + "/tmp/x"));
}

// What the full-file tests need of either family.
struct Family {
    const char *path;
    const char *noun;
    const char *loadName;
    int (*load)();
    int (*save)();
    uint16_t *next;
    void (*stamp)(int slot, uint32_t timestamp);
    uint32_t (*stampAt)(int slot);
};
const Family kFamilies[] = {
    {"/pstorage/power/PowerHistoryFull", "power history", "loadPowerHistory", loadPowerHistory,
     savePowerHistory, &gPower.nextIndex, [](int i, uint32_t t) { gPower.ring[i].timestamp = t; },
     [](int i) { return gPower.ring[i].timestamp; }},
    {"/pstorage/power/PowerPerformanceFull", "power performance", "loadPowerPerformance",
     loadPowerPerformance, savePowerPerformance, &gPerformance.nextIndex,
     [](int i, uint32_t t) { gPerformance.ring[i].timestamp = t; },
     [](int i) { return gPerformance.ring[i].timestamp; }},
};

// A full file naming next as the next slot, with the given time stamps.
Bytes fullFile(uint16_t next, std::vector<std::pair<int, uint32_t>> stamps) {
    Bytes b = concat({static_cast<uint8_t>(next), static_cast<uint8_t>(next >> 8)}, zeros(9216));
    for (auto [slot, t] : stamps)
        for (int i = 0; i < 4; ++i)
            b[2 + 16 * slot + i] = static_cast<uint8_t>(t >> (8 * i));
    return b;
}

TEST_F(HistoryFilesTest, FullFilesAreTheIndexAndTheSlotsLittleEndian) {
    gPower.ring[2] = {0x0A0B0C0D, 0x0102, 3, 4, 5, 6, 0xFFFE};
    gPower.nextIndex = 3;
    gPerformance.ring[575] = {7, 1, 2, 3, 4, 5, 0x0607};
    gPerformance.nextIndex = 0x0123;
    ASSERT_EQ(savePowerHistory(), 1);
    ASSERT_EQ(savePowerPerformance(), 1);
    const Bytes power = read("/pstorage/power/PowerHistoryFull");
    ASSERT_EQ(power.size(), 9218u);
    EXPECT_EQ(Bytes(power.begin(), power.begin() + 2), (Bytes{3, 0}));
    EXPECT_EQ(Bytes(power.begin() + 34, power.begin() + 50),
              (Bytes{0x0D, 0x0C, 0x0B, 0x0A, 2, 1, 3, 0, 4, 0, 5, 0, 6, 0, 0xFE, 0xFF}));
    const Bytes perf = read("/pstorage/power/PowerPerformanceFull");
    ASSERT_EQ(perf.size(), 9218u);
    EXPECT_EQ(Bytes(perf.begin(), perf.begin() + 2), (Bytes{0x23, 0x01}));
    EXPECT_EQ(Bytes(perf.end() - 16, perf.end()), le(7, {1, 2, 3, 4, 5, 0x0607}));
    EXPECT_FALSE(std::filesystem::exists(root + "/pstorage/power/PowerHistoryFull.tmp"));

    history::resetHistories();
    history::gTime = [](std::time_t *) { return kNow; };
    EXPECT_EQ(loadPowerHistory(), 1);
    EXPECT_EQ(le(gPower.ring[2]), le(0x0A0B0C0D, {0x0102, 3, 4, 5, 6, 0xFFFE}));
    EXPECT_EQ(gPower.nextIndex, 3);
}

TEST_F(HistoryFilesTest, UnusableFullFilesAreRefusedAndTheHistoryStartsAfresh) {
    struct Case {
        const char *what;
        Bytes file; // empty: no file
        std::string message;
    };
    for (const auto &f : kFamilies) {
        const std::string noun = f.noun, path = f.path;
        const Case cases[] = {
            {"missing", {}, ""},
            {"header short", {1}, "Reading " + noun + " data header for file '" + path},
            {"one byte short", Bytes(9217, 0), "Reading " + noun + " data for file '" + path},
            {"one byte long", Bytes(9219, 0), "File '" + path + "' is longer than 9218 bytes"},
            {"newest sample before 1970", fullFile(1, {{0, 0xFFFFFC22u}}),
             "Sample 0 in file '" + path + "' has the negative time stamp -990"},
            {"an unwritten slot stamped by an old shift",
             fullFile(1, {{0, 1000}, {9, 0xFFFFFC22u}}),
             "Sample 9 in file '" + path + "' has the negative time stamp -990"},
            {"index out of range", fullFile(576, {}),
             "Next sample index 576 in file '" + path + "' is out of range"},
            {"newest sample in the future (slot 575 when the index is 0)",
             fullFile(0, {{575, kNow + 1}}),
             "Current time 1800000000 is less than last power history sample 1800000001. "
             "Reseting power history.\n\n"},
        };
        for (const auto &c : cases) {
            SCOPED_TRACE(std::string(f.noun) + ": " + c.what);
            std::filesystem::remove(root + "/tmp/zelo_trace/zelo_trace_log_0.txt");
            std::filesystem::remove(root + path);
            if (!c.file.empty())
                write(path, c.file);
            f.stamp(7, 99);
            *f.next = 9;
            EXPECT_EQ(f.load(), 0);
            EXPECT_EQ(f.stampAt(7), 0u);
            EXPECT_EQ(*f.next, 0);
            EXPECT_TRUE(c.message.empty() || traced(c.message)) << trace();
            EXPECT_TRUE(traced("[Info] \"" + std::string(f.loadName) + "\": Could not open " +
                               noun + " file '" + path + "', starting from scratch\n"));
        }
        // Only the newest slot is checked against the clock.
        write(path, fullFile(0, {{574, kNow + 1}, {575, kNow}}));
        EXPECT_EQ(f.load(), 1);
        EXPECT_EQ(f.stampAt(574), static_cast<uint32_t>(kNow + 1));
    }
}

TEST_F(HistoryFilesTest, LoadCreatesTheMissingDirectoryForTheGroupOnly) {
    std::filesystem::remove_all(root + "/pstorage/power");
    EXPECT_EQ(loadPowerHistory(), 0);
    struct stat st {};
    ASSERT_EQ(::stat((root + "/pstorage/power").c_str(), &st), 0);
    const mode_t mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(st.st_mode & 0777, 0070u) << "whatever the umask " << mask;
    EXPECT_EQ(loadPowerPerformance(), 0);
    const std::string text = trace();
    const std::string created = "Power history file dir '/pstorage/power' not found, creating it";
    EXPECT_NE(text.find("\"loadPowerHistory\": " + created), std::string::npos);
    EXPECT_EQ(text.find("\"loadPowerPerformance\": " + created), std::string::npos);
}

TEST_F(HistoryFilesTest, PrintShowsThePersistedRingOldestFirstDcBeforeAc) {
    testing::internal::CaptureStdout();
    printFullPowerHistory();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error loading power history file\n");

    gPower.ring[575] = {1'700'000'000, 1, 2, 3, 4, 5, 6};
    gPower.ring[0] = {1'700'000'150, 8888, 8888, 8888, 8888, 8888, 8888};
    gPower.nextIndex = 575;
    ASSERT_EQ(savePowerHistory(), 1);
    gPower = {};
    testing::internal::CaptureStdout();
    printFullPowerHistory();
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.substr(0, 3 * 54), "Index   Timestamp MinDC AvgDC MaxDC MinAC AvgAC MaxAC\n"
                                     "  575  1700000000     4     5     6     1     2     3\n"
                                     "    0  1700000150  8888  8888  8888  8888  8888  8888\n");
    EXPECT_NE(out.find("\n  574           0     0     0     0     0     0     0\n"
                       "\nCurrent time=1800000000, Unknown sample=8888\n\n"),
              std::string::npos);
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1 + 576 + 3);

    gPerformance.ring[0] = {5, 1, 2, 3, 4, 5, 6};
    gPerformance.nextIndex = 0;
    ASSERT_EQ(savePowerPerformance(), 1);
    testing::internal::CaptureStdout();
    printFullPowerPerformance();
    EXPECT_EQ(testing::internal::GetCapturedStdout().substr(0, 2 * 54),
              "Index   Timestamp   Min   Avg   Max   CPU   Mem    IO\n"
              "    0           5     1     2     3     4     5     6\n");
}

// Runs fn in a child whose files may not grow past limit bytes; with
// killed, exceeding it kills the child (SIGXFSZ) in mid-write, otherwise
// the write fails as on a full disk. Returns the wait status.
int inLimitedChild(rlim_t limit, bool killed, int (*fn)()) {
    const pid_t child = ::fork();
    if (child == 0) {
        const rlimit none{0, 0}, files{limit, limit};
        ::setrlimit(RLIMIT_CORE, &none);
        ::setrlimit(RLIMIT_FSIZE, &files);
        std::signal(SIGXFSZ, killed ? SIG_DFL : SIG_IGN);
        ::_exit(fn());
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return status;
}

TEST_F(HistoryFilesTest, ASaveCutShortLeavesThePreviousFilesWhole) {
    trace::s32PowerHistoryLogLevel = 0;
    for (const auto &f : kFamilies) {
        SCOPED_TRACE(f.path);
        const std::string path = f.path;
        f.stamp(0, 1111);
        *f.next = 1;
        ASSERT_EQ(f.save(), 1);
        const Bytes before = read(path);
        f.stamp(0, 2222);
        f.stamp(575, 3333);

        const int status = inLimitedChild(4096, true, f.save);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ) << status;
        EXPECT_EQ(read(path), before);

        EXPECT_EQ(inLimitedChild(4096, false, f.save), 0) << "the save reports failure";
        EXPECT_EQ(read(path), before);
        EXPECT_FALSE(std::filesystem::exists(root + path + ".tmp"));
        EXPECT_TRUE(traced("Writing full " + std::string(f.noun) + " data for file '" + path +
                           "', error code=1"));

        ASSERT_EQ(f.load(), 1);
        EXPECT_EQ(f.stampAt(0), 1111u);
        EXPECT_EQ(f.stampAt(575), 0u);
    }

    // A summary file stays whole too.
    generatePowerHistoryFiles();
    const Bytes before = read("/tmp/PowerHistoryLast1Hour");
    gPower.ring[0] = {5, 1, 2, 3, 4, 5, 6};
    const int status = inLimitedChild(200, true, [] {
        generatePowerHistoryFiles();
        return 0;
    });
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ) << status;
    EXPECT_EQ(read("/tmp/PowerHistoryLast1Hour"), before);

    // The record that met the full disk is reported (the trace file starts
    // empty, so its first line still fits).
    std::filesystem::remove(root + "/tmp/zelo_trace/zelo_trace_log_0.txt");
    EXPECT_EQ(inLimitedChild(200, false,
                             [] {
                                 int dc = 0, ac = 0;
                                 return generatePowerHistoryFile("/tmp/PowerHistoryLast1Hour", 1, 1,
                                                                 &dc, &ac);
                             }),
              0);
    EXPECT_EQ(read("/tmp/PowerHistoryLast1Hour"), before);
    EXPECT_FALSE(std::filesystem::exists(root + "/tmp/PowerHistoryLast1Hour.tmp"));
    EXPECT_TRUE(traced("[Error] \"generatePowerHistoryFile\": Writing power history data sample "
                       "12 for file '/tmp/PowerHistoryLast1Hour', error code=1\n"))
        << trace();
}

} // namespace
} // namespace zelo::test
