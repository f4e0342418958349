// Helpers of the history files: the trace-log wrapper, the little-endian
// codec, and how a history file is replaced whole.
#pragma once

#include "bytes.h"
#include "files.h"
#include "report.h"

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace zelo::history {

// A trace line kept from verbosity `level` on; the tracker logs per sample,
// and a line the verbosity drops is not even formatted (it would dominate a
// long gap fill).
void traceLine(int32_t level, const char *function, const char *tag, const char *format, ...)
    ZELO_FORMAT(4, 5);

inline void putLe16(uint8_t *at, uint16_t value) {
    putLe(at, value, 2);
}
inline void putLe32(uint8_t *at, uint32_t value) {
    putLe(at, value, 4);
}
inline uint16_t getLe16(const uint8_t *at) {
    return static_cast<uint16_t>(getLe(at, 2));
}
inline uint32_t getLe32(const uint8_t *at) {
    return static_cast<uint32_t>(getLe(at, 4));
}

// How the history files are replaced: unbuffered, so a failing write shows
// at once; synced when `durable` (the full files, on the controller's
// persistent storage); in their own directory or the shared, sticky /tmp of
// the summary files.
ReplacedFile::Options historyFile(bool durable);

} // namespace zelo::history
