// Why a telemetry read failed. The library's result codes say only "nothing
// there" or "failed"; a person needs the path and the cause, so after a
// failure zeloctl looks at the files itself, under the same root.
#include "zeloctl.h"

#include <zelo.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace zeloctl {
namespace {

// The files the daemon leaves, as zelo(8) lists them.
constexpr const char *kLogDir = "/tmp/zelo_log";
constexpr const char *kPowerHistory = "/pstorage/power/PowerHistoryFull";
constexpr const char *kPerformanceHistory = "/pstorage/power/PowerPerformanceFull";
constexpr unsigned kLogFiles = 120;

// $ZELO_ROOT as the library takes it: unset or empty is "/", and trailing
// separators are dropped, so "/" is the empty prefix.
struct Root {
    std::string prefix;
    bool set = false;
};

Root root() {
    const char *env = std::getenv("ZELO_ROOT");
    Root r;
    r.set = env != nullptr && env[0] != '\0';
    r.prefix = r.set ? env : "";
    while (!r.prefix.empty() && r.prefix.back() == '/')
        r.prefix.pop_back();
    return r;
}

enum class Kind {
    None,
    RootMissing,  // $ZELO_ROOT, or a directory above it, is not there
    Missing,      // the file, or a directory on its way, is not there
    NotDirectory, // something other than a directory where one belongs
    Unsearchable, // a directory on the way that may not be entered or listed
    Denied,       // the file itself may not be read
    NotRegular,   // a FIFO, device or directory where a file belongs
    Unreadable,   // any other failure to open
    EmptyLog,     // a metric log without records
    NoSamples,    // a history file without samples
    Damaged,      // readable, yet not a file of its kind
    Foreign,      // a directory the daemon would not write in, so not trusted
    Locked,       // the metric log's lock held longer than a reader waits
};

struct Cause {
    Kind kind = Kind::None;
    std::string path; // where the cause lies
    int error = 0;    // what the system said there (for Locked, the holder's pid)
};

// Follows the path from its first component down, as the kernel does, and
// names the first place where it breaks; a directory at the end must be
// listable, a file openable.
Cause examine(const std::string &path, std::size_t rootLength, bool directory) {
    for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        const bool last = end == std::string::npos;
        const std::string part = last ? path : path.substr(0, end);
        struct stat st {};
        if (::stat(part.c_str(), &st) != 0) {
            const int error = errno;
            if (error == ENOENT)
                return {part.size() <= rootLength ? Kind::RootMissing : Kind::Missing, part, error};
            return {Kind::Unreadable, part, error};
        }
        if (!last || directory) {
            if (!S_ISDIR(st.st_mode))
                return {Kind::NotDirectory, part, ENOTDIR};
            // The library reads only from a directory that is no link, root's
            // or the caller's, and closed to others.
            struct stat own {};
            const bool holder = directory ? last : path.find('/', end + 1) == std::string::npos;
            if (holder &&
                (::lstat(part.c_str(), &own) != 0 || S_ISLNK(own.st_mode) ||
                 (own.st_uid != 0 && own.st_uid != ::geteuid()) || (own.st_mode & S_IWOTH) != 0))
                return {Kind::Foreign, part, 0};
            if (::access(part.c_str(), last ? R_OK | X_OK : X_OK) != 0)
                return {Kind::Unsearchable, part, errno};
        } else {
            if (!S_ISREG(st.st_mode))
                return {Kind::NotRegular, part, 0};
            const int fd = ::open(part.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
            if (fd < 0)
                return {errno == EACCES || errno == EPERM ? Kind::Denied : Kind::Unreadable, part,
                        errno};
            ::close(fd);
        }
        if (last)
            return {};
    }
}

// The metric log: its directory, then the count of records, then the record
// files the count names.
Cause examineLog(const Root &r, unsigned rc) {
    const std::string dir = r.prefix + kLogDir;
    Cause c = examine(dir, r.prefix.size(), true);
    if (c.kind != Kind::None)
        return c;
    // The lock: something that is no file there stops every reader; a lock
    // held too long is named with its holder.
    const std::string lock = dir + "/zelo.lock";
    struct stat st {};
    if (::lstat(lock.c_str(), &st) == 0 && !S_ISREG(st.st_mode))
        return {Kind::NotRegular, lock, 0};
    if (rc == ZELO_RC_BUSY) {
        char text[16] = "";
        const int fd = ::open(lock.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
        if (fd >= 0 && ::read(fd, text, sizeof text - 1) < 0)
            text[0] = '\0';
        if (fd >= 0)
            ::close(fd);
        return {Kind::Locked, lock, std::atoi(text)};
    }
    const std::string num = dir + "/zelo_num.log";
    c = examine(num, r.prefix.size(), false);
    if (c.kind == Kind::Missing && c.path == num)
        return {Kind::EmptyLog, dir, 0};
    if (c.kind != Kind::None)
        return c;
    unsigned char count = 0;
    const int fd = ::open(num.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    const bool counted = fd >= 0 && ::read(fd, &count, 1) == 1;
    if (fd >= 0)
        ::close(fd);
    if (!counted || count == 0)
        return {Kind::EmptyLog, dir, 0};
    for (unsigned i = 0; i < std::min<unsigned>(count, kLogFiles); ++i) {
        const std::string file = dir + "/zelo_" + std::to_string(i) + ".log";
        c = examine(file, r.prefix.size(), false);
        if (c.kind != Kind::None && c.kind != Kind::Missing)
            return c;
    }
    return rc == ZELO_RC_BAD_FILE ? Cause{Kind::Damaged, dir, 0} : Cause{};
}

Cause examineHistory(const Root &r, const char *absPath, unsigned rc) {
    const std::string file = r.prefix + absPath;
    const Cause c = examine(file, r.prefix.size(), false);
    if (c.kind != Kind::None)
        return c;
    // Readable, yet the library found nothing in it or could not use it.
    return rc == ZELO_RC_NO_DATA    ? Cause{Kind::NoSamples, file, 0}
           : rc == ZELO_RC_BAD_FILE ? Cause{Kind::Damaged, file, 0}
                                    : Cause{};
}

std::string reason(int error) {
    std::string text = std::strerror(error);
    if (!text.empty())
        text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    return text;
}

std::string quoted(const std::string &path) {
    // Appended rather than "'" + text: g++ 12 at -O3 warns falsely on the latter.
    std::string text = "'";
    text += printable(path);
    text += '\'';
    return text;
}

// Nothing there yet is the normal state before the daemon's first snapshot;
// everything else is a fault to mend.
bool soft(Kind kind) {
    return kind == Kind::Missing || kind == Kind::RootMissing || kind == Kind::EmptyLog ||
           kind == Kind::NoSamples;
}

// The line for one cause; target is the path the command read, quoted.
std::string describe(const Cause &c, const char *what, const Root &r, const std::string &target,
                     unsigned rc) {
    const std::string cannot = std::string("cannot read the ") + what + ": ";
    const std::string none = std::string("no ") + what + " yet: ";
    switch (c.kind) {
    case Kind::RootMissing:
        return cannot + "ZELO_ROOT names " + quoted(r.prefix) + ", which does not exist (" +
               target + " looked for)";
    case Kind::Missing:
        return none + target + " does not exist (has the zelo daemon run?)";
    case Kind::NotDirectory:
        return cannot + quoted(c.path) + " is not a directory";
    case Kind::Unsearchable:
        return cannot + "directory " + quoted(c.path) + " cannot be read: " + reason(c.error);
    case Kind::Denied:
        return cannot + quoted(c.path) + ": permission denied";
    case Kind::NotRegular:
        return cannot + quoted(c.path) + " is not a regular file";
    case Kind::Unreadable:
        return cannot + quoted(c.path) + ": " + reason(c.error);
    case Kind::EmptyLog:
        return none + quoted(c.path) + " is empty";
    case Kind::NoSamples:
        return none + quoted(c.path) + " holds no samples";
    case Kind::Foreign:
        return cannot + "directory " + quoted(c.path) +
               " is not used: it must be no link, root's or yours, and not writable by others";
    case Kind::Damaged:
        return "the " + std::string(what) + " cannot be used: " + quoted(c.path) +
               " is damaged or not zelo's, result code " + std::to_string(rc);
    case Kind::Locked:
        return cannot + quoted(c.path) + " was held for over 30 s by " +
               (c.error > 0 ? "process " + std::to_string(c.error) : "a process it does not name");
    case Kind::None:
        break;
    }
    return {};
}

// What --verbose adds: the result code, the root, who is asking and what is
// at the path.
void details(const Cause *c, unsigned rc, const Root &r) {
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(::getgroups(0, nullptr), 0)));
    const int n = ::getgroups(static_cast<int>(groups.size()), groups.data());
    std::string list;
    for (int i = 0; i < n; ++i)
        list.append(i != 0 ? "," : "").append(std::to_string(groups[static_cast<std::size_t>(i)]));
    std::fprintf(stderr,
                 "zeloctl: details: result code %u; root %s (%s); running as uid %lu, gid %lu, "
                 "groups %s\n",
                 rc, quoted(r.prefix.empty() ? "/" : r.prefix).c_str(),
                 r.set ? "ZELO_ROOT" : "ZELO_ROOT not set", static_cast<unsigned long>(::getuid()),
                 static_cast<unsigned long>(::getgid()), list.empty() ? "none" : list.c_str());
    if (c == nullptr)
        return;
    struct stat st {};
    if (::stat(c->path.c_str(), &st) != 0) {
        std::fprintf(stderr, "zeloctl: details: %s: %s\n", quoted(c->path).c_str(),
                     reason(errno).c_str());
        return;
    }
    const int error = c->kind == Kind::Locked ? 0 : c->error;
    const char *type = S_ISDIR(st.st_mode)   ? "directory"
                       : S_ISREG(st.st_mode) ? "regular file"
                                             : "special file";
    std::fprintf(stderr, "zeloctl: details: %s: %s, %lld bytes, mode %04o, owner %lu:%lu%s%s\n",
                 quoted(c->path).c_str(), type, static_cast<long long>(st.st_size),
                 static_cast<unsigned>(st.st_mode & 07777), static_cast<unsigned long>(st.st_uid),
                 static_cast<unsigned long>(st.st_gid), error != 0 ? "; " : "",
                 error != 0 ? reason(error).c_str() : "");
}

} // namespace

int telemetryFailure(const char *what, unsigned rc, const std::vector<Source> &sources) {
    const Root r = root();
    struct Found {
        Cause cause;
        std::string target;
    };
    std::vector<Found> found;
    for (const Source source : sources) {
        const char *path = source == Source::MetricLog      ? kLogDir
                           : source == Source::PowerHistory ? kPowerHistory
                                                            : kPerformanceHistory;
        const Cause c =
            source == Source::MetricLog ? examineLog(r, rc) : examineHistory(r, path, rc);
        if (c.kind != Kind::None)
            found.push_back({c, r.prefix + path});
    }
    // A fault outweighs an absence: a long power window does without either
    // source, but not with one it cannot read.
    const bool faults =
        std::any_of(found.begin(), found.end(), [](const Found &f) { return !soft(f.cause.kind); });
    // A missing root is one cause, whatever it hides.
    std::string beneathRoot;
    for (const Found &f : found)
        if (f.cause.kind == Kind::RootMissing)
            beneathRoot += (beneathRoot.empty() ? "" : " and ") + quoted(f.target);
    std::vector<std::string> lines;
    const Cause *first = nullptr;
    for (const Found &f : found) {
        if (faults && soft(f.cause.kind))
            continue;
        const std::string line =
            describe(f.cause, what, r,
                     f.cause.kind == Kind::RootMissing ? beneathRoot : quoted(f.target), rc);
        if (std::find(lines.begin(), lines.end(), line) != lines.end())
            continue;
        lines.push_back(line);
        if (first == nullptr)
            first = &f.cause;
    }
    if (lines.empty()) // nothing to see from outside: the library's word
        lines.push_back(rc == ZELO_RC_NO_DATA
                            ? std::string("no ") + what + " yet (has the zelo daemon run?)"
                        : rc == ZELO_RC_BAD_FILE
                            ? std::string("the ") + what + " files are damaged or not zelo's"
                            : std::string("reading the ") + what + " failed, result code " +
                                  std::to_string(rc));
    for (const std::string &line : lines)
        std::fprintf(stderr, "zeloctl: %s\n", line.c_str());
    if (gOutput.verbose)
        details(first, rc, r);
    return kExitFailure;
}

void noteMissingRoot() {
    const Root r = root();
    struct stat st {};
    if (r.set && !r.prefix.empty() && ::stat(r.prefix.c_str(), &st) != 0 && errno == ENOENT)
        std::fprintf(stderr, "zeloctl: ZELO_ROOT names %s, which does not exist\n",
                     quoted(r.prefix).c_str());
}

} // namespace zeloctl
