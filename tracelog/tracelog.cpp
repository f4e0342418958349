// Trace log: one line per event in two files that take turns, so the trace
// never holds much more than two files of 512 KiB.
#include "state.h"
#include "verbosity.h"

#include "files.h"
#include "paths.h"
#include "report.h"

#include <zelo/tracelog.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <iterator>
#include <string_view>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace zelo::trace {

int32_t s32PowerHistoryLogLevel = 0;
uint32_t u32TraceLogIndex = 0;

namespace {

// The file written to stays open, so a line costs an fstat and a write and
// no path lookup; it is reopened when it rotates, when its path changes (its
// index or the root: the environment's root string is another one once it
// is set anew) or when it was removed. Its size is taken from the file at
// every line: other processes linking the library write the same two files.
struct OpenLog {
    int fd = -1;
    uint32_t index = 0;
    const char *root = nullptr;
};
thread_local OpenLog gLog; // per thread, as each caller's own descriptor

void closeLog() {
    if (gLog.fd >= 0)
        ::close(gLog.fd);
    gLog = OpenLog{};
}

bool currentLogPath(char *out, std::size_t cap) {
    // The two names written at every line, formatted once.
    static constexpr const char *kFiles[] = {"/tmp/zelo_trace/zelo_trace_log_0.txt",
                                             "/tmp/zelo_trace/zelo_trace_log_1.txt"};
    static_assert(std::string_view(kTraceDir) == "/tmp/zelo_trace/");
    if (u32TraceLogIndex < 2)
        return resolvePath(kFiles[u32TraceLogIndex], out, cap);
    char path[256];
    zelo::formatText(path, sizeof path, "%szelo_trace_log_%u.txt", kTraceDir,
                     static_cast<unsigned>(u32TraceLogIndex));
    return resolvePath(path, out, cap);
}

// The trace file, appended to or emptied, only inside the daemon's own trace
// directory and never through a link or a FIFO planted there.
int openTraceFile(const char *path, bool truncate) {
    return openOwnFile(path, O_RDWR | O_APPEND | (truncate ? O_TRUNC : 0), 0666);
}

FILE *openTrace(const char *path, bool truncate) {
    const int fd = openTraceFile(path, truncate);
    FILE *file = fd >= 0 ? ::fdopen(fd, "a+") : nullptr;
    if (file == nullptr && fd >= 0)
        ::close(fd);
    return file;
}

} // namespace

int32_t verbosity() {
    return s32PowerHistoryLogLevel;
}

void setVerbosity(int32_t level) {
    s32PowerHistoryLogLevel = level;
}

} // namespace zelo::trace

using namespace zelo::trace;

extern "C" {

char msgBuf[ZELO_MSG_BUF_SIZE];

uint32_t GetCurrentLogSize(void) {
    char path[PATH_MAX];
    struct stat st;
    if (!currentLogPath(path, sizeof path) || stat(path, &st) != 0)
        return 0;
    // A trace file never approaches 4 GiB; saturate rather than wrap if one does.
    const auto size = static_cast<uint64_t>(st.st_size < 0 ? 0 : st.st_size);
    return size > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(size);
}

FILE *OpenCurrentLog(int s32Truncate) {
    char path[PATH_MAX];
    if (!currentLogPath(path, sizeof path))
        return nullptr;
    return openTrace(path, s32Truncate != 0);
}

int WriteToLog(const char *pszFunction, const char *pszLevel, const char *pszMessage) {
    // The local time stamp changes once a second; lines come far more often.
    thread_local std::time_t stampedAt = -1;
    thread_local char stamp[64];
    const std::time_t now = std::time(nullptr);
    if (now != stampedAt) {
        struct tm local {};
        localtime_r(&now, &local);
        zelo::formatText(stamp, sizeof stamp, "%d%02d%02d-%02d%02d%02d", local.tm_year + 1900,
                         local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                         local.tm_sec);
        stampedAt = now;
    }

    const char *root = std::getenv(zelo::kRootEnv);
    struct stat st {};
    if (gLog.fd >= 0 && (gLog.index != u32TraceLogIndex || gLog.root != root ||
                         ::fstat(gLog.fd, &st) != 0 || st.st_nlink == 0))
        closeLog();
    char path[PATH_MAX];
    if (gLog.fd < 0) {
        if (!currentLogPath(path, sizeof path) || (gLog.fd = openTraceFile(path, false)) < 0 ||
            ::fstat(gLog.fd, &st) != 0) {
            closeLog();
            return 0;
        }
        gLog.index = u32TraceLogIndex;
        gLog.root = root;
    }
    if (st.st_size > static_cast<off_t>(kRotateAboveBytes)) {
        closeLog();
        u32TraceLogIndex = u32TraceLogIndex + 1 > 1 ? 0 : u32TraceLogIndex + 1;
        if (!currentLogPath(path, sizeof path) || (gLog.fd = openTraceFile(path, true)) < 0)
            return 0;
        gLog.index = u32TraceLogIndex;
        gLog.root = root;
    }

    // STAMP [LEVEL] "FUNCTION": MESSAGE, or STAMP [LEVEL] Empty msg: one
    // write of the pieces, with no format to parse and no copy, so that the
    // line is whole in the file at once, whoever else appends to it.
    const bool whole = pszFunction != nullptr && pszMessage != nullptr;
    const char *pieces[] = {stamp,
                            " [",
                            pszLevel != nullptr ? pszLevel : "",
                            whole ? "] \"" : "] Empty msg\n",
                            whole ? pszFunction : "",
                            whole ? "\": " : "",
                            whole ? pszMessage : "",
                            whole ? "\n" : ""};
    struct iovec line[std::size(pieces)];
    for (std::size_t i = 0; i < std::size(pieces); ++i)
        line[i] = {const_cast<char *>(pieces[i]), std::strlen(pieces[i])};
    return ::writev(gLog.fd, line, static_cast<int>(std::size(pieces))) < 0 ? EOF : 0;
}

int WriteToPowerHistoryLog(int32_t s32Level, const char *pszFunction, const char *pszLevel,
                           const char *pszMessage) {
    if (s32PowerHistoryLogLevel < s32Level)
        return 0;
    return WriteToLog(pszFunction, pszLevel, pszMessage);
}

uint32_t EscapeControlBytes(const char *pszText, uint32_t u32Length, char *pszOut,
                            uint32_t u32Capacity) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    uint32_t needed = 0;
    uint32_t written = 0;
    bool room = u32Capacity != 0;
    for (uint32_t i = 0; pszText != nullptr && i < u32Length; ++i) {
        const auto byte = static_cast<unsigned char>(pszText[i]);
        const bool control = byte < 0x20 || byte == 0x7F;
        const char escaped[4] = {'\\', 'x', kHex[byte >> 4], kHex[byte & 0xF]};
        const uint32_t n = control ? 4 : 1;
        needed = needed > UINT32_MAX - n ? UINT32_MAX : needed + n;
        // Once a piece does not fit, nothing after it is written either;
        // written stays below the capacity, which keeps room for the NUL.
        room = room && pszOut != nullptr && n < u32Capacity - written;
        for (uint32_t k = 0; room && k < n; ++k)
            pszOut[written++] = control ? escaped[k] : static_cast<char>(byte);
    }
    if (pszOut != nullptr && u32Capacity != 0)
        pszOut[written] = '\0';
    return needed;
}

} // extern "C"
