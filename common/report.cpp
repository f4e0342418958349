// The diagnostic channel: where each message of the library goes.
#include "report.h"

#include "hooks.h"

#include "tracelog/verbosity.h"

#include <zelo/tracelog.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace zelo {

namespace {

bool gConsole = true;

} // namespace

void setConsole(bool on) {
    gConsole = on;
}

void systemLog(int priority, const char *message) {
    ::syslog(LOG_USER | priority, "%s", message);
}

void vreport(const Notice &notice, const char *format, va_list args) {
    const bool console = gConsole;
    const bool toTrace = (notice.sinks & kToTrace) != 0 && trace::verbosity() >= notice.verbosity;
    const bool toLine = (notice.sinks & kToStdout) != 0 && console;
    const bool toSyslog = (notice.sinks & kToSyslog) != 0;
    const bool toConsole = (notice.sinks & kToConsole) != 0 && console;
    const bool toJournal = (notice.sinks & kToJournal) != 0;
    if (!toTrace && !toLine && !toSyslog && !toConsole && !toJournal)
        return; // the daemon's console lines, most of all
    va_list copy;
    if (toTrace) {
        // A text handed over whole is written whole, however long (a path).
        if (format[0] == '%' && format[1] == 's' && format[2] == '\0') {
            va_copy(copy, args);
            WriteToLog(notice.function, notice.level, va_arg(copy, const char *));
            va_end(copy);
        } else {
            char message[ZELO_MSG_BUF_SIZE];
            va_copy(copy, args);
            formatText(message, sizeof message, format, copy);
            va_end(copy);
            WriteToLog(notice.function, notice.level, message);
        }
    }
    if (toConsole) {
        va_copy(copy, args);
        std::vprintf(format, copy);
        va_end(copy);
    }
    if (toLine || toSyslog) {
        char message[256];
        va_copy(copy, args);
        std::vsnprintf(message, sizeof message, format, copy);
        va_end(copy);
        if (toLine) {
            std::fputs(message, stdout);
            // Every report is a line on the console, also the few texts without a line feed.
            const std::size_t len = std::strlen(message);
            if (len == 0 || message[len - 1] != '\n')
                std::fputc('\n', stdout);
        }
        if (toSyslog)
            hooks().syslog(notice.priority, message);
    }
    if (toJournal) {
        va_copy(copy, args);
        std::vfprintf(stderr, format, copy);
        va_end(copy);
    }
}

void report(const Notice &notice, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vreport(notice, format, args);
    va_end(args);
}

void print(const char *format, ...) {
    va_list args;
    va_start(args, format);
    vreport(kConsole, format, args);
    va_end(args);
}

} // namespace zelo
