/* Every named register in one list: the library generates its plain
 * accessors from it and zeloctl its register table, in this order. Expand it
 * with a row macro of your own:
 *
 *   X(name, element, reg, length, type, label, access, form, read, write)
 *
 *   name     the register's name on zeloctl's command line, "power-cap"
 *   element  the firmware element it belongs to
 *   reg      its register id within the element
 *   length   its width in bytes; a written value must fit it
 *   type     the accessors' value type: read(handle, type *), write(handle, type)
 *   label    what the value is: "watts", "celsius" or just "value"
 *   access   ZELO_ACCESS_R, ZELO_ACCESS_W or ZELO_ACCESS_RW
 *   form     ZELO_FORM_VALUE: the accessors move the register's bytes as one
 *              big-endian number and do nothing else;
 *            ZELO_FORM_OWN: one value too, but the accessor also decodes it,
 *              checks a capability first or prints (see its declaration);
 *            ZELO_FORM_PAIR: read(handle, first *, second *), two outputs of
 *              their own types; type is void and label 0
 *   read     the read accessor, or ZELO_NO_ACCESSOR (0)
 *   write    the write accessor, or ZELO_NO_ACCESSOR (0)
 *
 * access and form are numbers (access a bit mask) when used as they are, and
 * names that can be pasted (MY_##access) in the macro that receives them; a
 * macro they are handed on to sees the numbers.
 *
 * For example, the name and width of each writable register handed to a
 * function of the caller's:
 *
 *   #define WRITABLE(name, element, reg, length, type, label, access, form, \
 *                    read, write)                                           \
 *       if ((access) & ZELO_ACCESS_W)                                        \
 *           show_writable(name, length);
 *   ZELO_REGISTER_LIST(WRITABLE)
 */
#ifndef ZELO_REGISTER_LIST_H
#define ZELO_REGISTER_LIST_H

#include <zelo/powersupply.h>
#include <zelo/registers.h>

#define ZELO_NO_ACCESSOR 0

#define ZELO_ACCESS_R 1
#define ZELO_ACCESS_W 2
#define ZELO_ACCESS_RW 3

#define ZELO_FORM_VALUE 0
#define ZELO_FORM_OWN 1
#define ZELO_FORM_PAIR 2

/* clang-format off */
#define ZELO_REGISTER_LIST(X)                                                                      \
    X("power-status", 0, 0, 1, uint8_t, "value", ZELO_ACCESS_R, ZELO_FORM_VALUE,                   \
      ZELO_ReadPowerStatusRegister, ZELO_NO_ACCESSOR)                                              \
    X("power-event", 0, 1, 2, uint16_t, "value", ZELO_ACCESS_R, ZELO_FORM_VALUE,                   \
      ZELO_2_6_ReadPowerEventRegister, ZELO_NO_ACCESSOR)                                           \
    X("hardware-error", 0, 2, 1, uint8_t, "value", ZELO_ACCESS_R, ZELO_FORM_VALUE,                 \
      ZELO_ReadPowerHardwareErrorRegister, ZELO_NO_ACCESSOR)                                       \
    X("sms-policy", 0, 3, 1, uint8_t, "value", ZELO_ACCESS_RW, ZELO_FORM_VALUE,                    \
      ZELO_ReadSMSPowerControlPolicyRegister, ZELO_WriteSMSPowerControlPolicyRegister)             \
    X("post-settings", 0, 5, 1, uint8_t, "value", ZELO_ACCESS_R, ZELO_FORM_OWN,                    \
      ZELO_ReadPOSTPowerSettingsRegister, ZELO_NO_ACCESSOR)                                        \
    X("capabilities", 0, 7, 1, uint8_t, "value", ZELO_ACCESS_R, ZELO_FORM_VALUE,                   \
      ZELO_ReadFirmwarePowerThermalCapabilitiesRegister, ZELO_NO_ACCESSOR)                         \
    X("server-capabilities", 0, 8, 1, uint8_t, "value", ZELO_ACCESS_R, ZELO_FORM_VALUE,            \
      ZELO_ReadServerPowerCapabilitiesRegister, ZELO_NO_ACCESSOR)                                  \
    X("server-settings", 0, 9, 1, uint8_t, "value", ZELO_ACCESS_R, ZELO_FORM_VALUE,                \
      ZELO_ReadServerPowerSettingsRegister, ZELO_NO_ACCESSOR)                                      \
    X("extended-capabilities", 0, 14, 4, uint32_t, "value", ZELO_ACCESS_R, ZELO_FORM_VALUE,        \
      ZELO_ReadExtendedFirmwareCapabilitiesRegister, ZELO_NO_ACCESSOR)                             \
    X("cff-policy", 0, 16, 1, uint8_t, "value", ZELO_ACCESS_RW, ZELO_FORM_VALUE,                   \
      ZELO_ReadCFFPowerControlPolicyRegister, ZELO_WriteCFFPowerControlPolicyRegister)             \
    X("energy-dc", 1, 0, 8, uint64_t, "value", ZELO_ACCESS_R, ZELO_FORM_VALUE,                     \
      ZELO_ReadEARDCRegister, ZELO_NO_ACCESSOR)                                                    \
    X("energy-ac", 1, 1, 8, uint64_t, "value", ZELO_ACCESS_R, ZELO_FORM_VALUE,                     \
      ZELO_ReadEARACRegister, ZELO_NO_ACCESSOR)                                                    \
    X("clock-accumulator", 4, 0, 4, uint32_t, "value", ZELO_ACCESS_R, ZELO_FORM_VALUE,             \
      ZELO_ReadCARRegister, ZELO_NO_ACCESSOR)                                                      \
    X("clock-rate", 4, 1, 2, uint16_t, "value", ZELO_ACCESS_R, ZELO_FORM_VALUE,                    \
      ZELO_ReadClockRateRegister, ZELO_NO_ACCESSOR)                                                \
    X("power-cap", 7, 0, 2, uint16_t, "watts", ZELO_ACCESS_RW, ZELO_FORM_VALUE,                    \
      ZELO_ReadPcapRegister, ZELO_WritePcapRegister)                                               \
    X("cap-max-hotplug", 7, 1, 2, uint16_t, "watts", ZELO_ACCESS_R, ZELO_FORM_VALUE,               \
      ZELO_ReadPcapMaxHotplugRegister, ZELO_NO_ACCESSOR)                                           \
    X("cap-max", 7, 2, 2, uint16_t, "watts", ZELO_ACCESS_R, ZELO_FORM_VALUE,                       \
      ZELO_ReadPcapMaxRegister, ZELO_NO_ACCESSOR)                                                  \
    X("cap-min", 7, 4, 2, uint16_t, "watts", ZELO_ACCESS_R, ZELO_FORM_VALUE,                       \
      ZELO_ReadPcapMinRegister, ZELO_NO_ACCESSOR)                                                  \
    X("aux-max", 7, 5, 2, uint16_t, "watts", ZELO_ACCESS_R, ZELO_FORM_VALUE,                       \
      ZELO_ReadPauxMaxRegister, ZELO_NO_ACCESSOR)                                                  \
    X("cap-soft-min", 7, 6, 2, uint16_t, "watts", ZELO_ACCESS_R, ZELO_FORM_VALUE,                  \
      ZELO_ReadPcapSoftMinRegister, ZELO_NO_ACCESSOR)                                              \
    X("nameplate", 7, 9, 2, uint16_t, "watts", ZELO_ACCESS_R, ZELO_FORM_VALUE,                     \
      ZELO_ReadPnameplateRegister, ZELO_NO_ACCESSOR)                                               \
    X("capping-mode", 7, 10, 1, uint8_t, "value", ZELO_ACCESS_RW, ZELO_FORM_VALUE,                 \
      ZELO_ReadPcapModeRegister, ZELO_WritePcapModeRegister)                                       \
    X("cap-min-hotplug", 7, 12, 2, uint16_t, "watts", ZELO_ACCESS_R, ZELO_FORM_OWN,                \
      ZELO_ReadPcapMinHotplugRegister, ZELO_NO_ACCESSOR)                                           \
    X("exhaust-heat-index", 9, 0, 1, uint8_t, "value", ZELO_ACCESS_R, ZELO_FORM_VALUE,             \
      ZELO_ReadEHIRegister, ZELO_NO_ACCESSOR)                                                      \
    X("inlet-temperature", 9, 1, 1, uint8_t, "celsius", ZELO_ACCESS_R, ZELO_FORM_VALUE,            \
      ZELO_ReadInletTemperatureRegister, ZELO_NO_ACCESSOR)                                         \
    X("power-down-support", 13, 0, 2, uint16_t, "value", ZELO_ACCESS_R, ZELO_FORM_VALUE,           \
      ZELO_ReadServerPowerDownSupportRegister, ZELO_NO_ACCESSOR)                                   \
    X("standby-power", 13, 1, 8, void, 0, ZELO_ACCESS_R, ZELO_FORM_PAIR,                           \
      ZELO_ReadStandbyPowerRegister, ZELO_NO_ACCESSOR)                                             \
    X("ipl-time", 13, 2, 2, uint16_t, "value", ZELO_ACCESS_R, ZELO_FORM_VALUE,                     \
      ZELO_ReadIPLTimeRegister, ZELO_NO_ACCESSOR)                                                  \
    X("power-cycles", 13, 3, 4, void, 0, ZELO_ACCESS_R, ZELO_FORM_PAIR,                            \
      ZELO_ReadNumberOfPowerCyclesRegister, ZELO_NO_ACCESSOR)                                      \
    X("wakes-from-s3", 13, 4, 2, uint16_t, "value", ZELO_ACCESS_R, ZELO_FORM_VALUE,                \
      ZELO_ReadNumberOWakesFromS3Register, ZELO_NO_ACCESSOR)                                       \
    X("maximizer-status", 14, 6, 1, uint8_t, "value", ZELO_ACCESS_R, ZELO_FORM_VALUE,              \
      ZELO_ReadMaximizerStatusRegister, ZELO_NO_ACCESSOR)                                          \
    X("max-power-supplies", 10, 0, 1, uint8_t, "value", ZELO_ACCESS_R, ZELO_FORM_OWN,              \
      ZELO_ReadMaxNumberOfPowerSuppliesRegister, ZELO_NO_ACCESSOR)                                 \
    X("redundancy-target", 10, 30, 1, uint8_t, "value", ZELO_ACCESS_RW, ZELO_FORM_VALUE,           \
      ZELO_ReadRedundancyTargetRegister, ZELO_WriteRedundancyTargetRegister)                       \
    X("target-redundancy-config", 10, 31, 1, uint8_t, "value", ZELO_ACCESS_W, ZELO_FORM_OWN,       \
      ZELO_NO_ACCESSOR, ZELO_WriteTargetRedundancyConfigurationRegister)
/* clang-format on */

#endif
