#include "support.h"

#include "history_internal.h"
#include "hooks.h"
#include "report.h"

#include "tracelog/verbosity.h"

#include <zelo/tracelog.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

namespace zelo::history {

void traceLine(int32_t level, const char *function, const char *tag, const char *format, ...) {
    // The tracker logs per sample; formatting a line nobody keeps would
    // dominate a long gap fill.
    if (trace::verbosity() < level)
        return;
    va_list args;
    va_start(args, format);
    formatText(msgBuf, sizeof msgBuf, format, args);
    va_end(args);
    WriteToPowerHistoryLog(level, function, tag, msgBuf);
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
