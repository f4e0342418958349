// What the daemon's cycle asks of the acquisition, with the platform family
// asked once for the whole cycle; shared inside the library, not exported.
#pragma once

#include <zelo/acquisition.h>

namespace zelo::acquisition {

// GetSnapshotBufferFromZELO for a blade (`blade`) or not.
uint8_t fetchSnapshot(SnapshotBuffer **ppsBuffer, HistogramData *psHistogram, bool blade);

} // namespace zelo::acquisition
