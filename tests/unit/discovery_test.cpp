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

// The store says supported: no traffic ever, and the cache answers for every
// instance, but handles are keyed per instance.
TEST_F(DiscoveryTest, StoreSaysSupportedSoNoTrafficEver) {
    fake().store["zelo_supported_0"] = 1;
    fake().store["zelo_module_handle_0"] = 0x105; // only the low byte counts
    EXPECT_EQ(ZELO_IsSupported(0), 1);
    EXPECT_EQ(ZELO_IsSupported(0), 1);
    EXPECT_EQ(fake().storeCalls, Strings{"get_bool zelo_supported_0"});
    EXPECT_EQ(ZELO_GetModuleHandle(0), 5);
    EXPECT_EQ(ZELO_IsSupported(1), 1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(ZELO_GetModuleHandle(1), 0);
    testing::internal::GetCapturedStdout();
}

TEST_F(DiscoveryTest, AbsentFirmwareIsAskedAgainOnlyAfterTwoSeconds) {
    expectDiscovery(0, {0xC1});
    testing::internal::CaptureStdout();
    EXPECT_EQ(ZELO_IsSupported(0), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(fake().store.at("zelo_supported_0"), 0);

    const auto callsAfterFirst = fake().storeCalls.size();
    fake().uptime += 1;
    EXPECT_EQ(ZELO_IsSupported(0), 0);
    EXPECT_EQ(fake().storeCalls.size(), callsAfterFirst) << "no store read within 2 s";

    fake().uptime += 1;
    expectDiscovery(0, discoveryAnswer(7)); // another process finding it is read first
    EXPECT_EQ(ZELO_IsSupported(0), 1);
    EXPECT_EQ(fake().store.at("zelo_module_handle_0"), 7);
    // The re-check reads the store first, then discovers and publishes.
    EXPECT_EQ(Strings(fake().storeCalls.begin() + callsAfterFirst, fake().storeCalls.end()),
              (Strings{"get_bool zelo_supported_0", "set_bool zelo_supported_0=1 flag 1",
                       "set_int zelo_module_handle_0=7 flag 1"}));
}

// A failed flag write still answers; a failed handle write withdraws the
// flag, though the process itself keeps what it found.
TEST_F(DiscoveryTest, FailedStoreWrites) {
    for (const char *failing : {"zelo_supported_0", "zelo_module_handle_0"}) {
        TearDown();
        SetUp();
        fake().failingSets.insert(failing);
        expectDiscovery(0, discoveryAnswer(5));
        testing::internal::CaptureStdout();
        const bool flag = std::string(failing) == "zelo_supported_0";
        EXPECT_EQ(ZELO_IsSupported(0), flag ? 1 : 0);
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(fake().store.count("zelo_module_handle_0"), 0u);
        EXPECT_EQ(fake().store.count("zelo_supported_0"), 0u);
        EXPECT_EQ(ZELO_IsSupported(0), 1);
    }
}

TEST_F(DiscoveryTest, SysinfoFailingOnFirstCallSkipsDiscovery) {
    fake().sysinfoFails = true;
    testing::internal::CaptureStdout();
    EXPECT_EQ(ZELO_IsSupported(0), 0);
    testing::internal::GetCapturedStdout();
    ASSERT_EQ(fake().syslog.size(), 1u);
    EXPECT_EQ(fake().syslog[0].first, LOG_ERR);
}

} // namespace
} // namespace zelo::test
