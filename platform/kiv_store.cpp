// Host configuration store: one small file per key holding a decimal value.
// Writes go through a temporary file and a rename, so readers in other
// processes see the old value or the new one, never half of one.
//
// The setters' flag tells whether a key must survive a power loss. Durable
// (flag 1): the module handles and support answers of discovery and the
// power-cap limits the events compare against; each write is synced before
// its rename. Volatile (flag 0): the power and utilisation figures, their
// time stamp and the 24-hour maxima, republished by the daemon with every
// snapshot (every cycle for utilisation); they are renamed into place
// unsynced, as a sync per figure is some 3,000 flash writes an hour, and
// after a power loss a key may be missing until its next publication. A
// controller's store would keep volatile keys in memory (a tmpfs) and write
// only durable ones to flash, best only when their value changes.
#include "paths.h"

#include <zelo/platform.h>

#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *kDirEnv = "ZELO_KIV_DIR";
constexpr const char *kDefaultDir = "/var/lib/zelo/kiv";
constexpr std::size_t kMaxKeyLen = 200;
constexpr std::size_t kMaxValueText = 32; // an int64 and a line end fit easily

bool storeDir(char *out, std::size_t cap) {
    return zelo::envOrRootPath(kDirEnv, kDefaultDir, out, cap);
}

// A key names a file in the store directory: nothing that could leave it,
// and no leading dot, which is reserved for temporary files.
bool validKey(const char *key) {
    if (key == nullptr || key[0] == '\0' || key[0] == '.')
        return false;
    const std::size_t len = std::strlen(key);
    return len <= kMaxKeyLen && std::strchr(key, '/') == nullptr;
}

bool keyPath(const char *key, char *out, std::size_t cap) {
    char dir[PATH_MAX];
    if (!validKey(key) || !storeDir(dir, sizeof dir))
        return false;
    const int n = std::snprintf(out, cap, "%s/%s", dir, key);
    return n > 0 && static_cast<std::size_t>(n) < cap;
}

bool readValue(const char *key, int64_t *value) {
    char path[PATH_MAX];
    if (!keyPath(key, path, sizeof path))
        return false;
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char text[kMaxValueText + 1];
    ssize_t n = 0;
    do
        n = ::read(fd, text, kMaxValueText + 1);
    while (n < 0 && errno == EINTR);
    ::close(fd);
    if (n <= 0 || static_cast<std::size_t>(n) > kMaxValueText)
        return false;
    text[n] = '\0';
    char *end = nullptr;
    errno = 0;
    const long long parsed = std::strtoll(text, &end, 10);
    if (end == text || errno == ERANGE)
        return false;
    while (*end == '\n' || *end == ' ' || *end == '\r' || *end == '\t')
        ++end;
    if (*end != '\0')
        return false;
    *value = parsed;
    return true;
}

bool writeValue(const char *key, int64_t value, int flag) {
    char dir[PATH_MAX];
    char path[PATH_MAX];
    char temp[PATH_MAX];
    if (!keyPath(key, path, sizeof path) || !storeDir(dir, sizeof dir) ||
        !zelo::makeDirectories(dir, true))
        return false;
    const int n = std::snprintf(temp, sizeof temp, "%s/.%s.XXXXXX", dir, key);
    if (n <= 0 || static_cast<std::size_t>(n) >= sizeof temp)
        return false;
    const int fd = ::mkstemp(temp);
    if (fd < 0)
        return false;
    char text[kMaxValueText];
    const int len = std::snprintf(text, sizeof text, "%" PRId64 "\n", value);
    // A durable key is flushed before the rename, so a crash leaves the old
    // value or the new one.
    const bool written =
        ::fchmod(fd, 0644) == 0 && ::write(fd, text, len) == len && (flag == 0 || ::fsync(fd) == 0);
    const bool closed = ::close(fd) == 0;
    if (!written || !closed || ::rename(temp, path) != 0) {
        ::unlink(temp);
        return false;
    }
    return true;
}

} // namespace

// The flag of the setters selects persistence (see above).
extern "C" {

int kiv_config_get_bool(const char *key, uint8_t *value) {
    int64_t v = 0;
    if (value == nullptr || !readValue(key, &v))
        return 0;
    *value = v != 0 ? 1 : 0;
    return 1;
}

int kiv_config_set_bool(const char *key, uint8_t value, int flag) {
    return writeValue(key, value != 0 ? 1 : 0, flag) ? 1 : 0;
}

int kiv_config_get_int(const char *key, int *value) {
    int64_t v = 0;
    if (value == nullptr || !readValue(key, &v) || v < INT_MIN || v > INT_MAX)
        return 0;
    *value = static_cast<int>(v);
    return 1;
}

int kiv_config_set_int(const char *key, int value, int flag) {
    return writeValue(key, value, flag) ? 1 : 0;
}

int kiv_config_set_int64(const char *key, int64_t value, int flag) {
    return writeValue(key, value, flag) ? 1 : 0;
}

// Clearing a key that is not there succeeds: afterwards it is absent either way.
int kiv_config_clear(const char *key) {
    char path[PATH_MAX];
    if (!keyPath(key, path, sizeof path))
        return 0;
    return ::unlink(path) == 0 || errno == ENOENT ? 1 : 0;
}

} // extern "C"
