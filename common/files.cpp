#include "files.h"

#include "paths.h"
#include "report.h"

#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zelo {

namespace {

// The directory above `path` opened by `open`, and the name in it; a name
// without a directory is in the working one.
template <typename Open>
int openAbove(const char *path, const char **name, Open open) {
    const char *slash = path != nullptr ? std::strrchr(path, '/') : nullptr;
    if (path == nullptr || (slash != nullptr ? slash[1] : path[0]) == '\0') {
        errno = EINVAL;
        return -1;
    }
    *name = slash != nullptr ? slash + 1 : path;
    if (slash == nullptr)
        return open(".");
    char dir[PATH_MAX];
    const auto length = static_cast<std::size_t>(slash - path);
    if (length >= sizeof dir) {
        errno = ENAMETOOLONG;
        return -1;
    }
    std::memcpy(dir, path, length);
    dir[length] = '\0';
    return open(length == 0 ? "/" : dir);
}

// Opens for reading without blocking; -1 unless a regular file (notRegular
// tells that case from a failed open).
// Read only from a directory the daemon would write in (no link, root's or
// ours, closed to others), never through a link: a directory anyone could
// make might hold forged figures.
int openRegular(const char *path, bool *notRegular) {
    *notRegular = false;
    const char *name = nullptr;
    const int dir = openAbove(path, &name, [](const char *d) { return openOwnDirectory(d); });
    if (dir < 0)
        return -1;
    const int fd = ::openat(dir, name, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW);
    ::close(dir);
    if (fd < 0) {
        if (errno == ELOOP)
            *notRegular = true; // a link where a file should be
        return -1;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        *notRegular = true;
        errno = EINVAL;
        return -1;
    }
    return fd;
}

// The directory above `path` opened as our own, and the name in it.
int openParent(const char *path, bool sticky, const char **name) {
    return openAbove(path, name, [sticky](const char *d) { return openOwnDirectory(d, sticky); });
}

int openFileAt(int dir, const char *name, int flags, mode_t mode) {
    const int fd =
        ::openat(dir, name, flags | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, mode);
    struct stat st {};
    if (fd < 0 || (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)))
        return fd;
    ::close(fd);
    errno = EINVAL;
    return -1;
}

// Random bits for a temporary name nobody can plant in advance.
uint32_t randomBits(unsigned attempt) {
    uint32_t bits = 0;
    if (::getrandom(&bits, sizeof bits, GRND_NONBLOCK) == static_cast<ssize_t>(sizeof bits))
        return bits;
    struct timespec now {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t mixed =
        (static_cast<uint64_t>(now.tv_nsec) ^ (static_cast<uint64_t>(::getpid()) << 32) ^ attempt) *
        0x9E3779B97F4A7C15ULL;
    return static_cast<uint32_t>(mixed >> 32);
}

// NAME.tmp as formatText would write it (returning the whole length, however
// long), without parsing a format for each record a cycle writes.
int plainTemporary(char *out, std::size_t cap, const char *name) {
    const std::size_t length = std::strlen(name);
    if (length + 5 <= cap) {
        std::memcpy(out, name, length);
        std::memcpy(out + length, ".tmp", 5);
    }
    return static_cast<int>(length + 4);
}

} // namespace

FileRead readWholeFile(const char *path, uint8_t *buffer, std::size_t cap, std::size_t *length) {
    *length = 0;
    bool notRegular = false;
    const int fd = openRegular(path, &notRegular);
    if (fd < 0)
        return notRegular                            ? FileRead::NotRegular
               : errno == ENOENT || errno == ENOTDIR ? FileRead::Missing
                                                     : FileRead::Failed;
    // One byte more than fits tells a file that is too long from one that fills the buffer.
    std::size_t got = 0;
    uint8_t extra = 0;
    for (;;) {
        uint8_t *at = got < cap ? buffer + got : &extra;
        const std::size_t want = got < cap ? cap - got : 1;
        const ssize_t n = ::read(fd, at, want);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            ::close(fd);
            return FileRead::Failed;
        }
        if (n == 0)
            break;
        got += static_cast<std::size_t>(n);
        if (got > cap) {
            ::close(fd);
            return FileRead::TooLarge;
        }
    }
    ::close(fd);
    *length = got;
    return FileRead::Whole;
}

FILE *openRegularStream(const char *path) {
    bool notRegular = false;
    const int fd = path != nullptr ? openRegular(path, &notRegular) : -1;
    FILE *file = fd >= 0 ? ::fdopen(fd, "rb") : nullptr;
    if (file == nullptr && fd >= 0)
        ::close(fd);
    return file;
}

int openDirectory(const char *path, bool makeMissing) {
    // A trailing separator would make the open follow a link at the last name.
    char copy[PATH_MAX];
    std::size_t length = path != nullptr ? std::strlen(path) : 0;
    while (length > 1 && path[length - 1] == '/')
        --length;
    if (length == 0 || length >= sizeof copy) {
        errno = length == 0 ? EINVAL : ENAMETOOLONG;
        return -1;
    }
    std::memcpy(copy, path, length);
    copy[length] = '\0';
    constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    const std::size_t root = rootLength(copy);
    int fd = -1;
    char *name = copy;
    if (root == SIZE_MAX) {
        fd = ::open(copy, kFlags); // outside the root: the last name alone is checked
        name = copy + length;
    } else {
        // The root is the operator's choice and taken as it is; below it a
        // link anywhere on the way (a linked tmp/, say) could lead writes and
        // removals elsewhere, so each name is opened in the one above it.
        const char saved = copy[root];
        copy[root] = '\0';
        fd = ::open(root == 0 ? "/" : copy, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        copy[root] = saved;
        name = copy + root;
    }
    while (fd >= 0) {
        while (*name == '/')
            ++name;
        if (*name == '\0')
            break;
        char *end = std::strchr(name, '/');
        if (end != nullptr)
            *end = '\0';
        int next = ::openat(fd, name, kFlags);
        if (next < 0 && errno == ENOENT && makeMissing &&
            (::mkdirat(fd, name, 0755) == 0 || errno == EEXIST))
            next = ::openat(fd, name, kFlags);
        const int error = errno;
        ::close(fd);
        errno = error;
        fd = next;
        name = end != nullptr ? end + 1 : name + std::strlen(name);
    }
    if (fd < 0 && (errno == ELOOP || errno == ENOTDIR))
        errno = EPERM; // a link or a file on the way: refused like a foreign directory
    return fd;
}

int openOwnDirectory(const char *path, bool sticky) {
    const int fd = openDirectory(path, false);
    struct stat st {};
    if (fd < 0 || ::fstat(fd, &st) != 0) {
        if (fd >= 0)
            ::close(fd);
        return -1;
    }
    // Group write is the controller's services' (mode 070); "others" is anyone.
    const bool owner = st.st_uid == ::geteuid() || st.st_uid == 0;
    const bool closed = (st.st_mode & S_IWOTH) == 0 || (sticky && (st.st_mode & S_ISVTX) != 0);
    if (owner && closed)
        return fd;
    ::close(fd);
    errno = EPERM;
    return -1;
}

int openOwnFile(const char *path, int flags, mode_t mode) {
    const char *name = nullptr;
    const int dir = openParent(path, false, &name);
    if (dir < 0)
        return -1;
    const int fd = openFileAt(dir, name, flags, mode);
    const int saved = errno;
    ::close(dir);
    errno = saved;
    return fd;
}

int removeOwnFile(const char *path, int flags) {
    const char *name = nullptr;
    const int dir = openParent(path, false, &name);
    if (dir < 0)
        return -1;
    const int rc = ::unlinkat(dir, name, flags);
    const int saved = errno;
    ::close(dir);
    errno = saved;
    return rc;
}

int renameOwnFile(const char *path, const char *newName) {
    const char *name = nullptr;
    const int dir = openParent(path, false, &name);
    if (dir < 0)
        return -1;
    const int rc = ::renameat(dir, name, dir, newName);
    const int saved = errno;
    ::close(dir);
    errno = saved;
    return rc;
}

bool makeDirectory(const char *path, mode_t mode, bool makeParents) {
    const char *name = nullptr;
    const int dir = openAbove(
        path, &name, [makeParents](const char *d) { return openDirectory(d, makeParents); });
    if (dir < 0)
        return false;
    const bool made = ::mkdirat(dir, name, mode) == 0;
    const int error = errno;
    // mkdir applied the umask; the mode is set again on what was made, not
    // through a link put in its place meanwhile.
    const int fd = made ? ::openat(dir, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC) : -1;
    if (fd >= 0) {
        (void)::fchmod(fd, mode);
        ::close(fd);
    }
    ::close(dir);
    errno = error;
    return made;
}

ReplacedFile::ReplacedFile(const char *path, const Options &options) : options_(options) {
    temp_[0] = '\0';
    path_[0] = '\0';
    const std::size_t length = path != nullptr ? std::strlen(path) : 0;
    const bool fits =
        options.rooted ? resolvePath(path, path_, sizeof path_) : length < sizeof path_;
    if (path == nullptr || !fits) {
        errno = path == nullptr ? EINVAL : ENAMETOOLONG;
        return;
    }
    if (!options.rooted)
        std::memcpy(path_, path, length + 1);
    dir_ = openParent(path_, options.sticky, &name_);
    if (dir_ < 0)
        return;
    struct stat st {};
    const bool own = ::fstat(dir_, &st) == 0 && (st.st_mode & S_IWOTH) == 0;
    // The plain ".tmp" name first: in our own directory one left there by an
    // interrupted write is ours to remove; when it stays taken (or in a
    // shared directory, where it may be planted) another name is drawn.
    int fd = -1;
    for (unsigned attempt = 0; fd < 0 && attempt < 16; ++attempt) {
        const int n = attempt == 0 ? plainTemporary(temp_, sizeof temp_, name_)
                                   : zelo::formatText(temp_, sizeof temp_, "%s.tmp%08" PRIx32,
                                                      name_, randomBits(attempt));
        if (n < 0 || static_cast<std::size_t>(n) >= sizeof temp_) {
            temp_[0] = '\0';
            errno = ENAMETOOLONG;
            return;
        }
        fd = openFileAt(dir_, temp_, O_WRONLY | O_EXCL, options.mode);
        if (fd < 0 && errno == EEXIST && attempt == 0 && own) {
            if (::unlinkat(dir_, temp_, 0) == 0)
                fd = openFileAt(dir_, temp_, O_WRONLY | O_EXCL, options.mode);
            else
                errno = EEXIST; // a directory, say: another name
        }
        if (fd < 0 && errno != EEXIST)
            break;
    }
    if (fd < 0) {
        temp_[0] = '\0';
        return;
    }
    file_ = ::fdopen(fd, "wb");
    if (file_ == nullptr) {
        ::close(fd);
        (void)::unlinkat(dir_, temp_, 0);
        temp_[0] = '\0';
        return;
    }
    if (options.unbuffered)
        std::setvbuf(file_, nullptr, _IONBF, 0);
}

void ReplacedFile::removeLeftovers(const char *path, const Options &options) {
    char resolved[PATH_MAX];
    const char *name = nullptr;
    const int dir = options.rooted && resolvePath(path, resolved, sizeof resolved)
                        ? openParent(resolved, options.sticky, &name)
                        : -1;
    const int copy = dir >= 0 ? ::dup(dir) : -1; // the stream takes its own descriptor
    DIR *entries = copy >= 0 ? ::fdopendir(copy) : nullptr;
    if (entries == nullptr && copy >= 0)
        ::close(copy);
    const std::size_t length = name != nullptr ? std::strlen(name) : 0;
    while (entries != nullptr) {
        const struct dirent *entry = ::readdir(entries);
        if (entry == nullptr)
            break;
        // The names the constructor draws: ".tmp", or ".tmp" and 8 hex digits.
        const char *rest = entry->d_name + length;
        const bool temporary =
            std::strncmp(entry->d_name, name, length) == 0 && std::strncmp(rest, ".tmp", 4) == 0 &&
            (rest[4] == '\0' ||
             (std::strlen(rest + 4) == 8 && std::strspn(rest + 4, "0123456789abcdef") == 8));
        struct stat st {};
        if (temporary && ::fstatat(dir, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(st.st_mode) && st.st_uid == ::geteuid())
            (void)::unlinkat(dir, entry->d_name, 0);
    }
    if (entries != nullptr)
        ::closedir(entries);
    if (dir >= 0)
        ::close(dir);
}

ReplacedFile::~ReplacedFile() {
    if (file_ != nullptr)
        abandon();
    if (dir_ >= 0)
        ::close(dir_);
}

void ReplacedFile::abandon() {
    const int saved = errno;
    std::fclose(file_);
    file_ = nullptr;
    (void)::unlinkat(dir_, temp_, 0); // ours: created exclusively, no one else may rename it
    errno = saved;
}

bool ReplacedFile::commit() {
    if (file_ == nullptr)
        return false;
    // A buffered write that failed earlier leaves only the error flag behind.
    // Without the sync a power loss after the rename could leave an empty
    // file in place of both versions. The directory is not synced: losing
    // the rename only keeps the previous, whole file.
    if (std::ferror(file_) != 0 || std::fflush(file_) != 0 ||
        (options_.sync != nullptr && options_.sync(::fileno(file_)) != 0)) {
        if (errno == 0)
            errno = EIO;
        abandon();
        return false;
    }
    const bool closed = std::fclose(file_) == 0;
    file_ = nullptr;
    if (closed && ::renameat(dir_, temp_, dir_, name_) == 0)
        return true;
    const int saved = errno;
    (void)::unlinkat(dir_, temp_, 0);
    errno = saved;
    return false;
}

} // namespace zelo
