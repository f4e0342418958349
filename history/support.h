// Helpers of the history files: the trace-log wrapper, the little-endian
// codec, and replacing a file whole.
#pragma once

#include "bytes.h"

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace zelo::history {

// Formats into msgBuf and hands the line to WriteToPowerHistoryLog; lines the
// verbosity drops are not formatted at all.
void traceLine(int32_t level, const char *function, const char *tag, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

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

// A file written beside its final path (same name plus ".tmp") and moved over
// it only once it is whole and on stable storage, so a crash or a full disk
// during the write leaves the previous file intact and readers never see a
// half-written one. Unbuffered: a failing write shows at the record that
// failed. A file not committed is removed when this goes out of scope.
class ReplacedFile {
  public:
    // absPath is taken under $ZELO_ROOT; stream() is null when the temporary
    // file could not be created (errno tells why).
    explicit ReplacedFile(const char *absPath);
    ~ReplacedFile();
    ReplacedFile(const ReplacedFile &) = delete;
    ReplacedFile &operator=(const ReplacedFile &) = delete;

    FILE *stream() const { return file_; }
    // Flushes, syncs and closes the temporary file and renames it over the
    // final one; false (errno set) leaves the previous file in place.
    bool commit();

  private:
    void abandon();

    char final_[PATH_MAX];
    char temp_[PATH_MAX];
    FILE *file_ = nullptr;
};

} // namespace zelo::history
