// zelo-dbus on a private system bus (a real dbus-daemon under the shipped
// policy), beside the real daemon and simulator, driven by two clients of
// the field's own: busctl and gdbus.
#include "daemon_process.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdlib>
#include <sys/stat.h>

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
        bus_ = std::make_unique<Background>(
            std::vector<std::string>{"dbus-daemon", "--nofork",
                                     "--config-file=" + root.path() + "/bus.conf"},
            root.path() + "/bus.out");
        ASSERT_TRUE(waitFor([&] { return fs::exists(socket); }, std::chrono::seconds(10)));
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + socket).c_str(), 1);
        fs::create_directories(root.path() + "/run");
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
};

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
