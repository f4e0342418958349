// zelo-dbus on a private system bus (a real dbus-daemon under the shipped
// policy), beside the real daemon and simulator, driven by two clients of
// the field's own: busctl and gdbus. And the daemon over the D-Bus platform
// library, the simulator serving the controller's services on that bus.
#include "daemon_process.h"

#include <nlohmann/json.hpp>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace zelo::test {
namespace {

constexpr const char *kService = "xyz.openbmc_project.Zelo";
constexpr const char *kSensors = "/xyz/openbmc_project/sensors/";
constexpr const char *kValue = "xyz.openbmc_project.Sensor.Value";
constexpr const char *kCapPath = "/xyz/openbmc_project/control/host0/power_cap";
constexpr const char *kCap = "xyz.openbmc_project.Control.Power.Cap";

// A program run in the background for the test, its output in a file.
class Background {
  public:
    Background(const std::vector<std::string> &argv, const std::string &out) {
        pid_ = ::fork();
        if (pid_ == 0) {
            if (std::freopen(out.c_str(), "w", stdout) == nullptr)
                ::_exit(126);
            std::vector<char *> cargv;
            for (const auto &a : argv)
                cargv.push_back(const_cast<char *>(a.c_str()));
            cargv.push_back(nullptr);
            ::execvp(cargv[0], cargv.data());
            ::_exit(127);
        }
    }
    ~Background() { stop(); }
    int stop() {
        int status = -1;
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            ::waitpid(pid_, &status, 0);
            pid_ = -1;
        }
        return status;
    }

  private:
    pid_t pid_ = -1;
};

bool waitFor(const std::function<bool()> &done, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (!done()) {
        if (Clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// Passes the socket platform's exchanges on to the simulator one connection
// at a time, counting those addressed to the firmware (network function
// 0x2E).
class CountingRelay {
  public:
    CountingRelay(const std::string &at, const std::string &sim) : sim_(sim) {
        listen_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_un addr = address(at);
        EXPECT_EQ(::bind(listen_, reinterpret_cast<const sockaddr *>(&addr), sizeof addr), 0);
        EXPECT_EQ(::listen(listen_, 16), 0);
        thread_ = std::thread([this] { run(); });
    }
    ~CountingRelay() {
        stop_ = true;
        thread_.join();
        ::close(listen_);
    }
    std::atomic<int> firmwareExchanges{0};

  private:
    static sockaddr_un address(const std::string &path) {
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        path.copy(addr.sun_path, sizeof addr.sun_path - 1);
        return addr;
    }
    static bool move(int from, int to, std::size_t len) {
        char buf[4096];
        while (len > 0) {
            const ssize_t n = ::read(from, buf, std::min(len, sizeof buf));
            if (n <= 0 || ::write(to, buf, static_cast<std::size_t>(n)) != n)
                return false;
            len -= static_cast<std::size_t>(n);
        }
        return true;
    }
    void run() {
        while (!stop_) {
            pollfd p{listen_, POLLIN, 0};
            if (::poll(&p, 1, 50) <= 0)
                continue;
            const int client = ::accept4(listen_, nullptr, nullptr, SOCK_CLOEXEC);
            relay(client);
            ::close(client);
        }
    }
    // One exchange: request head (netFn, cmd, length u16 LE) and data, then
    // the answer's length (u16 LE) and data.
    void relay(int client) {
        const int sim = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_un addr = address(sim_);
        unsigned char head[4];
        if (::connect(sim, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) == 0 &&
            ::read(client, head, 4) == 4) {
            if (head[0] == 0x2E)
                ++firmwareExchanges;
            unsigned char length[2];
            (void)(::write(sim, head, 4) == 4 && move(client, sim, head[2] | (head[3] << 8)) &&
                   ::read(sim, length, 2) == 2 && ::write(client, length, 2) == 2 &&
                   move(sim, client, length[0] | (length[1] << 8)));
        }
        ::close(sim);
    }
    std::string sim_;
    int listen_ = -1;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class BusTest : public DaemonTest {
  protected:
    void SetUp() override {
        DaemonTest::SetUp();
        if (IsSkipped())
            return;
        if (std::system("command -v dbus-daemon busctl gdbus >/dev/null") != 0)
            GTEST_SKIP() << "needs dbus-daemon, busctl and gdbus";
        const std::string socket = root.path() + "/bus";
        std::string conf = readFile(ZELO_BUS_CONFIG);
        for (const auto &[key, value] : {std::pair<std::string, std::string>{"@SOCKET@", socket},
                                         {"@POLICY@", ZELO_BUS_POLICY}})
            conf.replace(conf.find(key), key.size(), value);
        std::ofstream(root.path() + "/bus.conf") << conf;
        // Other users reach the bus as on a controller.
        ::chmod(root.path().c_str(), 0755);
        startBus();
        if (HasFatalFailure())
            return;
        address_ = "unix:path=" + socket;
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
        fs::create_directories(root.path() + "/run");
    }
    // Starts the private bus (again) on its socket.
    void startBus() {
        const std::string socket = root.path() + "/bus";
        fs::remove(socket);
        bus_ = std::make_unique<Background>(
            std::vector<std::string>{"dbus-daemon", "--nofork",
                                     "--config-file=" + root.path() + "/bus.conf"},
            root.path() + "/bus.out");
        ASSERT_TRUE(waitFor([&] { return fs::exists(socket); }, std::chrono::seconds(10)));
    }
    void TearDown() override {
        service_.reset();
        bus_.reset();
        ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    }
    void startService() {
        service_ = std::make_unique<Background>(std::vector<std::string>{ZELO_DBUS_PATH},
                                                root.path() + "/zelo-dbus.out");
        ASSERT_TRUE(waitFor(
            [&] {
                return busctl({"status", kService}).status == 0;
            },
            std::chrono::seconds(10)));
    }
    static RunResult busctl(std::vector<std::string> args) {
        args.insert(args.begin(), "--system");
        return runProgram("busctl", args);
    }
    // A double property as busctl prints it ("d 350"); NaN prints as "nan".
    static double number(const std::string &path, const char *iface, const char *name) {
        const RunResult r = busctl({"get-property", kService, path, iface, name});
        return r.status == 0 && r.out.size() > 2 ? std::strtod(r.out.c_str() + 2, nullptr) : -1;
    }
    static std::string property(const std::string &path, const char *iface, const char *name) {
        return busctl({"get-property", kService, path, iface, name}).out;
    }
    // Sets the cap with gdbus, the second client, which names the error.
    static RunResult setCap(const std::string &watts, const std::vector<std::string> &as = {}) {
        std::vector<std::string> args = as;
        for (const std::string a :
             {"gdbus", "call", "--system", "--dest", kService, "--object-path", kCapPath,
              "--method", "org.freedesktop.DBus.Properties.Set", kCap, "PowerCap"})
            args.push_back(a);
        args.push_back("<uint32 " + watts + ">");
        const std::string program = args.front();
        args.erase(args.begin());
        return runProgram(program, args);
    }
    std::string zelo() const { return root.path() + "/tmp/zelo_log/zelo_last.log"; }
    std::unique_ptr<Background> bus_, service_;
    std::string address_;
};

// The daemon linked with the D-Bus platform library, against the simulator
// serving the same firmware on the private bus.
class PlatformBusTest : public BusTest {
  protected:
    void SetUp() override {
        BusTest::SetUp();
        if (!IsSkipped() && !HasFatalFailure())
            configure("channel = 1\ntimeout-ms = 1500\n");
    }
    void configure(const std::string &text) {
        fs::create_directories(root.path() + "/etc/zelo");
        std::ofstream(root.path() + "/etc/zelo/platform-dbus.conf") << text;
    }
    std::unique_ptr<SimProcess> simOnBus(const std::string &scenario,
                                         std::vector<std::string> args = {}) {
        args.insert(args.end(), {"--bus", address_});
        return std::make_unique<SimProcess>(root.path(), scenario, args);
    }
    std::unique_ptr<DaemonProcess> daemon(const char *rate = "+0 x20") {
        return std::make_unique<DaemonProcess>(root.path(), std::vector<std::string>{}, rate,
                                               ZELO_DAEMON_DBUS_PATH);
    }
    static nlohmann::json zeloctl(const std::vector<std::string> &args) {
        const RunResult r = runProgram(ZELO_ZELOCTL_PATH, args);
        return nlohmann::json::parse(r.status == 0 ? r.out : "{}");
    }
};

// The socket tests' checks of the daemon's road, over the bus: records
// written, power read back as the scenario says, the history fed.
TEST_F(PlatformBusTest, TheDaemonRecordsTheScenarioOverTheBus) {
    // Time runs 200 times faster for the daemon, its time-outs included.
    configure("timeout-ms = 60000\n");
    auto sim = simOnBus(scenarioHead + "power constant 350\nsnapshot-period 30000\n",
                        {"--time-scale", "200"});
    auto zelo = daemon("+0 x200");
    // Until the history holds half an hour of 150-second samples.
    ASSERT_TRUE(waitFor(
        [&] {
            return zeloctl({"--json", "history"})["Items"].size() >= 12;
        },
        std::chrono::seconds(60)))
        << zelo->trace();
    EXPECT_EQ(zelo->terminate(), 15);
    EXPECT_TRUE(fs::exists(logFile(0)));
    EXPECT_EQ(zelo->journal(), "") << "nothing to complain about";
    const auto power = zeloctl({"--json", "power", "--window", "1h"});
    SCOPED_TRACE(power.dump());
    EXPECT_EQ(power["DC"]["MinConsumedWatts"], 350);
    EXPECT_EQ(power["DC"]["AverageConsumedWatts"], 350);
    EXPECT_EQ(power["DC"]["MaxConsumedWatts"], 400);
    EXPECT_GT(power["AverageConsumedWatts"].get<double>(), 350);
}

// A limit changed in the firmware: one entry in the logging service, its
// old and new values in the additional data.
TEST_F(PlatformBusTest, APowerCapChangeBecomesOneLogEntryWithItsValues) {
    auto sim = simOnBus(scenarioHead + "snapshot-period 86400000\n");
    auto zelo = daemon();
    ASSERT_TRUE(zelo->awaitTrace(tagLine(1, 1))) << zelo->trace();
    control("snapshot-now");
    ASSERT_TRUE(zelo->awaitTrace(tagLine(2, 2))) << zelo->trace();
    for (const char *line : {"reg 0 7 2 700", "snapshot-now"})
        control(line);
    ASSERT_TRUE(zelo->awaitTrace(tagLine(3, 3))) << zelo->trace();
    control("snapshot-now");
    ASSERT_TRUE(zelo->awaitTrace(tagLine(4, 4))) << zelo->trace();
    EXPECT_EQ(zelo->terminate(), 15);
    const std::string entries = readFile(root.path() + "/var/log/zelo-fwsim/entries.log");
    EXPECT_EQ(occurrences(entries, "EVENT_TYPE=PowerCapM"), 1) << entries;
    EXPECT_NE(entries.find("xyz.openbmc_project.Logging.Entry.Level.Informational "
                           "xyz.openbmc_project.Zelo.Event.PowerCapMaxChanged EVENT_ID=115 "
                           "EVENT_TYPE=PowerCapMaxChanged OLD_VALUE=650 NEW_VALUE=700\n"),
              std::string::npos)
        << entries;
}

// A blade's inlet readings come from the temperature sensors the object
// mapper finds (by path) or the configuration names (in its order), and the
// records list them in that order.
TEST_F(PlatformBusTest, ABladesInletsComeFromTheSensorsFoundOrNamed) {
    const std::string named =
        "sensor = xyz.openbmc_project.Zelo.FwSim /xyz/openbmc_project/sensors/temperature/";
    const struct {
        std::string config;
        nlohmann::json readings;
    } cases[] = {
        {"", R"([{"SensorIndex":1,"Temperature":"Unavailable"},
                 {"SensorIndex":0,"Temperature":"24 degrees C"}])"_json},
        {named + "Inlet_Temp\n" + named + "Inlet_1_Temp\n" + named + "Inlet_2_Temp\n",
         R"([{"SensorIndex":0,"Temperature":"24 degrees C"},
             {"SensorIndex":1,"Temperature":"Unavailable"}])"_json},
    };
    ::setenv("RUX_FAMILY", "blade", 1);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.config);
        configure(c.config);
        fs::remove_all(root.path() + "/tmp/zelo_trace");
        auto sim = simOnBus("blade yes\nsnapshot-period 86400000\n"
                            "sensor \"Inlet Temp\" 0 24 degrees C\n"
                            "sensor \"Inlet 1 Temp\" 0 Unavailable\n"
                            "sensor \"CPU Temp\" 0 58 degrees C\n"
                            "sensor \"Inlet 2 Temp\" 1 0 degrees C\n");
        auto zelo = daemon();
        ASSERT_TRUE(zelo->awaitTrace(tagLine(1, 1))) << zelo->trace();
        control("snapshot-now");
        ASSERT_TRUE(zelo->awaitTrace(tagLine(2, 2))) << zelo->trace();
        EXPECT_EQ(zelo->terminate(), 15);
        EXPECT_EQ(zeloctl({"--json", "metrics"})["Records"][0]["InletReadings"], c.readings);
    }
    ::unsetenv("RUX_FAMILY");
}

// A configuration that cannot be taken is said so, on standard error and in
// the trace, and the defaults apply: the daemon records all the same. The
// file is read as the daemon reads any: a FIFO there is not waited on.
TEST_F(PlatformBusTest, AConfigurationNotTakenIsReportedAndTheDefaultsApply) {
    const std::string conf = root.path() + "/etc/zelo/platform-dbus.conf";
    const struct {
        const char *why;
        std::function<void()> lay;
    } cases[] = {
        {"missing", [&] { fs::remove(conf); }},
        {"line 2: unknown key 'chanel'", [&] { configure("channel = 1\nchanel = 2\n"); }},
        {"not a regular file", [&] { ASSERT_EQ(::mkfifo(conf.c_str(), 0644), 0); }},
    };
    auto sim = simOnBus(scenarioHead);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        fs::remove(conf);
        c.lay();
        fs::remove_all(root.path() + "/tmp/zelo_trace");
        auto zelo = daemon();
        ASSERT_TRUE(zelo->awaitTrace("psBuffer->u16Tag is")) << zelo->trace();
        const std::string said = conf + ": " + c.why + "; the defaults apply";
        EXPECT_TRUE(zelo->awaitJournal("zelo platform: " + said)) << zelo->journal();
        EXPECT_NE(zelo->trace().find("[ERROR] \"ReadPlatformConfiguration\": " + said),
                  std::string::npos)
            << zelo->trace();
        EXPECT_EQ(zelo->terminate(), 15);
    }
}

// busctl monitor, a client of the field's own, sees the bridge calls of one
// new-snapshot cycle: as many as the socket platform's exchanges. The cycle
// runs alone between two holds of the metric log lock.
TEST_F(PlatformBusTest, ACycleMakesAsManyBridgeCallsAsSocketExchanges) {
    auto sim = simOnBus(scenarioHead + "snapshot-period 86400000\n");
    int tag = 1;
    const auto newSnapshotCycle = [&](DaemonProcess &zelo, const std::function<void()> &begin) {
        std::optional<LockHeld> lock(std::in_place, root.path());
        control("snapshot-now");
        ++tag;
        begin();
        lock.reset();
        EXPECT_TRUE(zelo.awaitTrace(tagLine(tag, tag - 1))) << zelo.trace();
        lock.emplace(root.path()); // once the cycle has let go of it
    };

    int exchanges = 0;
    {
        const std::string relayPath = root.path() + "/relay.sock";
        CountingRelay relay(relayPath, root.path() + "/run/zelo-fwsim.sock");
        ::setenv("ZELO_IPMI_SOCKET", relayPath.c_str(), 1);
        DaemonProcess zelo(root.path());
        ::unsetenv("ZELO_IPMI_SOCKET");
        ASSERT_TRUE(zelo.awaitTrace(tagLine(1, 1))) << zelo.trace();
        newSnapshotCycle(zelo, [&] { relay.firmwareExchanges = 0; });
        exchanges = relay.firmwareExchanges;
        EXPECT_EQ(zelo.terminate(), 15);
    }

    // A call of the test's own before and after the cycle shows that the
    // monitor sees everything between them.
    const std::string seen = root.path() + "/monitor";
    Background monitor(
        {"busctl", "--system", "monitor", "--match", "type='method_call',member='sendRequest'"},
        seen);
    int marks = 0;
    const auto mark = [&] {
        busctl({"call", "xyz.openbmc_project.Ipmi.Channel.Ipmb",
                "/xyz/openbmc_project/Ipmi/Channel/Ipmb", "org.openbmc.Ipmb", "sendRequest",
                "yyyyay", "9", "0", "0", "0", "0"});
        ++marks;
        // busctl shows the arguments one a line, the channel first.
        return waitFor(
            [&] { return occurrences(readFile(seen), "\"yyyyay\" {\n          BYTE 9;") >= marks; },
            std::chrono::seconds(10));
    };
    fs::remove_all(root.path() + "/tmp/zelo_trace");
    auto zelo = daemon();
    ASSERT_TRUE(zelo->awaitTrace(tagLine(tag, tag))) << zelo->trace();
    int before = 0;
    newSnapshotCycle(*zelo, [&] {
        ASSERT_TRUE(mark());
        before = occurrences(readFile(seen), "Member=sendRequest");
    });
    ASSERT_TRUE(mark());
    const int calls = occurrences(readFile(seen), "Member=sendRequest") - before - 1;
    EXPECT_EQ(zelo->terminate(), 15);
    EXPECT_GT(exchanges, 0);
    EXPECT_EQ(calls, exchanges);
    std::printf("sendRequest calls in a new-snapshot cycle: %d (socket exchanges: %d)\n", calls,
                exchanges);
}

// The firmware's faults cross the bus as they cross the socket: while one
// lasts the daemon's cycles fail and go on; afterwards it records again.
TEST_F(PlatformBusTest, TheDaemonOutlivesTheFaultsOfTheFirmwareTheBridgeAndTheBus) {
    auto sim = simOnBus(scenarioHead + "snapshot-period 86400000\n");
    auto zelo = daemon();
    ASSERT_TRUE(zelo->awaitTrace(tagLine(1, 1))) << zelo->trace();
    const struct {
        const char *fault;
        std::function<void()> begin, end;
    } faults[] = {
        {"completion code", [&] { control("present no"); }, [&] { control("present yes"); }},
        {"time-out", [&] { ::kill(sim->pid(), SIGSTOP); }, [&] { ::kill(sim->pid(), SIGCONT); }},
        {"bridge gone", [&] { control("bridge no"); }, [&] { control("bridge yes"); }},
        {"bus restart", [&] { bus_.reset(); }, [&] { startBus(); }},
    };
    const std::string failed = "Get Snapshot buffer from ZELO is fail.";
    int tag = 1;
    for (const auto &f : faults) {
        SCOPED_TRACE(f.fault);
        const int failures = occurrences(zelo->trace(), failed);
        f.begin();
        const bool cycling = zelo->awaitTrace(failed, failures + 2);
        f.end();
        ASSERT_TRUE(cycling) << zelo->trace();
        control("snapshot-now");
        ++tag;
        ASSERT_TRUE(zelo->awaitTrace(tagLine(tag, tag))) << zelo->trace();
    }
    EXPECT_EQ(zelo->terminate(), 15);
}

// The bus shows what zeloctl shows, and says so within two seconds of a new
// record; with the daemon gone, nothing is available.
TEST_F(BusTest, FiguresFollowTheRecordsAndGoWithTheDaemon) {
    SimProcess sim(root.path(), scenarioHead + "power constant 350\nsnapshot-period 86400000\n");
    auto daemon = std::make_unique<DaemonProcess>(root.path());
    ASSERT_TRUE(daemon->awaitTrace(tagLine(1, 1))) << daemon->trace();
    startService();
    const std::string ac = std::string(kSensors) + "power/total_ac";
    EXPECT_EQ(property(ac, "xyz.openbmc_project.State.Decorator.Availability", "Available"),
              "b false\n")
        << "no record yet";
    Background monitor({"busctl", "--system", "monitor", kService}, root.path() + "/monitor");
    std::this_thread::sleep_for(std::chrono::milliseconds(300)); // the monitor's match is set

    control("snapshot-now");
    ASSERT_TRUE(waitFor([&] { return fs::exists(zelo()); }, std::chrono::seconds(30)));
    const auto written = Clock::now();
    ASSERT_TRUE(waitFor(
        [&] {
            const std::string seen = readFile(root.path() + "/monitor");
            return seen.find("Path=" + ac) != std::string::npos &&
                   seen.find("PropertiesChanged") != std::string::npos;
        },
        std::chrono::seconds(5)));
    EXPECT_LT(Clock::now() - written, std::chrono::seconds(2));

    const RunResult power = runProgram(ZELO_ZELOCTL_PATH, {"--json", "power"});
    ASSERT_EQ(power.status, 0) << power.err;
    const auto figures = nlohmann::json::parse(power.out);
    EXPECT_EQ(number(ac, kValue, "Value"), figures["PowerConsumedWatts"].get<double>());
    EXPECT_EQ(number(std::string(kSensors) + "power/total_dc", kValue, "Value"),
              figures["DC"]["PowerConsumedWatts"].get<double>());
    EXPECT_EQ(property(ac, kValue, "Unit"), "s \"xyz.openbmc_project.Sensor.Value.Unit.Watts\"\n");
    EXPECT_EQ(property(std::string(kSensors) + "energy/total_ac", kValue, "Unit"),
              "s \"xyz.openbmc_project.Sensor.Value.Unit.Joules\"\n");
    const RunResult tree = busctl({"tree", "--list", kService});
    for (const char *path : {"power/cpu", "temperature/inlet", "utilization/io", "energy/total_ac"})
        EXPECT_NE(tree.out.find(std::string(kSensors) + path + "\n"), std::string::npos) << path;

    daemon->terminate();
    EXPECT_TRUE(waitFor(
        [&] {
            return property(ac, "xyz.openbmc_project.State.Decorator.Availability", "Available") ==
                   "b false\n";
        },
        std::chrono::seconds(2)));
    EXPECT_TRUE(std::isnan(number(ac, kValue, "Value")));
}

// A cap set on the bus reaches the firmware's register; a cap out of the
// firmware's limits and a caller who is not root are refused.
TEST_F(BusTest, TheCapIsSetThroughTheBusWithinTheLimitsAndOnlyByRoot) {
    SimProcess sim(root.path(), scenarioHead + "snapshot-period 86400000\n");
    DaemonProcess daemon(root.path());
    ASSERT_TRUE(daemon.awaitTrace(tagLine(1, 1))) << daemon.trace();
    startService();
    EXPECT_EQ(property(kCapPath, kCap, "MaxPowerCapValue"), "u 650\n");
    EXPECT_EQ(property(kCapPath, kCap, "PowerCapEnable"), "b true\n");

    const RunResult low = setCap("20");
    EXPECT_NE(low.status, 0);
    EXPECT_NE(low.err.find("xyz.openbmc_project.Common.Error.InvalidArgument"), std::string::npos)
        << low.err;
    if (::geteuid() == 0) {
        const RunResult other =
            setCap("500", {"setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"});
        EXPECT_NE(other.err.find("org.freedesktop.DBus.Error.AccessDenied"), std::string::npos)
            << other.err;
    }
    const RunResult set = setCap("500");
    ASSERT_EQ(set.status, 0) << set.err;
    EXPECT_EQ(runProgram(ZELO_ZELOCTL_PATH, {"read", "power-cap"}).out, "power-cap: watts=500\n");
    EXPECT_EQ(property(kCapPath, kCap, "PowerCap"), "u 500\n");
}

} // namespace
} // namespace zelo::test
