// State of the metric log, shared by its own files (and its tests); the
// daemon reaches it through cycle.h. Not exported.
#pragma once

#include "calculate.h"
#include "cycle.h"
#include "store.h"

#include <zelo/metriclog.h>

#include <cstdint>

namespace zelo::metriclog {

// Next metric log file index (0-119) and how many files exist (0-120).
extern uint8_t u8LogFileIndex;
extern uint8_t u8LogFileNum;

inline constexpr uint8_t kLogFileCount = 120;
inline constexpr const char *kLockFile = "/tmp/zelo_log/zelo.lock";
inline constexpr const char *kNumFile = "/tmp/zelo_log/zelo_num.log";
inline constexpr const char *kLastFile = "/tmp/zelo_log/zelo_last.log";

enum class LockWait {
    Taken,
    Unavailable, // no lock can be made here (a reader without write access): go on without
    NotAFile,    // something that is no lock file holds its name and cannot be removed
    Abandoned,   // as abandonLockWaitWhen asked
    TimedOut,    // still held after the bound
};
// How long a reader of the library's own (not the written ones) waits for
// the lock: beyond a slow daemon cycle, short for a person.
inline constexpr unsigned kReaderLockSeconds = 30;
// WaitValueLock, which gives up after `boundSeconds` (0: never). With
// `yield`, a reader leaves the lock to a writer that waits for it.
LockWait takeLock(unsigned boundSeconds, bool yield = false);

// The lock as a reader holds it: released when this ends, only when taken.
class ReaderLock {
  public:
    explicit ReaderLock(unsigned boundSeconds) : wait_(takeLock(boundSeconds, true)) {}
    ~ReaderLock() {
        if (wait_ == LockWait::Taken)
            UnlockValue();
    }
    ReaderLock(const ReaderLock &) = delete;
    ReaderLock &operator=(const ReaderLock &) = delete;
    LockWait result() const { return wait_; }
    // Taken, or none to take: the reader goes on.
    bool usable() const { return wait_ == LockWait::Taken || wait_ == LockWait::Unavailable; }

  private:
    LockWait wait_;
};

// The file a reader starts from: until the log is full its files are 0 up,
// whatever the second counter says (a kill between the counters' writes
// leaves it one behind).
inline unsigned oldestFile(unsigned count, unsigned last) {
    return count < kLogFileCount ? 0 : (last + 1u) % kLogFileCount;
}

// Resolves a system path under the root into a PATH_MAX buffer.
bool logPath(const char *absPath, char *out, std::size_t cap);

} // namespace zelo::metriclog
