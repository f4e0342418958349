// zelo-fwsim --control against a running simulator: a refusal says why. What
// the lines change is run by the daemon's tests and the simulator's own.
#include "sim_process.h"

#include <gtest/gtest.h>

namespace zelo::test {
namespace {

TEST(ControlTest, RefusedOrUnansweredExitsOne) {
    TempRoot root;
    const auto control = [](const std::string &line) {
        return runProgram(ZELO_FWSIM_PATH, {"--control", line});
    };
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
