// The metric log: lock and counters, interval calculation, the byte-exact
// file, rotation, the reader's order, printing, copy and release.
#include "fake_platform.h"

#include "acquisition/performance_internal.h"
#include "metriclog/state.h"
#include "scenario.h"

#include <zelo.h>

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>

namespace zelo::test {
namespace {

namespace ml = zelo::metriclog;

Bytes fileBytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

MetricStat *stat(uint64_t avg, uint64_t max = 0, uint64_t min = 0) {
    auto *s = static_cast<MetricStat *>(std::calloc(1, sizeof(MetricStat)));
    *s = {avg, max, min};
    return s;
}

// Resets the daemon-wide state and answers every firmware request from the
// in-process simulator (performance figures on or off).
class MetricLogTest : public PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        dir = root + "/tmp/zelo_log/";
        std::filesystem::create_directories(dir);
        std::filesystem::create_directories(root + "/tmp/zelo_trace");
        std::filesystem::create_directories(root + "/pstorage/power");
        ml::u8LogFileIndex = 0;
        ml::u8LogFileNum = 0;
        acquisition::gSleep = [](useconds_t) { return 0; }; // busy retries need no real wait
        useFirmware("perf none\n");
        resetLast();
    }
    void TearDown() override {
        resetLast();
        ::unsetenv("RUX_FAMILY");
        acquisition::gSleep = ::usleep;
        PlatformTest::TearDown();
    }
    void resetLast() {
        FreeSignalMetricValue(&ml::sLastSnapshotBuffer, nullptr, nullptr);
        ml::sLastSnapshotBuffer = SnapshotBuffer{};
        std::free(ml::sLastHistogramData.pu8BucketData);
        ml::sLastHistogramData = HistogramData{};
    }
    void useFirmware(const std::string &lines) {
        sim::Scenario scenario;
        std::string error;
        ASSERT_TRUE(sim::parseScenario(lines, "t.scn", scenario, error)) << error;
        firmware = std::make_unique<sim::Firmware>(scenario);
        fake().firmware = firmware.get();
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
    std::string file(int i) const { return dir + "zelo_" + std::to_string(i) + ".log"; }

    std::string dir;
    std::unique_ptr<sim::Firmware> firmware;
};

Bytes pidText(pid_t pid) {
    const std::string text = std::to_string(pid) + "\n";
    return Bytes(text.begin(), text.end());
}

TEST_F(MetricLogTest, LockHoldsItsOwnersPidAndWaitsUntilReleased) {
    WaitValueLock();
    EXPECT_EQ(fileBytes(dir + "zelo.lock"), pidText(::getpid()));

    // Held: the waiter polls every 10 s; here the holder lets go during the first pause.
    static std::string lock;
    static int pauses;
    lock = dir + "zelo.lock";
    pauses = 0;
    ml::gLockSleep = [](unsigned seconds) -> unsigned {
        EXPECT_EQ(seconds, 10u);
        ++pauses;
        std::filesystem::remove(lock);
        return 0;
    };
    WaitValueLock();
    ml::gLockSleep = ::sleep;
    EXPECT_EQ(pauses, 1);
    EXPECT_EQ(fileBytes(lock), pidText(::getpid()));
    EXPECT_EQ(UnlockValue(), 0);
    EXPECT_FALSE(std::filesystem::exists(lock));
}

TEST_F(MetricLogTest, LockRefusesASymbolicLinkAtItsPath) {
    // A dangling link planted at the lock path counts as held and is never
    // followed; once it is gone the lock is a plain file of its own.
    static std::string lock;
    static int pauses;
    lock = dir + "zelo.lock";
    pauses = 0;
    const std::string target = root + "/elsewhere";
    std::filesystem::create_symlink(target, lock);
    ml::gLockSleep = [](unsigned) -> unsigned {
        ++pauses;
        std::filesystem::remove(lock);
        return 0;
    };
    WaitValueLock();
    ml::gLockSleep = ::sleep;
    EXPECT_EQ(pauses, 1);
    EXPECT_FALSE(std::filesystem::exists(target));
    EXPECT_FALSE(std::filesystem::is_symlink(lock));
    EXPECT_EQ(fileBytes(lock), pidText(::getpid()));
}

// A holder killed with the lock leaves it behind: a pid that is no process,
// or no pid and an age no holder reaches, is taken over without a pause and
// traced; a running owner, or a recent file naming none, is waited for.
TEST_F(MetricLogTest, ALockWhoseHolderIsGoneIsTakenOverAtOnce) {
    const pid_t gone = ::fork();
    if (gone == 0)
        ::_exit(0);
    ASSERT_EQ(::waitpid(gone, nullptr, 0), gone);
    const std::string path = "/tmp/zelo_log/zelo.lock";
    struct Case {
        std::string content;
        std::time_t age;
        int pauses;
        std::string traced;
    };
    const Case cases[] = {
        {std::to_string(gone) + "\n", 0, 0,
         "Lock file '" + path + "' of process " + std::to_string(gone) +
             ", which is gone, removed"},
        {"\x01", 301, 0, "Lock file '" + path + "' naming no owner and older than 300 s removed"},
        {"\x01", 299, 1, ""},
        {std::to_string(::getpid()) + "\n", 3600, 1, ""},
    };
    static std::string lock;
    static int pauses;
    lock = root + path;
    ml::gLockSleep = [](unsigned) -> unsigned {
        ++pauses;
        std::filesystem::remove(lock);
        return 0;
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.content + " aged " + std::to_string(c.age));
        const std::string traceFile = root + "/tmp/zelo_trace/zelo_trace_log_0.txt";
        std::filesystem::remove(traceFile);
        std::ofstream(lock, std::ios::binary) << c.content;
        const struct timespec then[2] = {{std::time(nullptr) - c.age, 0},
                                         {std::time(nullptr) - c.age, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, lock.c_str(), then, 0), 0);
        pauses = 0;
        WaitValueLock();
        EXPECT_EQ(pauses, c.pauses);
        EXPECT_EQ(fileBytes(lock), pidText(::getpid()));
        std::ifstream in(traceFile);
        const std::string text{std::istreambuf_iterator<char>(in), {}};
        const auto at =
            text.find(c.traced.empty() ? "Lock file" : "\"WaitValueLock\": " + c.traced);
        EXPECT_EQ(at == std::string::npos, c.traced.empty()) << text;
        EXPECT_EQ(UnlockValue(), 0);
    }
    ml::gLockSleep = ::sleep;
}

TEST_F(MetricLogTest, CounterFilesHoldOneRawByte) {
    WriteUCToFile((dir + "zelo_num.log").c_str(), 120);
    EXPECT_EQ(fileBytes(dir + "zelo_num.log"), Bytes{0x78});
    uint8_t value = 9;
    ReadUCFromFile((dir + "zelo_num.log").c_str(), &value);
    EXPECT_EQ(value, 120);
    ReadUCFromFile((dir + "missing").c_str(), &value);
    EXPECT_EQ(value, 0);
    std::ofstream(dir + "empty");
    value = 9;
    ReadUCFromFile((dir + "empty").c_str(), &value);
    EXPECT_EQ(value, 0);
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
    MetricStat current{5, 0, 0};
    CalculateAverage(nullptr, &current, 1);
    EXPECT_EQ(current.u64Avg, 5u);
}

TEST_F(MetricLogTest, HistogramMinimumAndMaximum) {
    // Base 100, width 10, 12 buckets: the changed buckets name the range.
    const struct {
        std::vector<int> grew;
        uint64_t min, max;
    } cases[] = {{{3}, 120, 130}, {{0, 5}, 0, 150}, {{11}, 200, 200}, {{}, 0, 0}, {{0}, 0, 100}};
    for (const auto &c : cases) {
        resetLast();
        ml::sLastSnapshotBuffer.u64Timestamp = 1000;
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
    ml::sLastSnapshotBuffer = snapshot(10000, 10000);
    ml::sLastHistogramData = histogram(5, 7);
    SnapshotBuffer s = snapshot(40000, 40000); // 30 s later at the same power
    CalculateSnapshotValue(&s, histogram(5, 9));
    EXPECT_EQ(s.psSystemDC->u64Avg, 350u);
    EXPECT_EQ(s.psSystemAC->u64Avg, 400u);
    EXPECT_EQ(s.psSystemAC->u64Min, 400u) << "the fill rule";
    EXPECT_EQ(s.psEffectiveCPU->u64Avg, 40u) << "per second";
    EXPECT_EQ(s.psSystemDC->u64Min, 100u) << "bucket 1 grew, the open top bucket";
    EXPECT_EQ(s.psSystemDC->u64Max, 100u);
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
    const std::string traceFile = root + "/tmp/zelo_trace/zelo_trace_log_0.txt";
    std::ifstream in(traceFile);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_NE(text.str().find("[WARNING] \"CalculateSnapshotValue\": Time stamp is not right."),
              std::string::npos);
    EXPECT_NE(text.str().find("[ERROR] \"CalculateSnapshotValue\": Different histogram data."),
              std::string::npos);
}

TEST_F(MetricLogTest, FileIsByteExactWithAndWithoutPerformance) {
    ml::sLastSnapshotBuffer = snapshot(10000, 10000);
    ml::sLastHistogramData = histogram(0, 0);
    SnapshotBuffer s = snapshot(40000, 40000);
    testing::internal::CaptureStdout();
    CreateDataLog(&s, histogram(0, 30));
    const Bytes bytes = fileBytes(file(0));
    ASSERT_EQ(bytes.size(), 164u);
    EXPECT_EQ(bytes[0], 0) << "no supplies";
    EXPECT_EQ(bytes[1], 0);
    EXPECT_EQ(bytes[2], 1) << "system AC present";
    EXPECT_EQ(Bytes(bytes.begin() + 3, bytes.begin() + 11), (Bytes{0x90, 0x01, 0, 0, 0, 0, 0, 0}))
        << "400, little-endian";
    EXPECT_EQ(bytes[152], 24);
    EXPECT_EQ(bytes[153], 31);
    EXPECT_EQ(Bytes(bytes.begin() + 154, bytes.begin() + 162),
              (Bytes{0x40, 0x9C, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(bytes[162], 0x21);
    EXPECT_EQ(bytes[163], 0) << "no inlet readings on a rack";
    EXPECT_EQ(fileBytes(dir + "zelo_num.log"), Bytes{1});
    EXPECT_EQ(fileBytes(dir + "zelo_last.log"), Bytes{0});
    FreeSignalMetricValue(&s, nullptr, nullptr);

    useFirmware("perf 30 40 50 60\n");
    SnapshotBuffer t = snapshot(70000, 70000);
    CreateDataLog(&t, histogram(0, 60));
    const auto out = testing::internal::GetCapturedStdout();
    const Bytes withPerf = fileBytes(file(1));
    ASSERT_EQ(withPerf.size(), 264u);
    EXPECT_EQ(withPerf[164], 1);
    EXPECT_EQ(withPerf[165], 30) << "system average";
    EXPECT_NE(out.find("CPUPerf.Avg: 40\nCPUPerf.Max: 50\nCPUPerf.Min : 30\n"), std::string::npos)
        << out;
    EXPECT_NE(out.find("Write perf datas into /tmp/zelo_*.log \n"), std::string::npos);
    FreeSignalMetricValue(&t, nullptr, nullptr);
}

TEST_F(MetricLogTest, PublishesSixteenKeysInOrderAndSwapsThemOnABlade) {
    ml::sLastSnapshotBuffer = snapshot(10000, 10000);
    ml::sLastHistogramData = histogram(0, 0);
    ::setenv("RUX_FAMILY", "blade", 1);
    SnapshotBuffer s = snapshot(40000, 40000);
    FreeIfNotNull(s.psSystemDC);
    s.psSystemDC = nullptr;
    fake().storeCalls.clear();
    testing::internal::CaptureStdout();
    CreateDataLog(&s, histogram(0, 1));
    testing::internal::GetCapturedStdout();
    const std::vector<std::string> expected = {
        "set_int64 ZELO_total_dc_power_in_use_Avg=400 flag 0",
        "set_int64 ZELO_total_dc_power_in_use_Min=100 flag 0",
        "set_int64 ZELO_total_dc_power_in_use_Max=100 flag 0",
        "set_int64 ZELO_total_ac_power_in_use_Avg=0 flag 0",
        "set_int64 ZELO_total_ac_power_in_use_Min=0 flag 0",
        "set_int64 ZELO_total_ac_power_in_use_Max=0 flag 0",
        "set_int64 ZELO_consumptionCPU_Avg=150 flag 0",
        "set_int64 ZELO_consumptionCPU_Min=150 flag 0",
        "set_int64 ZELO_consumptionCPU_Max=150 flag 0",
        "set_int64 ZELO_consumptionMemory_Avg=60 flag 0",
        "set_int64 ZELO_consumptionMemory_Min=60 flag 0",
        "set_int64 ZELO_consumptionMemory_Max=60 flag 0",
        "set_int64 ZELO_consumptionCooling_Avg=40 flag 0",
        "set_int64 ZELO_consumptionCooling_Min=40 flag 0",
        "set_int64 ZELO_consumptionCooling_Max=40 flag 0",
        "set_int64 ZELO_timestamp=40000 flag 0",
    };
    std::vector<std::string> published;
    for (const auto &call : fake().storeCalls)
        if (call.rfind("set_int64 ZELO_t", 0) == 0 || call.rfind("set_int64 ZELO_c", 0) == 0)
            published.push_back(call);
    EXPECT_EQ(published, expected);
    EXPECT_EQ(fileBytes(file(0))[2 + 25], 0) << "row 6: system DC absent";
    FreeSignalMetricValue(&s, nullptr, nullptr);
}

TEST_F(MetricLogTest, RotatesOverOneHundredTwentyFilesAndReadsOldestFirst) {
    testing::internal::CaptureStdout();
    for (uint64_t n = 1; n <= 121; ++n) {
        SnapshotBuffer s = snapshot(n * 30000, n);
        CreateDataLog(&s, histogram(0, 0));
        FreeSignalMetricValue(&s, nullptr, nullptr);
    }
    EXPECT_TRUE(std::filesystem::exists(file(119)));
    EXPECT_EQ(fileBytes(dir + "zelo_num.log"), Bytes{120});
    EXPECT_EQ(fileBytes(dir + "zelo_last.log"), Bytes{0});
    EXPECT_EQ(ml::u8LogFileIndex, 1);

    SnapshotBuffer *buffers = nullptr;
    BladeInletSensorBuffer *inlets = nullptr;
    PerfMetricSet *perfs = nullptr;
    uint8_t count = 0;
    ASSERT_EQ(GetMetricValue(&buffers, &inlets, &perfs, &count), 0);
    ASSERT_EQ(count, 120);
    EXPECT_EQ(buffers[0].u64Timestamp, 2u * 30000) << "file 1 is the oldest";
    EXPECT_EQ(buffers[119].u64Timestamp, 121u * 30000) << "file 0 the newest";
    EXPECT_EQ(perfs, nullptr) << "no performance figures on this firmware";
    FreeMetricValue(buffers, inlets, perfs, count);

    // A missing file is skipped with one record fewer.
    std::filesystem::remove(file(50));
    ASSERT_EQ(GetMetricValue(&buffers, &inlets, &perfs, &count), 0);
    EXPECT_EQ(count, 119);
    EXPECT_EQ(buffers[118].u64Timestamp, 121u * 30000);
    FreeMetricValue(buffers, inlets, perfs, count);
    testing::internal::GetCapturedStdout();
    EXPECT_FALSE(std::filesystem::exists(dir + "zelo.lock")) << "released";
}

TEST_F(MetricLogTest, ReaderCopesWithCutAndForeignFiles) {
    testing::internal::CaptureStdout();
    SnapshotBuffer s = snapshot(30000, 1);
    CreateDataLog(&s, histogram(0, 0));
    FreeSignalMetricValue(&s, nullptr, nullptr);
    const Bytes full = fileBytes(file(0));

    SnapshotBuffer r{};
    r.u16Tag = 7;
    BladeInletSensorBuffer l{};
    PerfMetricSet f{};
    EXPECT_EQ(ReadMeticValueFromFile(file(0).c_str(), &r, &l, &f), 0);
    EXPECT_EQ(r.psSystemDC->u64Avg, 350u);
    EXPECT_EQ(r.u8PowerStatus, 0x21);
    EXPECT_EQ(r.u16Tag, 7) << "not in the file";
    FreeSignalMetricValue(&r, &l, &f);

    // Cut after row 14: no inlet count.
    std::ofstream(file(1), std::ios::binary)
        .write(reinterpret_cast<const char *>(full.data()), 163);
    r = {};
    l = {};
    EXPECT_EQ(ReadMeticValueFromFile(file(1).c_str(), &r, &l, &f), -1);
    FreeSignalMetricValue(&r, &l, &f);

    // A foreign file promising 255 readings with a 64-byte text lacking its end.
    Bytes foreign(full.begin(), full.begin() + 163);
    foreign.push_back(255);
    foreign.insert(foreign.end(), {9, 0, 0, 0});
    foreign.insert(foreign.end(), 64, 'x');
    std::ofstream(file(2), std::ios::binary)
        .write(reinterpret_cast<const char *>(foreign.data()), static_cast<long>(foreign.size()));
    r = {};
    l = {};
    EXPECT_EQ(ReadMeticValueFromFile(file(2).c_str(), &r, &l, &f), 0);
    EXPECT_EQ(l.u8SensorNum, 1) << "only what the file holds";
    EXPECT_EQ(std::strlen(l.psSensor->szTemperature), 63u);
    PrintAllMetricValue(&r, &l, &f);
    FreeSignalMetricValue(&r, &l, &f);
    const auto out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("InletSensorName:Unknown  Temperature:xxx"), std::string::npos) << out;

    EXPECT_EQ(ReadMeticValueFromFile((dir + "none").c_str(), &r, &l, &f), 2);
    EXPECT_EQ(ReadMeticValueFromFile(nullptr, &r, &l, &f), 1);
}

TEST_F(MetricLogTest, PrintingLayout) {
    MetricStat two[2] = {{1, 2, 3}, {4, 5, 6}};
    testing::internal::CaptureStdout();
    PrintMetricValue(two, 2, "PowerSupplyAC");
    PrintMetricValue(two, 1, "SystemAC");
    PrintMetricValue(nullptr, 1, "None");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "PowerSupplyAC[0] Avg:1 Max:2 Min:3\r\nPowerSupplyAC[1] Avg:4 Max:5 Min:6\r\n"
              "SystemAC Avg:1 Max:2 Min:3\r\n");

    // Seven readings print only the first five.
    BladeInletSensorBuffer list{};
    for (int i = 0; i < 7; ++i) {
        auto *node =
            static_cast<InletSensorTemperature *>(std::calloc(1, sizeof(InletSensorTemperature)));
        node->u32SensorIndex = static_cast<uint32_t>(i % 5);
        std::snprintf(node->szTemperature, sizeof node->szTemperature, "%d C", 20 + i);
        node->psNext = list.psSensor;
        list.psSensor = node;
        ++list.u8SensorNum;
    }
    SnapshotBuffer s{};
    s.u64Timestamp = 42;
    testing::internal::CaptureStdout();
    PrintAllMetricValue(&s, &list, nullptr);
    const auto out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.rfind("InletTemperature: 0\r\nOutletTemperature: 0\r\nTimestamp: 42\r\n", 0), 0u);
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 3 + 5);
    FreeBladeInletSensorBuffer(&list);
}

TEST_F(MetricLogTest, CopyIsDeepAndReleaseHonoursTheCounts) {
    SnapshotBuffer source = snapshot(5, 1);
    source.u8PowerSupplyACNum = 3;
    source.psPowerSupplyAC = static_cast<MetricStat *>(std::calloc(3, sizeof(MetricStat)));
    source.psPowerSupplyAC[2].u64Avg = 77;
    FreeIfNotNull(source.psCoolingPower);
    source.psCoolingPower = nullptr;
    SnapshotBuffer copy{};
    copy.u16Tag = 7;
    CopySnapshotBuffer(&copy, &source);
    EXPECT_EQ(copy.u16Tag, 7);
    ASSERT_NE(copy.psPowerSupplyAC, source.psPowerSupplyAC);
    EXPECT_EQ(copy.psPowerSupplyAC[2].u64Avg, 77u);
    copy.psPowerSupplyAC[2].u64Avg = 1;
    EXPECT_EQ(source.psPowerSupplyAC[2].u64Avg, 77u);
    EXPECT_EQ(copy.psCoolingPower, nullptr);
    FreeSignalMetricValue(&source, nullptr, nullptr);
    FreeSignalMetricValue(&copy, nullptr, nullptr);

    MetricStat sentinel{};
    MetricStat *none = &sentinel;
    CreateAndCopyData(&none, copy.psSystemAC, 0);
    EXPECT_EQ(none, nullptr) << "count 0 stores null";

    // A list claiming three nodes but holding two: both released, no overrun.
    BladeInletSensorBuffer list{3, nullptr};
    for (int i = 0; i < 2; ++i) {
        auto *node =
            static_cast<InletSensorTemperature *>(std::calloc(1, sizeof(InletSensorTemperature)));
        node->psNext = list.psSensor;
        list.psSensor = node;
    }
    FreeSignalMetricValue(nullptr, &list, nullptr);

    // Performance records are released without asking the firmware (with
    // none to answer, a question fails the test; a record kept leaks).
    fake().firmware = nullptr;
    PerfMetricSet perf{stat(1), nullptr, nullptr, nullptr};
    FreeSignalMetricValue(nullptr, nullptr, &perf);
}

} // namespace
} // namespace zelo::test
