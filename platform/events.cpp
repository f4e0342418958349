// Host event service: every software event becomes one line of a journal
// under the root, and the same line in the system log, so a person or a test
// can see what the controller's event service would have been handed.
#include "paths.h"

#include <zelo/events.h>
#include <zelo/platform.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr const char *kJournalEnv = "ZELO_EVENT_JOURNAL";
constexpr const char *kDefaultJournal = "/var/log/zelo/events.log";

bool journalPath(char *out, std::size_t cap) {
    return zelo::envOrRootPath(kJournalEnv, kDefaultJournal, out, cap);
}

// A parameter text as the line shows it: at most its field's length even
// without a NUL, and nothing that could break the line in two.
void printable(const char *field, char (&out)[ZELO_PCAP_EVENT_TEXT_LEN + 1]) {
    std::size_t i = 0;
    for (; i < ZELO_PCAP_EVENT_TEXT_LEN && field[i] != '\0'; ++i) {
        const auto c = static_cast<unsigned char>(field[i]);
        out[i] = c >= 0x20 && c < 0x7F ? field[i] : '?';
    }
    out[i] = '\0';
}

bool carriesCaps(uint16_t id) {
    return id == ZELO_EVENT_PCAP_MIN_CHANGED || id == ZELO_EVENT_PCAP_MAX_CHANGED ||
           id == ZELO_EVENT_PCAP_SOFT_MIN_CHANGED;
}

// "2024-05-01 12:00:00 event 115 old 3000 new 3500"; without the values for
// other events or when no block came with the event.
void formatLine(uint16_t eventId, const void *params, char *line, std::size_t cap) {
    const std::time_t now = std::time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    if (params == nullptr || !carriesCaps(eventId)) {
        std::snprintf(line, cap, "%s event %u", stamp, static_cast<unsigned>(eventId));
        return;
    }
    const auto *caps = static_cast<const PowerCapsEventParams *>(params);
    char previous[ZELO_PCAP_EVENT_TEXT_LEN + 1];
    char next[ZELO_PCAP_EVENT_TEXT_LEN + 1];
    printable(caps->szPreviousValue, previous);
    printable(caps->szNewValue, next);
    std::snprintf(line, cap, "%s event %u old %s new %s", stamp, static_cast<unsigned>(eventId),
                  previous, next);
}

// One write of the whole line to a file opened for appending, so lines of
// several processes never interleave.
bool appendLine(const char *path, const char *line) {
    if (!zelo::makeDirectories(path, false))
        return false;
    const int fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    char text[256];
    const int n = std::snprintf(text, sizeof text, "%s\n", line);
    const auto len = static_cast<std::size_t>(n);
    ssize_t written = 0;
    do
        written = ::write(fd, text, len);
    while (written < 0 && errno == EINTR);
    const bool closed = ::close(fd) == 0;
    return written == static_cast<ssize_t>(len) && closed;
}

} // namespace

extern "C" int sw_msg_dispatcher(uint16_t eventId, void *params) {
    char line[200];
    formatLine(eventId, params, line, sizeof line);
    syslog(LOG_USER | LOG_INFO, "%s", line);
    char path[PATH_MAX];
    if (!journalPath(path, sizeof path) || !appendLine(path, line))
        return 1;
    return 0;
}
