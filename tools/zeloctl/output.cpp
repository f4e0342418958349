#include "zeloctl.h"

#include <zelo/tracelog.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace zeloctl {

Output gOutput;

void emit(const Json &object) {
    const std::string text = object.dump(-1, ' ', false, Json::error_handler_t::replace);
    std::fprintf(gOutput.out, "%s\n", text.c_str());
}

std::string printable(std::string_view text) {
    // The library's escaping, so zeloctl and the daemon's printouts agree.
    const auto length = static_cast<uint32_t>(std::min<std::size_t>(text.size(), UINT32_MAX / 4));
    std::string s(EscapeControlBytes(text.data(), length, nullptr, 0), '\0');
    EscapeControlBytes(text.data(), length, s.data(), static_cast<uint32_t>(s.size() + 1));
    return s;
}

std::string isoUtc(std::time_t seconds) {
    struct tm utc {};
    char text[32] = "";
    if (gmtime_r(&seconds, &utc) != nullptr)
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

std::string span(uint64_t seconds) {
    return seconds < 60 ? std::to_string(seconds) + " s"
                        : std::to_string((seconds + 30) / 60) + " min";
}

int fail(const std::string &what, unsigned rc) {
    std::fprintf(stderr, "zeloctl: %s failed, result code %u\n", what.c_str(), rc);
    noteMissingRoot(); // the firmware's socket is under the root on a development machine
    return kExitFailure;
}

int usageError(const std::string &message) {
    std::fprintf(stderr, "zeloctl: %s\nTry 'zeloctl --help'.\n", message.c_str());
    return kExitUsage;
}

bool parseNumber(const std::string &text, uint64_t max, uint64_t *value) {
    const bool hex = text.size() > 1 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const std::string digits = hex ? text.substr(2) : text;
    const char *accepted = hex ? "0123456789abcdefABCDEF" : "0123456789";
    if (digits.empty() || digits.find_first_not_of(accepted) != std::string::npos)
        return false;
    if (!hex && digits.size() > 1 && digits[0] == '0') // octal-looking: 012 is not 12
        return false;
    errno = 0;
    const unsigned long long v = std::strtoull(digits.c_str(), nullptr, hex ? 16 : 10);
    if (errno != 0 || v > max)
        return false;
    *value = v;
    return true;
}

bool parseHours(const std::string &text, unsigned *hours) {
    uint64_t n = 0;
    if (!parseNumber(text, 24, &n) || n == 0)
        return false;
    *hours = static_cast<unsigned>(n);
    return true;
}

} // namespace zeloctl
