/* Named register accessors and capability queries. Every accessor takes the
 * module handle first and returns a result code; reads set their outputs to
 * 0 first and fill them only on success. */
#ifndef ZELO_REGISTERS_H
#define ZELO_REGISTERS_H

#include <zelo/common.h>

ZELO_BEGIN_DECLS

/* Element 0: status and control. */
ZELO_API uint8_t ZELO_ReadPowerStatusRegister(uint8_t u8ModuleHandle, uint8_t *pu8Value);
ZELO_API uint8_t ZELO_2_6_ReadPowerEventRegister(uint8_t u8ModuleHandle, uint16_t *pu16Value);
ZELO_API uint8_t ZELO_ReadPowerHardwareErrorRegister(uint8_t u8ModuleHandle, uint8_t *pu8Value);
ZELO_API uint8_t ZELO_ReadSMSPowerControlPolicyRegister(uint8_t u8ModuleHandle, uint8_t *pu8Value);
ZELO_API uint8_t ZELO_WriteSMSPowerControlPolicyRegister(uint8_t u8ModuleHandle, uint8_t u8Value);
ZELO_API uint8_t ZELO_ReadPOSTPowerSettingsRegister(uint8_t u8ModuleHandle, uint8_t *pu8Value);
ZELO_API uint8_t ZELO_ReadFirmwarePowerThermalCapabilitiesRegister(uint8_t u8ModuleHandle,
                                                                   uint8_t *pu8Value);
ZELO_API uint8_t ZELO_ReadServerPowerCapabilitiesRegister(uint8_t u8ModuleHandle,
                                                          uint8_t *pu8Value);
ZELO_API uint8_t ZELO_ReadServerPowerSettingsRegister(uint8_t u8ModuleHandle, uint8_t *pu8Value);
ZELO_API uint8_t ZELO_ReadExtendedFirmwareCapabilitiesRegister(uint8_t u8ModuleHandle,
                                                               uint32_t *pu32Value);
ZELO_API uint8_t ZELO_ReadCFFPowerControlPolicyRegister(uint8_t u8ModuleHandle, uint8_t *pu8Value);
ZELO_API uint8_t ZELO_WriteCFFPowerControlPolicyRegister(uint8_t u8ModuleHandle, uint8_t u8Value);

/* Element 1: energy accumulators; element 4: clock accumulation. */
ZELO_API uint8_t ZELO_ReadEARDCRegister(uint8_t u8ModuleHandle, uint64_t *pu64Value);
ZELO_API uint8_t ZELO_ReadEARACRegister(uint8_t u8ModuleHandle, uint64_t *pu64Value);
ZELO_API uint8_t ZELO_ReadCARRegister(uint8_t u8ModuleHandle, uint32_t *pu32Value);
ZELO_API uint8_t ZELO_ReadClockRateRegister(uint8_t u8ModuleHandle, uint16_t *pu16Value);

/* Element 7: power caps, in watts. */
ZELO_API uint8_t ZELO_ReadPcapRegister(uint8_t u8ModuleHandle, uint16_t *pu16Value);
ZELO_API uint8_t ZELO_WritePcapRegister(uint8_t u8ModuleHandle, uint16_t u16Value);
ZELO_API uint8_t ZELO_ReadPcapMaxHotplugRegister(uint8_t u8ModuleHandle, uint16_t *pu16Value);
ZELO_API uint8_t ZELO_ReadPcapMaxRegister(uint8_t u8ModuleHandle, uint16_t *pu16Value);
ZELO_API uint8_t ZELO_ReadPcapMinRegister(uint8_t u8ModuleHandle, uint16_t *pu16Value);
ZELO_API uint8_t ZELO_ReadPauxMaxRegister(uint8_t u8ModuleHandle, uint16_t *pu16Value);
ZELO_API uint8_t ZELO_ReadPcapSoftMinRegister(uint8_t u8ModuleHandle, uint16_t *pu16Value);
ZELO_API uint8_t ZELO_ReadPnameplateRegister(uint8_t u8ModuleHandle, uint16_t *pu16Value);
ZELO_API uint8_t ZELO_ReadPcapModeRegister(uint8_t u8ModuleHandle, uint8_t *pu8Value);
ZELO_API uint8_t ZELO_WritePcapModeRegister(uint8_t u8ModuleHandle, uint8_t u8Value);
ZELO_API uint8_t ZELO_ReadPcapMinHotplugRegister(uint8_t u8ModuleHandle, uint16_t *pu16Value);

/* Element 9: exhaust heat index and inlet temperature. */
ZELO_API uint8_t ZELO_ReadEHIRegister(uint8_t u8ModuleHandle, uint8_t *pu8Value);
ZELO_API uint8_t ZELO_ReadInletTemperatureRegister(uint8_t u8ModuleHandle, uint8_t *pu8Value);

/* Element 13: server power down, standby power, IPL time, power cycles. */
ZELO_API uint8_t ZELO_ReadServerPowerDownSupportRegister(uint8_t u8ModuleHandle,
                                                         uint16_t *pu16Value);
ZELO_API uint8_t ZELO_ReadStandbyPowerRegister(uint8_t u8ModuleHandle, uint8_t *pu8Value,
                                               uint16_t *pu16StandbyPower);
ZELO_API uint8_t ZELO_ReadIPLTimeRegister(uint8_t u8ModuleHandle, uint16_t *pu16Value);
ZELO_API uint8_t ZELO_ReadNumberOfPowerCyclesRegister(uint8_t u8ModuleHandle, uint16_t *pu16First,
                                                      uint16_t *pu16Second);
ZELO_API uint8_t ZELO_ReadNumberOWakesFromS3Register(uint8_t u8ModuleHandle, uint16_t *pu16Value);

/* Element 14: power maximizer. */
ZELO_API uint8_t ZELO_ReadMaximizerStatusRegister(uint8_t u8ModuleHandle, uint8_t *pu8Value);

/* Capability queries: 1 or 0; any failure reads as 0. */
ZELO_API int ZELO_IsPowerCappingEnabled(void);
ZELO_API int ZELO_IsSupportPowerUtilization(void);
ZELO_API int ZELO_IsStaticPowerSavingsModeSupported(void);
ZELO_API int ZELO_IsSupportPowerCapMinHotplugRegister(void);
ZELO_API int ZELO_IsPowerCappingModeSupported(void);

ZELO_END_DECLS

#endif
