// Changing the simulated firmware while it runs: control lines in-process on
// a manual clock, and through the socket server.
#include "model.h"
#include "platform/ipmi_wire.h"
#include "scenario.h"
#include "server.h"

#include <zelo/firmware.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace zelo::sim;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t kId[3] = {ZELO_IANA_ID & 0xFF, (ZELO_IANA_ID >> 8) & 0xFF,
                                 (ZELO_IANA_ID >> 16) & 0xFF};
constexpr std::uint8_t kHandle = 5;
// Built-in histogram: 12 four-byte counters after status and DC energy.
constexpr std::size_t kEventAt = 9 + 12 * 4;

std::uint64_t be(const Bytes &b, std::size_t at, std::size_t width) {
    std::uint64_t v = 0;
    for (std::size_t i = 0; i < width; ++i)
        v = (v << 8) | b.at(at + i);
    return v;
}

Bytes controlFrame(const std::string &line) {
    return Bytes(line.begin(), line.end());
}

class Sim {
  public:
    explicit Sim(const std::string &scenario = "")
        : fw_(parsed(scenario), [this] { return ms_; }) {}
    Sim(const Sim &) = delete; // the clock points back here
    Sim &operator=(const Sim &) = delete;

    void at(std::uint64_t ms) { ms_ = kBoot + ms; }
    Bytes control(const std::string &line) {
        return fw_.handle(zelo::wire::kControlNetFn, zelo::wire::kControlCmd, controlFrame(line));
    }
    void apply(const std::string &line) { ASSERT_EQ(control(line), Bytes{0x00}) << line; }
    std::string refusal(const std::string &line) {
        const Bytes a = control(line);
        EXPECT_EQ(a.at(0), 0xCC) << line;
        return std::string(a.begin() + 1, a.end());
    }
    Bytes raw(std::uint8_t netFn, std::uint8_t cmd, const Bytes &req) {
        return fw_.handle(netFn, cmd, req);
    }
    Bytes invoke(Bytes req) {
        req.insert(req.begin(), {kId[0], kId[1], kId[2], kHandle});
        return fw_.handle(NETFN_DUV, CMDID_ZELO_INVOKE_ELEMENT_METHOD, req);
    }
    std::uint64_t reg(std::uint8_t element, std::uint8_t id, std::uint8_t n) {
        const Bytes a = invoke({element, ZELO_METHOD_READ_REGISTER, id, n});
        EXPECT_EQ(a.at(0), 0);
        return be(a, 4, n);
    }
    // Tag, then the buffer.
    std::pair<std::uint16_t, Bytes> snapshot() {
        const Bytes a = invoke({kSnapshotElement, ZELO_METHOD_READ_BUFFER, 0, 0, 0xFF, 0xFF});
        EXPECT_EQ(a.at(0), 0);
        return {static_cast<std::uint16_t>(be(a, 4, 2)), Bytes(a.begin() + 8, a.end())};
    }

  private:
    static Scenario parsed(const std::string &text) {
        Scenario s;
        std::string error;
        EXPECT_TRUE(parseScenario(text, "t.scn", s, error)) << error;
        return s;
    }
    static constexpr std::uint64_t kBoot = 5'000'000;
    std::uint64_t ms_ = kBoot;
    Firmware fw_;
};

TEST(FwsimControl, ScenarioLinesApplyToTheRunningFirmware) {
    Sim sim;
    sim.apply("reg 0 7 2 700");
    EXPECT_EQ(sim.reg(7, 2, 2), 700u);
    sim.apply("fault 0 7 0x82 0xC3");
    EXPECT_EQ(sim.invoke({7, ZELO_METHOD_READ_REGISTER, 2, 2}).at(0), 0xC3);
    sim.apply("  # nothing but a comment");

    // Absent firmware still takes control, so it can come back.
    sim.apply("present no");
    EXPECT_EQ(sim.invoke({7, ZELO_METHOD_READ_REGISTER, 2, 2}), Bytes{0xC1});
    sim.apply("present yes");
    EXPECT_EQ(sim.invoke({0, ZELO_METHOD_READ_REGISTER, 9, 1}).at(0), 0);
}

TEST(FwsimControl, RefusalsSayWhyAndChangeNothing) {
    Sim sim;
    EXPECT_EQ(sim.refusal("reg 0 7 2 70000"), "value 70000 too wide for register 7/2 (2 bytes)");
    EXPECT_EQ(sim.refusal("bogus 1"), "unknown keyword 'bogus'");
    EXPECT_EQ(sim.refusal("tag 65536"), "65536 out of range (0-65535)");
    EXPECT_EQ(sim.refusal("snapshot-now please"), "usage: snapshot-now");
    EXPECT_EQ(sim.refusal("histogram 100 50 10 2"),
              "the histogram cannot change while the firmware runs");
    EXPECT_EQ(sim.refusal("reg 0 7 2 1\nreg 0 7 4 1"), "one line per control request");
    EXPECT_EQ(sim.reg(7, 2, 2), 650u);
    EXPECT_EQ(sim.reg(7, 4, 2), 200u);
    EXPECT_EQ(sim.raw(zelo::wire::kControlNetFn, 1, {}).at(0), 0xCC);

    // The runtime-only lines make no sense in a file.
    Scenario s;
    std::string error;
    EXPECT_FALSE(parseScenario("tag 5\n", "f.scn", s, error));
    EXPECT_EQ(error, "f.scn:1: 'tag' works only on a running simulator (zelo-fwsim --control)");
}

TEST(FwsimControl, StatusAndEventWordReachTheNextSnapshotOnly) {
    Sim sim("status-byte 0x02\n");
    sim.at(1000);
    sim.apply("status-byte 0x32");
    sim.apply("event-word 8");
    auto [tag, buffer] = sim.snapshot();
    EXPECT_EQ(tag, 1);
    EXPECT_EQ(buffer.at(0), 0x02) << "the snapshot already taken keeps its byte";
    EXPECT_EQ(be(buffer, kEventAt, 2), 0u);

    sim.apply("snapshot-now");
    std::tie(tag, buffer) = sim.snapshot();
    EXPECT_EQ(tag, 2);
    EXPECT_EQ(buffer.at(0), 0x32);
    EXPECT_EQ(be(buffer, kEventAt, 2), 8u);

    sim.at(30000); // the periodic snapshot carries them too
    std::tie(tag, buffer) = sim.snapshot();
    EXPECT_EQ(tag, 3);
    EXPECT_EQ(buffer.at(0), 0x32);
}

TEST(FwsimControl, TagRestartAndSnapshotNow) {
    Sim sim("power constant 300\n");
    sim.apply("tag 5");
    EXPECT_EQ(sim.snapshot().first, 5);
    sim.at(30000);
    EXPECT_EQ(sim.snapshot().first, 6);
    sim.apply("snapshot-now");
    EXPECT_EQ(sim.snapshot().first, 7);

    sim.at(40000);
    sim.apply("restart-now");
    auto [tag, buffer] = sim.snapshot();
    EXPECT_EQ(tag, 1);
    EXPECT_EQ(be(buffer, 1, 8), 0u) << "a restart zeroes the counters";
    sim.at(70000); // one period after the restart
    std::tie(tag, buffer) = sim.snapshot();
    EXPECT_EQ(tag, 2);
    EXPECT_EQ(be(buffer, 1, 8), 300u * 30000);

    sim.apply("tag 65535");
    sim.apply("snapshot-now");
    EXPECT_EQ(sim.snapshot().first, 1) << "0 is skipped on wrap-around";
}

TEST(FwsimControl, PowerChangedMidIntervalCountsFromThatInstant) {
    Sim sim("power constant 300\n");
    sim.at(10500);
    sim.apply("power constant 600");
    sim.at(30000);
    const auto [tag, buffer] = sim.snapshot();
    EXPECT_EQ(tag, 2);
    EXPECT_EQ(be(buffer, 1, 8), 300u * 10500 + 600u * 19500);
    // Seconds 0-10 sampled at 300 W (bucket 5), 11-29 at 600 W (bucket 11).
    EXPECT_EQ(be(buffer, 9 + 5 * 4, 4), 11u);
    EXPECT_EQ(be(buffer, 9 + 11 * 4, 4), 19u);
}

TEST(FwsimControl, RestartTimeSetWhileRunningIsArmedOnce) {
    Sim sim;
    sim.at(40000);
    EXPECT_EQ(sim.snapshot().first, 2);
    sim.apply("restart-at 42000"); // simulator time, a little after now
    sim.at(45000);
    EXPECT_EQ(sim.snapshot().first, 1);
    sim.apply("status-byte 2"); // another change does not restart it again
    sim.at(46000);
    sim.apply("snapshot-now");
    EXPECT_EQ(sim.snapshot().first, 2);
}

// Client and server in one thread: the frame waits in the socket buffer.
TEST(FwsimControl, TheServerAnswersControlWithoutTheFirmwareDelay) {
    char dir[] = "/tmp/fwsim-control-XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/sim.sock";
    std::atomic<bool> stop{false};
    Firmware fw{[] {
        Scenario s;
        std::string error;
        EXPECT_TRUE(parseScenario("delay 2000\n", "t.scn", s, error));
        return s;
    }()};
    {
        Server server(fw, stop);
        std::string error;
        ASSERT_TRUE(server.listen(path, error)) << error;
        for (const auto &[line, answer] : std::vector<std::pair<std::string, Bytes>>{
                 {"delay 0", {1, 0, 0x00}}, {"tag x", {15, 0, 0xCC}}}) {
            const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_un addr{};
            addr.sun_family = AF_UNIX;
            path.copy(addr.sun_path, sizeof addr.sun_path - 1);
            ASSERT_EQ(::connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr), 0);
            Bytes frame{zelo::wire::kControlNetFn, zelo::wire::kControlCmd,
                        static_cast<std::uint8_t>(line.size()), 0};
            frame.insert(frame.end(), line.begin(), line.end());
            ASSERT_EQ(::send(fd, frame.data(), frame.size(), 0),
                      static_cast<ssize_t>(frame.size()));
            const auto start = std::chrono::steady_clock::now();
            EXPECT_TRUE(server.serveOnce(1000));
            EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1000));
            std::uint8_t got[64];
            const ssize_t n = ::recv(fd, got, sizeof got, 0);
            ASSERT_GE(n, 3);
            EXPECT_EQ(Bytes(got, got + 3), answer) << line;
            if (answer[2] == 0xCC) {
                EXPECT_EQ(std::string(got + 3, got + n), "bad number 'x'");
            }
            ::close(fd);
        }
    }
    EXPECT_EQ(fw.responseDelayMs(), 0u);
    std::filesystem::remove_all(dir);
}

} // namespace
