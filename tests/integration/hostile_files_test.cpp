// The daemon runs as root: what others plant in its paths (links, foreign
// directories, FIFOs) and a full file system must not make it write outside
// its own directories, hang, or count a record it could not write.
#include "daemon_process.h"

#include <fcntl.h>
#include <map>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace zelo::test {
namespace {

// Every regular file under the paths, with its content, and each link's target.
std::map<std::string, std::string> contents(const std::vector<std::string> &paths) {
    std::map<std::string, std::string> found;
    for (const auto &path : paths)
        for (const auto &e : fs::recursive_directory_iterator(path))
            found[e.path()] = e.is_symlink()        ? "-> " + fs::read_symlink(e).string()
                              : e.is_regular_file() ? readFile(e.path())
                                                    : "";
    return found;
}

// Links, a foreign directory and its lock planted before start-up: through a
// start, new records, a firmware reset and the saves at SIGTERM nothing
// outside the daemon's own directories is written, truncated or removed,
// and the daemon keeps cycling.
TEST_F(DaemonTest, PlantedLinksAndForeignDirectoriesAreNotWrittenThrough) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "a directory of another user needs root";
    const std::string r = root.path(), victim = r + "/victim", keep = victim + "/keep";
    const auto makeDir = [](const std::string &path, mode_t mode, uid_t owner) {
        fs::create_directories(path);
        ASSERT_EQ(::chmod(path.c_str(), mode), 0);
        ASSERT_EQ(::chown(path.c_str(), owner, owner), 0);
    };
    struct Case {
        const char *what;
        std::function<void()> plant;
        bool traced;            // the trace itself is usable
        std::string watched;    // a foreign directory, left as planted
        std::string refusedDir; // traced as not used
    };
    const std::string lockOfALiveProcess = std::to_string(::getpid()) + "\n";
    const Case cases[] = {
        {"metric log directory a link",
         [&] { fs::create_directory_symlink(victim, r + "/tmp/zelo_log"); }, true, "",
         "/tmp/zelo_log/"},
        {"metric log directory another user's, holding a lock",
         [&] {
             makeDir(r + "/tmp/zelo_log", 0770, 65534);
             std::ofstream(r + "/tmp/zelo_log/zelo.lock") << lockOfALiveProcess;
         },
         true, r + "/tmp/zelo_log", "/tmp/zelo_log/"},
        {"trace rotating into a link",
         [&] {
             makeDir(r + "/tmp/zelo_trace", 070, 0);
             std::ofstream(r + "/tmp/zelo_trace/zelo_trace_log_0.txt") << std::string(524289, 'x');
             fs::create_symlink(keep, r + "/tmp/zelo_trace/zelo_trace_log_1.txt");
         },
         false, "", ""},
        {"history files and their temporary files links, /tmp sticky",
         [&] {
             ASSERT_EQ(::chmod((r + "/tmp").c_str(), 01777), 0);
             makeDir(r + "/pstorage/power", 070, 0);
             for (const char *link :
                  {"/tmp/PowerHistoryLast1Hour.tmp", "/tmp/PowerHistoryLast6Hours",
                   "/pstorage/power/PowerHistoryFull.tmp"})
                 fs::create_symlink(keep, r + link);
         },
         true, "", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        for (const char *dir : {"/tmp", "/pstorage", "/victim"}) {
            fs::remove_all(r + dir);
            fs::create_directories(r + dir);
        }
        std::ofstream(keep) << std::string(4096, 'v');
        c.plant();
        std::vector<std::string> watched = {victim};
        if (!c.watched.empty())
            watched.push_back(c.watched);
        const auto before = contents(watched);

        SimProcess sim(r, scenarioHead + "snapshot-period 86400000\n");
        // A baseline with totals above zero, so that the restart's fall shows
        // also where no record moves the baseline on.
        control("snapshot-now");
        DaemonProcess zelo(r);
        if (c.traced) {
            ASSERT_TRUE(zelo.awaitTrace(tagLine(2, 2))) << zelo.trace();
            control("snapshot-now");
            ASSERT_TRUE(zelo.awaitTrace(tagLine(3, 3))) << zelo.trace();
            control("restart-now");
            ASSERT_TRUE(zelo.awaitTrace("Reset the ZELO.")) << zelo.trace();
        } else {
            // No trace tells when the baseline is taken: new snapshots until one is logged.
            for (int i = 0; i < 1500 && !fs::exists(logFile(0)); ++i) {
                if (i % 50 == 0)
                    control("snapshot-now");
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            ASSERT_TRUE(fs::exists(logFile(0)));
        }
        EXPECT_EQ(zelo.terminate(), 15);

        EXPECT_EQ(contents(watched), before);
        if (!c.refusedDir.empty()) {
            EXPECT_TRUE(zelo.awaitTrace("Directory '" + c.refusedDir + "' is not used"))
                << zelo.trace();
        }
        for (const char *file : {"/tmp/PowerHistoryLast6Hours", "/pstorage/power/PowerHistoryFull"})
            EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(r + file))) << file;
    }
}

// tmp/ and pstorage/ links to another directory: nothing there is written or
// removed, since no directory on the way is reached through a link, and the
// journal says which directories are not used.
TEST_F(DaemonTest, LinksAboveTheDaemonsDirectoriesLeadNowhere) {
    const std::string r = root.path(), victim = r + "/victim";
    for (const char *dir : {"/zelo_log", "/zelo_trace", "/power"}) {
        fs::create_directories(victim + dir);
        std::ofstream(victim + dir + "/keep.txt") << "keep";
    }
    fs::remove_all(r + "/pstorage");
    fs::create_directory_symlink(victim, r + "/tmp");
    fs::create_directory_symlink(victim, r + "/pstorage");
    const auto before = contents({victim});
    SimProcess sim(r, scenarioHead + "snapshot-period 86400000\n");
    DaemonProcess zelo(r);
    for (const char *dir : {"/tmp/zelo_trace/", "/tmp/zelo_log/", "/pstorage/power"})
        EXPECT_TRUE(zelo.awaitJournal(std::string("Directory '") + dir + "' is not used"))
            << zelo.journal();
    // Told from the first cycle, after the start-up's emptying of the log;
    // the saves at SIGTERM come next.
    EXPECT_EQ(zelo.terminate(), 15);
    EXPECT_EQ(contents({victim}), before);
}

// A FIFO at the persisted history, at the next record and given to -r is
// never waited on; one at the pid file leaves no place for its lock, and the
// daemon runs rather than stays down.
TEST_F(DaemonTest, FifosAreNotWaitedOn) {
    const std::string r = root.path();
    fs::create_directories(r + "/pstorage/power");
    ASSERT_EQ(::mkfifo((r + "/pstorage/power/PowerHistoryFull").c_str(), 0600), 0);
    fs::create_directories(r + "/run");
    ASSERT_EQ(::mkfifo((r + "/run/zelo.pid").c_str(), 0600), 0);
    SimProcess sim(r, scenarioHead + "snapshot-period 86400000\n");
    DaemonProcess zelo(r);
    ASSERT_TRUE(zelo.awaitTrace(tagLine(1, 1))) << zelo.trace();
    control("snapshot-now");
    ASSERT_TRUE(zelo.awaitTrace(tagLine(2, 2))) << zelo.trace();
    ASSERT_EQ(::mkfifo(logFile(1).c_str(), 0600), 0);
    control("snapshot-now");
    ASSERT_TRUE(zelo.awaitTrace(tagLine(3, 3), 2)) << "a cycle after the record: " << zelo.trace();
    EXPECT_TRUE(fs::is_regular_file(logFile(1))) << "the record replaced the FIFO";
    EXPECT_EQ(readFile(r + "/tmp/zelo_log/zelo_last.log"), std::string(1, '\x01'));
    EXPECT_EQ(zelo.terminate(), 15);
    EXPECT_EQ(fs::file_size(r + "/pstorage/power/PowerHistoryFull"), 9218u);

    ASSERT_EQ(::mkfifo((r + "/fifo").c_str(), 0600), 0);
    const auto begun = Clock::now();
    const auto read = runProgram(ZELO_DAEMON_PATH, {"-r", r + "/fifo"});
    EXPECT_LT(Clock::now() - begun, std::chrono::seconds(5));
    EXPECT_EQ(read.status, 1);
    EXPECT_NE(read.out.find("[ZELO ERR]: Read log file error. Error code: 2.\n"), std::string::npos)
        << read.out;
}

// A full metric log file system: the record is reported (in the journal
// once), not counted, and leaves no empty file; once there is room again the
// log goes on, and the journal says so.
TEST_F(DaemonTest, AFullMetricLogIsReportedAndCountsNoRecord) {
    const std::string dir = root.path() + "/tmp/zelo_log";
    fs::create_directories(dir);
    // A small file system of its own, seen by this test's processes only.
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=64k,mode=070") != 0)
        GTEST_SKIP() << "mounting a tmpfs needs root and a mount namespace";
    struct Unmount {
        std::string dir;
        ~Unmount() { ::umount2(dir.c_str(), MNT_DETACH); }
    } unmount{dir};
    SimProcess sim(root.path(), scenarioHead + "snapshot-period 86400000\n");
    DaemonProcess zelo(root.path());
    ASSERT_TRUE(zelo.awaitTrace(tagLine(1, 1))) << zelo.trace();
    control("snapshot-now");
    ASSERT_TRUE(zelo.awaitTrace(tagLine(2, 2))) << zelo.trace();
    ASSERT_TRUE(fs::exists(logFile(0)));
    std::ofstream(dir + "/filler", std::ios::binary) << std::string(64 * 1024, 'f'); // fills it
    control("snapshot-now");
    ASSERT_TRUE(zelo.awaitTrace("Can't write file: " + logFile(1))) << zelo.trace();
    const std::string full =
        "zelo: Metric records cannot be written in /tmp/zelo_log/: No space left on device\n";
    EXPECT_TRUE(zelo.awaitJournal(full)) << zelo.journal();
    control("snapshot-now");
    ASSERT_TRUE(zelo.awaitTrace("Can't write file: " + logFile(1), 2)) << zelo.trace();
    EXPECT_FALSE(fs::exists(logFile(1)));
    EXPECT_EQ(readFile(dir + "/zelo_num.log"), std::string(1, '\x01'));
    EXPECT_EQ(readFile(dir + "/zelo_last.log"), std::string(1, '\x00'));

    fs::remove(dir + "/filler");
    control("snapshot-now");
    ASSERT_TRUE(zelo.awaitTrace(tagLine(5, 5), 2)) << zelo.trace();
    ASSERT_TRUE(fs::exists(logFile(1))) << zelo.trace();
    EXPECT_GT(fs::file_size(logFile(1)), 0u);
    EXPECT_EQ(readFile(dir + "/zelo_num.log"), std::string(1, '\x02'));
    EXPECT_EQ(occurrences(zelo.journal(), full), 1) << "told once";
    EXPECT_TRUE(zelo.awaitJournal("zelo: Metric records are written in /tmp/zelo_log/ again\n"))
        << zelo.journal();
    EXPECT_EQ(zelo.terminate(), 15);
}

// Another user locking a pid file that an older version left readable: the
// daemon says who on standard error and fails, so that systemd tries again,
// rather than taking it for a daemon and ending quietly. With the lock gone
// it runs, and the file is its user's alone.
TEST_F(DaemonTest, APidFileLockedByAnotherUserIsAFailureNotAnotherDaemon) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "another user needs root";
    const std::string pidFile = root.path() + "/run/zelo.pid";
    fs::create_directories(root.path() + "/run");
    std::ofstream(pidFile) << "1\n";
    ASSERT_EQ(::chmod(pidFile.c_str(), 0644), 0);
    ASSERT_EQ(::chmod(root.path().c_str(), 0755), 0);
    const pid_t holder = ::fork();
    if (holder == 0) {
        ::execlp("setpriv", "setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups",
                 "flock", "--shared", "--no-fork", pidFile.c_str(), "sleep", "60",
                 static_cast<char *>(nullptr));
        ::_exit(127);
    }
    const auto locked = [&] {
        const int fd = ::open(pidFile.c_str(), O_RDONLY);
        const bool busy = ::flock(fd, LOCK_EX | LOCK_NB) != 0;
        ::close(fd);
        return busy;
    };
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (!locked() && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    SimProcess sim(root.path(), scenarioHead);
    {
        DaemonProcess refused(root.path());
        EXPECT_EQ(refused.wait(), 1);
        EXPECT_NE(refused.trace().find("is locked by process " + std::to_string(holder)),
                  std::string::npos)
            << refused.trace();
    }
    ::kill(holder, SIGKILL);
    ::waitpid(holder, nullptr, 0);
    DaemonProcess zelo(root.path());
    ASSERT_TRUE(zelo.awaitTrace("psBuffer->u16Tag is")) << zelo.trace();
    EXPECT_EQ(fs::status(pidFile).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(zelo.terminate(), 15);
}

// A log directory another user made before the daemon is refused and told
// once, on every cycle tried again, and used once it is the daemon's; one
// removed while the daemon runs is made again.
TEST_F(DaemonTest, RefusedDirectoriesAreRetriedAndRemovedOnesMadeAgain) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "a directory of another user needs root";
    const std::string dir = root.path() + "/tmp/zelo_log";
    fs::create_directories(dir);
    ASSERT_EQ(::chown(dir.c_str(), 65534, 65534), 0);
    SimProcess sim(root.path(), scenarioHead + "snapshot-period 86400000\n");
    DaemonProcess zelo(root.path());
    ASSERT_TRUE(zelo.awaitTrace(tagLine(1, 1), 3)) << zelo.trace();
    EXPECT_EQ(occurrences(zelo.trace(), "Directory '/tmp/zelo_log/' is not used"), 1);

    ASSERT_EQ(::chown(dir.c_str(), 0, 0), 0);
    ASSERT_TRUE(zelo.awaitTrace("Directory '/tmp/zelo_log/' is used again")) << zelo.trace();
    control("snapshot-now");
    ASSERT_TRUE(zelo.awaitTrace(tagLine(2, 2))) << zelo.trace();
    EXPECT_TRUE(fs::exists(logFile(0)));

    // /tmp goes too, as a cleaner of temporary files may take it. The daemon
    // takes and drops its lock in there as it cycles.
    std::error_code gone;
    for (int i = 0;
         i < 100 && fs::remove_all(root.path() + "/tmp", gone) == static_cast<std::uintmax_t>(-1);
         ++i) {
    }
    EXPECT_FALSE(gone) << gone.message();
    control("snapshot-now");
    ASSERT_TRUE(zelo.awaitTrace(tagLine(3, 3))) << zelo.trace();
    EXPECT_TRUE(fs::exists(logFile(1))) << "made again, and written";
    EXPECT_EQ(occurrences(zelo.trace(), "is used again"), 0) << "made again at once, with /tmp";
    EXPECT_EQ(zelo.terminate(), 15);
}

} // namespace
} // namespace zelo::test
