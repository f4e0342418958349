// The library's one diagnostic channel. Every message the library writes
// goes through vreport(), which decides from the message's notice where it
// goes: a line of the daemon's trace log (dropped unformatted above the
// configured verbosity), standard output (the console lines of the exported
// operations, which a daemon turns off), the system log (user facility), or
// standard error (the daemon's journal).
#pragma once

#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <syslog.h>

// A message's format and arguments, checked by the compiler as printf's are.
#define ZELO_FORMAT(formatIndex, firstArgument)                                                    \
    __attribute__((format(printf, formatIndex, firstArgument)))

namespace zelo {

enum ReportSink : unsigned {
    kToStdout = 1u, // a report line: bounded to 256 bytes, always ending in a line feed
    kToSyslog = 2u, // the same text, at the notice's priority
    kToBoth = 3u,
    kToConsole = 4u, // standard output, the text as formatted, whatever its length
    kToTrace = 8u,   // a trace log line under the notice's function name and level word
    kToJournal = 16u // standard error, the text as formatted
};

// A trace line of this verbosity is kept whatever the configured one.
inline constexpr int32_t kAnyVerbosity = INT32_MIN;

// Where one message goes and, for the system log, at which priority; for the
// trace log, under which function name and level word, and from which
// configured verbosity on.
struct Notice {
    unsigned sinks;
    int priority;
    const char *function = nullptr;
    const char *level = nullptr;
    int32_t verbosity = kAnyVerbosity;
};

inline constexpr Notice kPrinted{kToStdout, LOG_ERR};
inline constexpr Notice kLoggedError{kToSyslog, LOG_ERR};
inline constexpr Notice kLoggedWarning{kToSyslog, LOG_WARNING};
inline constexpr Notice kReportedError{kToBoth, LOG_ERR};
inline constexpr Notice kReportedWarning{kToBoth, LOG_WARNING};
inline constexpr Notice kReportedDebug{kToBoth, LOG_DEBUG};
inline constexpr Notice kConsole{kToConsole, LOG_DEBUG};
inline constexpr Notice kJournal{kToJournal, LOG_DEBUG};

// A trace line; one with a verbosity is written only while the configured
// verbosity is at least that.
constexpr Notice traced(const char *function, const char *level,
                        int32_t verbosity = kAnyVerbosity) {
    return Notice{kToTrace, LOG_DEBUG, function, level, verbosity};
}

// The channel. A trace text given as "%s" is taken whole; other trace texts
// are bounded to the trace's 1024-byte message buffer.
void vreport(const Notice &notice, const char *format, va_list args);
void report(const Notice &notice, const char *format, ...) ZELO_FORMAT(2, 3);
// The console text of report(kConsole, ...).
void print(const char *format, ...) ZELO_FORMAT(1, 2);

// The console lines of the exported operations, on standard output. A daemon
// whose standard output goes nowhere turns them off, so that they are not
// even formatted.
void setConsole(bool on);

// The system log itself, behind hooks().syslog.
void systemLog(int priority, const char *message);

// vsnprintf for texts whose conversions are all %i, %d, %u, %s or %%, as
// nearly all of the library's own are (trace lines, store keys): those come
// by the hundred in a cycle that closes a history interval, and the general
// formatter was most of its cost. False for any other text, with `out`
// emptied and `args` partly taken. `written` gets the length written.
bool formatPlain(char *out, std::size_t cap, const char *format, va_list args,
                 std::size_t *written = nullptr);

// Formats as vsnprintf does, through formatPlain when the text allows it, and
// returns what vsnprintf returns: the length of the whole text, also when
// `cap` cut it, or a negative number for a text that cannot be formatted.
int formatText(char *out, std::size_t cap, const char *format, va_list args);
int formatText(char *out, std::size_t cap, const char *format, ...) ZELO_FORMAT(3, 4);

} // namespace zelo
