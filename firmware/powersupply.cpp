// Power supplies and redundancy (element 10): per-supply registers, the
// element configuration block and the two indexed buffers.
#include "exchange.h"
#include "register_access.h"
#include "report.h"

#include <zelo/firmware.h>
#include <zelo/platform.h>
#include <zelo/powersupply.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace zelo::firmware {
namespace {

constexpr uint8_t kElement = 10;
constexpr uint8_t kSupplyIdMask = 0xE7; // bits 3 and 4 pick one of four register instances
constexpr uint8_t kPsuTypesBuffer = 0;
constexpr uint8_t kRedundancyConfigsBuffer = 1;
constexpr uint32_t kIndexedRequestLen = 9;
constexpr uint32_t kConfigurationResponseLen = 10;
constexpr uint8_t kConfigurationLen = 5;
constexpr uint8_t kPsuTypeEntryLen = 4;
constexpr uint32_t kPsuTypeResponseLen = 11;
constexpr uint32_t kConfigEntryHeadLen = 11; // entry bytes before the index list
constexpr uint32_t kConfigResponseExtra = 7; // response bytes before the entry
constexpr uint32_t kIndexListOffset = 18;    // response offset of the index list

struct SupplyRegister {
    const char *name;
    uint8_t base;
    uint8_t length;
    const char *unexpectedId;
};

constexpr SupplyRegister kOutputLabelPower{
    "ZELO_ReadOutputLabelPowerRegister", 1, 8,
    "[%s] Unexpected Power Supply Output Label power register ID [%d]\n"};
constexpr SupplyRegister kPresence{"ZELO_ReadPowerSupplyPresenceRegister", 2, 1,
                                   "[%s] Unexpected Power Supply Presence register ID [%d]\n"};
constexpr SupplyRegister kInputVoltage{
    "ZELO_ReadPowerSupplyInputVoltageRegister", 4, 2,
    "[%s] Unexpected Power Supply Input Voltage register ID [%d]\n"};

// Checks the id, reads the register and decodes min(count, 4) supplies with
// decode(data, i). Outputs are written only on success; afterRead sees the
// result and the data of every read that reached the firmware.
template <typename T, typename Decode, typename AfterRead>
uint8_t readPerSupply(const SupplyRegister &reg, uint8_t handle, uint8_t id, uint32_t count, T *out,
                      Decode decode, AfterRead afterRead) {
    if ((id & kSupplyIdMask) != reg.base) {
        report(kReportedWarning, reg.unexpectedId, reg.name, id);
        return ZELO_RC_FAILURE;
    }
    const uint32_t supplies = std::min<uint32_t>(count, ZELO_MAX_POWER_SUPPLIES);
    if (supplies > 0 && out == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    uint8_t data[8] = {};
    const uint8_t rc =
        readData(reg.name, kPowerSupplyPerSupplyElement, handle, id, {data, reg.length});
    if (rc == ZELO_RC_SUCCESS)
        for (uint32_t i = 0; i < supplies; ++i)
            out[i] = decode(data, i);
    afterRead(rc, data);
    return rc;
}

void nothingAfterRead(uint8_t, const uint8_t *) {}

// Input voltage code of a present supply: 110 V, 220 V, -48 V DC, unknown.
constexpr int32_t kInputVoltages[4] = {110, 220, -48, 0};

uint8_t bit(uint16_t word, unsigned n) {
    return static_cast<uint8_t>((word >> n) & 1u);
}

void decodeConfigEntry(const char *name, Reader &r, RedundancyConfigEntry &e) {
    e.u8ConfigByte0 = r.byte(7);
    const auto properties = static_cast<uint16_t>(r.be(8, 2));
    e.u8PowerModeBit = bit(properties, 0);
    e.u8PowerModeBitClear = e.u8PowerModeBit ^ 1u;
    e.u8PowerMode = static_cast<uint8_t>(e.u8PowerModeBit + 1);
    e.u8ValidForPSUs = bit(properties, 1);
    e.u8AllowedPolicy1Target0 = bit(properties, 2);
    e.u8AllowedPolicy0Target0 = bit(properties, 3);
    e.u8AllowedPolicy1Target1 = bit(properties, 4);
    e.u8AllowedPolicy0Target1 = bit(properties, 5);
    e.u8Active = bit(properties, 6);
    e.u8Bit7 = bit(properties, 7);
    e.u8Bit7Clear = e.u8Bit7 ^ 1u;
    zelo::print("%s : Config properties is 0x%X\n", name, properties);
    zelo::print("%s : Config is valid for PSUs: %d\n", name, e.u8ValidForPSUs);
    zelo::print("%s : Power Mode is %d\n", name, e.u8PowerMode);
    e.u16ConfigProperties = properties;
    e.u8RedundancyN = r.byte(10);
    e.u8RedundancyM = r.byte(11);
    e.u64ConfigWord1 = r.be(12, 2);
    e.u64ConfigWord2 = r.be(14, 2);
    e.u64ConfigWord3 = r.be(16, 2);
}

void printBufferHead(const char *name, Reader &answer) {
    zelo::print("%s : Bufer ID is [%d]\n", name, answer.byte(4));
    zelo::print("%s : Bufer Index is [%d]\n", name, answer.byte(5));
    zelo::print("%s : Bufer Length is [%d]\n", name, answer.byte(6));
}

constexpr ExchangeTexts kConfigurationTexts{
    kReportedError, "[%s] Failed to allocate memory for response buffer.\n", ZELO_RC_NO_MEMORY,
    "[%s] Failed to call ipmi(NETFN_DUV,ELEMENT_METHOD) and the result code is %d.\n",
    "[%s] Failed to call ipmi(NETFN_DUV,ELEMENT_METHOD) and the respbuf[0] is %d.\n"};
constexpr ExchangeTexts kPsuTypeTexts{kPrinted, kElementMethodTexts.allocation, ZELO_RC_FAILURE,
                                      kElementMethodTexts.transport,
                                      kElementMethodTexts.completion};
constexpr ExchangeTexts kConfigTexts{
    kReportedError, "[%s] Failed to allocate memory for response buffer.\n", ZELO_RC_FAILURE,
    "[%s] Failed to call IPMICmd(0x2E,0x81) and the result code is %d.\n",
    "[%s] Failed to call IPMICmd(0x2E,0x81) and the resp[0] is %d.\n"};

} // namespace
} // namespace zelo::firmware

using namespace zelo;
using namespace zelo::firmware;

extern "C" {

uint8_t ZELO_ReadMaxNumberOfPowerSuppliesRegister(uint8_t u8ModuleHandle, uint8_t *pu8Value) {
    if (pu8Value == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    *pu8Value = 0;
    static constexpr RegisterRow kRow = registerRow("max-power-supplies");
    uint8_t data = 0;
    static_assert(kRow.length == sizeof data);
    const uint8_t rc = readData("ZELO_ReadMaxNumberOfPowerSuppliesRegister",
                                kPowerSupplyReportedElement, u8ModuleHandle, kRow.reg, {&data, 1});
    if (rc == ZELO_RC_SUCCESS)
        *pu8Value = static_cast<uint8_t>((data & 0x0F) + 1);
    return rc;
}

uint8_t ZELO_ReadOutputLabelPowerRegister(uint8_t u8ModuleHandle, uint8_t u8RegisterId,
                                          uint32_t u32Count, uint32_t *pu32Power) {
    return readPerSupply(
        kOutputLabelPower, u8ModuleHandle, u8RegisterId, u32Count, pu32Power,
        [](const uint8_t *d, uint32_t i) { return static_cast<uint32_t>(getBe(d + 2 * i, 2)); },
        nothingAfterRead);
}

uint8_t ZELO_ReadPowerSupplyPresenceRegister(uint8_t u8ModuleHandle, uint8_t u8RegisterId,
                                             uint32_t u32Count, uint8_t *pu8Present) {
    return readPerSupply(
        kPresence, u8ModuleHandle, u8RegisterId, u32Count, pu8Present,
        [](const uint8_t *d, uint32_t i) { return static_cast<uint8_t>((d[0] >> i) & 1u); },
        [](uint8_t rc, const uint8_t *d) {
            if (rc != ZELO_RC_SUCCESS)
                report(kReportedError, "[%s] Failed to read Power Supply Presence info",
                       kPresence.name);
            else
                zelo::print("[%s] Power Supply Presence info is [%d]\n", kPresence.name, d[0]);
        });
}

uint8_t ZELO_ReadPowerSupplyInputVoltageRegister(uint8_t u8ModuleHandle, uint8_t u8RegisterId,
                                                 uint32_t u32Count, int32_t *ps32Voltage) {
    return readPerSupply(
        kInputVoltage, u8ModuleHandle, u8RegisterId, u32Count, ps32Voltage,
        [](const uint8_t *d, uint32_t i) {
            if (((d[0] & 0x0F) >> i & 1u) == 0)
                return int32_t{0};
            return kInputVoltages[(d[1] >> (2 * i)) & 0x03];
        },
        nothingAfterRead);
}

uint8_t ZELO_ReadPowerSupplyElementConfigurationRegister(uint8_t u8ModuleHandle,
                                                         uint8_t *pu8Config) {
    static constexpr const char *kName = "ZELO_ReadPowerSupplyElementConfigurationRegister";
    if (pu8Config == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    Exchange x;
    if (GetInvokeElementMethodRequestBuffer(u8ModuleHandle, kElement,
                                            ZELO_METHOD_READ_CONFIGURATION, ZELO_REQUEST_HEAD_LEN,
                                            &x.request) != ZELO_RC_SUCCESS) {
        report(kReportedError, "[%s] Failed to call GetInvokeElementMethodRequestBuffer().\n",
               kName);
        return ZELO_RC_NO_MEMORY;
    }
    const uint8_t rc = x.run(kName, CMDID_ZELO_INVOKE_ELEMENT_METHOD, ZELO_REQUEST_HEAD_LEN,
                             kConfigurationResponseLen, kConfigurationTexts);
    if (rc != ZELO_RC_SUCCESS)
        return rc;
    Reader answer = x.answer();
    const uint8_t length = answer.byte(4);
    report(kReportedDebug, "%s: configuration data length is %d\n", kName, length);
    if (length != kConfigurationLen) {
        report(kReportedError, "[%s] config len [%d] is unexpected.\n", kName, length);
        return ZELO_RC_FAILURE;
    }
    return answer.copy(6, {pu8Config, 4}) ? ZELO_RC_SUCCESS : ZELO_RC_FAILURE;
}

int ZELO_IsPowerSupplyRedundancyExposeInfoSupported(void) {
    return extendedCapability("ZELO_IsPowerSupplyRedundancyExposeInfoSupported", 0x200,
                              "[%s]Failed to call ZELO_GetModuleHandle()\n");
}

uint8_t ZELO_WriteTargetRedundancyConfigurationRegister(uint8_t u8ModuleHandle, uint8_t u8Value) {
    static constexpr const char *kName = "ZELO_WriteTargetRedundancyConfigurationRegister";
    if (ZELO_IsPowerSupplyRedundancyExposeInfoSupported() == 0) {
        report(kLoggedWarning, "[%s] target redundancy cfg register is not supported\n", kName);
        return ZELO_RC_FAILURE;
    }
    static constexpr RegisterRow kRow = registerRow("target-redundancy-config");
    return writeValue(kName, kPowerSupplyElement, u8ModuleHandle, kRow.reg, kRow.length, u8Value);
}

uint8_t ZELO_ReadSupportedPSUTypesIndexedBuffer(uint8_t u8ModuleHandle, uint8_t u8Index,
                                                PSUTypeEntry *psEntry) {
    static constexpr const char *kName = "ZELO_ReadSupportedPSUTypesIndexedBuffer";
    if (psEntry == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    if (ZELO_IsPowerSupplyRedundancyExposeInfoSupported() == 0) {
        report(kLoggedWarning, "[%s] target redundancy cfg register is not supported\n", kName);
        return ZELO_RC_FAILURE;
    }
    Exchange x;
    if (GetInvokeElementMethodRequestBuffer(u8ModuleHandle, kElement,
                                            ZELO_METHOD_READ_INDEXED_BUFFER, kIndexedRequestLen,
                                            &x.request) != ZELO_RC_SUCCESS) {
        zelo::print("[%s] Failed to call GetInvokeElementMethodRequestBuffer().\n", kName);
        return ZELO_RC_FAILURE;
    }
    x.request[6] = kPsuTypesBuffer;
    x.request[7] = u8Index;
    x.request[8] = kPsuTypeEntryLen;
    const uint8_t rc = x.run(kName, CMDID_ZELO_INVOKE_ELEMENT_METHOD, kIndexedRequestLen,
                             kPsuTypeResponseLen, kPsuTypeTexts);
    if (rc != ZELO_RC_SUCCESS)
        return rc;
    Reader answer = x.answer();
    printBufferHead(kName, answer);
    psEntry->u8PSUTypeByte0 = answer.byte(7);
    psEntry->u8PSUTypeByte1 = answer.byte(8);
    psEntry->u16PSUWattage = static_cast<uint16_t>(answer.be(9, 2));
    return answer.ok() ? ZELO_RC_SUCCESS : ZELO_RC_FAILURE;
}

uint8_t ZELO_ReadSupportedRedundancyConfigsIndexedBuffer(uint8_t u8ModuleHandle, uint8_t u8Index,
                                                         RedundancyConfigEntry *psEntry) {
    static constexpr const char *kName = "ZELO_ReadSupportedRedundancyConfigsIndexedBuffer";
    if (psEntry == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    uint8_t config[4] = {};
    if (ZELO_ReadPowerSupplyElementConfigurationRegister(u8ModuleHandle, config) != 0) {
        report(kReportedError, "[%s] Failed to call get ps element configurations.\n", kName);
        return ZELO_RC_FAILURE;
    }
    const uint32_t maxListLen = static_cast<uint32_t>(config[2]) * config[3];
    const uint32_t entryLen = maxListLen + kConfigEntryHeadLen;
    const uint32_t capacity = entryLen + kConfigResponseExtra;

    Exchange x;
    if (GetInvokeElementMethodRequestBuffer(u8ModuleHandle, kElement,
                                            ZELO_METHOD_READ_INDEXED_BUFFER, kIndexedRequestLen,
                                            &x.request) != ZELO_RC_SUCCESS) {
        report(kReportedError, "[%s] Failed to call GetInvokeElementMethodRequestBuffer().\n",
               kName);
        return ZELO_RC_FAILURE;
    }
    x.request[6] = kRedundancyConfigsBuffer;
    x.request[7] = u8Index;
    x.request[8] = static_cast<uint8_t>(entryLen & 0xFF);
    const uint8_t rc =
        x.run(kName, CMDID_ZELO_INVOKE_ELEMENT_METHOD, kIndexedRequestLen, capacity, kConfigTexts);
    if (rc != ZELO_RC_SUCCESS)
        return rc;
    Reader answer = x.answer();
    printBufferHead(kName, answer);
    decodeConfigEntry(kName, answer, *psEntry);

    const int listLen = static_cast<int>(answer.byte(6)) - static_cast<int>(kConfigEntryHeadLen);
    zelo::print("%s : PSU type index buf length is [%d]\n", kName, listLen);
    uint8_t *list = listLen > 0 ? static_cast<uint8_t *>(std::calloc(listLen, 1)) : nullptr;
    if (listLen < 0 || (listLen > 0 && list == nullptr)) {
        zelo::print("[%s] Failed to allocate memory for PSU type index buffer.\n", kName);
        return ZELO_RC_SUCCESS;
    }
    // Copy only what arrived and what the configuration block allows; the
    // rest of a longer announced list stays zero.
    const uint32_t arrived = x.received() > kIndexListOffset ? x.received() - kIndexListOffset : 0;
    const uint32_t copied = std::min({static_cast<uint32_t>(listLen), maxListLen, arrived});
    if (copied > 0)
        (void)answer.copy(kIndexListOffset, {list, copied});
    psEntry->pu8PSUTypeIndex = list;
    psEntry->u8PSUTypeIndexLen = static_cast<uint8_t>(listLen);
    return ZELO_RC_SUCCESS;
}

} // extern "C"
