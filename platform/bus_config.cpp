#include "bus_config.h"

#include "bus_names.h"
#include "files.h"
#include "paths.h"

#include <zelo/tracelog.h>

// The trace log is libzelo's, which is loaded wherever the platform calls
// are made; the platform library itself does not depend on it.
extern "C" [[gnu::weak]] int WriteToLog(const char *pszFunction, const char *pszLevel,
                                        const char *pszMessage);

#include <charconv>
#include <climits>
#include <cstdio>
#include <mutex>

namespace zelo::platform {
namespace {

constexpr std::size_t kMaxFileLen = 64 * 1024;

std::string_view trim(std::string_view s) {
    const auto first = s.find_first_not_of(" \t\r");
    if (first == std::string_view::npos)
        return {};
    return s.substr(first, s.find_last_not_of(" \t\r") - first + 1);
}

bool number(std::string_view text, std::uint32_t lowest, std::uint32_t highest,
            std::uint32_t &value) {
    std::uint32_t v = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
    if (ec != std::errc() || end != text.data() + text.size() || v < lowest || v > highest)
        return false;
    value = v;
    return true;
}

// A well-known bus name: dot-separated elements of letters, digits, '_' and
// '-', none starting with a digit, at least two, 255 characters at most.
bool busName(std::string_view name) {
    if (name.empty() || name.size() > 255 || name.find('.') == std::string_view::npos)
        return false;
    bool elementStart = true;
    for (const char c : name) {
        const bool digit = c >= '0' && c <= '9';
        const bool word = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '-';
        if (c == '.') {
            if (elementStart)
                return false;
            elementStart = true;
        } else if (word || (digit && !elementStart)) {
            elementStart = false;
        } else {
            return false;
        }
    }
    return !elementStart;
}

// An object path right below the temperature sensors: one element of
// letters, digits and '_'.
bool sensorPath(std::string_view path) {
    const std::string_view root = busnames::kTemperatureRoot;
    if (path.size() <= root.size() + 1 || path.substr(0, root.size()) != root ||
        path[root.size()] != '/' || path.size() > 255)
        return false;
    for (const char c : path.substr(root.size() + 1))
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '_'))
            return false;
    return true;
}

bool parseLine(std::string_view line, BusConfig &c, bool &channelSeen, bool &timeoutSeen,
               std::string &why) {
    const auto eq = line.find('=');
    if (eq == std::string_view::npos) {
        why = "expected KEY = VALUE";
        return false;
    }
    const std::string_view key = trim(line.substr(0, eq));
    const std::string_view value = trim(line.substr(eq + 1));
    std::uint32_t n = 0;
    if (key == "channel") {
        if (channelSeen || !number(value, 0, UINT8_MAX, n)) {
            why = channelSeen ? "channel given twice" : "channel must be a number from 0 to 255";
            return false;
        }
        channelSeen = true;
        c.channel = static_cast<std::uint8_t>(n);
    } else if (key == "timeout-ms") {
        if (timeoutSeen || !number(value, 1, kMaxTimeoutMs, n)) {
            why = timeoutSeen
                      ? "timeout-ms given twice"
                      : "timeout-ms must be a number from 1 to " + std::to_string(kMaxTimeoutMs);
            return false;
        }
        timeoutSeen = true;
        c.timeoutMs = n;
    } else if (key == "sensor") {
        const auto blank = value.find_first_of(" \t");
        const std::string_view service = value.substr(0, blank);
        const std::string_view path =
            blank == std::string_view::npos ? std::string_view{} : trim(value.substr(blank));
        if (!busName(service) || !sensorPath(path)) {
            why = std::string("sensor must be a bus name and an object path under ") +
                  busnames::kTemperatureRoot + "/";
            return false;
        }
        if (c.sensors.size() == kMaxSensors) {
            why = "more than " + std::to_string(kMaxSensors) + " sensors";
            return false;
        }
        c.sensors.push_back({std::string(service), std::string(path)});
    } else {
        why = "unknown key '" + std::string(key) + "'";
        return false;
    }
    return true;
}

void report(const std::string &text) {
    std::fprintf(stderr, "zelo platform: %s\n", text.c_str());
    if (WriteToLog != nullptr)
        WriteToLog("ReadPlatformConfiguration", "ERROR", text.c_str());
}

BusConfig load() {
    BusConfig config;
    char path[PATH_MAX];
    if (!envOrRootPath(kBusConfigEnv, kBusConfigPath, path, sizeof path)) {
        report(std::string("the configuration's path is too long; the defaults apply"));
        return config;
    }
    static uint8_t text[kMaxFileLen];
    std::size_t length = 0;
    const char *why = nullptr;
    switch (readWholeFile(path, text, sizeof text, &length)) {
    case FileRead::Whole:
        break;
    case FileRead::Missing:
        why = "missing";
        break;
    case FileRead::TooLarge:
        why = "larger than 64 KiB";
        break;
    case FileRead::NotRegular:
        why = "not a regular file";
        break;
    case FileRead::Failed:
        why = "unreadable";
        break;
    }
    std::string error;
    if (why == nullptr &&
        parseBusConfig({reinterpret_cast<const char *>(text), length}, config, error))
        return config;
    report(std::string(path) + ": " + (why != nullptr ? why : error) +
           "; the defaults apply (channel " + std::to_string(busnames::kFirmwareChannel) +
           ", timeout " + std::to_string(kDefaultTimeoutMs) +
           " ms, sensors from the object mapper)");
    return BusConfig{};
}

} // namespace

bool parseBusConfig(std::string_view text, BusConfig &config, std::string &error) {
    BusConfig parsed;
    bool channelSeen = false, timeoutSeen = false;
    unsigned number = 0;
    while (!text.empty()) {
        ++number;
        const auto end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
        line = trim(line.substr(0, line.find('#')));
        std::string why;
        if (line.find('\0') != std::string_view::npos) {
            why = "NUL byte";
        } else if (line.empty() || parseLine(line, parsed, channelSeen, timeoutSeen, why)) {
            continue;
        }
        error = "line " + std::to_string(number) + ": " + why;
        return false;
    }
    config = std::move(parsed);
    return true;
}

const BusConfig &busConfig() {
    static std::once_flag once;
    static BusConfig config;
    std::call_once(once, [] { config = load(); });
    return config;
}

} // namespace zelo::platform
