// Element 10: per-supply registers, the configuration block, the indexed
// buffers and the capability gate.
#include "fake_platform.h"

#include <zelo.h>

#include <cstdlib>
#include <syslog.h>

namespace zelo::test {
namespace {

constexpr uint8_t kHandle = 5;

class PowerSupplyTest : public PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        fake().store["zelo_supported_0"] = 1;
        fake().store["zelo_module_handle_0"] = kHandle;
    }
    void expectRegister(uint8_t reg, uint8_t length, const Bytes &answer) {
        fake().expect({0x2E, 0x81, concat(head(kHandle, 10, 0x82), {reg, length}), answer});
    }
    // Capabilities bit 7 and extended capabilities as given.
    void expectCapabilities(uint8_t extendedLow16Hi, uint8_t extendedLow) {
        fake().expect({0x2E, 0x81, concat(head(kHandle, 0, 0x82), {7, 1}), okResponse({0x80})});
        fake().expect({0x2E, 0x81, concat(head(kHandle, 0, 0x82), {14, 4}),
                       okResponse({0, 0, extendedLow16Hi, extendedLow})});
    }
    void expectConfigurationBlock(const Bytes &answer) {
        fake().expect({0x2E, 0x81, head(kHandle, 10, 0x80), answer});
    }
    Bytes indexedRequest(uint8_t buffer, uint8_t index, uint8_t wanted) {
        return concat(head(kHandle, 10, 0x87), {buffer, index, wanted});
    }
};

TEST_F(PowerSupplyTest, SupplyRegisterIdsAreCheckedBeforeAnyTraffic) {
    uint32_t power[4] = {};
    uint8_t present[4] = {};
    int32_t volts[4] = {};
    testing::internal::CaptureStdout();
    EXPECT_EQ(ZELO_ReadOutputLabelPowerRegister(kHandle, 3, 4, power), ZELO_RC_FAILURE);
    EXPECT_EQ(ZELO_ReadPowerSupplyPresenceRegister(kHandle, 1, 4, present), ZELO_RC_FAILURE);
    EXPECT_EQ(ZELO_ReadPowerSupplyInputVoltageRegister(kHandle, 0x24, 4, volts), ZELO_RC_FAILURE);
    testing::internal::GetCapturedStdout();
    ASSERT_EQ(fake().syslog.size(), 3u) << "reported: printed and logged";
    EXPECT_EQ(fake().syslog[0].first, LOG_WARNING);
}

TEST_F(PowerSupplyTest, PerSupplyRegistersDecodeAtMostFourSupplies) {
    expectRegister(9, 8, okResponse({0x03, 0x20, 0x04, 0x4C, 0x00, 0x00, 0x06, 0x40}));
    uint32_t power[6] = {1, 1, 1, 1, 77, 77};
    EXPECT_EQ(ZELO_ReadOutputLabelPowerRegister(kHandle, 9, 6, power), 0);
    EXPECT_EQ(std::vector<uint32_t>(power, power + 6),
              (std::vector<uint32_t>{800, 1100, 0, 1600, 77, 77}));

    expectRegister(2, 1, okResponse({0x05}));
    uint8_t present[4] = {9, 9, 9, 9};
    testing::internal::CaptureStdout();
    EXPECT_EQ(ZELO_ReadPowerSupplyPresenceRegister(kHandle, 2, 4, present), 0);
    EXPECT_EQ(Bytes(present, present + 4), (Bytes{1, 0, 1, 0}));
    expectRegister(18, 1, {0xC1});
    EXPECT_EQ(ZELO_ReadPowerSupplyPresenceRegister(kHandle, 18, 4, present), 0xC1);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(Bytes(present, present + 4), (Bytes{1, 0, 1, 0})) << "untouched on failure";

    // Only the low four bits say which supplies report; code 2 is -48 V DC, 3 unknown.
    const struct {
        Bytes answer;
        std::vector<int32_t> volts;
    } voltages[] = {{{0x0B, 0x64}, {110, 220, 0, 220}}, {{0xF3, 0xFE}, {-48, 0, 0, 0}}};
    for (const auto &v : voltages) {
        expectRegister(4, 2, okResponse(v.answer));
        int32_t volts[4] = {};
        EXPECT_EQ(ZELO_ReadPowerSupplyInputVoltageRegister(kHandle, 4, 4, volts), 0);
        EXPECT_EQ(std::vector<int32_t>(volts, volts + 4), v.volts);
    }

    expectRegister(0, 1, okResponse({0xF3}));
    uint8_t supplies = 0;
    EXPECT_EQ(ZELO_ReadMaxNumberOfPowerSuppliesRegister(kHandle, &supplies), 0);
    EXPECT_EQ(supplies, 4) << "low nibble plus one";
}

TEST_F(PowerSupplyTest, ConfigurationBlockChecksItsLength) {
    expectConfigurationBlock(okResponse({5, 0xEE, 3, 4, 2, 2}));
    uint8_t config[4] = {};
    testing::internal::CaptureStdout();
    EXPECT_EQ(ZELO_ReadPowerSupplyElementConfigurationRegister(kHandle, config), 0);
    EXPECT_EQ(Bytes(config, config + 4), (Bytes{3, 4, 2, 2}));
    expectConfigurationBlock(okResponse({4, 0, 9, 9, 9, 9}));
    EXPECT_EQ(ZELO_ReadPowerSupplyElementConfigurationRegister(kHandle, config), ZELO_RC_FAILURE);
    expectConfigurationBlock({0xC1});
    EXPECT_EQ(ZELO_ReadPowerSupplyElementConfigurationRegister(kHandle, config), 0xC1);
    fake().expect({0x2E, 0x81, head(kHandle, 10, 0x80), {}, -5});
    EXPECT_EQ(ZELO_ReadPowerSupplyElementConfigurationRegister(kHandle, config), ZELO_RC_FAILURE);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(Bytes(config, config + 4), (Bytes{3, 4, 2, 2})) << "untouched on failure";
}

TEST_F(PowerSupplyTest, PsuTypeEntryIsGatedByTheRedundancyCapability) {
    expectCapabilities(0x01, 0x40); // bit 8 and 6, not 9
    PSUTypeEntry entry = {7, 7, 7};
    EXPECT_EQ(ZELO_ReadSupportedPSUTypesIndexedBuffer(kHandle, 0, &entry), ZELO_RC_FAILURE);
    expectCapabilities(0x01, 0x40);
    EXPECT_EQ(ZELO_WriteTargetRedundancyConfigurationRegister(kHandle, 1), ZELO_RC_FAILURE);
    EXPECT_EQ(fake().syslog.size(), 2u) << "the gate only logs";

    expectCapabilities(0x02, 0x00);
    fake().expect(
        {0x2E, 0x81, indexedRequest(0, 1, 4), okResponse({0, 1, 4, 0xA1, 0xB2, 0x04, 0x4C})});
    testing::internal::CaptureStdout();
    EXPECT_EQ(ZELO_ReadSupportedPSUTypesIndexedBuffer(kHandle, 1, &entry), 0);
    EXPECT_EQ(fake().lastCapacity, 11u);
    EXPECT_EQ(
        (std::vector<unsigned>{entry.u8PSUTypeByte0, entry.u8PSUTypeByte1, entry.u16PSUWattage}),
        (std::vector<unsigned>{0xA1, 0xB2, 1100}));

    expectCapabilities(0x02, 0x00);
    fake().expect({0x2E, 0x81, concat(head(kHandle, 10, 0x83), {31, 1, 2}), okResponse({})});
    EXPECT_EQ(ZELO_WriteTargetRedundancyConfigurationRegister(kHandle, 2), 0);

    expectCapabilities(0x02, 0x00);
    fake().expect({0x2E, 0x81, indexedRequest(0, 2, 4), {}, -110});
    EXPECT_EQ(ZELO_ReadSupportedPSUTypesIndexedBuffer(kHandle, 2, &entry), ZELO_RC_FAILURE);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(entry.u16PSUWattage, 1100) << "untouched on failure";
}

// A configuration entry: properties 0x0047 (mode 2, valid, policy1/target0,
// active), 2+1, words 1, 2, 3, then the index list.
Bytes configEntry(uint8_t index, uint8_t entryLength, const Bytes &list) {
    return okResponse(
        concat({1, index, entryLength, 0x3C, 0x00, 0x47, 2, 1, 0, 1, 0, 2, 0, 3}, list));
}

class ConfigEntryTest : public PowerSupplyTest {
  protected:
    // Reads entry 0 with index-list factors f1 x f2 and the given answer (or
    // transport result).
    uint8_t read(uint8_t f1, uint8_t f2, const Bytes &answer, RedundancyConfigEntry &entry,
                 int transport = 0) {
        expectConfigurationBlock(okResponse({5, 0, 2, 1, f1, f2}));
        fake().expect({0x2E, 0x81, indexedRequest(1, 0, static_cast<uint8_t>(11 + f1 * f2)), answer,
                       transport});
        testing::internal::CaptureStdout();
        const uint8_t rc = ZELO_ReadSupportedRedundancyConfigsIndexedBuffer(kHandle, 0, &entry);
        testing::internal::GetCapturedStdout();
        return rc;
    }
};

TEST_F(ConfigEntryTest, DecodesPropertiesAndCopiesTheIndexList) {
    RedundancyConfigEntry e = {};
    ASSERT_EQ(read(2, 2, configEntry(0, 13, {1, 0}), e), 0);
    EXPECT_EQ(e.u8ConfigByte0, 0x3C);
    EXPECT_EQ(e.u16ConfigProperties, 0x47);
    // Property bits in order: mode 2, valid, the four policy/target bits, active, bit 7.
    EXPECT_EQ(
        Bytes({e.u8PowerModeBit, e.u8PowerModeBitClear, e.u8PowerMode, e.u8ValidForPSUs,
               e.u8AllowedPolicy1Target0, e.u8AllowedPolicy0Target0, e.u8AllowedPolicy1Target1,
               e.u8AllowedPolicy0Target1, e.u8Active, e.u8Bit7, e.u8Bit7Clear}),
        (Bytes{1, 0, 2, 1, 1, 0, 0, 0, 1, 0, 1}));
    EXPECT_EQ(e.u8RedundancyN, 2);
    EXPECT_EQ(e.u8RedundancyM, 1);
    EXPECT_EQ(std::vector<uint64_t>({e.u64ConfigWord1, e.u64ConfigWord2, e.u64ConfigWord3}),
              (std::vector<uint64_t>{1, 2, 3}));
    ASSERT_EQ(e.u8PSUTypeIndexLen, 2);
    EXPECT_EQ(Bytes(e.pu8PSUTypeIndex, e.pu8PSUTypeIndex + 2), (Bytes{1, 0}));
    std::free(e.pu8PSUTypeIndex);
}

// The list is as long as the entry says beyond its 11 fixed bytes; what
// arrived is copied as far as the factors allow, the rest is zero.
TEST_F(ConfigEntryTest, IndexListLengthComesFromTheEntryLength) {
    const struct {
        uint8_t f1, f2, entryLength;
        Bytes list, expected;
    } cases[] = {
        {2, 2, 11, {}, {}},
        {2, 2, 10, {}, {}}, // a short entry still succeeds
        {2, 2, 17, {1, 2, 3}, {1, 2, 3, 0, 0, 0}},
        {1, 2, 15, {1, 2, 3, 4}, {1, 2, 0, 0}},
        // 255 x 255 + 11: the request carries its low byte, the area holds it all.
        {255, 255, 15, {0, 1, 0, 1}, {0, 1, 0, 1}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << int{c.f1} << " " << int{c.entryLength});
        RedundancyConfigEntry e = {};
        ASSERT_EQ(read(c.f1, c.f2, configEntry(0, c.entryLength, c.list), e), 0);
        EXPECT_EQ(fake().lastCapacity, 18u + c.f1 * c.f2);
        EXPECT_EQ(Bytes(e.pu8PSUTypeIndex, e.pu8PSUTypeIndex + e.u8PSUTypeIndexLen), c.expected);
        EXPECT_EQ(e.pu8PSUTypeIndex == nullptr, c.expected.empty());
        std::free(e.pu8PSUTypeIndex);
    }
}

TEST_F(ConfigEntryTest, FailuresOfEitherExchange) {
    RedundancyConfigEntry e = {};
    expectConfigurationBlock({0xC3});
    testing::internal::CaptureStdout();
    EXPECT_EQ(ZELO_ReadSupportedRedundancyConfigsIndexedBuffer(kHandle, 0, &e), ZELO_RC_FAILURE);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(read(2, 2, {}, e, -7), ZELO_RC_FAILURE);
    EXPECT_EQ(read(2, 2, {0xCC}, e), 0xCC);
    EXPECT_EQ(e.pu8PSUTypeIndex, nullptr);
}

} // namespace
} // namespace zelo::test
