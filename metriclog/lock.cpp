// The metric log lock (a file holding one byte 0x01) and the two one-byte
// counter files beside the metric log.
#include "paths.h"
#include "state.h"

#include <zelo/metriclog.h>
#include <zelo/tracelog.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace zelo::metriclog {

SleepFn gLockSleep = ::sleep;
AbandonFn gLockAbandon = nullptr;

bool logPath(const char *absPath, char *out, std::size_t cap) {
    return resolvePath(absPath, out, cap);
}

namespace {

constexpr unsigned kLockPollSeconds = 10;
constexpr uint8_t kLockByte = 0x01;

// Opens for writing, truncating, without following a symbolic link planted
// at the path.
int openForWrite(const char *path, int extraFlags) {
    return ::open(path, O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC | extraFlags, 0644);
}

} // namespace
} // namespace zelo::metriclog

using namespace zelo::metriclog;

extern "C" {

void WaitValueLock(void) {
    char path[PATH_MAX];
    if (!logPath(kLockFile, path, sizeof path)) {
        WriteToLog("WaitValueLock", "ERROR", "Can't open lock file");
        return;
    }
    // Test and create in one step: of two processes only one can create it.
    int fd = -1;
    for (;;) {
        fd = openForWrite(path, O_EXCL);
        if (fd >= 0 || errno != EEXIST)
            break;
        gLockSleep(kLockPollSeconds);
        if (gLockAbandon != nullptr && gLockAbandon())
            return;
    }
    if (fd < 0) {
        WriteToLog("WaitValueLock", "ERROR", "Can't open lock file");
        return;
    }
    const uint8_t byte = kLockByte;
    (void)::write(fd, &byte, 1);
    ::close(fd);
}

int UnlockValue(void) {
    char path[PATH_MAX];
    if (!logPath(kLockFile, path, sizeof path))
        return -1;
    return ::unlink(path);
}

void WriteUCToFile(const char *pszPath, uint8_t u8Value) {
    const int fd = pszPath != nullptr ? openForWrite(pszPath, 0) : -1;
    if (fd < 0) {
        char message[1024];
        std::snprintf(message, sizeof message, "Can't write %u to %s", u8Value,
                      pszPath != nullptr ? pszPath : "(null)");
        WriteToLog("WriteUCToFile", "ERROR", message);
        return;
    }
    (void)::write(fd, &u8Value, 1);
    ::close(fd);
}

void ReadUCFromFile(const char *pszPath, uint8_t *pu8Value) {
    if (pu8Value == nullptr)
        return;
    *pu8Value = 0;
    const int fd = pszPath != nullptr ? ::open(pszPath, O_RDONLY | O_CLOEXEC) : -1;
    if (fd < 0)
        return;
    // An empty file reads as 0.
    if (::read(fd, pu8Value, 1) != 1)
        *pu8Value = 0;
    ::close(fd);
}

} // extern "C"
