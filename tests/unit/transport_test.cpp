// Element-method frames and register transactions, checked on the wire.
#include "fake_platform.h"

#include <zelo/firmware.h>

#include <cstdlib>
#include <utility>

namespace zelo::test {
namespace {

using TransportTest = PlatformTest;

TEST_F(TransportTest, EveryBuilderWritesTheHeadOfItsElement) {
    const std::pair<uint8_t (*)(uint8_t, uint8_t **), uint8_t> reads[] = {
        {GetReadStatusRegisterRequestBuffer, 0},
        {GetReadEnergyAccumulatorRegisterRequestBuffer, 1},
        {GetReadClockAccumulationRegisterRequestBuffer, 4},
        {GetReadPowerControlRegisterRequestBuffer, 7},
        {GetReadExhaustHeatIndexRegisterRequestBuffer, 9},
        {GetReadPowerSupplyRegisterRequestBuffer, 10},
        {GetReadServerPowerDownRegisterRequestBuffer, 13},
        {GetReadPowerMaximizerRequestBuffer, 14},
    };
    for (const auto &[build, element] : reads) {
        uint8_t *request = nullptr;
        ASSERT_EQ(build(0x42, &request), ZELO_RC_SUCCESS);
        EXPECT_EQ(Bytes(request, request + 6), head(0x42, element, 0x82));
        std::free(request);
    }
    const std::pair<uint8_t (*)(uint8_t, uint8_t, uint8_t, uint8_t **, uint32_t *), uint8_t>
        writes[] = {
            {GetWriteStatusControlRegisterRequestBuffer, 0},
            {GetWritePowerControlRegisterRequestBuffer, 7},
            {GetWritePowerSupplyRegisterRequestBuffer, 10},
        };
    for (const auto &[build, element] : writes) {
        uint8_t *request = nullptr;
        uint32_t length = 0;
        ASSERT_EQ(build(0x42, 3, 2, &request, &length), ZELO_RC_SUCCESS);
        EXPECT_EQ(length, 10u);
        EXPECT_EQ(Bytes(request, request + 8), concat(head(0x42, element, 0x83), {3, 2}));
        std::free(request);
    }
}

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

TEST(MSBMultiBytesToValue, ReadsBigEndianFieldsOfAnyWidth) {
    const uint8_t buffer[] = {0, 0, 0, 0, 0x01, 0x2C, 0x00, 0x00, 0x01, 0xF4};
    EXPECT_EQ(MSBMultiBytesToValue(4, buffer, 2), 300u);
    EXPECT_EQ(MSBMultiBytesToValue(4, buffer, 0), 0u);
    EXPECT_EQ(MSBMultiBytesToValue(4, buffer, 1), 1u);
    EXPECT_EQ(MSBMultiBytesToValue(0, nullptr, 2), 0u);
    CleanReadBuffer(nullptr, nullptr); // must do nothing
}

} // namespace
} // namespace zelo::test
