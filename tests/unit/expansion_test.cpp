// Power figures of the expansion unit (firmware instance 1).
#include "fake_platform.h"

#include <zelo.h>

namespace zelo::test {
namespace {

using ExpansionTest = PlatformTest;

TEST_F(ExpansionTest, WithoutAnExpansionFirmwareNothingIsRead) {
    fake().expect({0x2E, 0x82, discoveryRequest(1), {0xC1}});
    uint32_t power = 9;
    testing::internal::CaptureStdout();
    EXPECT_EQ(GetTotalInputPowerForExpansion(&power), ZELO_RC_FAILURE);
    EXPECT_EQ(power, 0u);
    EXPECT_EQ(GetStandbyPowerForExpansion(&power), ZELO_RC_FAILURE); // within 2 s: no new discovery
    testing::internal::GetCapturedStdout();
}

// The figures themselves are read by the zeloctl test from the simulator.
TEST_F(ExpansionTest, FailuresOfInstanceOne) {
    fake().store["zelo_supported_1"] = 1;
    fake().store["zelo_module_handle_1"] = 9;
    fake().expect({0x2E, 0x81, concat(head(9, 13, 0x82), {1, 8}), {0xC0}});
    uint32_t power = 7;
    testing::internal::CaptureStdout();
    EXPECT_EQ(GetStandbyPowerForExpansion(&power), 0xC0);
    EXPECT_EQ(power, 0u);

    fake().store.erase("zelo_module_handle_1");
    EXPECT_EQ(GetTotalInputPowerForExpansion(&power), ZELO_RC_FAILURE);
    testing::internal::GetCapturedStdout();
}

} // namespace
} // namespace zelo::test
