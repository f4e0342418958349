// Element-method frames and register transactions, checked on the wire.
#include "fake_platform.h"

#include <zelo/acquisition.h>
#include <zelo/firmware.h>

#include <cstdlib>

namespace zelo::test {
namespace {

using TransportTest = PlatformTest;

TEST_F(TransportTest, BuildersRefuseMissingOutputsAndImpossibleLengths) {
    uint8_t *request = reinterpret_cast<uint8_t *>(1);
    EXPECT_EQ(GetInvokeElementMethodRequestBuffer(1, 0, 0x80, 5, &request), ZELO_RC_FAILURE);
    EXPECT_EQ(request, nullptr);
    EXPECT_EQ(GetReadRegisterRequestBuffer(1, 0, nullptr), ZELO_RC_INVALID_PARAMETER);
    EXPECT_EQ(GetWriteRegisterRequestBuffer(1, 0, 0, 1, &request, nullptr),
              ZELO_RC_INVALID_PARAMETER);
}

TEST_F(TransportTest, ReadPassesCompletionCodeThroughAndZeroFillsShortAnswers) {
    fake().expect({0x2E, 0x81, concat(head(5, 1, 0x82), {1, 8}), okResponse({0xAA, 0xBB})});
    fake().expect({0x2E, 0x81, concat(head(5, 1, 0x82), {1, 8}), {0xC1}});
    fake().expect({0x2E, 0x81, concat(head(5, 1, 0x82), {1, 8}), {}, -110});
    uint8_t *request = nullptr;
    uint8_t *response = nullptr;
    ASSERT_EQ(GetReadEnergyAccumulatorRegisterRequestBuffer(5, &request), 0);
    EXPECT_EQ(ReadRegister(request, 1, 8, &response), ZELO_RC_SUCCESS);
    EXPECT_EQ(fake().lastCapacity, 12u);
    EXPECT_EQ(MSBMultiBytesToValue(4, response, 8), 0xAABB000000000000u);
    CleanReadBuffer(nullptr, response);
    EXPECT_EQ(ReadRegister(request, 1, 8, &response), 193);
    EXPECT_NE(response, nullptr) << "the response area belongs to the caller also on failure";
    CleanReadBuffer(nullptr, response);
    testing::internal::CaptureStdout();
    EXPECT_EQ(ReadRegister(request, 1, 8, &response), ZELO_RC_FAILURE);
    testing::internal::GetCapturedStdout();
    CleanReadBuffer(request, response);
}

// No room for the answer: nothing goes to the firmware, and the caller is
// told so rather than handed a null area with a success.
TEST_F(TransportTest, AnAnswerWithoutRoomIsNeverAsked) {
    uint8_t *request = nullptr;
    ASSERT_EQ(GetReadEnergyAccumulatorRegisterRequestBuffer(5, &request), 0);
    HooksOverride over;
    over->calloc = [](std::size_t, std::size_t) -> void * { return nullptr; };
    uint8_t *response = reinterpret_cast<uint8_t *>(1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(ReadRegister(request, 1, 8, &response), ZELO_RC_NO_MEMORY);
    EXPECT_EQ(response, nullptr);
    uint8_t chunk[32];
    uint16_t tag = 1, got = 1;
    EXPECT_EQ(ZELO_ReadSnapshotBuffer(5, 0, sizeof chunk, &tag, &got, chunk), ZELO_RC_NO_MEMORY);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[ReadRegister] Failed to allocate memory for response buffer.\n"
              "[ZELO_ReadSnapshotBuffer] Failed to allocate memory for response buffer.\n");
    EXPECT_EQ(fake().exchanges, 0u);
    CleanReadBuffer(request, nullptr);
}

// Every width is read by the register tests; these are the edges.
TEST(MSBMultiBytesToValue, NoWidthOrNoBufferIsZero) {
    const uint8_t buffer[] = {0, 0, 0, 0, 0x01};
    EXPECT_EQ(MSBMultiBytesToValue(4, buffer, 0), 0u);
    EXPECT_EQ(MSBMultiBytesToValue(0, nullptr, 2), 0u);
    CleanReadBuffer(nullptr, nullptr); // must do nothing
}

} // namespace
} // namespace zelo::test
