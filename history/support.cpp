#include "support.h"

#include "history_internal.h"
#include "hooks.h"
#include "report.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>

namespace zelo::history {

void traceLine(int32_t level, const char *function, const char *tag, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vreport(traced(function, tag, level), format, args);
    va_end(args);
}

ReplacedFile::Options historyFile(bool durable) {
    ReplacedFile::Options options;
    options.sticky = true;
    options.unbuffered = true;
    options.sync = durable ? hooks().sync : nullptr;
    options.mode = 0666; // less the umask, as the files always were
    return options;
}

} // namespace zelo::history
