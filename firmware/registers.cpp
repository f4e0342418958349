// Named register accessors and capability queries. Each plain accessor is
// one row of the shared register list; the engine does the rest.
#include "exchange.h"
#include "family.h"
#include "register_access.h"
#include "report.h"

#include <zelo/firmware.h>
#include <zelo/powersupply.h>
#include <zelo/registers.h>

#include <algorithm>
#include <cstdlib>
#include <type_traits>

namespace zelo::firmware {

namespace {

constexpr Element kStatus{GetReadStatusRegisterRequestBuffer,
                          "[%s] Failed to call GetReadStatusRegisterRequestBuffer().\n",
                          GetWriteStatusControlRegisterRequestBuffer,
                          "[%s] Failed to call GetWriteStatusControlRegisterRequestBuffer().\n",
                          kPrinted};
constexpr Element kEnergy{GetReadEnergyAccumulatorRegisterRequestBuffer,
                          "[%s] Failed to call GetReadEnergyAccumulatorRegisterRequestBuffer().\n",
                          nullptr, nullptr, kPrinted};
constexpr Element kClock{GetReadClockAccumulationRegisterRequestBuffer,
                         "[%s] Failed to call GetReadClockAccumulationRegisterRequestBuffer().\n",
                         nullptr, nullptr, kPrinted};
constexpr Element kPowerControl{
    GetReadPowerControlRegisterRequestBuffer,
    "[%s] Failed to call GetReadPowerControlRegisterRequestBuffer().\n",
    GetWritePowerControlRegisterRequestBuffer,
    "[%s] Failed to call GetWritePowerControlRegisterRequestBuffer().\n", kPrinted};
// The hot-plug cap reads tell their builder failure to the system log only.
constexpr Element kPowerControlHotplug{
    GetReadPowerControlRegisterRequestBuffer,
    "[%s] Failed to call GetReadPowerControlRegisterRequestBuffer()\n", nullptr, nullptr,
    kLoggedError};
constexpr Element kExhaustHeat{
    GetReadExhaustHeatIndexRegisterRequestBuffer,
    "[%s] Failed to call GetReadExhaustHeatIndexRegisterRequestBuffer().\n", nullptr, nullptr,
    kPrinted};
constexpr Element kServerPowerDown{
    GetReadServerPowerDownRegisterRequestBuffer,
    "[%s] Failed to call GetReadServerPowerDownRegisterRequestBuffer().\n", nullptr, nullptr,
    kPrinted};
constexpr Element kMaximizer{GetReadPowerMaximizerRequestBuffer,
                             "[%s] Failed to call GetReadPowerMaximizerRegisterRequestBuffer().\n",
                             nullptr, nullptr, kPrinted};

} // namespace

// The redundancy target follows the plain register pattern (printed); the
// other element-10 reads report (printed and logged).
const Element kPowerSupplyElement{
    GetReadPowerSupplyRegisterRequestBuffer,
    "[%s] Failed to call GetReadStatusRegisterRequestBuffer().\n",
    GetWritePowerSupplyRegisterRequestBuffer,
    "[%s] Failed to call GetWritePowerSupplyRegisterRequestBuffer().\n", kPrinted};
const Element kPowerSupplyReportedElement{
    GetReadPowerSupplyRegisterRequestBuffer,
    "[%s] Failed to call GetReadStatusRegisterRequestBuffer().\n", nullptr, nullptr,
    kReportedError};
const Element kPowerSupplyPerSupplyElement{
    GetReadPowerSupplyRegisterRequestBuffer,
    "[%s] Failed to call GetReadStatusRegisterRequestBuffer().\n", nullptr, nullptr,
    kReportedWarning};

namespace {

// The element row behind an element number. The hot-plug caps tell a builder
// failure to the system log only.
consteval const Element &elementOf(int element, int reg) {
    switch (element) {
    case 0:
        return kStatus;
    case 1:
        return kEnergy;
    case 4:
        return kClock;
    case 7:
        return reg == 1 || reg == 12 ? kPowerControlHotplug : kPowerControl;
    case 9:
        return kExhaustHeat;
    case 10:
        return kPowerSupplyElement;
    case 13:
        return kServerPowerDown;
    case 14:
        return kMaximizer;
    }
    std::abort(); // an element without a row does not compile
}

// Builds the read request and runs the exchange.
uint8_t transact(const char *name, const Element &element, uint8_t handle, uint8_t reg,
                 uint8_t length, Exchange &x) {
    const uint8_t built = element.read(handle, &x.request);
    if (x.request == nullptr) {
        report(element.builderNotice, element.readFailure, name);
        return built;
    }
    return readRegister(x, x.request, reg, length);
}

} // namespace

uint8_t readFields(const char *name, const Element &element, uint8_t handle, uint8_t reg,
                   uint8_t length, std::span<const Field> fields, std::span<uint64_t> values) {
    Exchange x;
    const uint8_t rc = transact(name, element, handle, reg, length, x);
    if (rc != ZELO_RC_SUCCESS)
        return rc;
    Reader answer = x.answer();
    for (std::size_t i = 0; i < fields.size() && i < values.size(); ++i)
        values[i] = answer.be(fields[i].offset, fields[i].width);
    return answer.ok() ? ZELO_RC_SUCCESS : ZELO_RC_FAILURE;
}

uint8_t readData(const char *name, const Element &element, uint8_t handle, uint8_t reg,
                 std::span<uint8_t> data) {
    Exchange x;
    const auto length = static_cast<uint8_t>(data.size());
    const uint8_t rc = transact(name, element, handle, reg, length, x);
    if (rc != ZELO_RC_SUCCESS)
        return rc;
    return x.answer().copy(ZELO_RESPONSE_HEAD_LEN, data) ? ZELO_RC_SUCCESS : ZELO_RC_FAILURE;
}

uint8_t writeValue(const char *name, const Element &element, uint8_t handle, uint8_t reg,
                   uint8_t length, uint64_t value) {
    uint8_t *request = nullptr;
    uint32_t requestLen = 0;
    const uint8_t built = element.write(handle, reg, length, &request, &requestLen);
    if (request == nullptr) {
        report(element.builderNotice, element.writeFailure, name);
        return built;
    }
    putBe(request + kReadRequestLen, value, length);
    const uint8_t rc = WriteRegister(request, requestLen);
    std::free(request);
    return rc;
}

int extendedCapability(const char *name, uint32_t mask, const char *handleFailure) {
    const uint8_t handle = ZELO_GetModuleHandle(0);
    if (handle == 0) {
        report(kLoggedError, handleFailure, name);
        return 0;
    }
    uint8_t capabilities = 0;
    if (ZELO_ReadFirmwarePowerThermalCapabilitiesRegister(handle, &capabilities) != 0) {
        report(kLoggedError, "[%s] Failed to read Power/Thermal Capabilities Register\n", name);
        return 0;
    }
    if ((capabilities & 0x80) == 0) {
        report(kLoggedError, "[%s] Extended f/w capabilites REG not supported\n", name);
        return 0;
    }
    uint32_t extended = 0;
    if (ZELO_ReadExtendedFirmwareCapabilitiesRegister(handle, &extended) != 0) {
        report(kLoggedError, "[%s] Failed to read Extended Firmware Capabilities Register\n", name);
        return 0;
    }
    return (extended & mask) != 0 ? 1 : 0;
}

} // namespace zelo::firmware

using namespace zelo::firmware;

#define ZELO_DEFINE_READ(fn, element, reg, length, T)                                              \
    uint8_t fn(uint8_t u8ModuleHandle, T *out) {                                                   \
        return readOne(#fn, elementOf(element, reg), u8ModuleHandle, reg, length, out);            \
    }
#define ZELO_DEFINE_WRITE(fn, element, reg, length, T)                                             \
    uint8_t fn(uint8_t u8ModuleHandle, T value) {                                                  \
        return writeValue(#fn, elementOf(element, reg), u8ModuleHandle, reg, length, value);       \
    }

// The plain rows are generated; the other accessors are written out below
// and in powersupply.cpp.
#define ZELO_GENERATE(name, element, reg, length, T, label, access, form, read, write)             \
    ZELO_GENERATE_##form##_##access(element, reg, length, T, read, write)
#define ZELO_GENERATE_ZELO_FORM_VALUE_ZELO_ACCESS_R(element, reg, length, T, read, write)          \
    ZELO_DEFINE_READ(read, element, reg, length, T)
#define ZELO_GENERATE_ZELO_FORM_VALUE_ZELO_ACCESS_W(element, reg, length, T, read, write)          \
    ZELO_DEFINE_WRITE(write, element, reg, length, T)
#define ZELO_GENERATE_ZELO_FORM_VALUE_ZELO_ACCESS_RW(element, reg, length, T, read, write)         \
    ZELO_DEFINE_READ(read, element, reg, length, T)                                                \
    ZELO_DEFINE_WRITE(write, element, reg, length, T)
#define ZELO_GENERATE_ZELO_FORM_OWN_ZELO_ACCESS_R(element, reg, length, T, read, write)            \
    static_assert(std::is_same_v<decltype(&read), uint8_t (*)(uint8_t, T *)>, #read);
#define ZELO_GENERATE_ZELO_FORM_OWN_ZELO_ACCESS_W(element, reg, length, T, read, write)            \
    static_assert(std::is_same_v<decltype(&write), uint8_t (*)(uint8_t, T)>, #write);
#define ZELO_GENERATE_ZELO_FORM_PAIR_ZELO_ACCESS_R(element, reg, length, T, read, write)

extern "C" {

ZELO_REGISTER_LIST(ZELO_GENERATE)

uint8_t ZELO_ReadPOSTPowerSettingsRegister(uint8_t u8ModuleHandle, uint8_t *pu8Value) {
    static constexpr const char *kName = "ZELO_ReadPOSTPowerSettingsRegister";
    static constexpr RegisterRow kRow = registerRow("post-settings");
    zelo::print("[%s] read POST Power Settings Register\n", kName);
    const uint8_t rc = readOne(kName, elementOf(kRow.element, kRow.reg), u8ModuleHandle, kRow.reg,
                               kRow.length, pu8Value);
    if (rc == ZELO_RC_SUCCESS)
        zelo::print("Post Power Settings register value is %d\n", *pu8Value);
    return rc;
}

uint8_t ZELO_ReadPcapMinHotplugRegister(uint8_t u8ModuleHandle, uint16_t *pu16Value) {
    static constexpr const char *kName = "ZELO_ReadPcapMinHotplugRegister";
    static constexpr RegisterRow kRow = registerRow("cap-min-hotplug");
    if (pu16Value == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    *pu16Value = 0;
    if (ZELO_IsSupportPowerCapMinHotplugRegister() == 0) {
        zelo::print("%s: Pcap Min hotplug is not supported!!!\n ", kName);
        return ZELO_RC_FAILURE;
    }
    return readOne(kName, elementOf(kRow.element, kRow.reg), u8ModuleHandle, kRow.reg, kRow.length,
                   pu16Value);
}

uint8_t ZELO_ReadStandbyPowerRegister(uint8_t u8ModuleHandle, uint8_t *pu8Value,
                                      uint16_t *pu16StandbyPower) {
    if (pu8Value == nullptr || pu16StandbyPower == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    *pu8Value = 0;
    *pu16StandbyPower = 0;
    static constexpr RegisterRow kRow = registerRow("standby-power");
    static constexpr Field kFields[] = {{6, 1}, {7, 2}};
    uint64_t values[2] = {};
    const uint8_t rc =
        readFields("ZELO_ReadStandbyPowerRegister", elementOf(kRow.element, kRow.reg),
                   u8ModuleHandle, kRow.reg, kRow.length, kFields, values);
    if (rc == ZELO_RC_SUCCESS) {
        *pu8Value = static_cast<uint8_t>(values[0]);
        *pu16StandbyPower = static_cast<uint16_t>(values[1]);
    }
    return rc;
}

uint8_t ZELO_ReadNumberOfPowerCyclesRegister(uint8_t u8ModuleHandle, uint16_t *pu16First,
                                             uint16_t *pu16Second) {
    if (pu16First == nullptr || pu16Second == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    *pu16First = 0;
    *pu16Second = 0;
    static constexpr RegisterRow kRow = registerRow("power-cycles");
    static constexpr Field kFields[] = {{4, 2}, {6, 2}};
    uint64_t values[2] = {};
    const uint8_t rc =
        readFields("ZELO_ReadNumberOfPowerCyclesRegister", elementOf(kRow.element, kRow.reg),
                   u8ModuleHandle, kRow.reg, kRow.length, kFields, values);
    if (rc == ZELO_RC_SUCCESS) {
        *pu16First = static_cast<uint16_t>(values[0]);
        *pu16Second = static_cast<uint16_t>(values[1]);
    }
    return rc;
}

int ZELO_IsPowerCappingEnabled(void) {
    const uint8_t handle = ZELO_GetModuleHandle(0);
    if (handle == 0) {
        zelo::print("[%s]Failed to call ZELO_GetModuleHandle().\n", "ZELO_IsPowerCappingEnabled");
        return 0;
    }
    uint8_t settings = 0;
    return ZELO_ReadPOSTPowerSettingsRegister(handle, &settings) == 0 && (settings & 0x02) != 0 ? 1
                                                                                                : 0;
}

int ZELO_IsSupportPowerUtilization(void) {
    return zelo::firmware::supportsPowerUtilization(IsBladeServer() != 0);
}

int ZELO_IsStaticPowerSavingsModeSupported(void) {
    return extendedCapability("ZELO_IsStaticPowerSavingsModeSupported", 0x100,
                              "[%s] Failed to call ZELO_GetModuleHandle().\n");
}

int ZELO_IsSupportPowerCapMinHotplugRegister(void) {
    return extendedCapability("ZELO_IsSupportPowerCapMinHotplugRegister", 0x240,
                              "[%s] Failed to call ZELO_GetModuleHandle().\n");
}

int ZELO_IsPowerCappingModeSupported(void) {
    static constexpr const char *kName = "ZELO_IsPowerCappingModeSupported";
    const uint8_t handle = ZELO_GetModuleHandle(0);
    if (handle == 0) {
        zelo::print("[%s]Failed to call ZELO_GetModuleHandle().\n", kName);
        return 0;
    }
    uint8_t mode = 0;
    const uint8_t rc = ZELO_ReadPcapModeRegister(handle, &mode);
    if (rc != ZELO_RC_SUCCESS) {
        zelo::print("[%s]ZELO_ReadPcapModeRegister() returns [%d].\n", kName, rc);
        return 0;
    }
    return 1;
}

} // extern "C"
