// The library over the host transport to the real simulator program.
#include "sim_process.h"

#include <zelo.h>
#include <zelo/platform.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <vector>

namespace zelo::test {
namespace {

constexpr const char *kScenario = R"(# two instances, the second moved, a 450 W cap
present yes
instance 0 handle 5 descriptors 0x03 0x04
instance 1 handle 12
reg 0 7 0 450
reg 0 13 3 0x000A0003
reg 1 7 9 1200
)";

struct Read {
    uint8_t rc;
    uint64_t value;
};

Read readRegister(uint8_t handle, uint8_t element, uint8_t reg, uint8_t len) {
    uint8_t *request = nullptr;
    uint8_t *response = nullptr;
    Read r{GetReadRegisterRequestBuffer(handle, element, &request), 0};
    if (r.rc == 0)
        r.rc = ReadRegister(request, reg, len, &response);
    if (r.rc == 0)
        r.value = MSBMultiBytesToValue(ZELO_RESPONSE_HEAD_LEN, response, len);
    CleanReadBuffer(request, response);
    return r;
}

class SocketTest : public ::testing::Test {
  protected:
    TempRoot root;
};

TEST_F(SocketTest, DiscoveryAndRegistersAsTheScenarioSays) {
    SimProcess sim(root.path(), kScenario);
    EXPECT_TRUE(std::filesystem::exists(root.path() + "/run/zelo-fwsim.sock"));
    uint8_t d1 = 0, d2 = 0, handle = 0;
    EXPECT_EQ(ZELO_FindFirmwareInstance(0, &d1, &d2, &handle), ZELO_RC_SUCCESS);
    EXPECT_EQ((std::vector<uint8_t>{d1, d2, handle}), (std::vector<uint8_t>{3, 4, 5}));
    EXPECT_EQ(ZELO_FindFirmwareInstance(1, &d1, &d2, &handle), ZELO_RC_SUCCESS);
    EXPECT_EQ(handle, 12);
    EXPECT_EQ(ZELO_FindFirmwareInstance(2, &d1, &d2, &handle), ZELO_RC_NO_INSTANCE);

    // Eight bytes answered into room for six: the surplus is read and dropped.
    const uint8_t raw[] = {
        ZELO_IANA_ID & 0xFF, (ZELO_IANA_ID >> 8) & 0xFF, ZELO_IANA_ID >> 16, 5, 13, 0x82, 3, 4};
    std::vector<uint8_t> answer(8, 0xEE);
    uint32_t length = 6;
    EXPECT_EQ(IPMI_DoIPMICmd(0x2E, 0x81, raw, sizeof raw, answer.data(), &length), 0);
    EXPECT_EQ(length, 6u);
    EXPECT_EQ(std::vector<uint8_t>(answer.begin() + 4, answer.end()),
              (std::vector<uint8_t>{0, 0x0A, 0xEE, 0xEE}));
    EXPECT_EQ(readRegister(5, 13, 3, 4).value, 0x000A0003u);
    EXPECT_EQ(readRegister(12, 7, 9, 2).value, 1200u);
    EXPECT_EQ(readRegister(5, 7, 0, 2).value, 450u);
    EXPECT_EQ(readRegister(77, 7, 0, 2).rc, 0xCC) << "unknown module handle";
}

TEST_F(SocketTest, StoppedOrStuckSimulatorFailsWithinTwoSeconds) {
    {
        SimProcess sim(root.path(), kScenario + std::string("delay 5000\n"));
        const auto start = std::chrono::steady_clock::now();
        testing::internal::CaptureStdout();
        EXPECT_EQ(readRegister(5, 7, 0, 2).rc, ZELO_RC_FAILURE);
        testing::internal::GetCapturedStdout();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    }
    // Stopped: the socket is gone.
    testing::internal::CaptureStdout();
    EXPECT_EQ(readRegister(5, 7, 0, 2).rc, ZELO_RC_FAILURE);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Failed to call IPMI_DoIPMICmd"),
              std::string::npos);
}

} // namespace
} // namespace zelo::test
