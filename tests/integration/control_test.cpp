// zelo-fwsim --control against a running simulator: what it changes is what
// the library reads next (register lines: the daemon's cap-event run), and a
// refusal says why.
#include "sim_process.h"

#include <zelo.h>
#include <zelo/platform.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>

namespace zelo::test {
namespace {

class ControlTest : public ::testing::Test {
  protected:
    RunResult control(const std::string &line) {
        return runProgram(ZELO_FWSIM_PATH, {"--control", line});
    }
    // Tag and status byte of the snapshot the firmware holds now.
    std::pair<uint16_t, uint8_t> snapshot() {
        SnapshotBuffer *raw = nullptr;
        HistogramData h{};
        testing::internal::CaptureStdout();
        const uint8_t rc = GetSnapshotBufferFromZELO(&raw, &h);
        testing::internal::GetCapturedStdout();
        std::unique_ptr<SnapshotBuffer, void (*)(SnapshotBuffer *)> s(raw, FreeSnapshotBuffer);
        std::free(h.pu8BucketData);
        EXPECT_EQ(rc, 0);
        return s ? std::make_pair(s->u16Tag, s->u8PowerStatus)
                 : std::make_pair(uint16_t{0}, uint8_t{0});
    }
    TempRoot root;
};

TEST_F(ControlTest, ChangesReachTheLibrary) {
    SimProcess sim(root.path(), "snapshot-period 86400000\n");
    ASSERT_NE(kiv_config_set_bool("zelo_supported_0", 1, 1), 0);
    ASSERT_NE(kiv_config_set_int("zelo_module_handle_0", 5, 1), 0);

    const auto r = control("tag 261"); // both bytes of the tag count
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(control("status-byte 0x12").status, 0);
    EXPECT_EQ(snapshot(), std::make_pair(uint16_t{261}, uint8_t{0}));
    ASSERT_EQ(control("snapshot-now").status, 0);
    EXPECT_EQ(snapshot(), std::make_pair(uint16_t{262}, uint8_t{0x12}));
    ASSERT_EQ(control("restart-now").status, 0);
    EXPECT_EQ(snapshot().first, 1);
}

TEST_F(ControlTest, RefusedOrUnansweredExitsOne) {
    auto r = control("reg 0 7 2 3500"); // nobody listens yet
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("zelo-fwsim: "), std::string::npos) << r.err;

    SimProcess sim(root.path(), "");
    r = control("bogus 1");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "zelo-fwsim: unknown keyword 'bogus'\n");
    r = runProgram(ZELO_FWSIM_PATH, {"--control", "tag 1", "--time-scale", "5"});
    EXPECT_EQ(r.status, 2);
}

} // namespace
} // namespace zelo::test
