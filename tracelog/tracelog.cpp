// Trace log: one line per event in two files that take turns, so the trace
// never holds much more than two files of 512 KiB.
#include "state.h"

#include "paths.h"

#include <zelo/tracelog.h>

#include <climits>
#include <cstdio>
#include <ctime>
#include <sys/stat.h>

namespace zelo::trace {

int32_t s32PowerHistoryLogLevel = 0;
uint32_t u32TraceLogIndex = 0;

namespace {

bool currentLogPath(char *out, std::size_t cap) {
    char path[256];
    std::snprintf(path, sizeof path, "/tmp/zelo_trace/zelo_trace_log_%u.txt",
                  static_cast<unsigned>(u32TraceLogIndex));
    return resolvePath(path, out, cap);
}

} // namespace
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
    return std::fopen(path, s32Truncate ? "w+" : "a+");
}

int WriteToLog(const char *pszFunction, const char *pszLevel, const char *pszMessage) {
    char stamp[512];
    const std::time_t now = std::time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    std::snprintf(stamp, sizeof stamp, "%d%02d%02d-%02d%02d%02d", local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);

    FILE *file = nullptr;
    if (GetCurrentLogSize() > kRotateAboveBytes) {
        u32TraceLogIndex = u32TraceLogIndex + 1 > 1 ? 0 : u32TraceLogIndex + 1;
        file = OpenCurrentLog(1);
    } else {
        file = OpenCurrentLog(0);
    }
    if (file == nullptr)
        return 0;

    const char *level = pszLevel != nullptr ? pszLevel : "";
    if (pszFunction != nullptr && pszMessage != nullptr)
        std::fprintf(file, "%s [%s] \"%s\": %s\n", stamp, level, pszFunction, pszMessage);
    else
        std::fprintf(file, "%s [%s] Empty msg\n", stamp, level);
    return std::fclose(file);
}

int WriteToPowerHistoryLog(int32_t s32Level, const char *pszFunction, const char *pszLevel,
                           const char *pszMessage) {
    if (s32PowerHistoryLogLevel < s32Level)
        return 0;
    return WriteToLog(pszFunction, pszLevel, pszMessage);
}

} // extern "C"
