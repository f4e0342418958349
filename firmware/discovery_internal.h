// Firmware discovery's state, for tests; not exported.
#pragma once

namespace zelo::firmware {

// Forgets the per-process support cache, as if the library were just loaded.
void resetSupportCache();

} // namespace zelo::firmware
