// The metric log lock (a file holding its owner's pid in decimal) and the
// two one-byte counter files beside the metric log.
#include "files.h"
#include "hooks.h"
#include "paths.h"
#include "state.h"

#include <zelo/metriclog.h>
#include <zelo/tracelog.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zelo::metriclog {

bool logPath(const char *absPath, char *out, std::size_t cap) {
    return resolvePath(absPath, out, cap);
}

namespace {

bool (*gAbandonLockWait)() = nullptr;

constexpr unsigned kLockPollSeconds = 10;
// Longer than any holder keeps the lock: the daemon's cycle with every
// firmware request timing out, or a reader going through the whole log.
constexpr std::time_t kStaleLockSeconds = 300;

void traceLock(const char *level, const char *format, long value) {
    char message[256];
    std::snprintf(message, sizeof message, format, kLockFile, value);
    WriteToLog("WaitValueLock", level, message);
}

// The pid a lock file names; 0 when it names none (empty, being written, the
// one byte of an older holder, or not a plain file).
pid_t ownerOf(int fd) {
    char text[24];
    const ssize_t n = ::read(fd, text, sizeof text - 1);
    if (n <= 0)
        return 0;
    uint64_t pid = 0;
    ssize_t i = 0;
    for (; i < n && text[i] >= '0' && text[i] <= '9' && pid <= INT_MAX; ++i)
        pid = pid * 10 + static_cast<unsigned>(text[i] - '0');
    const bool whole = i > 0 && (i == n || (i + 1 == n && text[i] == '\n'));
    return whole && pid > 0 && pid <= INT_MAX ? static_cast<pid_t>(pid) : 0;
}

// Removes a lock whose holder is gone: its pid is no process, or it names
// none and is older than any holder keeps it. Only the file inspected is
// removed, not one a faster waiter has put in its place since.
bool removeStaleLock(const char *path) {
    const int fd = ::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    struct stat seen {};
    const bool opened = fd >= 0 && ::fstat(fd, &seen) == 0;
    const pid_t owner = opened ? ownerOf(fd) : 0;
    if (fd >= 0)
        ::close(fd);
    if (!opened && ::lstat(path, &seen) != 0)
        return errno == ENOENT; // released meanwhile: try again at once
    if (owner != 0) {
        if (::kill(owner, 0) == 0 || errno != ESRCH)
            return false;
    } else if (std::time(nullptr) - seen.st_mtime <= kStaleLockSeconds) {
        return false;
    }
    struct stat now {};
    if (::lstat(path, &now) != 0 || now.st_dev != seen.st_dev || now.st_ino != seen.st_ino ||
        removeOwnFile(path) != 0)
        return false;
    if (owner != 0)
        traceLock("WARNING", "Lock file '%s' of process %ld, which is gone, removed", owner);
    else
        traceLock("WARNING", "Lock file '%s' naming no owner and older than %ld s removed",
                  static_cast<long>(kStaleLockSeconds));
    return true;
}

} // namespace

void abandonLockWaitWhen(bool (*abandon)()) {
    gAbandonLockWait = abandon;
}

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
        fd = zelo::openOwnFile(path, O_RDWR | O_EXCL);
        if (fd >= 0 || errno != EEXIST)
            break;
        if (removeStaleLock(path))
            continue;
        zelo::hooks().sleep(kLockPollSeconds);
        if (gAbandonLockWait != nullptr && gAbandonLockWait())
            return;
    }
    if (fd < 0) {
        WriteToLog("WaitValueLock", "ERROR", "Can't open lock file");
        return;
    }
    char pid[16];
    const int n = std::snprintf(pid, sizeof pid, "%ld\n", static_cast<long>(::getpid()));
    // A lock that names no pid is still the lock; waiters break it only
    // once it is old, so a failed write costs nothing but that.
    if (::write(fd, pid, static_cast<std::size_t>(n)) != n)
        WriteToLog("WaitValueLock", "ERROR", "Can't write the pid into the lock file");
    ::close(fd);
}

int UnlockValue(void) {
    char path[PATH_MAX];
    if (!logPath(kLockFile, path, sizeof path))
        return -1;
    return zelo::removeOwnFile(path);
}

void WriteUCToFile(const char *pszPath, uint8_t u8Value) {
    // Replaced whole: a full disk keeps the previous value, not an empty file.
    zelo::ReplacedFile::Options options;
    options.rooted = false; // the path given is the file's own
    zelo::ReplacedFile file(pszPath, options);
    if (file.stream() == nullptr || std::fwrite(&u8Value, 1, 1, file.stream()) != 1 ||
        !file.commit()) {
        char message[1024];
        std::snprintf(message, sizeof message, "Can't write %u to %s", u8Value,
                      pszPath != nullptr ? pszPath : "(null)");
        WriteToLog("WriteUCToFile", "ERROR", message);
    }
}

void ReadUCFromFile(const char *pszPath, uint8_t *pu8Value) {
    if (pu8Value == nullptr)
        return;
    *pu8Value = 0;
    // A missing, empty or non-regular file reads as 0.
    FILE *file = pszPath != nullptr ? zelo::openRegularStream(pszPath) : nullptr;
    if (file == nullptr)
        return;
    if (std::fread(pu8Value, 1, 1, file) != 1)
        *pu8Value = 0;
    std::fclose(file);
}

} // extern "C"
