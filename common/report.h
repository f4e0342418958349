// Diagnostics of exported operations: a message formatted into 256 bytes and
// sent to standard output, the system log (user facility), or both.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <syslog.h>

namespace zelo {

enum ReportSink : unsigned { kToStdout = 1u, kToSyslog = 2u, kToBoth = 3u };

// Where one message goes and, for the system log, at which priority.
struct Notice {
    unsigned sinks;
    int priority;
};

inline constexpr Notice kPrinted{kToStdout, LOG_ERR};
inline constexpr Notice kLoggedError{kToSyslog, LOG_ERR};
inline constexpr Notice kLoggedWarning{kToSyslog, LOG_WARNING};
inline constexpr Notice kReportedError{kToBoth, LOG_ERR};
inline constexpr Notice kReportedWarning{kToBoth, LOG_WARNING};
inline constexpr Notice kReportedDebug{kToBoth, LOG_DEBUG};

void report(Notice notice, const char *format, ...) __attribute__((format(printf, 2, 3)));

// vsnprintf for texts whose conversions are all %i, %d, %u, %s or %%, as
// nearly all of the library's own are (trace lines, store keys): those come
// by the hundred in a cycle that closes a history interval, and the general
// formatter was most of its cost. False for any other text, with `out`
// emptied and `args` partly taken.
bool formatPlain(char *out, std::size_t cap, const char *format, va_list args);

// Formats as vsnprintf does, through formatPlain when the text allows it.
void formatText(char *out, std::size_t cap, const char *format, va_list args);
void formatText(char *out, std::size_t cap, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// The console lines of the exported operations, on standard output. A daemon
// whose standard output goes nowhere turns them off, so that they are not
// even formatted.
void setConsole(bool on);
void print(const char *format, ...) __attribute__((format(printf, 1, 2)));

} // namespace zelo
