// Snapshots read from the real simulator over its socket, across periods:
// the running totals grow exactly as the simulated power says.
#include "sim_process.h"

#include <zelo.h>
#include <zelo/platform.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <memory>

namespace zelo::test {
namespace {

using Clock = std::chrono::steady_clock;

struct Snapshot {
    std::unique_ptr<SnapshotBuffer, void (*)(SnapshotBuffer *)> record{nullptr, FreeSnapshotBuffer};
    HistogramData histogram{};
    ~Snapshot() { std::free(histogram.pu8BucketData); }
    uint64_t bucket(int i) const {
        return MSBMultiBytesToValue(static_cast<uint32_t>(i * histogram.u8BucketSize),
                                    histogram.pu8BucketData, histogram.u8BucketSize);
    }
};

class SnapshotTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // The firmware is known to the store, so no discovery state of an
        // earlier test in this process matters.
        ASSERT_NE(kiv_config_set_bool("zelo_supported_0", 1, 1), 0);
        ASSERT_NE(kiv_config_set_int("zelo_module_handle_0", 5, 1), 0);
    }
    // Reads snapshots until one carries a tag other than `after`.
    std::unique_ptr<Snapshot> nextAfter(uint16_t after) {
        const auto deadline = Clock::now() + std::chrono::seconds(20);
        while (Clock::now() < deadline) {
            auto s = std::make_unique<Snapshot>();
            SnapshotBuffer *raw = nullptr;
            testing::internal::CaptureStdout();
            const uint8_t rc = GetSnapshotBufferFromZELO(&raw, &s->histogram);
            testing::internal::GetCapturedStdout();
            s->record.reset(raw);
            EXPECT_EQ(rc, 0);
            if (rc != 0)
                return nullptr;
            if (s->record->u16Tag != after)
                return s;
        }
        ADD_FAILURE() << "no new snapshot after tag " << after;
        return nullptr;
    }
    TempRoot root;
};

TEST_F(SnapshotTest, RunningTotalsFollowAConstant350WattLoad) {
    // 1000 x real time: a 30 s snapshot period passes in 30 ms.
    SimProcess sim(root.path(), "power constant 350\nsnapshot-period 30000\n",
                   {"--time-scale", "1000"});
    const auto a = nextAfter(0);
    ASSERT_TRUE(a);
    const auto b = nextAfter(a->record->u16Tag);
    ASSERT_TRUE(b);
    const uint64_t ms = b->record->u64Timestamp - a->record->u64Timestamp;
    ASSERT_GT(ms, 0u);
    ASSERT_EQ(ms % 30000, 0u) << "snapshots fall on the period grid";
    EXPECT_EQ(b->record->u16Tag - a->record->u16Tag, ms / 30000) << "one tag per period";
    const auto grew = [](const MetricStat *x, const MetricStat *y) {
        return y->u64Avg - x->u64Avg;
    };
    EXPECT_EQ(grew(a->record->psSystemDC, b->record->psSystemDC), 350 * ms);
    EXPECT_EQ(grew(a->record->psSystemAC, b->record->psSystemAC), 350 * 100 / 94 * ms);
    EXPECT_EQ(grew(a->record->psCPUPower, b->record->psCPUPower), 350 * 45 / 100 * ms);
    EXPECT_EQ(grew(a->record->psEffectiveCPU, b->record->psEffectiveCPU), 40 * ms / 1000);
    // One DC sample per second, all in the bucket whose span holds 350 W:
    // base 100, width 50, so bucket 6 covers 350 to 400.
    for (int i = 0; i < a->histogram.u8BucketNum; ++i)
        EXPECT_EQ(b->bucket(i) - a->bucket(i), i == 6 ? ms / 1000 : 0u) << "bucket " << i;
    EXPECT_EQ(b->record->u8PowerSupplyACNum, 2);
    EXPECT_EQ(b->record->u8InletTemperature, 24);
}

TEST_F(SnapshotTest, ChunksOfOneBufferComeFromOneSnapshot) {
    // The 135-byte buffer in two chunks, and a new snapshot after every third
    // chunk read (and none by time): every other fetch sees the tag change
    // after its first chunk, starts over, and must still return one
    // snapshot's bytes.
    SimProcess sim(root.path(),
                   "power constant 250\nsnapshot-period 86400000\nsnapshot-every-reads 3\n"
                   "chunk-size 68\n",
                   {"--time-scale", "1000", "--epoch", "0"});
    uint16_t tag = 0;
    int checked = 0;
    for (int fetch = 0; fetch < 200 && checked < 3; ++fetch) {
        auto s = nextAfter(tag);
        ASSERT_TRUE(s);
        tag = s->record->u16Tag;
        // The DC total (first chunk) and the time stamp (second chunk) agree
        // only when both come from the same snapshot; at time 0 both are 0.
        EXPECT_EQ(s->record->psSystemDC->u64Avg, 250 * s->record->u64Timestamp);
        checked += s->record->u64Timestamp > 0;
    }
    EXPECT_EQ(checked, 3) << "snapshots taken after the firmware's first second";
}

} // namespace
} // namespace zelo::test
