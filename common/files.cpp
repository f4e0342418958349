#include "files.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zelo {

FileRead readWholeFile(const char *path, uint8_t *buffer, std::size_t cap, std::size_t *length) {
    *length = 0;
    const int fd = ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        return errno == ENOENT || errno == ENOTDIR ? FileRead::Missing : FileRead::Failed;
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        return FileRead::NotRegular;
    }
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

} // namespace zelo
