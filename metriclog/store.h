// The metric log's files, shared by its own files; not exported.
#pragma once

#include <cstdint>
#include <vector>

namespace zelo::metriclog {

// Puts one encoded record in the log's next file and counts it. 0 when it is
// in place, else why not (an errno value).
int storeRecord(const std::vector<uint8_t> &bytes);

} // namespace zelo::metriclog
