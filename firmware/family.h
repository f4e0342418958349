// Decisions that hang on the platform family, for an operation that asked
// it once and passes the answer down; shared inside the library, not
// exported.
#pragma once

namespace zelo::firmware {

// ZELO_IsSupportPowerUtilization for a blade (`blade`) or not.
int supportsPowerUtilization(bool blade);

} // namespace zelo::firmware
