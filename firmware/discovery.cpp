// Firmware discovery and module handle, with the per-process support cache
// that keeps the frequent "is the firmware there?" question off the IPMI bus.
#include "discovery_internal.h"
#include "exchange.h"

#include "hooks.h"
#include "report.h"

#include <zelo/firmware.h>
#include <zelo/platform.h>

#include <cerrno>
#include <cstring>

namespace zelo::firmware {

namespace {

constexpr uint32_t kDiscoveryRequestLen = 6;
constexpr uint32_t kDiscoveryResponseLen = 10;
constexpr long kRecheckSeconds = 2;
constexpr const char *kSupportedKey = "zelo_supported_%d";
constexpr const char *kHandleKey = "zelo_module_handle_%d";
// A completion code is the discovery's result, not reported.
constexpr ExchangeTexts kDiscoveryTexts{kElementMethodTexts.notice, kElementMethodTexts.allocation,
                                        ZELO_RC_NO_MEMORY, kElementMethodTexts.transport, nullptr};

// Shared by every instance number: once any instance is found, the process
// answers "supported" for all of them without asking again.
struct SupportCache {
    bool initialised = false;
    uint8_t supported = 0;
    long lastRecheck = 0; // uptime seconds
};
SupportCache gCache;

using Key = char[32];

void formatKey(Key &key, const char *format, int32_t instance) {
    formatText(key, sizeof key, format, instance);
}

long uptimeSeconds() {
    struct sysinfo info;
    std::memset(&info, 0, sizeof info);
    if (hooks().sysinfo(&info) != 0) {
        report(kReportedError, "Failed to call sysinfo(), errno:%s.\n", std::strerror(errno));
        return 0;
    }
    return info.uptime;
}

} // namespace

void resetSupportCache() {
    gCache = SupportCache{};
}

} // namespace zelo::firmware

using zelo::firmware::gCache;

extern "C" {

uint8_t ZELO_FindFirmwareInstance(uint8_t u8Instance, uint8_t *pu8Descriptor1,
                                  uint8_t *pu8Descriptor2, uint8_t *pu8ModuleHandle) {
    if (pu8Descriptor1 == nullptr || pu8Descriptor2 == nullptr || pu8ModuleHandle == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    *pu8Descriptor1 = 0;
    *pu8Descriptor2 = 0;
    *pu8ModuleHandle = 0;

    using namespace zelo::firmware;
    const uint8_t request[kDiscoveryRequestLen] = {
        zelo::kEnterpriseBytes[0],
        zelo::kEnterpriseBytes[1],
        zelo::kEnterpriseBytes[2],
        u8Instance,
        0,
        1,
    };
    Exchange x;
    const uint8_t rc = x.run("ZELO_FindFirmwareInstance", CMDID_ZELO_FIND_FIRMWARE_INSTANCE,
                             request, kDiscoveryResponseLen, kDiscoveryTexts);
    if (rc != ZELO_RC_SUCCESS)
        return rc;
    Reader answer = x.answer();
    *pu8ModuleHandle = answer.byte(7);
    if (*pu8ModuleHandle == 0) {
        zelo::print("[%s] Failed to call IPMI Command(NETFN_DUV, CMDID_ZELO_INVOKE_ELEMENT_METHOD) "
                    "and the result code is %d.\n",
                    "ZELO_FindFirmwareInstance", rc);
        return ZELO_RC_NO_INSTANCE;
    }
    *pu8Descriptor1 = answer.byte(5);
    *pu8Descriptor2 = answer.byte(6);
    return ZELO_RC_SUCCESS;
}

int ZELO_IsSupported(int32_t s32Instance) {
    using namespace zelo::firmware;
    Key supportedKey;
    formatKey(supportedKey, kSupportedKey, s32Instance);

    if (!gCache.initialised) {
        gCache.initialised = true;
        uint8_t stored = 0;
        (void)kiv_config_get_bool(supportedKey, &stored);
        gCache.supported = stored;
    }
    if (gCache.supported)
        return 1;

    const long now = uptimeSeconds();
    if (now - gCache.lastRecheck < kRecheckSeconds)
        return gCache.supported;

    uint8_t stored = 0;
    (void)kiv_config_get_bool(supportedKey, &stored);
    gCache.lastRecheck = now;
    if (stored) {
        gCache.supported = 1;
        return 1;
    }

    uint8_t descriptor1 = 0;
    uint8_t descriptor2 = 0;
    uint8_t handle = 0;
    const uint8_t rc = ZELO_FindFirmwareInstance(static_cast<uint8_t>(s32Instance), &descriptor1,
                                                 &descriptor2, &handle);
    gCache.supported = rc == ZELO_RC_SUCCESS ? 1 : 0;
    if (rc != ZELO_RC_SUCCESS) {
        zelo::print("[%s] Failed to call ZELO_FindFirmwareInstance() and the result code is %d.\n",
                    "ZELO_IsSupported", rc);
        zelo::print("Don't support the ZELO.\n");
    }

    if (kiv_config_set_bool(supportedKey, gCache.supported, 1) == 0) {
        zelo::print("[%s] Failed to call kiv_config_set_bool(%s).\n", "ZELO_IsSupported",
                    supportedKey);
        return gCache.supported;
    }
    if (!gCache.supported)
        return 0;

    Key handleKey;
    formatKey(handleKey, kHandleKey, s32Instance);
    if (kiv_config_set_int(handleKey, handle, 1) == 0) {
        zelo::print("[%s] Failed to call kiv_config_set_int(%s).\n", "ZELO_IsSupported", handleKey);
        // Other processes must not see "supported" without a handle.
        (void)kiv_config_clear(supportedKey);
        return 0;
    }
    return 1;
}

uint8_t ZELO_GetModuleHandle(int32_t s32Instance) {
    using namespace zelo::firmware;
    if (ZELO_IsSupported(s32Instance) == 0)
        return 0;
    Key handleKey;
    formatKey(handleKey, kHandleKey, s32Instance);
    int value = 0;
    if (kiv_config_get_int(handleKey, &value) == 0) {
        zelo::print("[%s] Failed to call kiv_config_get_int(%s).\n", "ZELO_GetModuleHandle",
                    handleKey);
        return 0;
    }
    return static_cast<uint8_t>(value & 0xFF);
}

} // extern "C"
