// The firmware simulator in-process on a clock the test steps: what the
// library's, the daemon's and the integration tests build on.
#include "model.h"
#include "scenario.h"

#include <zelo/firmware.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace zelo::sim;
using Bytes = std::vector<std::uint8_t>;

const Bytes kId = {ZELO_IANA_ID & 0xFF, (ZELO_IANA_ID >> 8) & 0xFF, ZELO_IANA_ID >> 16};
constexpr std::uint8_t kServer = 5; // built-in handles
constexpr std::uint8_t kExpansion = 9;
const auto kScenarios = std::filesystem::path(ZELO_SCENARIO_DIR);

// Reserving first keeps GCC 12's -Warray-bounds quiet about the insert.
Bytes cat(Bytes head, const Bytes &tail) {
    head.reserve(head.size() + tail.size());
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}
Bytes ok(const Bytes &data = {}) {
    return cat(cat({0}, kId), data);
}
Bytes failed(std::uint8_t cc) {
    return cat({cc}, kId);
}
std::uint64_t be(const Bytes &b, std::size_t at, std::size_t width) {
    std::uint64_t v = 0;
    for (std::size_t i = 0; i < width; ++i)
        v = (v << 8) | b.at(at + i);
    return v;
}

Bytes method(std::uint8_t handle, std::uint8_t element, int m, const Bytes &tail = {}) {
    return cat(cat(kId, {handle, element, static_cast<std::uint8_t>(m)}), tail);
}
Bytes readReg(std::uint8_t handle, std::uint8_t element, std::uint8_t reg, std::uint8_t n) {
    return method(handle, element, ZELO_METHOD_READ_REGISTER, {reg, n});
}
Bytes writeReg(std::uint8_t handle, std::uint8_t element, std::uint8_t reg, const Bytes &value) {
    return method(handle, element, ZELO_METHOD_WRITE_REGISTER,
                  cat({reg, static_cast<std::uint8_t>(value.size())}, value));
}
Bytes entry(std::uint8_t handle, std::uint8_t buffer, std::uint8_t index,
            std::uint8_t wanted = 0xFF) {
    return method(handle, kPowerSupplyElement, ZELO_METHOD_READ_INDEXED_BUFFER,
                  {buffer, index, wanted});
}

Scenario parsed(const std::string &text) {
    Scenario s;
    std::string error;
    EXPECT_TRUE(parseScenario(text, "t.scn", s, error)) << error;
    return s;
}
Scenario loaded(const char *file) {
    Scenario s;
    std::string error;
    EXPECT_TRUE(loadScenarioFile((kScenarios / file).string(), s, error)) << error;
    return s;
}

// A firmware whose clock the test steps; it boots at a non-zero reading.
class Sim {
  public:
    explicit Sim(const std::string &scenario = "") : fw(parsed(scenario), [this] { return ms_; }) {}
    Sim(const Sim &) = delete; // the clock points back here
    Sim &operator=(const Sim &) = delete;

    void at(std::uint64_t firmwareMs) { ms_ = kBoot + firmwareMs; }
    Bytes invoke(const Bytes &req) {
        return fw.handle(NETFN_DUV, CMDID_ZELO_INVOKE_ELEMENT_METHOD, req);
    }
    Bytes read(std::uint16_t offset, std::uint16_t wanted) {
        return invoke(
            method(kServer, kSnapshotElement, ZELO_METHOD_READ_BUFFER,
                   {static_cast<std::uint8_t>(offset >> 8), static_cast<std::uint8_t>(offset),
                    static_cast<std::uint8_t>(wanted >> 8), static_cast<std::uint8_t>(wanted)}));
    }
    // The whole buffer in one read: tag, length, data.
    Bytes buffer() {
        const Bytes rsp = read(0, 0xFFFF);
        EXPECT_EQ(rsp.at(0), 0);
        return Bytes(rsp.begin() + 4, rsp.end());
    }
    std::uint16_t tag() { return static_cast<std::uint16_t>(be(buffer(), 0, 2)); }
    Bytes xpm(std::uint8_t buffer, std::uint8_t selector) {
        return fw.handle(NETFN_DUV, CMDID_ZELO_XPM_EXTENSIONS,
                         cat(kId, {4, buffer, 0, 0, selector, 1, 0, 1}));
    }
    void apply(const std::string &line) {
        std::string error;
        ASSERT_TRUE(fw.control(line, error)) << line << ": " << error;
    }

  private:
    static constexpr std::uint64_t kBoot = 7'000'000;
    std::uint64_t ms_ = kBoot;

  public:
    Firmware fw;
};

// Offsets in the buffer: a 4-byte tag/length head, status, DC energy, histogram.
constexpr std::size_t kHead = 4;
constexpr std::size_t kDcAt = kHead + 1;
constexpr std::size_t kHistogramAt = kHead + 9;

struct Exchange {
    const char *what;
    Bytes request;
    Bytes answer;
};
void expectExchanges(Sim &sim, const std::vector<Exchange> &rows) {
    for (const auto &row : rows)
        EXPECT_EQ(sim.invoke(row.request), row.answer) << row.what;
}

TEST(FwsimRegisters, EveryRegisterReadsAtItsNaturalWidth) {
    Sim sim;
    for (const RegisterDef &r : kRegisters) {
        const Bytes rsp = sim.invoke(readReg(kServer, r.element, r.id, r.width));
        ASSERT_EQ(rsp.size(), 4u + r.width) << r.name;
        EXPECT_EQ(Bytes(rsp.begin(), rsp.begin() + 4), ok()) << r.name;
        EXPECT_EQ(be(rsp, 4, r.width), r.initial) << r.name;
    }
}

// One firmware, rows in order: writes are read back by the rows after them.
TEST(FwsimRegisters, ReadsWritesAndRefusals) {
    Sim sim;
    expectExchanges(sim,
                    {
                        {"narrower", readReg(kServer, 7, 0, 1), ok({0xC2})},
                        {"wider", readReg(kServer, 7, 0, 4), ok({0, 0, 0x01, 0xC2})},
                        {"expansion's own file", readReg(kExpansion, 7, 9, 2), ok({0x06, 0x40})},
                        {"write", writeReg(kServer, 7, 0, {0x01, 0x90}), ok()},
                        {"other instance", readReg(kExpansion, 7, 0, 2), ok({0x01, 0xC2})},
                        {"leading zeros", writeReg(kExpansion, 7, 10, {0, 0, 2}), ok()},
                        {"too wide", writeReg(kExpansion, 7, 10, {1, 2}), failed(0xCC)},
                        {"unchanged", readReg(kExpansion, 7, 10, 1), ok({2})},
                        {"read-only", writeReg(kServer, 7, 9, {0, 0x10}), failed(0xCC)},
                        {"unknown register", readReg(kServer, 7, 99, 2), failed(0xCC)},
                        {"unknown element", readReg(kServer, 11, 0, 1), failed(0xCC)},
                        {"zero length", readReg(kServer, 7, 0, 0), failed(0xCC)},
                        {"unknown method", method(kServer, 7, 0x42, {0, 2}), failed(0xCC)},
                        {"trailing byte", cat(readReg(kServer, 7, 0, 2), {0}), failed(0xC7)},
                        {"short write", method(kServer, 7, ZELO_METHOD_WRITE_REGISTER, {0, 2, 1}),
                         failed(0xC7)},
                        {"truncated head", cat(kId, {kServer, 7}), failed(0xC7)},
                    });
}

// Built-in tables are read by the zeloctl runs; these rows stage every keyword.
TEST(FwsimPowerSupplies, TablesOnTheWire) {
    Sim sim("psu-factors 0 3 4 byte0 0x80\n"
            "psutype 0 0 800 bytes 0x01 0x00\npsutype 0 1 1600 bytes 0x03 0x7F\n"
            "redundancy 0 0 2+1 props 0x017E list 1,0 byte0 0x81 words 0x0102 0x0304 0xA0B0\n"
            "redundancy 0 1 1+1 props 0x0002 list 0,1 entrylen 10\n"
            "redundancy 0 2 1+0 props 0x0001 list none\n"
            "fault 1 10 0x87 0xC0\n");
    expectExchanges(sim, {
                             {"configuration", method(kServer, 10, ZELO_METHOD_READ_CONFIGURATION),
                              ok({5, 0x80, 2, 3, 3, 4})},
                             {"type", entry(kServer, 0, 1), ok({0, 1, 4, 0x03, 0x7F, 0x06, 0x40})},
                             {"cut to wanted", entry(kServer, 0, 1, 2), ok({0, 1, 4, 0x03, 0x7F})},
                             {"configuration entry", entry(kServer, 1, 0),
                              ok({1, 0, 13, 0x81, 0x01, 0x7E, 2, 1, 1, 2, 3, 4, 0xA0, 0xB0, 1, 0})},
                             {"lying length", entry(kServer, 1, 1),
                              ok({1, 1, 10, 0, 0, 0x02, 1, 1, 0, 0, 0, 0, 0, 0, 0, 1})},
                             {"empty list", entry(kServer, 1, 2),
                              ok({1, 2, 11, 0, 0, 0x01, 1, 0, 0, 0, 0, 0, 0, 0})},
                             {"forced code", entry(kExpansion, 0, 0), failed(0xC0)},
                         });
}

TEST(FwsimFaults, ForcedCodesHitOnlyTheirTarget) {
    Sim sim("fault 0 7 0x82 0xC9\nfault discovery 1 0xC3\n"
            "short-answer 3 0x81 6\nshort-answer xpm 3\n");
    expectExchanges(sim, {
                             {"faulted", readReg(kServer, 7, 0, 2), failed(0xC9)},
                             {"other instance", readReg(kExpansion, 7, 0, 2), ok({0x01, 0xC2})},
                             {"other element", readReg(kServer, 9, 1, 1), ok({24})},
                             {"other method", writeReg(kServer, 7, 0, {0x01, 0x90}), ok()},
                         });
    EXPECT_EQ(sim.fw.handle(NETFN_DUV, CMDID_ZELO_FIND_FIRMWARE_INSTANCE, cat(kId, {1, 0, 1})),
              failed(0xC3));
    EXPECT_EQ(sim.read(0, 10), ok({0, 1})) << "cut to six bytes";
    EXPECT_EQ(sim.xpm(0, 0), Bytes({0, kId[0], kId[1]}));

    Sim overlong("overlong-read\n");
    const Bytes rsp = overlong.read(130, 10);
    EXPECT_EQ(be(rsp, 6, 2), 6u) << "claims one byte more than it sends";
    EXPECT_EQ(rsp.size(), 8u + 5);
}

TEST(FwsimScenario, ErrorsNameTheLineAndLeaveTheScenarioUnchanged) {
    // The offending line is the last one of each text.
    const struct {
        std::string text;
        const char *error;
    } cases[] = {
        {"\n# x\nbogus 1", "unknown keyword 'bogus'"},
        {"reg 0 0 0 0x100", "value 0x100 too wide for register 0/0 (1 bytes)"},
        {"reg 0 7 0 12x", "bad number '12x'"},
        {"psutype 0 1 800", "psutype index 1 out of order; next is 0"},
        {"sensor \"Inlet Temp 0 24 C", "sensor name misses its closing quote"},
        {"input-power 255 255 255 8 8", "snapshot buffer of up to"},
        {"tag 5", "'tag' works only on a running simulator (zelo-fwsim --control)"},
    };
    for (const auto &c : cases) {
        const std::string text = "delay 7\nblade yes\n" + c.text;
        const auto line = 1 + std::count(text.begin(), text.end(), '\n');
        Scenario s;
        std::string error;
        EXPECT_FALSE(parseScenario(text, "t.scn", s, error)) << c.text;
        const std::string expected = "t.scn:" + std::to_string(line) + ": " + c.error;
        EXPECT_EQ(error.substr(0, expected.size()), expected);
        EXPECT_EQ(s.delayMs, 0u) << c.text;
        EXPECT_FALSE(s.snapshots.blade) << c.text;
    }
}

// Every sample loads (the one without redundancy is run by the zeloctl
// test); the default one is the built-in firmware.
TEST(FwsimScenario, SampleFilesStageWhatTheySay) {
    for (const auto &file : std::filesystem::directory_iterator(kScenarios))
        if (file.path().extension() == ".scn")
            loaded(file.path().filename().c_str());

    const Scenario fromFile = loaded("default.scn");
    const Scenario builtIn;
    for (unsigned n = 0; n < kInstanceCount; ++n) {
        EXPECT_EQ(fromFile.instances[n].registers, builtIn.instances[n].registers) << n;
        EXPECT_EQ(fromFile.instances[n].psu, builtIn.instances[n].psu) << n;
    }
    EXPECT_EQ(fromFile.power, builtIn.power);
    EXPECT_EQ(fromFile.snapshots, builtIn.snapshots);
    EXPECT_EQ(fromFile.perf, builtIn.perf);
}

// Walks the data of "power constant 350" after one 30 s period, the way a
// client would, checking every field it passes.
void expectLayout(const Bytes &b, bool blade, std::uint8_t caps, std::uint32_t ext) {
    std::size_t at = 0;
    const auto take = [&](std::size_t width) {
        at += width;
        return be(b, at - width, width);
    };
    const auto has = [&](std::uint32_t bit) { return (caps & 0x80) && (ext & bit); };
    EXPECT_EQ(take(1), 0x5Au) << "status";
    EXPECT_EQ(take(8), 350u * 30000) << "DC energy";
    for (unsigned bucket = 0; bucket < 12; ++bucket)
        EXPECT_EQ(take(4), bucket == 6 ? 30u : 0u) << "histogram " << bucket;
    EXPECT_EQ(take(2), 0xBEEFu) << "event";
    EXPECT_EQ(take(4), 40u * 30) << "effective CPU";
    if (!blade) {
        EXPECT_EQ(take(8), 372u * 30000) << "AC energy"; // 350 / 0.94
        EXPECT_EQ(take(1), 38u) << "outlet";             // 24 + 3.5 x 4
        EXPECT_EQ(take(1), 24u) << "inlet";
    }
    for (int n = has(0x08) ? 2 : 0; n > 0; --n)
        EXPECT_EQ(take(8), 0u) << "skipped block";
    for (std::uint64_t supply = 0; has(0x04) && !blade && supply < 2; ++supply)
        EXPECT_EQ(take(5), supply << 32 | 186u << 16 | 800u) << "input and label W";
    if (has(0x10)) {
        EXPECT_EQ(take(8), 30000u) << "timestamp";
    }
    if (has(0x20)) {
        EXPECT_EQ(take(1), 3u);
        for (const auto &[type, watts] : {std::pair{1u, 157u}, {2u, 70u}, {4u, 35u}}) {
            EXPECT_EQ(take(1), type);
            EXPECT_EQ(take(8), watts * 30000) << "subsystem " << type;
        }
    }
    EXPECT_EQ(at, b.size());
}

TEST(FwsimSnapshot, LayoutFollowsPlatformAndCapabilityBits) {
    const struct {
        bool blade;
        std::uint8_t caps;
        std::uint32_t ext;
        std::size_t len;
    } cases[] = {
        {false, 0x01, 0x37C, 73}, {false, 0x81, 0x37C, 135}, {false, 0x81, 0x08, 89},
        {false, 0x81, 0x04, 83},  {false, 0x81, 0x10, 81},   {false, 0x81, 0x20, 101},
        {true, 0x81, 0x37C, 115}, {true, 0x81, 0x04, 63},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.blade << " " << int{c.caps} << " " << c.ext);
        Sim sim(std::string("power constant 350\nstatus-byte 0x5A\nevent-word 0xBEEF\n") +
                (c.blade ? "blade yes\n" : "") + "reg 0 0 7 " + std::to_string(c.caps) +
                "\nreg 0 0 14 " + std::to_string(c.ext) + "\n");
        sim.at(30000);
        const Bytes b = sim.buffer();
        const Bytes config =
            sim.invoke(method(kServer, kSnapshotElement, ZELO_METHOD_READ_CONFIGURATION));
        ASSERT_EQ(b.size(), kHead + c.len);
        EXPECT_EQ(be(b, 2, 2), c.len) << "bytes returned";
        EXPECT_EQ(be(config, 10, 2), c.len) << "configured size";
        expectLayout(Bytes(b.begin() + kHead, b.end()), c.blade, c.caps, c.ext);
    }
}

TEST(FwsimSnapshot, EnergyGrowsByPowerTimesMilliseconds) {
    // 7 cycles of 4 s, then 1.5 s at 100 W and 0.5 s at 300 W.
    Sim steps("power steps 1500:100,2500:300\n");
    steps.at(30000);
    EXPECT_EQ(be(steps.buffer(), kDcAt, 8), 7u * (150000 + 750000) + 150000 + 150000);
    Sim held("power steps 1000:100,1000:200 hold\n");
    held.at(60000);
    EXPECT_EQ(be(held.buffer(), kDcAt, 8), 100u * 1000 + 200u * 59000);

    Sim changed("power constant 300\n");
    changed.at(10500);
    changed.apply("power constant 600");
    changed.at(30000);
    const Bytes c = changed.buffer();
    EXPECT_EQ(be(c, kDcAt, 8), 300u * 10500 + 600u * 19500) << "from the instant of the change";
    EXPECT_EQ(be(c, kHistogramAt + 5 * 4, 4), 11u) << "seconds 0-10 at 300 W";
    EXPECT_EQ(be(c, kHistogramAt + 11 * 4, 4), 19u) << "seconds 11-29 at 600 W";

    // Noisy power: the same whenever requests come, and exactly what the
    // one-watt buckets saw.
    const std::string noisy =
        "power noisy 400 80 seed 3\nsnapshot-period 5000\nhistogram 320 1 161 2\n";
    Sim polled(noisy), idle(noisy);
    for (std::uint64_t t = 0; t < 61000; t += 700) {
        polled.at(t);
        polled.tag();
    }
    polled.at(61000);
    idle.at(61000);
    const Bytes n = idle.buffer();
    EXPECT_EQ(polled.buffer(), n);
    std::uint64_t samples = 0, sampled = 0;
    for (std::size_t bucket = 0; bucket < 163; ++bucket) {
        const std::uint64_t count = be(n, kHistogramAt + 2 * bucket, 2);
        samples += count;
        sampled += count * (319 + bucket) * 1000;
    }
    EXPECT_EQ(samples, 60u);
    EXPECT_EQ(be(n, kDcAt, 8), sampled);
    EXPECT_NE(sampled, 400u * 60000);
}

TEST(FwsimSnapshot, HistogramCountsOneSamplePerSecondAtItsBounds) {
    // Buckets: <100, 100-149, 150-199, >=200.
    Sim sim("histogram 100 50 2 2\n"
            "power steps 2000:99,3000:100,1000:149,4000:150,5000:199,6000:200,9000:5000\n");
    sim.at(30000);
    const Bytes b = sim.buffer();
    EXPECT_EQ(Bytes(b.begin() + kHistogramAt, b.begin() + kHistogramAt + 8),
              (Bytes{0, 2, 0, 4, 0, 9, 0, 15}));
    EXPECT_EQ(sim.read(0xFFFF, 64), ok({0, 2, 0, 0})) << "nothing past the end";
}

// The wrap of the tag is run by the control test.
TEST(FwsimSnapshot, RestartCountsFromItsInstant) {
    Sim sim("power constant 100\nrestart-at 45000\n");
    sim.at(44999);
    EXPECT_EQ(sim.tag(), 2);
    EXPECT_EQ(be(sim.xpm(0, 0), 4, 4), 44u) << "seconds up";
    sim.at(50000);
    Bytes b = sim.buffer();
    EXPECT_EQ(be(b, 0, 2), 1u);
    EXPECT_EQ(be(b, kDcAt, 8), 0u);
    EXPECT_EQ(be(sim.xpm(0, 0), 4, 4), 5u);
    sim.at(75000);
    b = sim.buffer();
    EXPECT_EQ(be(b, 0, 2), 2u);
    EXPECT_EQ(be(b, kDcAt, 8), 100u * 30000);
    EXPECT_EQ(be(b, kHead + 73 + 26, 8), 30000u) << "timestamp since the restart";
}

TEST(FwsimXpm, UtilisationPerBufferAndSelector) {
    Sim sim("perf 101 95 3 50\nperf-status 0x22\n");
    sim.at(12345);
    EXPECT_EQ(sim.xpm(0, 0), ok({0, 0, 0, 12, 7, 0x22, 101}));
    // Buffer, then current, maximum and minimum: ten apart, within 0-100.
    const std::uint8_t rows[][4] = {{4, 95, 100, 85}, {5, 3, 13, 0}};
    for (const auto &r : rows)
        for (std::uint8_t selector = 0; selector < 3; ++selector)
            EXPECT_EQ(sim.xpm(r[0], selector).at(10), r[1 + selector]) << int{r[0]};
    EXPECT_EQ(sim.xpm(1, 0), failed(0xCC));
    EXPECT_EQ(sim.xpm(0, 3), failed(0xCC));
}

// The integration run covers register, tag, status and restart lines over the
// socket; these are the timing details behind them.
TEST(FwsimControl, LinesChangeTheRunningFirmware) {
    Sim sim;
    sim.at(1000);
    sim.apply("tag 65535");
    sim.apply("status-byte 0x12");
    EXPECT_EQ(sim.tag(), 65535) << "at once, both bytes";
    EXPECT_EQ(sim.buffer().at(kHead), 0) << "the status byte waits for the next snapshot";
    sim.apply("snapshot-now");
    EXPECT_EQ(sim.tag(), 1) << "0 is skipped";
    EXPECT_EQ(sim.buffer().at(kHead), 0x12);
    sim.at(40000);
    sim.apply("tag 5");
    sim.apply("restart-at 42000"); // armed once
    sim.at(45000);
    EXPECT_EQ(sim.tag(), 1);
    sim.apply("snapshot-now");
    EXPECT_EQ(sim.tag(), 2);

    sim.apply("present no");
    EXPECT_EQ(sim.invoke(readReg(kServer, 7, 2, 2)), Bytes{0xC1});
    sim.apply("present yes"); // absent firmware still takes control lines
    for (const char *refused :
         {"reg 0 7 2 70000", "histogram 100 50 10 2", "reg 0 7 2 1\nreg 0 7 4 1"}) {
        std::string error;
        EXPECT_FALSE(sim.fw.control(refused, error)) << refused;
        EXPECT_FALSE(error.empty());
    }
    EXPECT_EQ(sim.invoke(readReg(kServer, 7, 2, 2)), ok({0x02, 0x8A})) << "650 W kept";
}

} // namespace
