// The history files: summary records and their keys, the full file's bytes,
// the load refusals, the print, and a save killed half-way.
#include "fake_platform.h"
#include "telemetry_files.h"

#include "history/history_internal.h"
#include "tracelog/state.h"

#include <zelo/history.h>

#include <csignal>
#include <cstring>
#include <filesystem>
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
        hooks->time = [](std::time_t *) { return kNow; };
        hooks->monotonicSeconds = [] { return int64_t{0}; };
        trace::s32PowerHistoryLogLevel = 2;
        for (const char *dir : {"/tmp/zelo_trace", "/pstorage/power"})
            std::filesystem::create_directories(root + dir);
    }
    Bytes read(const std::string &path) const { return fileBytes(root + path); }
};

// Time stamp and six values, little-endian, in record order.
Bytes le(uint32_t timestamp, std::array<uint16_t, 6> values) {
    Bytes b;
    files::putLe(b, timestamp, 4);
    for (uint16_t v : values)
        files::putLe(b, v, 2);
    return b;
}

TEST_F(HistoryFilesTest, RecordsEndBeforeTheNextIndexWalkOnFromTheStartOrAreNotWritten) {
    gPower.ring[0] = {0x01020304, 10, 20, 30, 40, 50, 60};
    int dc = 7, ac = 7;
    EXPECT_EQ(generatePowerHistoryFile("/tmp/h1", 1, 1, &dc, &ac), 1);
    EXPECT_EQ(read("/tmp/h1"), concat(concat({24, 0}, Bytes(23 * 16, 0)),
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
    EXPECT_EQ(dc, 6);
    EXPECT_EQ(ac, 3);

    // A file that cannot be written leaves the outputs at zero; an index or
    // a count out of range writes nothing.
    EXPECT_EQ(generatePowerHistoryFile("/missing/dir/file", 0, 1, &dc, &ac), 0);
    EXPECT_EQ(dc, 0);
    EXPECT_EQ(ac, 0);
    EXPECT_EQ(generatePowerHistoryFile("/tmp/x", 576, 1, &dc, &ac), 0);
    EXPECT_EQ(generatePowerHistoryFile("/tmp/x", 0, 25, &dc, &ac), 0);
    EXPECT_FALSE(std::filesystem::exists(root + "/tmp/x"));
}

TEST_F(HistoryFilesTest, HoursFoldValidEntriesOnlyIn16BitSums) {
    const auto known = [](int i) {
        return PowerHistorySample{1000u + 150u * i,
                                  1000,
                                  3000,
                                  static_cast<uint16_t>(5000 + i),
                                  900,
                                  950,
                                  static_cast<uint16_t>(1000 + i)};
    };
    // Next index 0: the whole ring from slot 0, an hour per record.
    for (int i = 0; i < 576; ++i)
        gPower.ring[i] = known(i);
    for (int i = 24; i < 72; ++i) // hours 1 and 2 unknown: only avgDC tells ...
        gPower.ring[i].avgDC = 8888;
    gPower.ring[53] = {1, 7, 8, 9, 10, 11, 12};                      // ... but one sample
    gPower.ring[72] = {0, 60000, 60000, 60000, 60000, 60000, 60000}; // never written
    gPower.ring[73].maxAC = 8888;
    int dc = 0, ac = 0;
    ASSERT_EQ(generatePowerHistoryFile("/tmp/h24", 0, 24, &dc, &ac), 1);
    const Bytes bytes = read("/tmp/h24");
    auto record = [&](int r) {
        return Bytes(bytes.begin() + 2 + 16 * r, bytes.begin() + 18 + 16 * r);
    };
    // 24 x 3000 = 72 000 wraps to 6464; 6464 / 24 = 269.
    EXPECT_EQ(record(0), le(1000 + 150 * 23, {1000, 269, 5023, 900, 950, 1023}));
    EXPECT_EQ(record(1), Bytes(16, 0));
    EXPECT_EQ(record(2), le(1000 + 150 * 71, {7, 8, 9, 10, 11, 12}));
    EXPECT_EQ(record(3), le(1000 + 150 * 95, {1000, 3000 * 23 % 65536 / 23, 8888, 900, 950, 1095}));
    EXPECT_EQ(dc, -1);
    EXPECT_EQ(ac, -1);

    for (int i = 24; i < 48; ++i) // hour 1 known again
        gPower.ring[i] = known(i);
    generatePowerHistoryFiles();
    EXPECT_EQ(fake().storeCalls,
              (std::vector<std::string>{"set_int ZELO_max_dc_last_24hours=1575 flag 0",
                                        "set_int ZELO_max_ac_last_24hours=8888 flag 0"}));
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
}

// What the full-file tests need of either family.
struct Family {
    const char *path;
    const char *noun;
    int (*load)();
    int (*save)();
    uint16_t *next;
    uint32_t &(*stamp)(int slot);
};
const Family kFamilies[] = {
    {"/pstorage/power/PowerHistoryFull", "power history", loadPowerHistory, savePowerHistory,
     &gPower.nextIndex, [](int i) -> uint32_t & { return gPower.ring[i].timestamp; }},
    {"/pstorage/power/PowerPerformanceFull", "power performance", loadPowerPerformance,
     savePowerPerformance, &gPerformance.nextIndex,
     [](int i) -> uint32_t & { return gPerformance.ring[i].timestamp; }},
};

using files::ringFile;
// A sample holding only its time stamp.
PowerHistorySample at(uint32_t t) {
    return {t, 0, 0, 0, 0, 0, 0};
}

TEST_F(HistoryFilesTest, FullFilesAreTheIndexAndTheSlotsLittleEndian) {
    gPower.ring[2] = {0x0A0B0C0D, 0x0102, 3, 4, 5, 6, 0xFFFE};
    gPower.nextIndex = 3;
    gPerformance.ring[575] = {7, 1, 2, 3, 4, 5, 0x0607};
    gPerformance.nextIndex = 0x0123;
    ASSERT_EQ(savePowerHistory(), 1);
    ASSERT_EQ(savePowerPerformance(), 1);
    EXPECT_EQ(read("/pstorage/power/PowerHistoryFull"), ringFile(3, {{2, gPower.ring[2]}}));
    EXPECT_EQ(read("/pstorage/power/PowerPerformanceFull"),
              ringFile(0x0123, {{575, {7, 1, 2, 3, 4, 5, 0x0607}}}));
    EXPECT_FALSE(std::filesystem::exists(root + "/pstorage/power/PowerHistoryFull.tmp"));

    const PowerHistorySample saved = gPower.ring[2];
    gPower = {};
    EXPECT_EQ(loadPowerHistory(), 1);
    EXPECT_EQ(std::memcmp(&gPower.ring[2], &saved, sizeof saved), 0);
    EXPECT_EQ(gPower.nextIndex, 3);
}

TEST_F(HistoryFilesTest, UnusableFullFilesAreRefusedAndTheHistoryStartsAfresh) {
    const std::pair<const char *, Bytes> cases[] = {
        {"missing", {}},
        {"header short", {1}},
        {"one byte short", Bytes(9217, 0)},
        {"one byte long", Bytes(9219, 0)},
        {"index out of range", ringFile(576, {})},
        {"newest sample (575 when the index is 0) more than ten years ahead",
         ringFile(0, {{575, at(kNow + 10 * 365 * 86400 + 1)}})},
    };
    for (const auto &f : kFamilies) {
        for (const auto &[what, file] : cases) {
            SCOPED_TRACE(std::string(f.noun) + ": " + what);
            std::filesystem::remove(root + f.path);
            if (!file.empty())
                files::writeFile(root + f.path, file);
            f.stamp(7) = 99;
            *f.next = 9;
            EXPECT_EQ(f.load(), 0);
            EXPECT_EQ(f.stamp(7), 0u);
            EXPECT_EQ(*f.next, 0);
        }
        // A controller whose clock is not set yet keeps a history an hour
        // ahead of it; only the newest slot is checked against the clock.
        files::writeFile(root + f.path, ringFile(0, {{574, at(kNow + 10 * 365 * 86400 + 1)},
                                                     {575, at(kNow + 3600)}}));
        EXPECT_EQ(f.load(), 1);
        EXPECT_EQ(f.stamp(575), static_cast<uint32_t>(kNow + 3600));
    }
}

// A step back of the clock moves empty slots at 0 to just below 2^32: such
// slots load empty, and the rest of the day is kept, newest included.
TEST_F(HistoryFilesTest, SlotsStampedBeforeZeroByAStepBackLoadEmpty) {
    const PowerHistorySample kept{1'700'000'000, 1, 2, 3, 4, 5, 6};
    const Bytes file =
        ringFile(3, {{0, {0x80000000u, 1, 1, 1, 1, 1, 1}}, {1, kept}, {2, at(0xFFFFFFE2u)}});
    files::writeFile(root + "/pstorage/power/PowerHistoryFull", file);
    files::writeFile(root + "/pstorage/power/PowerPerformanceFull", file);
    ASSERT_EQ(loadPowerHistory(), 1);
    ASSERT_EQ(loadPowerPerformance(), 1);
    const PowerHistorySample empty{};
    for (int slot : {0, 2}) {
        EXPECT_EQ(std::memcmp(&gPower.ring[slot], &empty, sizeof empty), 0) << slot;
        EXPECT_EQ(std::memcmp(&gPerformance.ring[slot], &empty, sizeof empty), 0) << slot;
    }
    EXPECT_EQ(std::memcmp(&gPower.ring[1], &kept, sizeof kept), 0);
    EXPECT_EQ(std::memcmp(&gPerformance.ring[1], &kept, sizeof kept), 0);

    testing::internal::CaptureStdout();
    printFullPowerHistory();
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.find("Error"), std::string::npos) << out;
    EXPECT_NE(out.find("    1  1700000000     4     5     6     1     2     3\n"),
              std::string::npos)
        << out;
}

// A run killed while replacing its files leaves temporary files behind; the
// next start removes those of its own names and nothing else.
TEST_F(HistoryFilesTest, TheFirstSampleRemovesLeftTemporaryFiles) {
    const std::vector<std::string> leftovers = {
        "/tmp/PowerHistoryLast1Hour.tmp", "/tmp/PowerPerformanceLast24Hours.tmp0123abcd",
        "/pstorage/power/PowerHistoryFull.tmp", "/pstorage/power/PowerPerformanceFull.tmpffffffff"};
    const std::vector<std::string> kept = {
        "/tmp/PowerHistoryLast1Hour.tmpx", "/tmp/PowerHistoryLast6Hours.tmp0123ABCD",
        "/tmp/other.tmp", "/pstorage/power/PowerPerformanceFull.tmp/entry"};
    for (const auto &file : leftovers)
        files::writeFile(root + file, {1});
    std::filesystem::create_directory(root + "/pstorage/power/PowerPerformanceFull.tmp");
    for (const auto &file : kept)
        files::writeFile(root + file, {1});
    trackPowerHistory(0, 0, 0);
    trackPowerPerformance(0, 0, 0, 0, 0);
    for (const auto &file : leftovers)
        EXPECT_FALSE(std::filesystem::exists(root + file)) << file;
    for (const auto &file : kept)
        EXPECT_TRUE(std::filesystem::exists(root + file)) << file;
}

TEST_F(HistoryFilesTest, LoadCreatesTheMissingDirectoryForTheGroupOnly) {
    std::filesystem::remove_all(root + "/pstorage/power");
    EXPECT_EQ(loadPowerHistory(), 0);
    struct stat st {};
    ASSERT_EQ(::stat((root + "/pstorage/power").c_str(), &st), 0);
    const mode_t mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(st.st_mode & 0777, 0070u) << "whatever the umask " << mask;
}

TEST_F(HistoryFilesTest, PrintShowsThePersistedRingOldestFirstDcBeforeAc) {
    testing::internal::CaptureStdout();
    printFullPowerHistory();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error loading power history file\n");

    gPower.ring[575] = {1'700'000'000, 1, 2, 3, 4, 5, 6};
    gPower.nextIndex = 575;
    ASSERT_EQ(savePowerHistory(), 1);
    gPerformance.ring[0] = {5, 1, 2, 3, 4, 5, 6};
    ASSERT_EQ(savePowerPerformance(), 1);
    gPower = {};
    testing::internal::CaptureStdout();
    printFullPowerHistory();
    printFullPowerPerformance();
    const std::string out = testing::internal::GetCapturedStdout();
    // A header, every slot once, and three closing lines each.
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 2 * (1 + 576 + 3));
    EXPECT_EQ(out.substr(54, 54), "  575  1700000000     4     5     6     1     2     3\n");
    EXPECT_NE(out.find("\n    0           5     1     2     3     4     5     6\n"),
              std::string::npos);
}

// The full files, on the controller's persistent storage, reach it before
// they replace the old ones; the summaries, made from the ring again at
// start-up and kept on a tmpfs, are not synced.
TEST_F(HistoryFilesTest, OnlyTheFullFilesAreSynced) {
    static int syncs;
    syncs = 0;
    hooks->sync = [](int) { return ++syncs, 0; };
    generatePowerHistoryFiles();
    generatePowerPerformanceFiles();
    EXPECT_EQ(syncs, 0);
    EXPECT_EQ(savePowerHistory(), 1);
    EXPECT_EQ(savePowerPerformance(), 1);
    EXPECT_EQ(syncs, 2);
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
    trace::s32PowerHistoryLogLevel = 0; // the trace file stays small: the saves meet the limit
    for (const auto &f : kFamilies) {
        SCOPED_TRACE(f.path);
        f.stamp(0) = 1111;
        *f.next = 1;
        ASSERT_EQ(f.save(), 1);
        const Bytes before = read(f.path);
        f.stamp(0) = 2222;
        const int status = inLimitedChild(4096, true, f.save);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ) << status;
        EXPECT_EQ(read(f.path), before);
        EXPECT_EQ(inLimitedChild(4096, false, f.save), 0) << "the save reports failure";
        EXPECT_EQ(read(f.path), before);
        EXPECT_FALSE(std::filesystem::exists(root + f.path + ".tmp"));
    }
    // Nor is a summary whose record met the full disk put in place.
    generatePowerHistoryFiles();
    const Bytes before = read("/tmp/PowerHistoryLast1Hour");
    gPower.ring[0] = {5, 1, 2, 3, 4, 5, 6};
    EXPECT_EQ(inLimitedChild(200, false,
                             [] {
                                 int dc = 0, ac = 0;
                                 return generatePowerHistoryFile("/tmp/PowerHistoryLast1Hour", 1, 1,
                                                                 &dc, &ac);
                             }),
              0);
    EXPECT_EQ(read("/tmp/PowerHistoryLast1Hour"), before);
    EXPECT_FALSE(std::filesystem::exists(root + "/tmp/PowerHistoryLast1Hour.tmp"));
}

} // namespace
} // namespace zelo::test
