// The daemon: start-up, the ten-second cycle under the metric log lock, the
// reset after a firmware restart, and the command-line options.
#include "daemon_internal.h"
#include "tracelog/verbosity.h"

#include "acquisition/cycle.h"
#include "acquisition/snapshot_records.h"
#include "events/events.h"
#include "files.h"
#include "metriclog/cycle.h"
#include "paths.h"
#include "report.h"

#include <zelo.h>
#include <zelo/events.h>
#include <zelo/platform.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <initializer_list>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace zelo::daemon {

volatile std::sig_atomic_t gTerminateSignal = 0;

namespace {
char gLockRefusal[192]; // why CheckProcess refused, when it did
} // namespace

namespace {

namespace ml = zelo::metriclog;

constexpr const char *kUsage =
    "usage:\n   zelo [-options] [log file]- Zelo.\noptions:\n   -d: debug "
    "mode.\n   -r: read log file.\n   -P: print full power history.";
constexpr unsigned kCycleSeconds = 10;
constexpr const char *kLogLevelKey = "ZELO_power_history_log_level";
constexpr const char *kPidFile = "/run/zelo.pid";

// Only records the signal: stdio and malloc are not safe in a handler, so
// the cycle notices the signal and saves the histories itself.
extern "C" void ZELOsignalHandler(int signalNumber) {
    gTerminateSignal = signalNumber;
}

bool terminating() {
    return gTerminateSignal != 0;
}

void trace(const char *level, const char *message) {
    report(traced("main", level), "%s", message);
}

// What an operator acts on goes to standard error (the journal under
// systemd); errors go to the trace as well.
void journal(const char *message) {
    report(kJournal, "zelo: %s\n", message);
}

void alert(const char *message) {
    trace("ERROR", message);
    journal(message);
}

// Sleeps unless SIGTERM arrives, which cuts the sleep short.
void pause(unsigned seconds) {
    struct timespec left = {static_cast<time_t>(seconds), 0};
    while (!terminating() && nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

// Creates the directory with the daemon's mode 070; parents that a private
// root lacks (its /tmp) are made as ordinary directories first when asked.
void makeDir(const char *absPath, bool parents = true) {
    char path[PATH_MAX];
    if (!resolvePath(absPath, path, sizeof path))
        return;
    const std::size_t len = std::strlen(path);
    if (len > 1 && path[len - 1] == '/')
        path[len - 1] = '\0'; // the directory itself gets the daemon's mode below
    // Exactly 070 whatever the umask: the group of the controller's services reads it.
    (void)makeDirectory(path, 070, parents);
}

// The directory under the root, opened when it is the daemon's own (see
// openOwnDirectory); -1 otherwise.
int openOwnDir(const char *absPath) {
    char path[PATH_MAX];
    return resolvePath(absPath, path, sizeof path) ? openOwnDirectory(path) : -1;
}

// Says so when a directory is not the daemon's own: nothing in it is then
// written or removed.
void refusedDir(const char *absPath) {
    char message[PATH_MAX + 160];
    formatText(message, sizeof message,
               "Directory '%s' is not used: %s (it must be no link, the daemon's user's, "
               "and not writable by others)",
               absPath, std::strerror(errno));
    alert(message);
}

// Removes every entry of the metric log directory, the lock file included,
// only when the directory is the daemon's own and never through a link.
bool emptyLogDirectory() {
    const int fd = openOwnDir(ml::kLogDir);
    DIR *dir = fd >= 0 ? ::fdopendir(fd) : nullptr;
    if (dir == nullptr) {
        if (fd >= 0)
            ::close(fd);
        return false;
    }
    while (const struct dirent *entry = ::readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        if (::unlinkat(fd, entry->d_name, 0) != 0 && errno == EISDIR)
            (void)::unlinkat(fd, entry->d_name, AT_REMOVEDIR);
    }
    ::closedir(dir);
    return true;
}

void readLogLevel() {
    int level = trace::verbosity();
    if (kiv_config_get_int(kLogLevelKey, &level) != 0)
        trace::setVerbosity(level);
}

// A running total below the baseline's: it only grows until a restart zeroes it.
bool totalFell(const MetricStat *now, const MetricStat *base) {
    return now != nullptr && base != nullptr && now->u64Avg < base->u64Avg;
}

// The firmware restarted, whether or not a cycle saw its tag 1: the
// snapshot's time or a running total went back. Differenced against the old
// baseline, such a snapshot would publish raw counters as power. A smaller
// tag alone is no restart: the 16-bit tag wraps every few weeks.
bool firmwareRestarted(const SnapshotBuffer &now, const SnapshotBuffer &base, uint16_t lastTag) {
    if (now.u16Tag == lastTag)
        return false;
    if (now.u64Timestamp < base.u64Timestamp)
        return true;
    return std::any_of(acquisition::kSingleRecords.begin(), acquisition::kSingleRecords.end(),
                       [&](const acquisition::SingleRecord &single) {
                           return totalFell(now.*single.record, base.*single.record);
                       });
}

// A lock left behind would stall every reader and the next cycle: a failed
// removal is retried, unless the directory is not the daemon's own (EPERM):
// then it holds no lock of the daemon's.
void unlock() {
    for (int attempt = 1; UnlockValue() != 0 && errno != ENOENT && errno != EPERM; ++attempt) {
        char message[160];
        formatText(message, sizeof message, "Failed to remove the metric log lock (%s), %s",
                   std::strerror(errno), attempt < 5 ? "retrying" : "giving up");
        trace("ERROR", message);
        if (attempt == 5 || terminating())
            return;
        pause(1);
    }
}

} // namespace

int Daemon::saveAndEnd() {
    savePowerHistory();
    savePowerPerformance();
    return static_cast<int>(gTerminateSignal);
}

void Daemon::snapshotRead(bool read) {
    if (read == snapshotFailing)
        alert(read ? "The firmware's snapshot is read again."
                   : "The firmware's snapshot cannot be read; no power figures until it can.");
    snapshotFailing = !read;
}

void Daemon::recordWritten(int error) {
    // A directory that is not the daemon's is told by checkDirectories.
    if (error == EPERM || (error != 0) == recordsFailing)
        return;
    recordsFailing = error != 0;
    char message[160];
    if (error != 0)
        formatText(message, sizeof message, "Metric records cannot be written in %s: %s",
                   ml::kLogDir, std::strerror(error));
    else
        formatText(message, sizeof message, "Metric records are written in %s again", ml::kLogDir);
    alert(message);
}

void Daemon::seedFirstSnapshot() {
    while (!terminating()) {
        WaitValueLock();
        if (terminating())
            return; // the lock wait gave up on SIGTERM
        SnapshotBuffer *psBuffer = nullptr;
        HistogramData sHistogramData{};
        if (GetSnapshotBufferFromZELO(&psBuffer, &sHistogramData) != ZELO_RC_SUCCESS) {
            trace("ERROR", "Get Snapshot buffer from ZELO is fail when get first data");
            snapshotRead(false);
            FreeSnapshotBuffer(psBuffer);
            ml::releaseHistogram(sHistogramData);
            unlock();
            pause(kCycleSeconds);
            continue;
        }
        snapshotRead(true);
        ml::setBaseline(*psBuffer, sHistogramData);
        u16LastTag = psBuffer->u16Tag;
        FreeSnapshotBuffer(psBuffer);
        unlock();
        pause(kCycleSeconds);
        return;
    }
}

void Daemon::firstPerformance() {
    const int supported = NM_Performance_IsSupported();
    if (supported == 1) {
        WaitValueLock();
        if (GetPerformanceFromNM(&sPerformanceData) == ZELO_RC_SUCCESS)
            trace("INFO", "Get Performance buffer from ZELO is successful when get first data");
        else
            trace("ERROR", "Get Performance buffer from ZELO is fail when get first data");
        unlock();
        return;
    }
    report(traced("main", "Log", 1), "%s --NM_Performance_IsSupported() returns %d\n", "main",
           supported);
}

void Daemon::checkDirectories() {
    for (std::size_t i = 0; i < kOwnDirs.size(); ++i) {
        const char *dir = kOwnDirs[i].path;
        int fd = openOwnDir(dir);
        if (fd < 0 && errno == ENOENT) { // never made, or removed while the daemon runs
            makeDir(dir, kOwnDirs[i].makeParents);
            fd = openOwnDir(dir);
        }
        const bool usable = fd >= 0;
        if (usable)
            ::close(fd);
        else if (!refused[i])
            refusedDir(dir);
        if (usable && refused[i]) {
            char message[PATH_MAX + 40];
            formatText(message, sizeof message, "Directory '%s' is used again", dir);
            trace("INFO", message);
            journal(message);
        }
        refused[i] = !usable;
    }
}

Acquired::~Acquired() {
    FreeSnapshotBuffer(snapshot);
    ml::releaseHistogram(histogram);
    ml::releaseCycleInlets();
}

void Daemon::acquire(Acquired &now, bool blade) {
    if (acquisition::fetchSnapshot(&now.snapshot, &now.histogram, blade, layout, u16LastTag) !=
        ZELO_RC_SUCCESS) {
        trace("ERROR", "Get Snapshot buffer from ZELO is fail.");
        snapshotRead(false);
    } else {
        snapshotRead(true);
        report(traced("main", "Log", 1), "%s -- psBuffer->u16Tag is %d & u16LastTag is %d\n",
               "main", now.snapshot->u16Tag, u16LastTag);
        if (firmwareRestarted(*now.snapshot, ml::baseline(), u16LastTag))
            now.found = Found::Restart;
        else if (now.snapshot->u16Tag != u16LastTag)
            now.found = Found::New;
        else
            now.found = Found::Unchanged;
    }
    now.perf = acquisition::readCyclePerformance(now.found == Found::New);
    if (now.found == Found::New) {
        ml::acquireInlets(blade);
        now.caps = events::readPowercapSettings(blade);
    }
}

void Daemon::restartFrom(Acquired &now) {
    // This snapshot is the new baseline; nothing is published for it.
    trace("Log", "Reset the ZELO.");
    journal("The firmware restarted: its snapshot is the new baseline and the metric "
            "log starts afresh.");
    ml::setBaseline(*now.snapshot, now.histogram);
    u16LastTag = now.snapshot->u16Tag;
    layout.restarted();
    if (!emptyLogDirectory())
        trace("Log", "Failed to opendir(ZELO_LOG_PATH).");
    ml::restartFileNumbering();
}

void Daemon::compute(Acquired &now, bool blade) {
    ml::computeIntervals(*now.snapshot, now.histogram, blade);
}

void Daemon::record(const Acquired &now) {
    recordWritten(ml::recordSnapshot(*now.snapshot, now.perf));
}

void Daemon::publish(Acquired &now, bool blade) {
    if (now.found == Found::New) {
        ml::publishFigures(*now.snapshot, blade);
        CheckBufForSendSWEvent(now.snapshot);
        events::sendPowercapEvents(now.caps);
        u16LastTag = now.snapshot->u16Tag;
    }
    acquisition::publishPerformance(now.perf);
    if (now.perf.currentRc == ZELO_RC_SUCCESS) {
        sPerformanceData = now.perf.data;
        report(traced("main", "Log", 0), "%s -- GetPerformanceFromNM response ok!", "main");
        trackPowerPerformance(sPerformanceData.u64PerfTimestamp, sPerformanceData.u64SystemPerf,
                              sPerformanceData.u64CPUPerf, sPerformanceData.u64MemoryPerf,
                              sPerformanceData.u64IOPerf);
    }
}

void Daemon::follow(Acquired &now, bool blade) {
    // Each step takes what the ones before it left in `now`, and asks
    // nothing of an earlier one.
    if (now.found == Found::Restart)
        restartFrom(now);
    if (now.found == Found::New) {
        compute(now, blade);
        record(now);
    }
    publish(now, blade);
}

void Daemon::cycle() {
    checkDirectories();
    WaitValueLock();
    if (terminating())
        return; // the lock wait gave up on SIGTERM
    readLogLevel();
    // Asked once for the whole cycle and passed down to each step.
    const bool blade = IsBladeServer() != 0;
    bool recorded = false;
    {
        Acquired now;
        acquire(now, blade);
        follow(now, blade);
        recorded = now.found == Found::New;
    }
    unlock();

    if (debug && recorded && !terminating()) {
        SnapshotBuffer *buffers = nullptr;
        BladeInletSensorBuffer *inlets = nullptr;
        PerfMetricSet *perfs = nullptr;
        uint8_t count = 0;
        GetMetricValue(&buffers, &inlets, &perfs, &count);
        zelo::print("[ZELO_DEBUG] Get %d MetricValues.\n The last one is:\n", count);
        if (count != 0) {
            PrintAllMetricValue(&buffers[count - 1], &inlets[count - 1],
                                perfs != nullptr ? &perfs[count - 1] : nullptr);
            FreeMetricValue(buffers, inlets, perfs, count);
        }
    }
}

namespace {

int runDaemon(bool debug) {
    makeDir(trace::kTraceDir);
    makeDir(ml::kLogDir);
    switch (CheckProcess()) {
    case 0:
        alert("Process ZELO is executing.");
        return 0;
    case -1:
        alert(gLockRefusal); // a failure: systemd tries again
        return 1;
    default:
        break;
    }
    // The library reports every exchange on standard output, some 125 lines a
    // cycle: under systemd a flood of the journal. Only -d asks for them.
    if (!debug) {
        zelo::setConsole(false); // the library's lines are then not even formatted
        const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null >= 0) {
            std::fflush(stdout);
            (void)::dup2(null, STDOUT_FILENO);
            ::close(null);
        }
    }
    readLogLevel();

    struct sigaction action {};
    action.sa_handler = ZELOsignalHandler;
    sigemptyset(&action.sa_mask);
    (void)sigaction(SIGTERM, &action, nullptr); // no SA_RESTART: a signal cuts the sleep
    ml::abandonLockWaitWhen(terminating);       // and a wait for the metric log lock

    Daemon d;
    d.debug = debug;
    d.checkDirectories(); // each refused one is reported now, once
    (void)emptyLogDirectory();
    for (const int instance : {0, 1}) {
        char key[32];
        formatText(key, sizeof key, "zelo_supported_%d", instance);
        uint8_t value = 0;
        if (kiv_config_get_bool(key, &value) != 0)
            (void)kiv_config_clear(key);
    }
    ml::restartFileNumbering();
    ml::resetBaseline();
    trackPowerHistory(0, 0, 0);
    trackPowerPerformance(0, 0, 0, 0, 0);
    d.seedFirstSnapshot();
    if (!terminating())
        d.firstPerformance();
    while (!terminating()) {
        d.cycle();
        if (!terminating())
            pause(kCycleSeconds);
    }
    return d.saveAndEnd();
}

int readLogFile(const char *path) {
    SnapshotBuffer snapshot{};
    BladeInletSensorBuffer inlets{};
    PerfMetricSet perf{};
    const int rc = ReadMeticValueFromFile(path, &snapshot, &inlets, &perf);
    if (rc != 0) {
        zelo::print("[ZELO ERR]: Read log file error. Error code: %d.\n", rc);
        FreeSignalMetricValue(&snapshot, &inlets, &perf);
        return 1;
    }
    PrintAllMetricValue(&snapshot, &inlets, &perf);
    FreeSignalMetricValue(&snapshot, &inlets, &perf);
    return 0;
}

} // namespace

namespace {

// The process holding a lock on the file open at fd, from /proc/locks, and
// its real user; false when none is found.
bool lockHolder(int fd, long &pid, uid_t &uid) {
    struct stat st {};
    std::FILE *locks = ::fstat(fd, &st) == 0 ? std::fopen("/proc/locks", "re") : nullptr;
    if (locks == nullptr)
        return false;
    char line[256];
    bool found = false;
    while (!found && std::fgets(line, sizeof line, locks) != nullptr) {
        unsigned major = 0, minor = 0;
        unsigned long long inode = 0;
        found = std::sscanf(line, "%*d: FLOCK %*s %*s %ld %x:%x:%llu", &pid, &major, &minor,
                            &inode) == 4 &&
                inode == st.st_ino && major == ::major(st.st_dev) && minor == ::minor(st.st_dev);
    }
    std::fclose(locks);
    char status[64];
    formatText(status, sizeof status, "/proc/%ld/status", pid);
    std::FILE *in = found ? std::fopen(status, "re") : nullptr;
    found = false;
    while (in != nullptr && !found && std::fgets(line, sizeof line, in) != nullptr) {
        unsigned long id = 0;
        found = std::sscanf(line, "Uid: %lu", &id) == 1;
        uid = static_cast<uid_t>(id);
    }
    if (in != nullptr)
        std::fclose(in);
    return found;
}

} // namespace

int CheckProcess() {
    // One daemon per root: the first holds an exclusive lock on the pid file
    // for as long as it runs (the descriptor stays open). A `zelo -P` or any
    // other process of that name does not count, and a daemon that dies
    // leaves no lock behind. Only the daemon's user can open the file; one
    // left readable by an older version may be locked by someone else, which
    // is no daemon and must not keep the daemon down quietly.
    static int held = -1;
    if (held >= 0)
        return 1;
    char path[PATH_MAX];
    const int fd = resolvePath(kPidFile, path, sizeof path) && makeDirectories(path, false)
                       ? openOwnFile(path, O_RDWR, 0600)
                       : -1;
    if (fd < 0)
        return 1; // no place for the lock: run rather than stay down
    (void)::fchmod(fd, 0600);
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const bool busy = errno == EWOULDBLOCK;
        long pid = 0;
        uid_t uid = 0;
        const bool foreign = busy && lockHolder(fd, pid, uid) && uid != ::geteuid();
        ::close(fd);
        if (foreign) {
            formatText(gLockRefusal, sizeof gLockRefusal,
                       "The pid file %s is locked by process %ld of user %lu, not by a zelo "
                       "daemon; not starting.",
                       kPidFile, pid, static_cast<unsigned long>(uid));
            return -1;
        }
        return busy ? 0 : 1;
    }
    char pid[32];
    const int n = formatText(pid, sizeof pid, "%ld\n", static_cast<long>(::getpid()));
    if (::ftruncate(fd, 0) != 0 || ::write(fd, pid, static_cast<std::size_t>(n)) != n)
        report(traced("main", "ERROR"), "Can't write the pid file.");
    held = fd;
    return 1;
}

} // namespace zelo::daemon

extern "C" int ZeloDaemonMain(int argc, char **argv) {
    using namespace zelo::daemon;
    if (argc == 1)
        return runDaemon(false);
    if (argc == 2 && std::strcmp(argv[1], "-d") == 0)
        return runDaemon(true);
    if (argc == 2 && std::strcmp(argv[1], "-P") == 0) {
        printFullPowerHistory();
        return 0;
    }
    if (argc == 3 && std::strcmp(argv[1], "-r") == 0)
        return readLogFile(argv[2]);
    zelo::print("%s\n", kUsage);
    return 0;
}
