// The tracker against a literal reference that appends every unknown sample
// one by one: after every call of a long random run (ordinary snapshots,
// jitter, gaps short and long, ten-year jumps, stamps past 2038, the clock
// stepping back, sometimes to before the history, power over 16 bits and
// missing DC power) ring and state must be identical.
#include "fake_platform.h"

#include "history/history_internal.h"

#include <zelo/history.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>

namespace zelo::test {
namespace {

int64_t gMonotonic = 0;

// The tracker as a straightforward loop, on the state after the start-up call.
struct Reference {
    PowerHistorySample ring[576]{};
    uint16_t next = 0;
    int32_t lastSaveTime = 0;
    uint64_t endtime = 0, lastTimestamp = 0;
    uint32_t sum[2]{};
    uint16_t min[2]{0xFFFF, 0xFFFF}, max[2]{}, count = 0; // AC, DC
    int wholeRingFills = 0; // calls that appended 576 unknown samples or more

    void add(const PowerHistorySample &s) {
        ring[next] = s;
        next = next + 1 == 576 ? 0 : next + 1;
        const auto elapsed = static_cast<int32_t>(static_cast<uint32_t>(gMonotonic) -
                                                  static_cast<uint32_t>(lastSaveTime));
        if (elapsed >= 600)
            lastSaveTime = static_cast<int32_t>(gMonotonic);
    }
    PowerHistorySample closed() const {
        const auto avg = [this](int c) { return static_cast<uint16_t>(sum[c] / count); };
        return {static_cast<uint32_t>(endtime), min[0], avg(0), max[0], min[1], avg(1), max[1]};
    }
    void empty() {
        count = 0;
        for (int c = 0; c < 2; ++c)
            sum[c] = max[c] = 0, min[c] = 0xFFFF;
    }
    void track(uint64_t ms, uint64_t ac, uint64_t dc) {
        const uint64_t t = ms / 1000;
        if (dc == 0 || t > INT32_MAX - 150)
            return;
        if (endtime == 0)
            endtime = t + 120;
        if (lastTimestamp >= t) {
            // Written slots and endtime shift if all stay above 0, else a new grid.
            const uint64_t step = lastTimestamp + 30 - t;
            bool fits = step <= 576 * 150 && step < endtime;
            for (const auto &s : ring)
                fits = fits && (s.timestamp == 0 || step < s.timestamp);
            for (auto &s : ring)
                if (fits && s.timestamp != 0)
                    s.timestamp -= static_cast<uint32_t>(step);
            if (fits) {
                endtime -= step;
            } else {
                empty();
                endtime = t + 120;
            }
        }
        const uint64_t r[2] = {ac, dc};
        if (t <= endtime) {
            ++count;
            for (int c = 0; c < 2; ++c) {
                sum[c] += static_cast<uint16_t>(r[c]);
                min[c] = static_cast<uint16_t>(std::min<uint64_t>(r[c], min[c]));
                max[c] = static_cast<uint16_t>(std::max<uint64_t>(r[c], max[c]));
            }
        }
        if (t < endtime) {
            lastTimestamp = t;
            return;
        }
        if (count != 0)
            add(closed());
        if (t == endtime) {
            empty();
            endtime = t + 150;
        } else {
            for (int c = 0; c < 2; ++c)
                sum[c] = min[c] = max[c] = static_cast<uint16_t>(r[c]);
            count = 1;
            const uint64_t d = t - endtime;
            const uint64_t missedSnapshots = d / 30 >= 1 ? d / 30 - 1 : 0;
            const uint64_t missedSamples = missedSnapshots / 5;
            wholeRingFills += missedSamples >= 576;
            if (missedSnapshots >= 5)
                for (uint64_t k = 0; k < missedSamples; ++k) {
                    const auto ts = static_cast<uint32_t>(endtime + 150 + 150 * k);
                    add({ts, 8888, 8888, 8888, 8888, 8888, 8888});
                }
            endtime += 150 * (missedSamples + 1);
            if (endtime == t) {
                add(closed());
                empty();
                endtime = t + 150;
            }
        }
        lastTimestamp = t;
    }
};

void expectSame(const Reference &ref, int call) {
    const auto &real = history::gPower;
    const auto &a = real.acc;
    const auto row = [](auto... v) {
        return std::array<uint64_t, 11>{static_cast<uint64_t>(v)...};
    };
    ASSERT_EQ(row(real.nextIndex, real.endtime, real.lastTimestamp, real.lastSaveTime, a.sum[0],
                  a.sum[1], a.count, a.min[0], a.max[0], a.min[1], a.max[1]),
              row(ref.next, ref.endtime, ref.lastTimestamp, ref.lastSaveTime, ref.sum[0],
                  ref.sum[1], ref.count, ref.min[0], ref.max[0], ref.min[1], ref.max[1]))
        << "call " << call;
    // Samples have no padding, so the rings compare as bytes.
    ASSERT_EQ(std::memcmp(real.ring, ref.ring, sizeof ref.ring), 0) << "call " << call;
}

class HistoryEquivalenceTest : public PlatformTest, public testing::WithParamInterface<unsigned> {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        gMonotonic = 0;
        hooks->monotonicSeconds = [] { return gMonotonic; };
        // Saves are compared; the summary files (no /tmp here) are not, and
        // failing to create them keeps the long run quick.
        std::filesystem::create_directories(root + "/pstorage/power");
        trackPowerHistory(0, 0, 0);
    }
};

TEST_P(HistoryEquivalenceTest, LongGapsFillTheRingAsAppendingEverySampleWould) {
    std::mt19937_64 random(GetParam());
    auto below = [&](uint64_t n) { return random() % n; };
    Reference ref;
    uint64_t t = 1'700'000'000;
    for (int call = 0; call < 1000; ++call) {
        const uint64_t kind = below(100);
        if (kind < 55)
            t += 30;
        else if (kind < 65)
            t += below(400);
        else if (kind < 80)
            t += below(3 * 576 * 150); // below and beyond a whole ring
        else if (kind < 83)
            t += 10 * 365 * 86400 + below(86400); // a corrupt far-future stamp
        else if (kind < 90)
            t -= below(100'000); // back, sometimes by more than 16 bits
        // else: the same time again
        const uint64_t ac = below(10) == 0 ? 65'536 + below(10'000) : below(2'000);
        const uint64_t dc = below(20) == 0 ? 0 : below(10) == 0 ? 70'000 : below(2'000);
        gMonotonic += static_cast<int64_t>(below(60));
        const uint64_t ms = t * 1000 + below(1000);
        trackPowerHistory(ms, ac, dc);
        ref.track(ms, ac, dc);
        expectSame(ref, call);
        if (HasFatalFailure())
            return;
        // Past what a stored stamp holds, the clock is set right again:
        // decades back, a new grid.
        if (t > INT32_MAX)
            t = 1'700'000'000 + below(86400);
    }
    EXPECT_GE(ref.wholeRingFills, 10) << "the run must take the direct fill";
}

INSTANTIATE_TEST_SUITE_P(Seeds, HistoryEquivalenceTest, testing::Values(1u, 2u, 3u, 4u));

} // namespace
} // namespace zelo::test
