// The metric log lock (a file holding its owner's pid in decimal) and the
// two one-byte counter files beside the metric log.
#include "files.h"
#include "hooks.h"
#include "paths.h"
#include "report.h"
#include "state.h"

#include <zelo/metriclog.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zelo::metriclog {

bool logPath(const char *absPath, char *out, std::size_t cap) {
    return resolvePath(absPath, out, cap);
}

namespace {

bool (*gAbandonLockWait)() = nullptr;

// A waiter wakes when the lock file goes, and looks again at least this
// often in case it missed that (or its holder died without removing it).
constexpr int kLockPollSeconds = 10;
// Longer than any holder keeps the lock: the daemon's cycle with every
// firmware request timing out, or a reader going through the whole log.
constexpr std::time_t kStaleLockSeconds = 300;
// How often a long wait says who it waits for.
constexpr int64_t kWaitTraceSeconds = 60;

void traceLock(const char *level, const char *format, long value) {
    zelo::report(zelo::traced("WaitValueLock", level), format, kLockFile, value);
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

// The boot time in seconds since the epoch, from /proc/stat's btime line,
// read line by line: the interrupt counts before it run to kilobytes on a
// machine with many of them. 0 when unknown.
uint64_t bootTime() {
    FILE *stat = std::fopen("/proc/stat", "re");
    if (stat == nullptr)
        return 0;
    char *line = nullptr;
    std::size_t cap = 0;
    uint64_t boot = 0;
    while (boot == 0 && ::getline(&line, &cap, stat) > 0)
        if (std::strncmp(line, "btime ", 6) == 0)
            boot = std::strtoull(line + 6, nullptr, 10);
    std::free(line);
    std::fclose(stat);
    return boot;
}

// When process `pid` started, in seconds since the epoch; 0 when unknown.
std::time_t startOf(pid_t pid) {
    char path[32], text[1024];
    zelo::formatText(path, sizeof path, "/proc/%ld/stat", static_cast<long>(pid));
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    const ssize_t n = fd >= 0 ? ::read(fd, text, sizeof text - 1) : -1;
    if (fd >= 0)
        ::close(fd);
    if (n <= 0)
        return 0;
    text[n] = '\0';
    // After the command's last closing parenthesis (the command may hold
    // one): the state is field 3, the start time (ticks since boot) field 22.
    const char *at = std::strrchr(text, ')');
    for (unsigned field = 2; field < 22 && at != nullptr; ++field)
        at = std::strchr(at + 1, ' ');
    const uint64_t ticks = at != nullptr ? std::strtoull(at, nullptr, 10) : 0;
    const uint64_t boot = ticks != 0 ? bootTime() : 0;
    const long hertz = ::sysconf(_SC_CLK_TCK);
    if (boot == 0 || hertz <= 0)
        return 0;
    return static_cast<std::time_t>(boot + ticks / static_cast<uint64_t>(hertz));
}

// The pid in a lock file is no holder when no process has it, or when the
// process that has it now started after the lock was written (the pid was
// reused). The start time is known to the second: one second of slack.
bool holderGone(pid_t owner, std::time_t written) {
    if (::kill(owner, 0) != 0 && errno == ESRCH)
        return true;
    const std::time_t started = startOf(owner);
    return started != 0 && started > written + 1;
}

enum class Stale {
    Removed, // nothing holds the name now: try again at once
    Held,    // a holder keeps it
    Stuck,   // not a regular file, and not ours to remove
};

// A directory, FIFO or other object at the lock's name is never released: it
// is removed, or renamed aside when it is a directory with entries.
Stale removeNotAFile(const char *path, const struct stat &seen) {
    const bool directory = S_ISDIR(seen.st_mode);
    if (zelo::removeOwnFile(path, directory ? AT_REMOVEDIR : 0) == 0) {
        traceLock("WARNING", "Lock file '%s' was not a regular file (mode %lo): removed",
                  static_cast<long>(seen.st_mode));
        return Stale::Removed;
    }
    char aside[48];
    zelo::formatText(aside, sizeof aside, "zelo.lock.%llu",
                     static_cast<unsigned long long>(seen.st_ino));
    if (directory && zelo::renameOwnFile(path, aside) == 0) {
        zelo::report(zelo::traced("WaitValueLock", "WARNING"),
                     "Lock file '%s' was a directory with entries: renamed to '%s'", kLockFile,
                     aside);
        return Stale::Removed;
    }
    traceLock("ERROR", "Lock file '%s' is not a regular file and cannot be removed (errno %ld)",
              errno);
    return Stale::Stuck;
}

// Removes a lock whose holder is gone, or one that names none and is older
// than any holder keeps it. Only the file inspected is removed, not one a
// faster waiter has put in its place since. *owner is the pid it names;
// *unnamed the lock when it is old and names none, which is stale only when
// it was so before the caller last waited (`before`).
Stale removeStaleLock(const char *path, pid_t *owner, ino_t before, ino_t *unnamed) {
    *owner = 0;
    struct stat seen {};
    if (::lstat(path, &seen) != 0)
        return errno == ENOENT ? Stale::Removed : Stale::Held;
    if (!S_ISREG(seen.st_mode))
        return removeNotAFile(path, seen);
    const int fd = ::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return errno == ENOENT || errno == ELOOP ? Stale::Removed : Stale::Held;
    *owner = ownerOf(fd);
    ::close(fd);
    // A lock naming no one may be one caught between its creation and its
    // pid: old by its time stamp, it is stale only if it still names no one
    // after a wait (a clock stepped forward makes any file look old).
    const bool old = std::time(nullptr) - seen.st_mtime > kStaleLockSeconds;
    const bool stale =
        *owner != 0 ? holderGone(*owner, seen.st_mtime) : old && before == seen.st_ino;
    *unnamed = *owner == 0 && old ? seen.st_ino : 0;
    struct stat now {};
    if (!stale || ::lstat(path, &now) != 0 || now.st_dev != seen.st_dev ||
        now.st_ino != seen.st_ino || zelo::removeOwnFile(path) != 0)
        return Stale::Held;
    if (*owner != 0)
        traceLock("WARNING",
                  "Lock file '%s' of process %ld, which is gone or younger than the lock, removed",
                  *owner);
    else
        traceLock("WARNING", "Lock file '%s' naming no owner and older than %ld s removed",
                  static_cast<long>(kStaleLockSeconds));
    return Stale::Removed;
}

// Wakes a waiter when the lock file leaves its directory.
class Release {
  public:
    explicit Release(const char *path) : path_(path) {}
    ~Release() {
        if (fd_ >= 0)
            ::close(fd_);
    }
    Release(const Release &) = delete;
    Release &operator=(const Release &) = delete;

    // Watches the lock's directory; false the first time, so that the lock
    // is tried again once the watch is in place (a release just before it
    // would be missed). Without inotify, waits are plain timeouts.
    bool armed() {
        if (tried_)
            return true;
        tried_ = true;
        char dir[PATH_MAX];
        const char *slash = std::strrchr(path_, '/');
        const auto length = static_cast<std::size_t>(slash - path_);
        fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        zelo::formatText(dir, sizeof dir, "%.*s", static_cast<int>(length), path_);
        if (fd_ >= 0 && ::inotify_add_watch(fd_, dir,
                                            IN_DELETE | IN_MOVED_FROM | IN_DELETE_SELF |
                                                IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW) < 0) {
            ::close(fd_);
            fd_ = -1;
        }
        return false;
    }

    // Up to `seconds`, less when anything leaves the directory.
    void wait(int seconds) {
        struct pollfd watch = {fd_, POLLIN, 0};
        if (zelo::hooks().poll(fd_ >= 0 ? &watch : nullptr, fd_ >= 0 ? 1 : 0, seconds * 1000) <= 0)
            return;
        alignas(struct inotify_event) char events[4096];
        while (::read(fd_, events, sizeof events) > 0) {
        }
    }

  private:
    const char *path_;
    int fd_ = -1;
    bool tried_ = false;
};

// A writer waiting for the lock names itself in a file beside it; readers
// leave the lock to it while that process lives, so a loop of readers cannot
// keep the daemon from its cycle.
class Wanted {
  public:
    explicit Wanted(const char *lockPath) {
        zelo::formatText(path_, sizeof path_, "%s.wanted", lockPath);
    }
    ~Wanted() {
        if (posted_)
            (void)zelo::removeOwnFile(path_);
    }
    Wanted(const Wanted &) = delete;
    Wanted &operator=(const Wanted &) = delete;

    void post() {
        if (posted_)
            return;
        const int fd = zelo::openOwnFile(path_, O_RDWR | O_CREAT | O_TRUNC);
        if (fd < 0)
            return;
        char pid[16];
        zelo::formatText(pid, sizeof pid, "%d\n", static_cast<int>(::getpid()));
        posted_ = ::write(fd, pid, std::strlen(pid)) > 0;
        ::close(fd);
    }

    // The live process, other than this one, that waits to write; 0 when none.
    pid_t writer() const {
        struct stat seen {};
        const int fd = ::open(path_, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0)
            return 0;
        const pid_t owner = ::fstat(fd, &seen) == 0 && S_ISREG(seen.st_mode) ? ownerOf(fd) : 0;
        ::close(fd);
        return owner != 0 && owner != ::getpid() && !holderGone(owner, seen.st_mtime) ? owner : 0;
    }

  private:
    char path_[PATH_MAX + 8];
    bool posted_ = false;
};

} // namespace

void abandonLockWaitWhen(bool (*abandon)()) {
    gAbandonLockWait = abandon;
}

LockWait takeLock(unsigned boundSeconds, bool yield) {
    char path[PATH_MAX];
    if (!logPath(kLockFile, path, sizeof path)) {
        zelo::report(zelo::traced("WaitValueLock", "ERROR"), "Can't open lock file");
        return LockWait::Unavailable;
    }
    Release release(path);
    Wanted wanted(path);
    ino_t unnamed = 0, unnamedBeforeWait = 0; // an old lock that named no one
    int64_t since = -1, traced = 0;
    for (;;) {
        pid_t owner = yield ? wanted.writer() : 0;
        if (owner == 0) {
            // Test and create in one step: of two processes only one can create it.
            const int fd = zelo::openOwnFile(path, O_RDWR | O_EXCL);
            if (fd >= 0) {
                char pid[16];
                zelo::formatText(pid, sizeof pid, "%d\n", static_cast<int>(::getpid()));
                const auto n = static_cast<ssize_t>(std::strlen(pid));
                // A lock that names no pid is still the lock; waiters break it
                // only once it is old, so a failed write costs nothing but that.
                if (::write(fd, pid, static_cast<std::size_t>(n)) != n)
                    zelo::report(zelo::traced("WaitValueLock", "ERROR"),
                                 "Can't write the pid into the lock file");
                ::close(fd);
                return LockWait::Taken;
            }
            if (errno != EEXIST) {
                zelo::report(zelo::traced("WaitValueLock", "ERROR"), "Can't open lock file");
                return LockWait::Unavailable;
            }
            const Stale stale = removeStaleLock(path, &owner, unnamedBeforeWait, &unnamed);
            if (stale == Stale::Stuck)
                return LockWait::NotAFile;
            if (stale == Stale::Removed)
                continue;
            if (!yield)
                wanted.post();
        }
        if (!release.armed())
            continue;
        const int64_t now = zelo::hooks().monotonicSeconds();
        since = since < 0 ? now : since;
        const int64_t waited = now - since;
        if (boundSeconds != 0 && waited >= boundSeconds) {
            traceLock("ERROR", "Lock file '%s' held by process %ld (0: none named): given up",
                      owner);
            return LockWait::TimedOut;
        }
        if (waited >= traced + kWaitTraceSeconds) {
            traced = waited - waited % kWaitTraceSeconds;
            traceLock("WARNING", "Waiting for lock file '%s' held by process %ld (0: none named)",
                      owner);
        }
        const int64_t left = boundSeconds != 0 ? boundSeconds - waited : kLockPollSeconds;
        release.wait(static_cast<int>(std::min<int64_t>(left, kLockPollSeconds)));
        unnamedBeforeWait = unnamed;
        if (gAbandonLockWait != nullptr && gAbandonLockWait())
            return LockWait::Abandoned;
    }
}

} // namespace zelo::metriclog

using namespace zelo::metriclog;

extern "C" {

void WaitValueLock(void) {
    (void)takeLock(0);
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
        zelo::report(zelo::traced("WriteUCToFile", "ERROR"), "Can't write %u to %s", u8Value,
                     pszPath != nullptr ? pszPath : "(null)");
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
