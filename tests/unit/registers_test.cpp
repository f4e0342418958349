// Named register accessors and capability queries, against the register
// table they implement, checked on the wire.
#include "fake_platform.h"

#include <zelo.h>

#include <functional>

namespace zelo::test {
namespace {

constexpr uint8_t kHandle = 5;

// A read accessor seen through one 64-bit output, preset to a sentinel.
using ReadFn = std::function<uint8_t(uint64_t *)>;
struct ReadRow {
    const char *name;
    uint8_t element;
    uint8_t reg;
    uint8_t length;
    ReadFn read;
};

template <typename T>
ReadFn reader(uint8_t (*fn)(uint8_t, T *)) {
    return [fn](uint64_t *value) {
        T out = static_cast<T>(0x5A5A5A5A5A5A5A5AULL);
        const uint8_t rc = fn(kHandle, &out);
        *value = out;
        return rc;
    };
}

#define ROW(fn, element, reg, length)                                                              \
    { #fn, element, reg, length, reader(fn) }
const ReadRow kReads[] = {
    ROW(ZELO_ReadPowerStatusRegister, 0, 0, 1),
    ROW(ZELO_2_6_ReadPowerEventRegister, 0, 1, 2),
    ROW(ZELO_ReadPowerHardwareErrorRegister, 0, 2, 1),
    ROW(ZELO_ReadSMSPowerControlPolicyRegister, 0, 3, 1),
    ROW(ZELO_ReadPOSTPowerSettingsRegister, 0, 5, 1),
    ROW(ZELO_ReadFirmwarePowerThermalCapabilitiesRegister, 0, 7, 1),
    ROW(ZELO_ReadServerPowerCapabilitiesRegister, 0, 8, 1),
    ROW(ZELO_ReadServerPowerSettingsRegister, 0, 9, 1),
    ROW(ZELO_ReadExtendedFirmwareCapabilitiesRegister, 0, 14, 4),
    ROW(ZELO_ReadCFFPowerControlPolicyRegister, 0, 16, 1),
    ROW(ZELO_ReadEARDCRegister, 1, 0, 8),
    ROW(ZELO_ReadEARACRegister, 1, 1, 8),
    ROW(ZELO_ReadCARRegister, 4, 0, 4),
    ROW(ZELO_ReadClockRateRegister, 4, 1, 2),
    ROW(ZELO_ReadPcapRegister, 7, 0, 2),
    ROW(ZELO_ReadPcapMaxHotplugRegister, 7, 1, 2),
    ROW(ZELO_ReadPcapMaxRegister, 7, 2, 2),
    ROW(ZELO_ReadPcapMinRegister, 7, 4, 2),
    ROW(ZELO_ReadPauxMaxRegister, 7, 5, 2),
    ROW(ZELO_ReadPcapSoftMinRegister, 7, 6, 2),
    ROW(ZELO_ReadPnameplateRegister, 7, 9, 2),
    ROW(ZELO_ReadPcapModeRegister, 7, 10, 1),
    ROW(ZELO_ReadEHIRegister, 9, 0, 1),
    ROW(ZELO_ReadInletTemperatureRegister, 9, 1, 1),
    ROW(ZELO_ReadServerPowerDownSupportRegister, 13, 0, 2),
    ROW(ZELO_ReadIPLTimeRegister, 13, 2, 2),
    ROW(ZELO_ReadNumberOWakesFromS3Register, 13, 4, 2),
    ROW(ZELO_ReadMaximizerStatusRegister, 14, 6, 1),
    ROW(ZELO_ReadRedundancyTargetRegister, 10, 30, 1),
};
#undef ROW

const Bytes kData = {0x81, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88};

Bytes readRequest(uint8_t element, uint8_t reg, uint8_t length) {
    return concat(head(kHandle, element, 0x82), {reg, length});
}

class RegistersTest : public PlatformTest {
  protected:
    // The store knows the firmware: handle 5 for instance 0, no discovery.
    void knownFirmware() {
        fake().store["zelo_supported_0"] = 1;
        fake().store["zelo_module_handle_0"] = kHandle;
    }
    void expectRead(uint8_t element, uint8_t reg, uint8_t length, const Bytes &data) {
        fake().expect({0x2E, 0x81, readRequest(element, reg, length), okResponse(data)});
    }
};

TEST_F(RegistersTest, EveryReadSendsItsRowAndDecodesItsWholeWidth) {
    for (const auto &row : kReads) {
        SCOPED_TRACE(row.name);
        expectRead(row.element, row.reg, row.length, kData);
        uint64_t value = 0;
        EXPECT_EQ(row.read(&value), ZELO_RC_SUCCESS);
        uint64_t expected = 0;
        for (uint8_t i = 0; i < row.length; ++i)
            expected = (expected << 8) | kData[i];
        EXPECT_EQ(value, expected);
    }
}

TEST_F(RegistersTest, EveryReadPassesTheCompletionCodeAndLeavesZero) {
    for (const auto &row : kReads) {
        SCOPED_TRACE(row.name);
        fake().expect({0x2E, 0x81, readRequest(row.element, row.reg, row.length), {0xC9}});
        uint64_t value = 1;
        EXPECT_EQ(row.read(&value), 201);
        EXPECT_EQ(value, 0u);
    }
}

TEST_F(RegistersTest, WritesSendTheirValueMostSignificantFirst) {
    const struct {
        const char *name;
        std::function<uint8_t()> write;
        uint8_t element;
        Bytes tail; // register id, length, value bytes
    } writes[] = {
#define WRITE(fn, value) #fn, [] { return fn(kHandle, value); }
        {WRITE(ZELO_WriteSMSPowerControlPolicyRegister, 0xA5), 0, {3, 1, 0xA5}},
        {WRITE(ZELO_WriteCFFPowerControlPolicyRegister, 0x03), 0, {16, 1, 0x03}},
        {WRITE(ZELO_WritePcapRegister, 300), 7, {0, 2, 0x01, 0x2C}},
        {WRITE(ZELO_WritePcapModeRegister, 2), 7, {10, 1, 2}},
        {WRITE(ZELO_WriteRedundancyTargetRegister, 1), 10, {30, 1, 1}},
#undef WRITE
    };
    for (const auto &w : writes) {
        SCOPED_TRACE(w.name);
        const Bytes request = concat(head(kHandle, w.element, 0x83), w.tail);
        fake().expect({0x2E, 0x81, request, okResponse({})});
        EXPECT_EQ(w.write(), ZELO_RC_SUCCESS);
        EXPECT_EQ(fake().lastCapacity, 4u);
        fake().expect({0x2E, 0x81, request, {0xD5}});
        EXPECT_EQ(w.write(), 0xD5);
        fake().expect({0x2E, 0x81, request, {}, -1});
        testing::internal::CaptureStdout();
        EXPECT_EQ(w.write(), ZELO_RC_FAILURE);
        testing::internal::GetCapturedStdout();
    }
}

// The standby power register is read by the expansion and zeloctl tests.
TEST_F(RegistersTest, PowerCyclesDecodeEachField) {
    expectRead(13, 3, 4, {0x00, 0x0A, 0x00, 0x03});
    uint16_t first = 0, second = 0;
    EXPECT_EQ(ZELO_ReadNumberOfPowerCyclesRegister(kHandle, &first, &second), 0);
    EXPECT_EQ(first, 10);
    EXPECT_EQ(second, 3);

    fake().expect({0x2E, 0x81, readRequest(13, 3, 4), {0xC1}});
    EXPECT_EQ(ZELO_ReadNumberOfPowerCyclesRegister(kHandle, &first, &second), 0xC1);
    EXPECT_EQ(first | second, 0);
}

TEST_F(RegistersTest, ExtendedCapabilityQueriesTestTheirBits) {
    knownFirmware();
    const struct {
        uint16_t extended;
        int staticSavings, minHotplug;
    } cases[] = {{0x100, 1, 0}, {0x040, 0, 1}, {0x200, 0, 1}, {0x000, 0, 0}};
    for (const auto &c : cases) {
        for (int query = 0; query < 2; ++query) {
            expectRead(0, 7, 1, {0x80});
            expectRead(
                0, 14, 4,
                {0, 0, static_cast<uint8_t>(c.extended >> 8), static_cast<uint8_t>(c.extended)});
        }
        EXPECT_EQ(ZELO_IsStaticPowerSavingsModeSupported(), c.staticSavings) << c.extended;
        EXPECT_EQ(ZELO_IsSupportPowerCapMinHotplugRegister(), c.minHotplug) << c.extended;
    }
    // Without capabilities bit 7 the extended register is never read.
    expectRead(0, 7, 1, {0x7F});
    EXPECT_EQ(ZELO_IsStaticPowerSavingsModeSupported(), 0);
    fake().expect({0x2E, 0x81, readRequest(0, 7, 1), {0xC1}});
    EXPECT_EQ(ZELO_IsSupportPowerCapMinHotplugRegister(), 0);
}

TEST_F(RegistersTest, MinHotplugCapIsReadOnlyWhenSupported) {
    knownFirmware();
    expectRead(0, 7, 1, {0x80});
    expectRead(0, 14, 4, {0, 0, 0, 0});
    uint16_t value = 9;
    testing::internal::CaptureStdout();
    EXPECT_EQ(ZELO_ReadPcapMinHotplugRegister(kHandle, &value), ZELO_RC_FAILURE);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(value, 0);

    expectRead(0, 7, 1, {0x80});
    expectRead(0, 14, 4, {0, 0, 0, 0x40});
    expectRead(7, 12, 2, {0x00, 0xDC});
    EXPECT_EQ(ZELO_ReadPcapMinHotplugRegister(kHandle, &value), 0);
    EXPECT_EQ(value, 220);
}

TEST_F(RegistersTest, CappingQueriesReadTheirRegisters) {
    // No firmware: discovery fails and no register is read.
    fake().expect({0x2E, 0x82, discoveryRequest(0), {0xC1}});
    testing::internal::CaptureStdout();
    EXPECT_EQ(ZELO_IsPowerCappingEnabled(), 0);
    EXPECT_EQ(ZELO_IsPowerCappingModeSupported(), 0);
    fake().uptime += 2;
    knownFirmware();
    expectRead(0, 5, 1, {0x02});
    EXPECT_EQ(ZELO_IsPowerCappingEnabled(), 1);
    expectRead(0, 5, 1, {0xFD});
    EXPECT_EQ(ZELO_IsPowerCappingEnabled(), 0);

    expectRead(7, 10, 1, {0x00});
    EXPECT_EQ(ZELO_IsPowerCappingModeSupported(), 1) << "whatever the mode holds";
    fake().expect({0x2E, 0x81, readRequest(7, 10, 1), {0xCB}});
    EXPECT_EQ(ZELO_IsPowerCappingModeSupported(), 0);
    expectRead(0, 5, 1, {0x02});
    EXPECT_EQ(ZELO_IsSupportPowerUtilization(), 1);
    ::setenv("RUX_FAMILY", "blade", 1);
    EXPECT_EQ(ZELO_IsSupportPowerUtilization(), 0) << "a blade reads no register";
    ::unsetenv("RUX_FAMILY");
    testing::internal::GetCapturedStdout();
}

} // namespace
} // namespace zelo::test
