// The controller's services that the D-Bus platform library calls, and that
// zelo-fwsim stands in for on a test bus: their names, objects and members.
#pragma once

#include <cstdint>

namespace zelo::busnames {

// The IPMB bridge: one IPMI request per sendRequest(y channel, y netfn,
// y lun, y cmd, ay data) -> (i status, y netfn, y lun, y cmd, y cc, ay data).
// A status other than 0 means the request never got an answer.
inline constexpr const char *kIpmbService = "xyz.openbmc_project.Ipmi.Channel.Ipmb";
inline constexpr const char *kIpmbPath = "/xyz/openbmc_project/Ipmi/Channel/Ipmb";
inline constexpr const char *kIpmbInterface = "org.openbmc.Ipmb";
inline constexpr const char *kSendRequest = "sendRequest";
// The bridge's channel 1 reaches the host's power-management firmware.
inline constexpr std::uint8_t kFirmwareChannel = 1;

// The logging service: Create(s message, s severity, a{ss} additionalData).
inline constexpr const char *kLoggingService = "xyz.openbmc_project.Logging";
inline constexpr const char *kLoggingPath = "/xyz/openbmc_project/logging";
inline constexpr const char *kCreateInterface = "xyz.openbmc_project.Logging.Create";
inline constexpr const char *kCreate = "Create";
inline constexpr const char *kLevelPrefix = "xyz.openbmc_project.Logging.Entry.Level.";

// Temperature sensors: Value (d, degrees C, NaN when there is no reading);
// OperationalStatus.Functional (b) false marks a sensor that is not usable.
inline constexpr const char *kTemperatureRoot = "/xyz/openbmc_project/sensors/temperature";
inline constexpr const char *kValueInterface = "xyz.openbmc_project.Sensor.Value";
inline constexpr const char *kStatusInterface =
    "xyz.openbmc_project.State.Decorator.OperationalStatus";
inline constexpr const char *kPropertiesInterface = "org.freedesktop.DBus.Properties";

// The object mapper, which finds the sensors' services when one runs:
// GetSubTree(s path, i depth, as interfaces) -> a{sa{sas}}.
inline constexpr const char *kMapperService = "xyz.openbmc_project.ObjectMapper";
inline constexpr const char *kMapperPath = "/xyz/openbmc_project/object_mapper";
inline constexpr const char *kMapperInterface = "xyz.openbmc_project.ObjectMapper";

} // namespace zelo::busnames
