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

TEST_F(ExpansionTest, ReadsNameplateAndStandbyOfInstanceOne) {
    fake().store["zelo_supported_1"] = 1;
    fake().store["zelo_module_handle_1"] = 9;
    fake().expect({0x2E, 0x81, concat(head(9, 7, 0x82), {9, 2}), okResponse({0x06, 0x40})});
    fake().expect({0x2E, 0x81, concat(head(9, 13, 0x82), {1, 8}),
                   okResponse({0, 0, 7, 0x01, 0x2C, 0, 0, 0})});
    fake().expect({0x2E, 0x81, concat(head(9, 13, 0x82), {1, 8}), {0xC0}});
    uint32_t power = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(GetTotalInputPowerForExpansion(&power), 0);
    EXPECT_EQ(power, 1600u);
    EXPECT_EQ(GetStandbyPowerForExpansion(&power), 0);
    EXPECT_EQ(power, 300u);
    EXPECT_EQ(GetStandbyPowerForExpansion(&power), 0xC0);
    EXPECT_EQ(power, 0u);

    fake().store.erase("zelo_module_handle_1");
    EXPECT_EQ(GetTotalInputPowerForExpansion(&power), ZELO_RC_FAILURE);
    testing::internal::GetCapturedStdout();
}

} // namespace
} // namespace zelo::test
