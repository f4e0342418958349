#include "support.h"

#include "history_internal.h"
#include "hooks.h"

#include "paths.h"
#include "tracelog/verbosity.h"

#include <zelo/tracelog.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <unistd.h>

namespace zelo::history {

void traceLine(int32_t level, const char *function, const char *tag, const char *format, ...) {
    // The tracker logs per sample; formatting a line nobody keeps would
    // dominate a long gap fill.
    if (trace::verbosity() < level)
        return;
    va_list args;
    va_start(args, format);
    std::vsnprintf(msgBuf, sizeof msgBuf, format, args);
    va_end(args);
    WriteToPowerHistoryLog(level, function, tag, msgBuf);
}

ReplacedFile::ReplacedFile(const char *absPath) {
    temp_[0] = '\0';
    if (!resolvePath(absPath, final_, sizeof final_)) {
        errno = ENAMETOOLONG;
        return;
    }
    const int n = std::snprintf(temp_, sizeof temp_, "%s.tmp", final_);
    if (n < 0 || static_cast<std::size_t>(n) >= sizeof temp_) {
        temp_[0] = '\0';
        errno = ENAMETOOLONG;
        return;
    }
    file_ = std::fopen(temp_, "wb");
    if (file_ != nullptr)
        std::setvbuf(file_, nullptr, _IONBF, 0);
}

ReplacedFile::~ReplacedFile() {
    if (file_ != nullptr)
        abandon();
}

void ReplacedFile::abandon() {
    const int saved = errno;
    std::fclose(file_);
    file_ = nullptr;
    std::remove(temp_);
    errno = saved;
}

bool ReplacedFile::commit() {
    if (file_ == nullptr)
        return false;
    // Without the sync a power loss after the rename could leave an empty
    // file in place of both versions. The directory is not synced: losing
    // the rename only keeps the previous, whole file.
    if (std::fflush(file_) != 0 || hooks().sync(fileno(file_)) != 0) {
        abandon();
        return false;
    }
    const bool closed = std::fclose(file_) == 0;
    file_ = nullptr;
    if (closed && std::rename(temp_, final_) == 0)
        return true;
    const int saved = errno;
    std::remove(temp_);
    errno = saved;
    return false;
}

} // namespace zelo::history
