// The real zelo daemon against the real simulator, its time accelerated
// twentyfold by libfaketime, so that a ten-second cycle takes half a second.
#include "sim_process.h"

#include <zelo/metriclog.h>
#include <zelo/platform.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace zelo::test {
namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

std::string readFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// A running daemon; its output goes to files under the root.
class DaemonProcess {
  public:
    DaemonProcess(const std::string &root, const std::vector<std::string> &args = {},
                  const char *rate = "+0 x20")
        : root_(root) {
        pid_ = ::fork();
        if (pid_ == 0) {
            const std::string out = root + "/daemon.out";
            (void)std::freopen(out.c_str(), "w", stdout);
            // The library preloaded into the daemon itself (the faketime
            // wrapper would stand between the test and the daemon's signals).
            ::setenv("LD_PRELOAD", ZELO_LIBFAKETIME, 1);
            ::setenv("FAKETIME", rate, 1);
            // A sanitizer runtime must not insist on coming first.
            ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=1", 1);
            std::vector<std::string> argv = {ZELO_DAEMON_PATH};
            argv.insert(argv.end(), args.begin(), args.end());
            std::vector<char *> cargv;
            for (auto &a : argv)
                cargv.push_back(a.data());
            cargv.push_back(nullptr);
            ::execv(ZELO_DAEMON_PATH, cargv.data());
            ::_exit(127);
        }
    }
    ~DaemonProcess() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    // Sends SIGTERM to the daemon and waits for its status.
    int terminate() {
        ::kill(pid_, SIGTERM);
        return wait();
    }
    int wait() {
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string trace() const { return readFile(root_ + "/tmp/zelo_trace/zelo_trace_log_0.txt"); }
    pid_t pid() const { return pid_; }
    std::string output() const { return readFile(root_ + "/daemon.out"); }
    // Waits (real time, bounded) until the trace holds `text` `times` times.
    bool awaitTrace(const std::string &text, int times = 1) const {
        const auto deadline = Clock::now() + std::chrono::seconds(30);
        while (Clock::now() < deadline) {
            const std::string t = trace();
            int found = 0;
            for (auto at = t.find(text); at != std::string::npos; at = t.find(text, at + 1))
                ++found;
            if (found >= times)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

  private:
    std::string root_;
    pid_t pid_ = -1;
};

class DaemonTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (std::string(ZELO_TEST_EMULATOR).size() > 0 || std::string(ZELO_LIBFAKETIME).empty())
            GTEST_SKIP() << "libfaketime is a library of the build host";
        // Traces the cycle's tag line, and the history's routine lines.
        ASSERT_NE(kiv_config_set_int("ZELO_power_history_log_level", 1, 1), 0);
        // The controller's persistent storage; the histories live below it.
        fs::create_directories(root.path() + "/pstorage");
        // The power-cap checks read the limits only while capping is enabled.
        scenarioHead = "reg 0 0 9 2\n";
    }
    void control(const std::string &line) {
        const auto r = runProgram(ZELO_FWSIM_PATH, {"--control", line});
        ASSERT_EQ(r.status, 0) << line << ": " << r.err;
    }
    static std::string tagLine(int tag, int last) {
        return "psBuffer->u16Tag is " + std::to_string(tag) + " & u16LastTag is " +
               std::to_string(last);
    }
    std::string logFile(int n) const {
        return root.path() + "/tmp/zelo_log/zelo_" + std::to_string(n) + ".log";
    }
    TempRoot root;
    std::string scenarioHead;
};

TEST_F(DaemonTest, TagsFiveSixSixOneTwo) {
    SimProcess sim(root.path(), scenarioHead + "snapshot-period 86400000\n");
    control("tag 5");
    DaemonProcess zelo(root.path());
    ASSERT_TRUE(zelo.awaitTrace(tagLine(5, 5))) << zelo.trace();
    EXPECT_FALSE(fs::exists(logFile(0))) << "the first snapshot is the baseline, not logged";

    control("snapshot-now");
    ASSERT_TRUE(zelo.awaitTrace(tagLine(6, 5))) << zelo.trace();
    ASSERT_TRUE(zelo.awaitTrace(tagLine(6, 6))) << "the same snapshot next cycle";
    EXPECT_TRUE(fs::exists(logFile(0)));
    EXPECT_FALSE(fs::exists(logFile(1))) << "the second 6 is not logged";

    control("restart-now");
    ASSERT_TRUE(zelo.awaitTrace("Reset the ZELO.")) << zelo.trace();
    ASSERT_TRUE(zelo.awaitTrace(tagLine(1, 1)));
    EXPECT_FALSE(fs::exists(logFile(0))) << "the reset empties the metric log";

    control("snapshot-now");
    ASSERT_TRUE(zelo.awaitTrace(tagLine(2, 1))) << zelo.trace();
    ASSERT_TRUE(zelo.awaitTrace(tagLine(2, 2)));
    EXPECT_TRUE(fs::exists(logFile(0))) << "counting starts again at file 0";
    EXPECT_EQ(readFile(root.path() + "/tmp/zelo_log/zelo_num.log"), std::string(1, '\x01'));
    EXPECT_EQ(zelo.terminate(), 15);
}

// The metric log lock taken as another reader takes it, held until the end
// of the scope: the daemon's cycles wait meanwhile.
class LockHeld {
  public:
    explicit LockHeld(const std::string &root) : path_(root + "/tmp/zelo_log/zelo.lock") {
        const auto deadline = Clock::now() + std::chrono::seconds(10);
        int fd = -1;
        while ((fd = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644)) < 0 &&
               Clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_GE(fd, 0) << "the daemon kept the lock";
        const std::string pid = std::to_string(::getpid()) + "\n";
        EXPECT_EQ(::write(fd, pid.data(), pid.size()), static_cast<ssize_t>(pid.size()));
        ::close(fd);
    }
    ~LockHeld() { ::unlink(path_.c_str()); }

  private:
    std::string path_;
};

// A restart no cycle saw (its tag 1 renamed 7 while the daemon waited) is
// still a new baseline: the firmware's new counters, stamped with its time
// since the restart, are never differenced against the old ones and
// published as power.
TEST_F(DaemonTest, AMissedRestartIsANewBaselineNotPower) {
    SimProcess sim(root.path(), scenarioHead + "power constant 350\nsnapshot-period 86400000\n",
                   {"--epoch", "0"});
    control("snapshot-now");
    control("tag 5");
    DaemonProcess zelo(root.path());
    ASSERT_TRUE(zelo.awaitTrace(tagLine(5, 5))) << zelo.trace();
    const auto published = [] {
        int watts = -1;
        EXPECT_NE(kiv_config_get_int("ZELO_total_dc_power_in_use_Avg", &watts), 0);
        return watts;
    };
    control("snapshot-now");
    ASSERT_TRUE(zelo.awaitTrace(tagLine(6, 6))) << zelo.trace();
    EXPECT_EQ(published(), 350);
    {
        LockHeld lock(root.path());
        for (const char *line : {"restart-now", "snapshot-now", "tag 7"})
            control(line);
    }
    ASSERT_TRUE(zelo.awaitTrace(tagLine(7, 7))) << zelo.trace();
    EXPECT_EQ(published(), 350) << "nothing published for the new baseline";
    EXPECT_TRUE(zelo.awaitTrace("Reset the ZELO."));
    control("snapshot-now");
    ASSERT_TRUE(zelo.awaitTrace(tagLine(8, 8))) << zelo.trace();
    EXPECT_EQ(published(), 350);
    EXPECT_EQ(zelo.terminate(), 15);
}

TEST_F(DaemonTest, SecondInstanceExitsAndTermSavesBothHistories) {
    SimProcess sim(root.path(), scenarioHead);
    DaemonProcess first(root.path());
    ASSERT_TRUE(first.awaitTrace("psBuffer->u16Tag is")) << first.trace();

    DaemonProcess second(root.path());
    EXPECT_EQ(second.wait(), 0);
    EXPECT_TRUE(first.awaitTrace("[ERROR] \"main\": Process ZELO is executing."));

    fs::remove(root.path() + "/pstorage/power/PowerHistoryFull");
    fs::remove(root.path() + "/pstorage/power/PowerPerformanceFull");
    // Nor is TERM held up by a lock another live reader keeps, which is not
    // the daemon's to remove. The log directory is the group's alone.
    const fs::path logDir = root.path() + "/tmp/zelo_log";
    const auto mode = fs::status(logDir).permissions();
    EXPECT_EQ(mode & (fs::perms::owner_all | fs::perms::others_all), fs::perms::none);
    LockHeld lock(root.path());
    EXPECT_EQ(first.terminate(), 15);
    EXPECT_EQ(fs::file_size(root.path() + "/pstorage/power/PowerHistoryFull"), 9218u);
    EXPECT_EQ(fs::file_size(root.path() + "/pstorage/power/PowerPerformanceFull"), 9218u);
    EXPECT_TRUE(fs::exists(logDir / "zelo.lock"));
}

TEST_F(DaemonTest, OtherProcessesNamedZeloDoNotKeepItDown) {
    // An administrator's `zelo -P | less`, say: a process of that name that
    // is no daemon of this root.
    fs::copy_file("/bin/sleep", root.path() + "/zelo");
    const pid_t other = ::fork();
    if (other == 0) {
        ::execl((root.path() + "/zelo").c_str(), "zelo", "30", static_cast<char *>(nullptr));
        ::_exit(127);
    }
    SimProcess sim(root.path(), scenarioHead);
    DaemonProcess zelo(root.path());
    EXPECT_TRUE(zelo.awaitTrace("psBuffer->u16Tag is")) << zelo.trace();
    EXPECT_EQ(readFile(root.path() + "/run/zelo.pid"), std::to_string(zelo.pid()) + "\n");
    EXPECT_EQ(zelo.terminate(), 15);
    ::kill(other, SIGKILL);
    ::waitpid(other, nullptr, 0);
}

// How often text occurs in a daemon's trace or journal.
int occurrences(const std::string &in, const std::string &text) {
    int n = 0;
    for (auto at = in.find(text); at != std::string::npos; at = in.find(text, at + 1))
        ++n;
    return n;
}

// A reader killed while it holds the metric log lock stalls the daemon only
// until its next poll: the pid in the lock names no process any more.
TEST_F(DaemonTest, AReaderKilledHoldingTheLockHoldsTheDaemonUpBriefly) {
    SimProcess sim(root.path(), scenarioHead);
    DaemonProcess zelo(root.path());
    const std::string cycle = "psBuffer->u16Tag is";
    ASSERT_TRUE(zelo.awaitTrace(cycle)) << zelo.trace();
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t reader = ::fork();
    if (reader == 0) {
        WaitValueLock();
        (void)::write(ready[1], "1", 1);
        for (;;)
            ::pause();
    }
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    ::close(ready[0]);
    ::close(ready[1]);
    const int held = occurrences(zelo.trace(), cycle);
    std::this_thread::sleep_for(std::chrono::seconds(1)); // two polls at time x20
    EXPECT_EQ(occurrences(zelo.trace(), cycle), held) << "held up while the reader lives";
    ::kill(reader, SIGKILL);
    ASSERT_EQ(::waitpid(reader, nullptr, 0), reader);
    const auto killed = Clock::now();
    ASSERT_TRUE(zelo.awaitTrace(cycle, held + 1)) << zelo.trace();
    EXPECT_LT(Clock::now() - killed, std::chrono::seconds(20));
    EXPECT_TRUE(zelo.awaitTrace("Lock file '/tmp/zelo_log/zelo.lock' of process " +
                                std::to_string(reader) + ", which is gone, removed"));
    EXPECT_EQ(zelo.terminate(), 15);
}

TEST_F(DaemonTest, AbsentFirmwareIsRetriedEveryTenSeconds) {
    SimProcess sim(root.path(), scenarioHead + "present no\n");
    DaemonProcess zelo(root.path());
    const std::string failed = "Get Snapshot buffer from ZELO is fail when get first data";
    ASSERT_TRUE(zelo.awaitTrace(failed, 3)) << zelo.trace();
    control("present yes");
    ASSERT_TRUE(zelo.awaitTrace("psBuffer->u16Tag is")) << zelo.trace();
    EXPECT_EQ(zelo.terminate(), 15);
}

TEST_F(DaemonTest, PowerCapChangesRaiseTheirEventsOnce) {
    SimProcess sim(root.path(), scenarioHead + "snapshot-period 86400000\n");
    DaemonProcess zelo(root.path());
    ASSERT_TRUE(zelo.awaitTrace(tagLine(1, 1))) << zelo.trace();
    // The first new snapshot publishes the limits as they are: no event.
    control("snapshot-now");
    ASSERT_TRUE(zelo.awaitTrace(tagLine(2, 2))) << zelo.trace();
    for (const char *line : {"reg 0 7 2 700", "reg 0 7 4 150", "reg 0 7 6 260", "snapshot-now"})
        control(line);
    ASSERT_TRUE(zelo.awaitTrace(tagLine(3, 3))) << zelo.trace();
    control("snapshot-now");
    ASSERT_TRUE(zelo.awaitTrace(tagLine(4, 4))) << zelo.trace();
    EXPECT_EQ(zelo.terminate(), 15);

    const std::string journal = readFile(root.path() + "/var/log/zelo/events.log");
    for (const char *event : {" 114 ", " 115 ", " 116 "})
        EXPECT_EQ(occurrences(journal, event), 1) << event << journal;
    EXPECT_NE(journal.find("650"), std::string::npos) << "the old maximum";
    EXPECT_NE(journal.find("700"), std::string::npos) << "the new maximum";
}

TEST_F(DaemonTest, OptionsDebugPrintAndRead) {
    {
        SimProcess sim(root.path(), scenarioHead + "snapshot-period 86400000\n");
        DaemonProcess zelo(root.path(), {"-d"});
        ASSERT_TRUE(zelo.awaitTrace(tagLine(1, 1))) << zelo.trace();
        control("snapshot-now");
        ASSERT_TRUE(zelo.awaitTrace(tagLine(2, 2))) << zelo.trace();
        EXPECT_EQ(zelo.terminate(), 15);
        EXPECT_NE(zelo.output().find("[ZELO_DEBUG] Get 1 MetricValues."), std::string::npos)
            << zelo.output();
    }
    // zelo -r on a file: telemetry_cli_test.
    EXPECT_EQ(runProgram(ZELO_DAEMON_PATH, {"-r", logFile(7)}).status, 1) << "no such file";
    const auto history = runProgram(ZELO_DAEMON_PATH, {"-P"});
    EXPECT_EQ(history.status, 0);
    EXPECT_NE(history.out.find("Index   Timestamp"), std::string::npos);

    for (const auto &args :
         std::vector<std::vector<std::string>>{{"-x"}, {"-r"}, {"-P", "-d"}, {"-r", "a", "b"}}) {
        const auto r = runProgram(ZELO_DAEMON_PATH, args);
        EXPECT_EQ(r.status, 0) << testing::PrintToString(args);
        EXPECT_EQ(r.out.rfind("usage:\n   zelo [-options]", 0), 0u) << r.out;
    }
}

TEST_F(DaemonTest, TwoHoursAtConstantPowerReadBackAsSuch) {
    // Two hundred times real time: two simulated hours take 36 seconds.
    const std::time_t started = std::time(nullptr);
    SimProcess sim(root.path(), scenarioHead + "power constant 350\nsnapshot-period 30000\n",
                   {"--time-scale", "200"});
    DaemonProcess zelo(root.path(), {}, "+0 x200");
    const auto zeloctl = [](const std::vector<std::string> &args) {
        const auto r = runProgram(ZELO_ZELOCTL_PATH, args);
        return nlohmann::json::parse(r.status == 0 ? r.out : "{}");
    };
    // Until the persisted history spans two hours.
    nlohmann::json items;
    const auto date = [&items](std::size_t i) {
        struct tm utc {};
        ::strptime(items[i]["Date"].get<std::string>().c_str(), "%Y-%m-%dT%H:%M:%SZ", &utc);
        return ::timegm(&utc);
    };
    const auto span = [&] { return items.size() > 1 ? date(items.size() - 1) - date(0) : 0; };
    for (const auto deadline = Clock::now() + std::chrono::seconds(150);
         span() < 2 * 3600 - 150 && Clock::now() < deadline;
         std::this_thread::sleep_for(std::chrono::seconds(1)))
        items = zeloctl({"--json", "history"})["Items"];
    ASSERT_GE(span(), 2 * 3600 - 150) << zelo.trace();
    EXPECT_GE(date(0), started);
    EXPECT_LE(date(items.size() - 1), started + 200 * (std::time(nullptr) - started + 1));
    // Read once the daemon has stopped: at this pace it holds the metric log
    // lock most of the time, and a reader polling once a second can starve.
    EXPECT_EQ(zelo.terminate(), 15);

    for (const char *window : {"1h", "24h"}) {
        auto power = zeloctl({"--json", "power", "--window", window}); // null where absent
        SCOPED_TRACE(window + std::string(": ") + power.dump());
        const auto &dc = power["DC"];
        EXPECT_EQ(dc["MinConsumedWatts"], 350);
        EXPECT_EQ(dc["AverageConsumedWatts"], 350);
        EXPECT_EQ(dc["MaxConsumedWatts"], 350);
        const auto ac = power["AverageConsumedWatts"].get<double>();
        EXPECT_GT(ac, 350);
        EXPECT_EQ(power["MinConsumedWatts"], ac);
        EXPECT_EQ(power["MaxConsumedWatts"], ac);
        EXPECT_EQ(power["PowerConsumedWatts"], ac);
        EXPECT_EQ(power["UnknownIntervals"], 0);
        const double hours = power["IntervalInMin"].get<double>() / 60;
        EXPECT_NEAR(power["EnergykWh"].get<double>(), ac * hours / 1000, ac * hours / 1000 / 100);
    }
    EXPECT_EQ(zeloctl({"--json", "power", "--window", "1h"})["IntervalInMin"], 60);
}

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

bool awaitPath(const std::string &path, bool present = true, int seconds = 30) {
    const auto deadline = Clock::now() + std::chrono::seconds(seconds);
    while (fs::exists(fs::symlink_status(path)) != present && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return fs::exists(fs::symlink_status(path)) == present;
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
        DaemonProcess zelo(r);
        if (c.traced) {
            ASSERT_TRUE(zelo.awaitTrace(tagLine(1, 1))) << zelo.trace();
            control("snapshot-now");
            ASSERT_TRUE(zelo.awaitTrace(tagLine(2, 2))) << zelo.trace();
            control("restart-now");
            ASSERT_TRUE(zelo.awaitTrace("Reset the ZELO.")) << zelo.trace();
        } else {
            // No trace tells when the baseline is taken: new snapshots until one is logged.
            for (int i = 0; i < 30 && !awaitPath(logFile(0), true, 1); ++i)
                control("snapshot-now");
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

// A FIFO at the persisted history, at the next record and given to -r is
// never waited on.
TEST_F(DaemonTest, FifosAreNotWaitedOn) {
    const std::string r = root.path();
    fs::create_directories(r + "/pstorage/power");
    ASSERT_EQ(::mkfifo((r + "/pstorage/power/PowerHistoryFull").c_str(), 0600), 0);
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

// A full metric log file system: the record is reported, not counted, and
// leaves no empty file; once there is room again the log goes on.
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
    {
        std::ofstream filler(dir + "/filler", std::ios::binary);
        const std::string block(4096, 'f');
        for (int i = 0; i < 32 && filler.write(block.data(), block.size()).flush(); ++i) {
        }
    }
    control("snapshot-now");
    ASSERT_TRUE(zelo.awaitTrace("Can't write file: " + logFile(1))) << zelo.trace();
    EXPECT_FALSE(fs::exists(logFile(1)));
    EXPECT_EQ(readFile(dir + "/zelo_num.log"), std::string(1, '\x01'));
    EXPECT_EQ(readFile(dir + "/zelo_last.log"), std::string(1, '\x00'));

    fs::remove(dir + "/filler");
    control("snapshot-now");
    ASSERT_TRUE(zelo.awaitTrace(tagLine(4, 4), 2)) << zelo.trace();
    ASSERT_TRUE(fs::exists(logFile(1))) << zelo.trace();
    EXPECT_GT(fs::file_size(logFile(1)), 0u);
    EXPECT_EQ(readFile(dir + "/zelo_num.log"), std::string(1, '\x02'));
    EXPECT_EQ(zelo.terminate(), 15);
}

} // namespace
} // namespace zelo::test
