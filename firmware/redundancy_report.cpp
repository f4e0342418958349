// Redundancy report: the PSU types, every redundancy configuration with a
// description, which are allowed under the current policy and target, and
// which one is active, gathered into one record for a management interface.
#include "report.h"

#include <zelo/firmware.h>
#include <zelo/powersupply.h>
#include <zelo/registers.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>

namespace {

constexpr uint8_t kFailedHere = 1;

ZELO_FORMAT(2, 3) void setError(RedundancyConfigs &r, const char *format, ...) {
    va_list args;
    va_start(args, format);
    zelo::formatText(r.errorText, sizeof r.errorText, format, args);
    va_end(args);
}

// Describes entry e into text; false when its index list has no known shape.
bool describe(const RedundancyConfigEntry &e, const PSUTypeEntry *types, char (&text)[1024]) {
    const uint8_t *list = e.pu8PSUTypeIndex;
    const int n = e.u8RedundancyN;
    const int m = e.u8RedundancyM;
    if (e.u8PSUTypeIndexLen == 2) {
        zelo::formatText(text, sizeof text, "%i+%i with one %iW power supply per feed", n, m,
                         types[list[0]].u16PSUWattage);
    } else if (e.u8PSUTypeIndexLen == 4 && list[0] == list[1]) {
        zelo::formatText(text, sizeof text, "%i+%i with two %iW power supplies per feed", n, m,
                         types[list[0]].u16PSUWattage);
    } else if (e.u8PSUTypeIndexLen == 4) {
        zelo::formatText(text, sizeof text, "%i+%i with one %iW and %iW power supply per feed", n,
                         m, types[list[0]].u16PSUWattage, types[list[1]].u16PSUWattage);
    } else {
        return false;
    }
    return true;
}

uint8_t permission(const RedundancyConfigEntry &e, uint8_t policy, uint8_t target) {
    const bool policyBit0 = (policy & 0x01) != 0;
    if (target == 0)
        return policyBit0 ? e.u8AllowedPolicy1Target0 : e.u8AllowedPolicy0Target0;
    return policyBit0 ? e.u8AllowedPolicy1Target1 : e.u8AllowedPolicy0Target1;
}

template <typename T>
T *allocate(int32_t count) {
    return static_cast<T *>(std::calloc(static_cast<std::size_t>(count), sizeof(T)));
}

uint8_t outOfMemory(RedundancyConfigs &r) {
    setError(r, "Error, out of memory");
    return ZELO_RC_NO_MEMORY;
}

} // namespace

extern "C" {

uint8_t ZELO_GetRedundancyConfigs(RedundancyConfigs *psConfigs) {
    if (psConfigs == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    RedundancyConfigs &r = *psConfigs;
    std::memset(&r, 0, sizeof r);
    r.activeConfig = -1;
    r.firstPowerMode1Config = -1;

    const uint8_t handle = ZELO_GetModuleHandle(0);
    if (handle == 0) {
        setError(r, "Error getting ZELO module handle");
        return kFailedHere;
    }
    uint8_t rc = ZELO_ReadRedundancyTargetRegister(handle, &r.redundancyTarget);
    if (rc != 0) {
        setError(r, "Error reading redundancy target register, rc=%i", rc);
        return rc;
    }
    rc = ZELO_ReadCFFPowerControlPolicyRegister(handle, &r.powerControlPolicy);
    if (rc != 0) {
        setError(r, "Error reading power control policy register, rc=%i", rc);
        return rc;
    }
    r.policyBit0Clear = (r.powerControlPolicy & 0x01) == 0;
    r.policyBit1Clear = (r.powerControlPolicy & 0x02) == 0;

    uint8_t config[4] = {};
    rc = ZELO_ReadPowerSupplyElementConfigurationRegister(handle, config);
    if (rc != 0) {
        setError(r, "Error reading power supply element configuration register, rc=%i", rc);
        return rc;
    }
    r.supportedConfigs = config[1];
    r.supportedPSUTypes = config[0];
    if (r.supportedConfigs == 0 || r.supportedPSUTypes == 0) {
        setError(r,
                 "Error reading power supply element configuration register, unexpected values, "
                 "supportedConfigs=%i supportedPSUTypes=%i",
                 r.supportedConfigs, r.supportedPSUTypes);
        return kFailedHere;
    }

    r.psuTypes = allocate<PSUTypeEntry>(r.supportedPSUTypes);
    if (r.psuTypes == nullptr)
        return outOfMemory(r);
    for (int32_t i = 0; i < r.supportedPSUTypes; ++i) {
        rc = ZELO_ReadSupportedPSUTypesIndexedBuffer(handle, static_cast<uint8_t>(i),
                                                     &r.psuTypes[i]);
        if (rc != 0) {
            setError(r, "Error reading supported PSU types indexed buffer for index=%i, rc=%i", i,
                     rc);
            return rc;
        }
    }

    r.configs = allocate<RedundancyConfigEntry>(r.supportedConfigs);
    r.descriptions = allocate<char *>(r.supportedConfigs);
    r.allowed = allocate<uint8_t>(r.supportedConfigs);
    if (r.configs == nullptr || r.descriptions == nullptr || r.allowed == nullptr)
        return outOfMemory(r);

    for (int32_t i = 0; i < r.supportedConfigs; ++i) {
        RedundancyConfigEntry &e = r.configs[i];
        rc = ZELO_ReadSupportedRedundancyConfigsIndexedBuffer(handle, static_cast<uint8_t>(i), &e);
        if (rc != 0) {
            setError(
                r, "Error reading supported redundancy configs indexed buffer for index=%i, rc=%i",
                i, rc);
            return rc;
        }
        if (e.u8Active)
            r.activeConfig = i;
        if (e.u8PSUTypeIndexLen == 0 || e.pu8PSUTypeIndex == nullptr) {
            setError(r, "Error, unexpected value for u8PSUTypeIndexLen=%i", e.u8PSUTypeIndexLen);
            return kFailedHere;
        }
        for (int k = 0; k < e.u8PSUTypeIndexLen; ++k) {
            if (e.pu8PSUTypeIndex[k] >= r.supportedPSUTypes) {
                setError(r, "Error, PSU index (%i) is larger than number of supported types (%i)",
                         e.pu8PSUTypeIndex[k], r.supportedPSUTypes);
                return kFailedHere;
            }
        }
        char text[ZELO_ERROR_TEXT_SIZE];
        if (!describe(e, r.psuTypes, text)) {
            setError(r, "Error, unexpected value for u8PSUTypeIndexLen=%i", e.u8PSUTypeIndexLen);
            return kFailedHere;
        }
        r.descriptions[i] = strdup(text);
        if (r.descriptions[i] == nullptr)
            return outOfMemory(r);
        if (r.firstPowerMode1Config == -1 && e.u8PowerModeBitClear)
            r.firstPowerMode1Config = i;
        if (permission(e, r.powerControlPolicy, r.redundancyTarget)) {
            r.allowed[i] = e.u8ValidForPSUs;
            ++r.allowedConfigCount;
        }
    }
    if (r.activeConfig == -1) {
        setError(r, "Error, no active configuration found");
        return kFailedHere;
    }
    return ZELO_RC_SUCCESS;
}

void ZELO_FreeRedundancyConfigs(RedundancyConfigs *psConfigs) {
    if (psConfigs == nullptr)
        return;
    RedundancyConfigs &r = *psConfigs;
    std::free(r.psuTypes);
    for (int32_t i = 0; i < r.supportedConfigs; ++i) {
        if (r.configs != nullptr)
            std::free(r.configs[i].pu8PSUTypeIndex);
        if (r.descriptions != nullptr)
            std::free(r.descriptions[i]);
    }
    std::free(r.configs);
    std::free(r.descriptions);
    std::free(r.allowed);
    // Cleared so that a second release, or a stray read, finds nothing.
    r.psuTypes = nullptr;
    r.configs = nullptr;
    r.descriptions = nullptr;
    r.allowed = nullptr;
}

} // extern "C"
