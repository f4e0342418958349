// Reading a small file whole, safely whatever was planted at its path.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zelo {

enum class FileRead {
    Whole,      // the file fitted in the buffer; *length bytes were read
    Missing,    // nothing at the path
    TooLarge,   // a regular file longer than the buffer
    NotRegular, // a directory, FIFO, device or socket: never waited on
    Failed,     // it could not be opened or read
};

// Reads the regular file at `path` (already resolved) into `buffer`. The open
// does not block, so a FIFO at the path cannot hold the caller up.
FileRead readWholeFile(const char *path, uint8_t *buffer, std::size_t cap, std::size_t *length);

} // namespace zelo
