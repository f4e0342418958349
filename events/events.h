// What the daemon's cycle asks of the software events, with the platform
// family asked once for the whole cycle; shared inside the library, not
// exported.
#pragma once

#include <array>
#include <cstdint>

namespace zelo::events {

// CheckPowercapRelatedSettingForSendSWEvent for a blade (`blade`) or not:
// the readings, then the events they call for.
void checkPowercapSettings(bool blade);

// The cap limits as published (max, min, soft min) and as the firmware has
// them, each mask bit set for a value that was read.
struct PowercapReadings {
    bool checked = false; // the firmware takes part in power utilisation
    uint8_t kivMask = 0;
    uint8_t zeloMask = 0;
    std::array<int, 3> stored{};
    std::array<uint16_t, 3> firmware{};
};
PowercapReadings readPowercapSettings(bool blade);
// A changed limit raises its event and is published anew.
void sendPowercapEvents(const PowercapReadings &readings);

} // namespace zelo::events
