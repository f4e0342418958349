// The library over the host transport to the real simulator program.
#include "ipmi_wire.h"
#include "sim_process.h"

#include <zelo.h>
#include <zelo/platform.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
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
fault 0 9 0x82 0xC9
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
    {
        SimProcess sim(root.path(), kScenario);
        EXPECT_TRUE(std::filesystem::exists(root.path() + "/run/zelo-fwsim.sock"));
        uint8_t d1 = 0, d2 = 0, handle = 0;
        EXPECT_EQ(ZELO_FindFirmwareInstance(0, &d1, &d2, &handle), ZELO_RC_SUCCESS);
        EXPECT_EQ((std::vector<uint8_t>{d1, d2, handle}), (std::vector<uint8_t>{3, 4, 5}));
        EXPECT_EQ(ZELO_FindFirmwareInstance(1, &d1, &d2, &handle), ZELO_RC_SUCCESS);
        EXPECT_EQ(handle, 12);
        EXPECT_EQ(ZELO_FindFirmwareInstance(2, &d1, &d2, &handle), ZELO_RC_NO_INSTANCE);

        EXPECT_EQ(readRegister(5, 13, 3, 4).value, 0x000A0003u);
        EXPECT_EQ(readRegister(12, 7, 9, 2).value, 1200u);
        EXPECT_EQ(readRegister(5, 7, 0, 2).value, 450u);
        uint8_t *request = nullptr;
        uint32_t length = 0;
        ASSERT_EQ(GetWriteRegisterRequestBuffer(5, 7, 0, 2, &request, &length), 0);
        request[8] = 300 >> 8;
        request[9] = 300 & 0xFF;
        EXPECT_EQ(WriteRegister(request, length), ZELO_RC_SUCCESS);
        std::free(request);
        EXPECT_EQ(readRegister(5, 7, 0, 2).value, 300u);
        const Read faulted = readRegister(5, 9, 0, 1);
        EXPECT_EQ(faulted.rc, 0xC9);
        EXPECT_EQ(faulted.value, 0u);
        EXPECT_EQ(readRegister(77, 7, 0, 2).rc, 0xCC) << "unknown module handle";
    }
    SimProcess sim(root.path(), "present no\n");
    uint8_t d1 = 0, d2 = 0, handle = 0;
    EXPECT_EQ(ZELO_FindFirmwareInstance(0, &d1, &d2, &handle), 0xC1);
    EXPECT_EQ(readRegister(5, 7, 0, 2).rc, 0xC1);
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

// A peer that answers more than the caller can hold: the surplus is dropped.
TEST_F(SocketTest, BytesBeyondTheCapacityAreNeverWritten) {
    const std::string path = root.path() + "/peer.sock";
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, path.c_str());
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    ASSERT_EQ(::listen(listener, 1), 0);
    std::thread peer([listener] {
        const int fd = ::accept(listener, nullptr, nullptr);
        uint8_t in[6];
        for (std::size_t got = 0; got < sizeof in;) {
            const ssize_t n = ::read(fd, in + got, sizeof in - got);
            if (n <= 0)
                break;
            got += static_cast<std::size_t>(n);
        }
        uint8_t out[2 + 100];
        wire::putLe16(out, 100);
        for (int i = 0; i < 100; ++i)
            out[2 + i] = static_cast<uint8_t>(i);
        (void)::write(fd, out, sizeof out);
        ::close(fd);
    });
    ::setenv("ZELO_IPMI_SOCKET", path.c_str(), 1);
    uint8_t response[10];
    std::memset(response, 0xEE, sizeof response);
    uint32_t length = 6;
    const uint8_t request[2] = {1, 2};
    EXPECT_EQ(IPMI_DoIPMICmd(0x2E, 0x81, request, sizeof request, response, &length), 0);
    peer.join();
    ::close(listener);
    ::unsetenv("ZELO_IPMI_SOCKET");
    EXPECT_EQ(length, 6u);
    EXPECT_EQ(response[5], 5);
    EXPECT_EQ(response[6], 0xEE);
}

} // namespace
} // namespace zelo::test
