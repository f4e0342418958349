// The metric log: lock and counters, interval calculation, the byte-exact
// file, rotation, the reader's order, printing, copy and release.
#include "fake_platform.h"
#include "telemetry_files.h"

#include "metriclog/state.h"

#include <zelo.h>

#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/capability.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>

namespace zelo::test {
namespace {

namespace ml = zelo::metriclog;

MetricStat *stat(uint64_t avg) {
    auto *s = static_cast<MetricStat *>(std::calloc(1, sizeof(MetricStat)));
    s->u64Avg = avg;
    return s;
}

class MetricLogTest : public PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        dir = root + "/tmp/zelo_log/";
        for (const char *d : {"/tmp/zelo_log", "/tmp/zelo_trace", "/pstorage/power"})
            std::filesystem::create_directories(root + d);
        hooks->usleep = [](useconds_t) { return 0; }; // busy retries need no real wait
        useFirmware("perf none\n");
        testing::internal::CaptureStdout(); // the writer and reader report as they go
    }
    void TearDown() override {
        testing::internal::GetCapturedStdout();
        PlatformTest::TearDown();
    }
    std::string output() {
        std::string out = testing::internal::GetCapturedStdout();
        testing::internal::CaptureStdout();
        return out;
    }
    // A rack snapshot: six single records with running totals at time t.
    static SnapshotBuffer snapshot(uint64_t t, uint64_t scale) {
        SnapshotBuffer s{};
        s.psSystemAC = stat(400 * scale);
        s.psSystemDC = stat(350 * scale);
        s.psCPUPower = stat(150 * scale);
        s.psMemoryPower = stat(60 * scale);
        s.psCoolingPower = stat(40 * scale);
        s.psEffectiveCPU = stat(40 * scale / 1000);
        s.u64Timestamp = t;
        s.u8InletTemperature = 24;
        s.u8OutletTemperature = 31;
        s.u8PowerStatus = 0x21;
        return s;
    }
    // Two buckets of two bytes (base 100, width 50).
    static HistogramData histogram(uint8_t first, uint8_t second) {
        HistogramData h{100, 2, 50, 2, static_cast<uint8_t *>(std::calloc(4, 1))};
        h.pu8BucketData[1] = first;
        h.pu8BucketData[3] = second;
        return h;
    }
    // The previous snapshot: 10 s at the same power, histogram empty.
    static void previous() {
        ml::sLastSnapshotBuffer = snapshot(10000, 10000);
        ml::sLastHistogramData = histogram(0, 0);
    }
    std::string file(int i) const { return dir + "zelo_" + std::to_string(i) + ".log"; }

    std::string dir;
};

// The lock file holds its holder's pid. A holder killed with the lock leaves
// it behind: a pid that is no process or one younger than the lock (reused),
// no pid and an age no holder reaches, or something that is no file at the
// name (a link is never followed) is taken over without a pause and traced;
// a running owner or a recent file naming none is waited for, woken by the
// lock's removal.
TEST_F(MetricLogTest, TheLockIsWaitedForUnlessItsHolderIsGone) {
    const pid_t gone = ::fork();
    if (gone == 0)
        ::_exit(0);
    ASSERT_EQ(::waitpid(gone, nullptr, 0), gone);
    const std::string path = "/tmp/zelo_log/zelo.lock", self = std::to_string(::getpid()) + "\n";
    enum Plant { File, Link, Fifo, EmptyDir, FullDir };
    struct Case {
        Plant plant;
        std::string content;
        std::time_t age;
        int pauses;
        const char *traced; // the takeover's line
    };
    const Case cases[] = {
        {File, std::to_string(gone) + "\n", 0, 0, "which is gone"},
        {File, "\x01", 301, 1, "naming no owner"}, // still after a wait: not being written
        {File, "\x01", 299, 1, nullptr},
        {File, self, 3600, 0, "younger than the lock"},
        {File, self, -5, 1, nullptr},
        {Link, "", 0, 0, "was not a regular file"},
        {Fifo, "", 0, 0, "was not a regular file"},
        {EmptyDir, "", 0, 0, "was not a regular file"},
        {FullDir, "", 0, 0, "renamed to 'zelo.lock."},
    };
    static std::string lock, wanted;
    static int pauses;
    lock = root + path;
    wanted = std::to_string(::getpid()) + "\n";
    // The wait itself is real: the lock goes, and the watch sees it at once.
    static bool release;
    hooks->poll = [](struct pollfd *fds, nfds_t count, int milliseconds) {
        EXPECT_EQ(milliseconds, 10000);
        EXPECT_EQ(count, 1u) << "a watch on the lock's directory";
        EXPECT_EQ(fileBytes(lock + ".wanted"), Bytes(wanted.begin(), wanted.end()))
            << "the waiting writer names itself";
        ++pauses;
        if (release)
            std::filesystem::remove(lock);
        return ::poll(fds, count, 0);
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.plant) + " " + c.content + " aged " + std::to_string(c.age));
        std::filesystem::remove(root + "/tmp/zelo_trace/zelo_trace_log_0.txt");
        if (c.plant == Link)
            std::filesystem::create_symlink(root + "/elsewhere", lock);
        if (c.plant == Fifo) {
            ASSERT_EQ(::mkfifo(lock.c_str(), 0600), 0);
        }
        if (c.plant == EmptyDir || c.plant == FullDir)
            std::filesystem::create_directory(lock);
        if (c.plant == FullDir)
            std::ofstream(lock + "/entry") << "x";
        if (c.plant == File) {
            std::ofstream(lock, std::ios::binary) << c.content;
            const struct timespec then[2] = {{std::time(nullptr) - c.age, 0},
                                             {std::time(nullptr) - c.age, 0}};
            ASSERT_EQ(::utimensat(AT_FDCWD, lock.c_str(), then, 0), 0);
        }
        pauses = 0;
        release = c.traced == nullptr; // a lock taken over is not released meanwhile
        WaitValueLock();
        EXPECT_EQ(pauses, c.pauses);
        EXPECT_EQ(fileBytes(lock), Bytes(self.begin(), self.end()));
        EXPECT_EQ(traced("Lock file"), c.traced != nullptr) << "a takeover is traced";
        if (c.traced != nullptr) {
            EXPECT_TRUE(traced(c.traced));
        }
        EXPECT_EQ(UnlockValue(), 0);
        EXPECT_FALSE(std::filesystem::exists(lock));
        EXPECT_FALSE(std::filesystem::exists(lock + ".wanted"));
    }
    EXPECT_FALSE(std::filesystem::exists(root + "/elsewhere"));
}

// A long wait says every minute whom it waits for; a reader of the library's
// own gives up after 30 s and names the holder, and never removes a lock it
// did not take.
TEST_F(MetricLogTest, ALongWaitIsTracedAndAReaderGivesUp) {
    static std::string lock;
    static int64_t clock;
    static int pauses;
    lock = root + "/tmp/zelo_log/zelo.lock";
    std::ofstream(lock) << ::getpid() << "\n";
    hooks->monotonicSeconds = [] { return clock; };
    hooks->poll = [](struct pollfd *, nfds_t, int milliseconds) {
        clock += milliseconds / 1000;
        if (++pauses == 13 || lock.ends_with(".wanted"))
            std::filesystem::remove(lock);
        return 0;
    };
    clock = 1000;
    pauses = 0;
    WaitValueLock();
    EXPECT_EQ(pauses, 13);
    const std::string waiting = "Waiting for lock file '/tmp/zelo_log/zelo.lock' held by process " +
                                std::to_string(::getpid());
    const std::string text = trace();
    EXPECT_NE(text.find(waiting), text.rfind(waiting)) << "at 60 s and at 120 s: " << text;
    EXPECT_EQ(text.find(waiting, text.find(waiting) + 1), text.rfind(waiting)) << "not more";
    EXPECT_EQ(UnlockValue(), 0);

    std::ofstream(lock) << ::getpid() << "\n";
    pauses = 0;
    files::LogRead log;
    uint8_t skipped = 0;
    EXPECT_EQ(ReadMetricLog(&log.buffers, &log.inlets, &log.perfs, &log.count, &skipped),
              ZELO_RC_BUSY);
    EXPECT_EQ(pauses, 3);
    EXPECT_TRUE(traced("given up"));
    EXPECT_TRUE(std::filesystem::exists(lock));

    // A reader leaves a free lock to a live writer that waits for it, until
    // that writer has had it; a writer that is gone is waited for no more.
    std::filesystem::remove(lock);
    const pid_t writer = ::fork();
    if (writer == 0) {
        ::pause();
        ::_exit(0);
    }
    lock += ".wanted";
    for (const bool live : {true, false}) {
        std::ofstream(lock) << writer << "\n";
        pauses = 0;
        files::LogRead again;
        EXPECT_NE(
            ReadMetricLog(&again.buffers, &again.inlets, &again.perfs, &again.count, &skipped),
            ZELO_RC_BUSY);
        EXPECT_EQ(pauses, live ? 1 : 0);
        EXPECT_FALSE(std::filesystem::exists(root + "/tmp/zelo_log/zelo.lock")) << "released";
        std::filesystem::remove(lock);
        ::kill(writer, SIGKILL);
        ::waitpid(writer, nullptr, 0);
    }

    // One it may not read is held all the same, not taken for gone and tried
    // again without end. Without capabilities, root is bound by the mode too.
    lock = root + "/tmp/zelo_log/zelo.lock";
    std::ofstream(lock) << ::getpid() << "\n";
    ASSERT_EQ(::chmod(lock.c_str(), 0), 0);
    const pid_t reader = ::fork();
    if (reader == 0) {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct none[2] = {};
        if (::syscall(SYS_capset, &header, none) != 0 || ::open(lock.c_str(), O_RDONLY) >= 0)
            ::_exit(2);
        pauses = 0;
        files::LogRead held;
        const uint8_t rc =
            ReadMetricLog(&held.buffers, &held.inlets, &held.perfs, &held.count, &skipped);
        ::_exit(rc == ZELO_RC_BUSY && pauses == 3 ? 0 : 1);
    }
    int status = -1;
    for (int i = 0; i < 500 && ::waitpid(reader, &status, WNOHANG) == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (status == -1) {
        ::kill(reader, SIGKILL);
        ::waitpid(reader, nullptr, 0);
    }
    ASSERT_TRUE(WIFEXITED(status)) << "the reader did not return within 5 s";
    if (WEXITSTATUS(status) == 2)
        GTEST_SKIP() << "the capabilities cannot be dropped here";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "given up after 30 s, as for a lock it can read";
}

TEST(CalculateAverage, RoundsHalfAwayFromZeroAndRefusesShrinkingTotals) {
    const struct {
        uint64_t previous, current, elapsed, expected;
    } cases[] = {
        {1000, 4000, 3000, 1}, {1000, 2500, 1000, 2}, {1000, 2400, 1000, 1}, {4000, 4000, 10, 0},
        {5000, 4000, 10, 0},   {0, 4000, 10, 0},      {1000, 4000, 0, 0},    {1000, 0, 10, 0},
    };
    for (const auto &c : cases) {
        const MetricStat previous{c.previous, 0, 0};
        MetricStat current{c.current, 0, 0};
        CalculateAverage(&previous, &current, c.elapsed);
        EXPECT_EQ(current.u64Avg, c.expected) << c.previous << " " << c.current << " " << c.elapsed;
    }
}

TEST_F(MetricLogTest, HistogramMinimumAndMaximum) {
    // Base 100, width 10, 12 buckets: the changed buckets name the range.
    const struct {
        std::vector<int> grew;
        uint64_t min, max;
    } cases[] = {{{3}, 120, 130}, {{0, 5}, 0, 150}, {{11}, 200, 200}, {{}, 0, 0}, {{0}, 0, 100}};
    for (const auto &c : cases) {
        ml::sLastSnapshotBuffer.u64Timestamp = 1000;
        std::free(ml::sLastHistogramData.pu8BucketData);
        ml::sLastHistogramData = {100, 12, 10, 1, static_cast<uint8_t *>(std::calloc(12, 1))};
        SnapshotBuffer s = snapshot(2000, 1);
        HistogramData h{100, 12, 10, 1, static_cast<uint8_t *>(std::calloc(12, 1))};
        for (const int i : c.grew)
            h.pu8BucketData[i] = 1;
        CalculateSnapshotValue(&s, h);
        EXPECT_EQ(s.psSystemDC->u64Min, c.min);
        EXPECT_EQ(s.psSystemDC->u64Max, c.max);
        FreeSignalMetricValue(&s, nullptr, nullptr);
    }
}

TEST_F(MetricLogTest, CalculationAveragesAndAdvancesTheState) {
    previous();
    SnapshotBuffer s = snapshot(40000, 40000); // 30 s later at the same power
    CalculateSnapshotValue(&s, histogram(0, 9));
    const auto figures = [](const SnapshotBuffer &b) {
        return std::vector<uint64_t>{b.psSystemAC->u64Avg,     b.psSystemDC->u64Avg,
                                     b.psCPUPower->u64Avg,     b.psMemoryPower->u64Avg,
                                     b.psCoolingPower->u64Avg, b.psEffectiveCPU->u64Avg};
    };
    EXPECT_EQ(figures(s), (std::vector<uint64_t>{400, 350, 150, 60, 40, 40})) << "CPU per second";
    EXPECT_EQ(s.psSystemAC->u64Min, 400u) << "the fill rule";
    EXPECT_EQ(ml::sLastSnapshotBuffer.psSystemDC->u64Avg, 350u * 40000) << "raw totals kept";
    EXPECT_EQ(ml::sLastHistogramData.pu8BucketData[3], 9);
    FreeSignalMetricValue(&s, nullptr, nullptr);

    // Not later than the previous one: left raw, state unchanged.
    SnapshotBuffer same = snapshot(40000, 50000);
    CalculateSnapshotValue(&same, histogram(1, 1));
    EXPECT_EQ(same.psSystemDC->u64Avg, 350u * 50000);
    EXPECT_EQ(same.psSystemDC->u64Min, 0u);
    FreeSignalMetricValue(&same, nullptr, nullptr);

    // A changed shape: averages done, state advanced, histogram state kept.
    SnapshotBuffer next = snapshot(70000, 70000);
    HistogramData wider{100, 3, 50, 2, static_cast<uint8_t *>(std::calloc(6, 1))};
    CalculateSnapshotValue(&next, wider);
    EXPECT_EQ(next.psSystemDC->u64Avg, 350u);
    EXPECT_EQ(next.psSystemDC->u64Max, 350u) << "the fill rule stands";
    EXPECT_EQ(ml::sLastSnapshotBuffer.u64Timestamp, 70000u);
    EXPECT_EQ(ml::sLastHistogramData.u8BucketNum, 2);
    FreeSignalMetricValue(&next, nullptr, nullptr);

    // A rack snapshot without system DC power has no record for the range.
    SnapshotBuffer noDc = snapshot(100000, 100000);
    FreeIfNotNull(noDc.psSystemDC);
    noDc.psSystemDC = nullptr;
    CalculateSnapshotValue(&noDc, histogram(0, 1));
    EXPECT_EQ(noDc.psSystemAC->u64Avg, 400u);
    FreeSignalMetricValue(&noDc, nullptr, nullptr);
}

TEST_F(MetricLogTest, FileIsByteExactWithAndWithoutPerformance) {
    previous();
    SnapshotBuffer s = snapshot(40000, 40000);
    CreateDataLog(&s, histogram(0, 30));
    const Bytes bytes = fileBytes(file(0));
    ASSERT_EQ(bytes.size(), 164u);
    // No supplies of either kind, system AC present with 400 little-endian.
    EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + 11),
              (Bytes{0, 0, 1, 0x90, 0x01, 0, 0, 0, 0, 0, 0}));
    // Inlet, outlet, time stamp 40000, status, no inlet readings on a rack.
    EXPECT_EQ(Bytes(bytes.begin() + 152, bytes.end()),
              (Bytes{24, 31, 0x40, 0x9C, 0, 0, 0, 0, 0, 0, 0x21, 0}));
    EXPECT_EQ(fileBytes(dir + "zelo_num.log"), Bytes{1});
    EXPECT_EQ(fileBytes(dir + "zelo_last.log"), Bytes{0});
    FreeSignalMetricValue(&s, nullptr, nullptr);

    useFirmware("perf 30 40 50 60\n");
    SnapshotBuffer t = snapshot(70000, 70000);
    CreateDataLog(&t, histogram(0, 60));
    const Bytes withPerf = fileBytes(file(1));
    ASSERT_EQ(withPerf.size(), 264u);
    EXPECT_EQ(withPerf[164], 1);
    EXPECT_EQ(withPerf[165], 30) << "system average";
    FreeSignalMetricValue(&t, nullptr, nullptr);
}

TEST_F(MetricLogTest, PublishesSixteenKeysInOrderAndSwapsThemOnABlade) {
    previous();
    ::setenv("RUX_FAMILY", "blade", 1);
    SnapshotBuffer s = snapshot(40000, 40000);
    FreeIfNotNull(s.psSystemDC);
    s.psSystemDC = nullptr;
    CreateDataLog(&s, histogram(0, 1));
    // The DC keys carry the AC record's figures, its minimum and maximum
    // from the histogram.
    std::string published;
    for (const auto &call : fake().storeCalls)
        if (call.rfind("set_int64 ZELO_t", 0) == 0 || call.rfind("set_int64 ZELO_c", 0) == 0)
            published += call.substr(15) + ";";
    EXPECT_EQ(published,
              "total_dc_power_in_use_Avg=400 flag 0;total_dc_power_in_use_Min=100 flag 0;"
              "total_dc_power_in_use_Max=100 flag 0;total_ac_power_in_use_Avg=0 flag 0;"
              "total_ac_power_in_use_Min=0 flag 0;total_ac_power_in_use_Max=0 flag 0;"
              "consumptionCPU_Avg=150 flag 0;consumptionCPU_Min=150 flag 0;"
              "consumptionCPU_Max=150 flag 0;consumptionMemory_Avg=60 flag 0;"
              "consumptionMemory_Min=60 flag 0;consumptionMemory_Max=60 flag 0;"
              "consumptionCooling_Avg=40 flag 0;consumptionCooling_Min=40 flag 0;"
              "consumptionCooling_Max=40 flag 0;timestamp=40000 flag 0;");
    EXPECT_EQ(fileBytes(file(0))[2 + 25], 0) << "row 6: system DC absent";
    FreeSignalMetricValue(&s, nullptr, nullptr);
}

TEST_F(MetricLogTest, RotatesOverOneHundredTwentyFilesAndReadsOldestFirst) {
    for (uint64_t n = 1; n <= 121; ++n) {
        SnapshotBuffer s = snapshot(n * 30000, n);
        CreateDataLog(&s, histogram(0, 0));
        FreeSignalMetricValue(&s, nullptr, nullptr);
    }
    EXPECT_EQ(fileBytes(dir + "zelo_num.log"), Bytes{120});
    EXPECT_EQ(fileBytes(dir + "zelo_last.log"), Bytes{0});

    // File 1 is the oldest, file 0 the newest; a missing file is skipped.
    for (const int expected : {120, 119}) {
        files::LogRead log;
        ASSERT_EQ(log.get(), 0);
        ASSERT_EQ(log.count, expected);
        EXPECT_EQ(log.buffers[0].u64Timestamp, 2u * 30000);
        EXPECT_EQ(log.buffers[log.count - 1].u64Timestamp, 121u * 30000);
        EXPECT_EQ(log.perfs, nullptr) << "no performance figures on this firmware";
        std::filesystem::remove(file(50));
    }
    EXPECT_FALSE(std::filesystem::exists(dir + "zelo.lock")) << "released";
}

TEST_F(MetricLogTest, ReaderCopesWithCutAndForeignFiles) {
    SnapshotBuffer s = snapshot(30000, 1);
    CreateDataLog(&s, histogram(0, 0));
    FreeSignalMetricValue(&s, nullptr, nullptr);
    SnapshotBuffer r{};
    r.u16Tag = 7;
    BladeInletSensorBuffer l{};
    PerfMetricSet f{};
    const auto read = [&](const std::string &path) {
        FreeSignalMetricValue(&r, &l, &f);
        r = {}, l = {};
        return ReadMeticValueFromFile(path.c_str(), &r, &l, &f);
    };
    EXPECT_EQ(ReadMeticValueFromFile(file(0).c_str(), &r, &l, &f), 0);
    EXPECT_EQ(r.psSystemDC->u64Avg, 350u);
    EXPECT_EQ(r.u8PowerStatus, 0x21);
    EXPECT_EQ(r.u16Tag, 7) << "not in the file";

    // Cut after row 14 (no inlet count); a foreign reading with an index
    // outside the name table and a 64-byte text lacking its end; and the
    // same file promising a second reading it does not hold.
    Bytes foreign = fileBytes(file(0));
    foreign.pop_back();
    files::writeFile(file(1), foreign);
    EXPECT_EQ(read(file(1)), -1);
    foreign.insert(foreign.end(), {1, 9, 0, 0, 0});
    foreign.insert(foreign.end(), 64, 'x');
    files::writeFile(file(2), foreign);
    ASSERT_EQ(read(file(2)), 0);
    ASSERT_NE(l.psSensor, nullptr);
    EXPECT_EQ(std::strlen(l.psSensor->szTemperature), 63u);
    output();
    PrintAllMetricValue(&r, &l, &f);
    EXPECT_NE(output().find("InletSensorName:Unknown  Temperature:xxx"), std::string::npos);
    foreign[163] = 2;
    files::writeFile(file(3), foreign);
    EXPECT_EQ(read(file(3)), -1);
    EXPECT_EQ(read(dir + "none"), 2);
    EXPECT_EQ(ReadMeticValueFromFile(nullptr, &r, &l, &f), 1);
    EXPECT_EQ(ReadMeticValueFromFile(file(0).c_str(), nullptr, &l, &f), 1);
    EXPECT_EQ(ReadMeticValueFromFile(file(0).c_str(), &r, nullptr, &f), 1);
    FreeSignalMetricValue(&r, &l, &f);

    // A missing argument is refused, never written through.
    SnapshotBuffer *buffers = nullptr;
    BladeInletSensorBuffer *inlets = nullptr;
    PerfMetricSet *perfs = nullptr;
    uint8_t count = 0;
    EXPECT_EQ(GetMetricValue(nullptr, &inlets, &perfs, &count), 1);
    EXPECT_EQ(GetMetricValue(&buffers, nullptr, &perfs, &count), 1);
    EXPECT_EQ(GetMetricValue(&buffers, &inlets, nullptr, &count), 1);
    EXPECT_EQ(GetMetricValue(&buffers, &inlets, &perfs, nullptr), 1);
    FILE *stream = std::fopen(file(0).c_str(), "rb");
    MetricStat *stats = nullptr;
    ReadMetricData(stream, nullptr, &stats);
    ReadMetricData(stream, &count, nullptr);
    ReadMetricData(nullptr, &count, &stats);
    EXPECT_EQ(std::ftell(stream), 0) << "nothing read";
    EXPECT_EQ(stats, nullptr);
    std::fclose(stream);
}

} // namespace
} // namespace zelo::test
