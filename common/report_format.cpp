// The diagnostic channel's formatter, shared with the host programs' helpers.
#include "report.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace zelo {

namespace {

// The decimal digits of `value`, written backwards to end at `end`; the
// first of them. (std::to_chars would export a table of the standard library
// from the shared library.)
char *decimal(char *end, uint64_t value) {
    do {
        *--end = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    return end;
}

} // namespace

bool formatPlain(char *out, std::size_t cap, const char *format, va_list args,
                 std::size_t *written) {
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
        char *const end = number + sizeof number;
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
        case 'u': {
            const char *digits = decimal(end, va_arg(args, unsigned));
            put(digits, static_cast<std::size_t>(end - digits));
            break;
        }
        case 'i':
        case 'd': {
            const int value = va_arg(args, int);
            // The magnitude in 64 bits: INT_MIN has none in int.
            char *digits = decimal(end, value < 0 ? 0 - static_cast<uint64_t>(int64_t{value})
                                                  : static_cast<uint64_t>(value));
            if (value < 0)
                *--digits = '-';
            put(digits, static_cast<std::size_t>(end - digits));
            break;
        }
        default:
            out[0] = '\0';
            return false; // what was taken of args is the caller's copy
        }
        p = percent + 2;
    }
    out[n] = '\0';
    if (written != nullptr)
        *written = n;
    return true;
}

int formatText(char *out, std::size_t cap, const char *format, va_list args) {
    va_list again;
    va_copy(again, args);
    int length = 0;
    std::size_t n = 0;
    if (!formatPlain(out, cap, format, args, &n))
        length = std::vsnprintf(out, cap, format, again);
    else // a text that filled the buffer may have been cut: its whole length is measured
        length = n + 1 < cap ? static_cast<int>(n) : std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    return length;
}

int formatText(char *out, std::size_t cap, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int length = formatText(out, cap, format, args);
    va_end(args);
    return length;
}

} // namespace zelo
