// Diagnostics of exported operations: a message formatted into 256 bytes and
// sent to standard output, the system log (user facility), or both.
#pragma once

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

} // namespace zelo
