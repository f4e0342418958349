// What the daemon's cycle asks of the software events, with the platform
// family asked once for the whole cycle; shared inside the library, not
// exported.
#pragma once

namespace zelo::events {

// CheckPowercapRelatedSettingForSendSWEvent for a blade (`blade`) or not.
void checkPowercapSettings(bool blade);

} // namespace zelo::events
