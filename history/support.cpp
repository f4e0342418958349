#include "support.h"

#include "history_internal.h"
#include "hooks.h"

#include "tracelog/verbosity.h"

#include <zelo/tracelog.h>

#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstring>

namespace zelo::history {

// vsnprintf for texts whose conversions are all %i, %d, %u, %s or %%, as
// nearly all of the histories' are: the summary files trace a hundred such
// lines per closed interval, and the general formatter was most of that
// interval's cost. False, with nothing written, for any other text.
bool formatPlain(char *out, std::size_t cap, const char *format, va_list args) {
    std::size_t n = 0;
    const auto put = [&](const char *text, std::size_t length) {
        const std::size_t room = cap - 1 - n;
        std::memcpy(out + n, text, length < room ? length : room);
        n += length < room ? length : room;
    };
    for (const char *p = format;;) {
        const char *percent = std::strchr(p, '%');
        put(p, percent != nullptr ? static_cast<std::size_t>(percent - p) : std::strlen(p));
        if (percent == nullptr)
            break;
        char number[16];
        std::to_chars_result r{number, {}};
        switch (percent[1]) {
        case 's': {
            const char *text = va_arg(args, const char *);
            text = text != nullptr ? text : "(null)";
            put(text, std::strlen(text));
            break;
        }
        case '%':
            put("%", 1);
            break;
        case 'u':
            r = std::to_chars(number, number + sizeof number, va_arg(args, unsigned));
            put(number, static_cast<std::size_t>(r.ptr - number));
            break;
        case 'i':
        case 'd':
            r = std::to_chars(number, number + sizeof number, va_arg(args, int));
            put(number, static_cast<std::size_t>(r.ptr - number));
            break;
        default:
            out[0] = '\0';
            return false; // what was taken of args is the caller's copy
        }
        p = percent + 2;
    }
    out[n] = '\0';
    return true;
}

void traceLine(int32_t level, const char *function, const char *tag, const char *format, ...) {
    // The tracker logs per sample; formatting a line nobody keeps would
    // dominate a long gap fill.
    if (trace::verbosity() < level)
        return;
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    if (!formatPlain(msgBuf, sizeof msgBuf, format, args))
        std::vsnprintf(msgBuf, sizeof msgBuf, format, again);
    va_end(again);
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
