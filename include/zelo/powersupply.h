/* Power supplies and redundancy (element 10), and the redundancy report. */
#ifndef ZELO_POWERSUPPLY_H
#define ZELO_POWERSUPPLY_H

#include <zelo/common.h>

#define ZELO_MAX_POWER_SUPPLIES 4
#define ZELO_ERROR_TEXT_SIZE 1024

/* One entry of the supported PSU types buffer. */
typedef struct {
    uint8_t u8PSUTypeByte0;
    uint8_t u8PSUTypeByte1;
    uint16_t u16PSUWattage; /* rated output in watts */
} PSUTypeEntry;

/* One entry of the supported redundancy configurations buffer. */
typedef struct {
    uint8_t u8ConfigByte0;
    uint8_t u8PowerModeBit;
    uint8_t u8PowerModeBitClear;
    uint8_t u8PowerMode; /* 1 or 2 */
    uint8_t u8ValidForPSUs;
    uint8_t u8AllowedPolicy1Target0;
    uint8_t u8AllowedPolicy0Target0;
    uint8_t u8AllowedPolicy1Target1;
    uint8_t u8AllowedPolicy0Target1;
    uint8_t u8Active;
    uint8_t u8Bit7Clear;
    uint8_t u8Bit7;
    uint16_t u16ConfigProperties;
    uint8_t u8RedundancyN;
    uint8_t u8RedundancyM;
    uint64_t u64ConfigWord1;
    uint64_t u64ConfigWord2;
    uint64_t u64ConfigWord3;
    uint8_t *pu8PSUTypeIndex; /* heap copy owned by the record; release with free() */
    uint8_t u8PSUTypeIndexLen;
} RedundancyConfigEntry;

/* Everything the firmware says about redundancy; release with
 * ZELO_FreeRedundancyConfigs after every ZELO_GetRedundancyConfigs. */
typedef struct {
    int32_t supportedConfigs;
    int32_t supportedPSUTypes;
    uint8_t powerControlPolicy;
    uint8_t policyBit0Clear;
    uint8_t policyBit1Clear;
    uint8_t redundancyTarget;
    char errorText[ZELO_ERROR_TEXT_SIZE];
    PSUTypeEntry *psuTypes;
    int32_t activeConfig; /* -1 when none */
    int32_t allowedConfigCount;
    RedundancyConfigEntry *configs;
    char **descriptions;
    uint8_t *allowed;
    int32_t firstPowerMode1Config; /* -1 when none */
} RedundancyConfigs;

ZELO_BEGIN_DECLS

/* pu8Config receives 4 bytes: number of PSU types, number of redundancy
 * configurations, and the two index-list factors. */
ZELO_API uint8_t ZELO_ReadPowerSupplyElementConfigurationRegister(uint8_t u8ModuleHandle,
                                                                  uint8_t *pu8Config);
ZELO_API uint8_t ZELO_ReadMaxNumberOfPowerSuppliesRegister(uint8_t u8ModuleHandle,
                                                           uint8_t *pu8Value);
/* Per-supply registers: u8RegisterId selects one of four register instances;
 * min(u32Count, 4) values are written to the array. */
ZELO_API uint8_t ZELO_ReadOutputLabelPowerRegister(uint8_t u8ModuleHandle, uint8_t u8RegisterId,
                                                   uint32_t u32Count, uint32_t *pu32Power);
ZELO_API uint8_t ZELO_ReadPowerSupplyPresenceRegister(uint8_t u8ModuleHandle, uint8_t u8RegisterId,
                                                      uint32_t u32Count, uint8_t *pu8Present);
ZELO_API uint8_t ZELO_ReadPowerSupplyInputVoltageRegister(uint8_t u8ModuleHandle,
                                                          uint8_t u8RegisterId, uint32_t u32Count,
                                                          int32_t *ps32Voltage);
ZELO_API int ZELO_IsPowerSupplyRedundancyExposeInfoSupported(void);
ZELO_API uint8_t ZELO_ReadRedundancyTargetRegister(uint8_t u8ModuleHandle, uint8_t *pu8Value);
ZELO_API uint8_t ZELO_WriteRedundancyTargetRegister(uint8_t u8ModuleHandle, uint8_t u8Value);
ZELO_API uint8_t ZELO_WriteTargetRedundancyConfigurationRegister(uint8_t u8ModuleHandle,
                                                                 uint8_t u8Value);
ZELO_API uint8_t ZELO_ReadSupportedPSUTypesIndexedBuffer(uint8_t u8ModuleHandle, uint8_t u8Index,
                                                         PSUTypeEntry *psEntry);
ZELO_API uint8_t ZELO_ReadSupportedRedundancyConfigsIndexedBuffer(uint8_t u8ModuleHandle,
                                                                  uint8_t u8Index,
                                                                  RedundancyConfigEntry *psEntry);

/* 0 on success; 1 for a failure found in the report itself; otherwise the
 * failing firmware operation's result code. errorText says what failed. */
ZELO_API uint8_t ZELO_GetRedundancyConfigs(RedundancyConfigs *psConfigs);
ZELO_API void ZELO_FreeRedundancyConfigs(RedundancyConfigs *psConfigs);

ZELO_END_DECLS

#endif
