// Discovery, the support cache and the store keys other processes rely on.
#include "fake_platform.h"

#include <zelo/firmware.h>

#include <cerrno>
#include <cstring>
#include <syslog.h>

namespace zelo::test {
namespace {

using DiscoveryTest = PlatformTest;
using Strings = std::vector<std::string>;

// Answer with the descriptor bytes 0x11 0x22 and the given handle.
Bytes discoveryAnswer(uint8_t handle) {
    return okResponse({0, 0x11, 0x22, handle, 0, 0});
}

void expectDiscovery(uint8_t instance, Bytes answer, int rc = 0) {
    fake().expect({0x2E, 0x82, discoveryRequest(instance), std::move(answer), rc});
}

TEST_F(DiscoveryTest, FindReturnsHandleAndDescriptorsOrZeros) {
    const struct {
        Bytes answer;
        int transport;
        uint8_t rc;
        Bytes outputs; // descriptor 1, descriptor 2, handle
    } cases[] = {
        {discoveryAnswer(9), 0, ZELO_RC_SUCCESS, {0x11, 0x22, 9}},
        {{0xC1}, 0, 0xC1, {0, 0, 0}},
        {discoveryAnswer(0), 0, ZELO_RC_NO_INSTANCE, {0, 0, 0}},
        {{}, -111, ZELO_RC_FAILURE, {0, 0, 0}},
    };
    for (const auto &c : cases) {
        expectDiscovery(1, c.answer, c.transport);
        uint8_t d1 = 0xEE, d2 = 0xEE, handle = 0xEE;
        testing::internal::CaptureStdout();
        EXPECT_EQ(ZELO_FindFirmwareInstance(1, &d1, &d2, &handle), c.rc);
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(fake().lastCapacity, 10u);
        EXPECT_EQ((Bytes{d1, d2, handle}), c.outputs) << int{c.rc};
    }
}

TEST_F(DiscoveryTest, StoreSaysSupportedSoNoTrafficEver) {
    fake().store["zelo_supported_0"] = 1;
    EXPECT_EQ(ZELO_IsSupported(0), 1);
    EXPECT_EQ(ZELO_IsSupported(0), 1);
    EXPECT_EQ(fake().storeCalls, Strings{"get_bool zelo_supported_0"});
}

TEST_F(DiscoveryTest, FirstDiscoveryPublishesFlagThenHandle) {
    expectDiscovery(0, discoveryAnswer(5));
    EXPECT_EQ(ZELO_IsSupported(0), 1);
    EXPECT_EQ(fake().storeCalls, (Strings{"get_bool zelo_supported_0", "get_bool zelo_supported_0",
                                          "set_bool zelo_supported_0=1 flag 1",
                                          "set_int zelo_module_handle_0=5 flag 1"}));
    EXPECT_EQ(ZELO_GetModuleHandle(0), 5);
}

TEST_F(DiscoveryTest, AbsentFirmwareIsAskedAgainOnlyAfterTwoSeconds) {
    expectDiscovery(0, {0xC1});
    testing::internal::CaptureStdout();
    EXPECT_EQ(ZELO_IsSupported(0), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[ZELO_IsSupported] Failed to call ZELO_FindFirmwareInstance() and the result code "
              "is 193.\nDon't support the ZELO.\n");
    EXPECT_EQ(fake().store.at("zelo_supported_0"), 0);

    const auto callsAfterFirst = fake().storeCalls.size();
    fake().uptime += 1;
    EXPECT_EQ(ZELO_IsSupported(0), 0);
    EXPECT_EQ(fake().storeCalls.size(), callsAfterFirst) << "no store read within 2 s";

    fake().uptime += 1;
    expectDiscovery(0, discoveryAnswer(7));
    EXPECT_EQ(ZELO_IsSupported(0), 1);
    EXPECT_EQ(fake().store.at("zelo_module_handle_0"), 7);
    // The re-check reads the store first, then discovers and publishes.
    EXPECT_EQ(Strings(fake().storeCalls.begin() + callsAfterFirst, fake().storeCalls.end()),
              (Strings{"get_bool zelo_supported_0", "set_bool zelo_supported_0=1 flag 1",
                       "set_int zelo_module_handle_0=7 flag 1"}));
}

TEST_F(DiscoveryTest, AnotherProcessFindingTheFirmwareIsSeenAtTheRecheck) {
    expectDiscovery(0, {0xC1});
    testing::internal::CaptureStdout();
    EXPECT_EQ(ZELO_IsSupported(0), 0);
    testing::internal::GetCapturedStdout();
    fake().store["zelo_supported_0"] = 1;
    fake().uptime += 2;
    EXPECT_EQ(ZELO_IsSupported(0), 1); // from the store, no discovery
}

TEST_F(DiscoveryTest, CacheAnswersForEveryInstanceButHandlesAreKeyedPerInstance) {
    fake().store["zelo_supported_0"] = 1;
    fake().store["zelo_module_handle_0"] = 0x105; // only the low byte counts
    EXPECT_EQ(ZELO_GetModuleHandle(0), 5);
    EXPECT_EQ(ZELO_IsSupported(1), 1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(ZELO_GetModuleHandle(1), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[ZELO_GetModuleHandle] Failed to call kiv_config_get_int(zelo_module_handle_1).\n");
}

TEST_F(DiscoveryTest, FailedFlagWriteStillAnswersDiscovery) {
    fake().failingSets.insert("zelo_supported_0");
    expectDiscovery(0, discoveryAnswer(5));
    testing::internal::CaptureStdout();
    EXPECT_EQ(ZELO_IsSupported(0), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[ZELO_IsSupported] Failed to call kiv_config_set_bool(zelo_supported_0).\n");
    EXPECT_EQ(fake().store.count("zelo_module_handle_0"), 0u);
}

TEST_F(DiscoveryTest, FailedHandleWriteWithdrawsTheFlag) {
    fake().failingSets.insert("zelo_module_handle_0");
    expectDiscovery(0, discoveryAnswer(5));
    testing::internal::CaptureStdout();
    EXPECT_EQ(ZELO_IsSupported(0), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[ZELO_IsSupported] Failed to call kiv_config_set_int(zelo_module_handle_0).\n");
    EXPECT_EQ(fake().storeCalls.back(), "clear zelo_supported_0");
    EXPECT_EQ(fake().store.count("zelo_supported_0"), 0u);
    EXPECT_EQ(ZELO_IsSupported(0), 1) << "the process itself keeps what it found";
}

TEST_F(DiscoveryTest, SysinfoFailingOnFirstCallSkipsDiscovery) {
    fake().sysinfoFails = true;
    testing::internal::CaptureStdout();
    EXPECT_EQ(ZELO_IsSupported(0), 0);
    const std::string message =
        std::string("Failed to call sysinfo(), errno:") + std::strerror(EFAULT) + ".\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), message);
    EXPECT_EQ(fake().syslog, (std::vector<std::pair<int, std::string>>{{LOG_ERR, message}}));
}

} // namespace
} // namespace zelo::test
