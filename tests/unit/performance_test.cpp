// Performance buffers through the XPM command: request bytes, the busy
// retry, refusals, and the two sets built from them.
#include "fake_platform.h"

#include <zelo.h>

namespace zelo::test {
namespace {

int gWaits = 0;
int countWait(useconds_t us) {
    EXPECT_EQ(us, 1000u);
    ++gWaits;
    return 0;
}

// Time stamp 0x00010203, size 7, status, value.
Bytes xpmAnswer(uint8_t value, uint8_t status = 0, uint8_t size = 7) {
    return okResponse({0x00, 0x01, 0x02, 0x03, size, status, value});
}

class PerformanceTest : public PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        gWaits = 0;
        hooks->usleep = countWait;
        testing::internal::CaptureStdout();
    }
    void TearDown() override {
        testing::internal::GetCapturedStdout();
        PlatformTest::TearDown();
    }
    void expectXpm(uint8_t buffer, uint8_t selector, Bytes answer, int rc = 0) {
        fake().expect({0x2E, 0x84, concat(head(0x04, buffer, 0), {1, selector, 0x01, 0x00, 0x01}),
                       std::move(answer), rc});
    }
};

TEST_F(PerformanceTest, BusyAnswersAreRetriedTwiceAfterOneMillisecond) {
    PerformanceBuffer b{};
    expectXpm(4, 1, {0xC0});
    expectXpm(4, 1, xpmAnswer(12));
    EXPECT_EQ(ZELO_ReadPerformanceBuffer(4, 0, 1, 7, &b), 0);
    EXPECT_EQ(fake().lastCapacity, 11u);
    EXPECT_EQ(gWaits, 1);
    EXPECT_EQ(b.u8Value, 12);
    EXPECT_EQ(b.pu8Timestamp[3], 3);

    for (int i = 0; i < 3; ++i)
        expectXpm(0, 0, {0xC0});
    EXPECT_EQ(ZELO_ReadPerformanceBuffer(0, 0, 0, 7, &b), 0xC0);
    EXPECT_EQ(gWaits, 4) << "the wait also follows the third attempt";

    expectXpm(0, 0, {}, -3);
    EXPECT_EQ(ZELO_ReadPerformanceBuffer(0, 0, 0, 7, &b), 255);
    EXPECT_EQ(gWaits, 4) << "a transport failure is not retried";
}

TEST_F(PerformanceTest, RefusesStatusValueAndSizeCopyingNothing) {
    for (const Bytes &answer : {xpmAnswer(10, 1), xpmAnswer(101), xpmAnswer(10, 0, 8)}) {
        PerformanceBuffer b{};
        expectXpm(0, 0, answer);
        EXPECT_EQ(ZELO_ReadPerformanceBuffer(0, 0, 0, 7, &b), 255);
        EXPECT_EQ(b.u8Value, 0);
    }
}

TEST_F(PerformanceTest, SupportedUnlessTheFirmwareSaysNoBuffers) {
    const struct {
        Bytes answer;
        int transport;
        int expected;
    } cases[] = {
        {xpmAnswer(5), 0, 1}, {{0xC1}, 0, 0}, {{0x87}, 0, 0}, {{0xCC}, 0, 1}, {{}, -1, 1},
    };
    for (const auto &c : cases) {
        const int attempts = c.transport != 0 || c.answer.size() > 1 ? 1 : 3;
        for (int i = 0; i < attempts; ++i)
            expectXpm(0, 0, c.answer, c.transport);
        EXPECT_EQ(NM_Performance_IsSupported(), c.expected);
    }
}

const uint8_t kBuffers[4] = {0, 4, 5, 6}; // system, CPU, memory, I/O

TEST_F(PerformanceTest, CurrentFiguresArePublishedOnlyWhenAllFourRead) {
    for (uint8_t i = 0; i < 4; ++i)
        expectXpm(kBuffers[i], 0, xpmAnswer(static_cast<uint8_t>(10 * i + 10)));
    PerformanceData d{};
    EXPECT_EQ(GetPerformanceFromNM(&d), 0);
    EXPECT_EQ((std::array<uint64_t, 5>{d.u64SystemPerf, d.u64CPUPerf, d.u64MemoryPerf, d.u64IOPerf,
                                       d.u64PerfTimestamp}),
              (std::array<uint64_t, 5>{10, 20, 30, 40, 0x00010203}));
    EXPECT_EQ(fake().storeCalls,
              (std::vector<std::string>{"set_int64 ZELO_performanceSystem=10 flag 0",
                                        "set_int64 ZELO_performanceCPU=20 flag 0",
                                        "set_int64 ZELO_performanceMem=30 flag 0",
                                        "set_int64 ZELO_performanceIO=40 flag 0"}));

    fake().storeCalls.clear();
    expectXpm(0, 0, xpmAnswer(11));
    expectXpm(4, 0, xpmAnswer(101));
    EXPECT_EQ(GetPerformanceFromNM(&d), 255);
    EXPECT_EQ(d.u64SystemPerf, 10u) << "the record is not changed";
    EXPECT_TRUE(fake().storeCalls.empty());
}

TEST_F(PerformanceTest, StatisticsFillAverageMaximumMinimumInOrder) {
    for (int n = 0; n < 12; ++n)
        expectXpm(kBuffers[n / 3], static_cast<uint8_t>(n % 3),
                  xpmAnswer(static_cast<uint8_t>(n + 1)));
    MetricStat stats[4] = {};
    EXPECT_EQ(ReadPerformanceDataFromXPM(stats), 0);
    EXPECT_EQ((std::array<uint64_t, 4>{stats[0].u64Avg, stats[0].u64Max, stats[0].u64Min,
                                       stats[3].u64Min}),
              (std::array<uint64_t, 4>{1, 2, 3, 12}));

    for (int n = 0; n < 4; ++n)
        expectXpm(kBuffers[n / 3], static_cast<uint8_t>(n % 3), xpmAnswer(9));
    expectXpm(4, 1, xpmAnswer(9, 3));
    EXPECT_EQ(ReadPerformanceDataFromXPM(stats), 255);
    EXPECT_EQ(stats[0].u64Avg, 0u) << "zeroed, written only when all twelve are read";
}

} // namespace
} // namespace zelo::test
