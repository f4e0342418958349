#include "report.h"

#include "hooks.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace zelo {

void report(Notice notice, const char *format, ...) {
    char message[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(message, sizeof message, format, args);
    va_end(args);
    if (notice.sinks & kToStdout) {
        std::fputs(message, stdout);
        // Every report is a line on the console, also the few texts without a line feed.
        const std::size_t len = std::strlen(message);
        if (len == 0 || message[len - 1] != '\n')
            std::fputc('\n', stdout);
    }
    if (notice.sinks & kToSyslog)
        hooks().syslog(notice.priority, message);
}

} // namespace zelo
