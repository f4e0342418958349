// The real zelo daemon against the real simulator, its time accelerated
// twentyfold by libfaketime, so that a ten-second cycle takes half a second.
#include "daemon_process.h"

#include <zelo/metriclog.h>

#include <nlohmann/json.hpp>

#include <ctime>
#include <fcntl.h>

namespace zelo::test {
namespace {

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

// The 16-bit tag wraps every few weeks, to 1 here and to 0 or anything smaller
// on other firmware, while time and totals run on: new snapshots, logged and
// published as any other.
TEST_F(DaemonTest, ATagThatFallsWhileTotalsGrowIsANewSnapshot) {
    SimProcess sim(root.path(), scenarioHead + "power constant 350\nsnapshot-period 86400000\n");
    control("tag 65534");
    DaemonProcess zelo(root.path());
    ASSERT_TRUE(zelo.awaitTrace(tagLine(65534, 65534))) << zelo.trace();
    control("snapshot-now");
    ASSERT_TRUE(zelo.awaitTrace(tagLine(65535, 65535))) << zelo.trace();
    control("snapshot-now");
    ASSERT_TRUE(zelo.awaitTrace(tagLine(1, 1))) << zelo.trace();
    {
        LockHeld lock(root.path());
        control("snapshot-now");
        control("tag 0");
    }
    ASSERT_TRUE(zelo.awaitTrace(tagLine(0, 0))) << zelo.trace();
    EXPECT_EQ(occurrences(zelo.trace(), "Reset the ZELO."), 0);
    for (int n = 0; n < 3; ++n)
        EXPECT_TRUE(fs::exists(logFile(n))) << n;
    EXPECT_EQ(readFile(root.path() + "/tmp/zelo_log/zelo_num.log"), std::string(1, '\x03'));
    int watts = -1;
    EXPECT_NE(kiv_config_get_int("ZELO_total_dc_power_in_use_Avg", &watts), 0);
    EXPECT_EQ(watts, 350);
    EXPECT_EQ(zelo.terminate(), 15);
}

// Another process named zelo, an administrator's `zelo -P | less` say, is no
// daemon of this root; a second daemon is.
TEST_F(DaemonTest, OnlyASecondInstanceExitsAndTermSavesBothHistories) {
    fs::copy_file("/bin/sleep", root.path() + "/zelo");
    const pid_t other = ::fork();
    if (other == 0) {
        ::execl((root.path() + "/zelo").c_str(), "zelo", "30", static_cast<char *>(nullptr));
        ::_exit(127);
    }
    SimProcess sim(root.path(), scenarioHead);
    DaemonProcess first(root.path());
    ASSERT_TRUE(first.awaitTrace("psBuffer->u16Tag is")) << first.trace();
    EXPECT_EQ(readFile(root.path() + "/run/zelo.pid"), std::to_string(first.pid()) + "\n");
    ::kill(other, SIGKILL);
    ::waitpid(other, nullptr, 0);

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
        if (::write(ready[1], "1", 1) != 1)
            ::_exit(1);
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
                                std::to_string(reader) +
                                ", which is gone or younger than the lock, removed"));
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
        // The records' trough and peak: the edges of the 350-399 W bucket.
        const auto &dc = power["DC"];
        EXPECT_EQ(dc["MinConsumedWatts"], 350);
        EXPECT_EQ(dc["AverageConsumedWatts"], 350);
        EXPECT_EQ(dc["MaxConsumedWatts"], 400);
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

} // namespace
} // namespace zelo::test
