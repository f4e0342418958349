// Configuration of the D-Bus platform library: the bridge channel of the
// host's firmware, how long an exchange may take, and the temperature
// sensors to read. One file, read once per process at the first platform
// call; a missing or malformed one is reported and the defaults apply whole.
#pragma once

#include "bus_names.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zelo::platform {

// Under $ZELO_ROOT unless $ZELO_PLATFORM_DBUS_CONFIG names the file.
inline constexpr const char *kBusConfigPath = "/etc/zelo/platform-dbus.conf";
inline constexpr const char *kBusConfigEnv = "ZELO_PLATFORM_DBUS_CONFIG";
inline constexpr std::uint32_t kDefaultTimeoutMs = 1500;
inline constexpr std::uint32_t kMaxTimeoutMs = 60000;
// The platform's receiving area holds 768 sensor records.
inline constexpr std::size_t kMaxSensors = 768;

struct SensorSource {
    std::string service;
    std::string path;
    bool operator==(const SensorSource &) const = default;
};

struct BusConfig {
    std::uint8_t channel = busnames::kFirmwareChannel;
    std::uint32_t timeoutMs = kDefaultTimeoutMs;
    // Empty: the object mapper finds them.
    std::vector<SensorSource> sensors;
    bool operator==(const BusConfig &) const = default;
};

// Parses the file's text:
//   # comment
//   channel = 1                  0-255
//   timeout-ms = 1500            1-60000
//   sensor = SERVICE PATH        once per sensor, PATH under
//                                /xyz/openbmc_project/sensors/temperature/
// False with error "line N: why" (config left as the defaults) on the first
// fault.
bool parseBusConfig(std::string_view text, BusConfig &config, std::string &error);

// The process's configuration, read at the first call; a fault is reported
// once on standard error and in the trace log.
const BusConfig &busConfig();

} // namespace zelo::platform
