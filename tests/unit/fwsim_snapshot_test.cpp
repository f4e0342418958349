// The simulated firmware's power model, snapshot buffer and XPM command,
// driven in-process on a manual clock.
#include "model.h"
#include "scenario.h"

#include <zelo/firmware.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace zelo::sim;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t kId0 = ZELO_IANA_ID & 0xFF;
constexpr std::uint8_t kId1 = (ZELO_IANA_ID >> 8) & 0xFF;
constexpr std::uint8_t kId2 = (ZELO_IANA_ID >> 16) & 0xFF;
constexpr std::uint8_t kServerHandle = 5;
constexpr std::uint8_t kExpansionHandle = 9;

Bytes ok(Bytes data = {}) {
    data.insert(data.begin(), {0, kId0, kId1, kId2});
    return data;
}

std::uint64_t be(const Bytes &b, std::size_t at, std::size_t width) {
    std::uint64_t v = 0;
    for (std::size_t i = 0; i < width; ++i)
        v = (v << 8) | b.at(at + i);
    return v;
}

Scenario parsed(const std::string &text) {
    Scenario s;
    std::string error;
    EXPECT_TRUE(parseScenario(text, "t.scn", s, error)) << error;
    return s;
}

// A firmware whose clock the test steps; it boots at a non-zero reading.
class Sim {
  public:
    explicit Sim(const std::string &scenario) : fw_(parsed(scenario), [this] { return ms_; }) {}
    Sim(const Sim &) = delete; // the clock points back here
    Sim &operator=(const Sim &) = delete;

    void at(std::uint64_t firmwareMs) { ms_ = kBoot + firmwareMs; }

    Bytes invoke(Bytes req, std::uint8_t handle = kServerHandle) {
        req.insert(req.begin(), {kId0, kId1, kId2, handle});
        return fw_.handle(NETFN_DUV, CMDID_ZELO_INVOKE_ELEMENT_METHOD, req);
    }
    Bytes config(std::uint8_t element, std::uint8_t handle = kServerHandle) {
        return invoke({element, ZELO_METHOD_READ_CONFIGURATION}, handle);
    }
    Bytes read(std::uint16_t offset, std::uint16_t wanted) {
        return invoke({kSnapshotElement, ZELO_METHOD_READ_BUFFER,
                       static_cast<std::uint8_t>(offset >> 8), static_cast<std::uint8_t>(offset),
                       static_cast<std::uint8_t>(wanted >> 8), static_cast<std::uint8_t>(wanted)});
    }
    // The whole buffer in one read, its tag first.
    Bytes buffer() {
        const Bytes rsp = read(0, 0xFFFF);
        EXPECT_EQ(rsp.at(0), 0);
        return Bytes(rsp.begin() + 4, rsp.end());
    }
    std::uint16_t tag() { return static_cast<std::uint16_t>(be(buffer(), 0, 2)); }
    Bytes xpm(std::uint8_t buffer, std::uint8_t selector) {
        return xpmRaw({kId0, kId1, kId2, 4, buffer, 0, 0, selector, 1, 0, 1});
    }
    Bytes xpmRaw(const Bytes &req) { return fw_.handle(NETFN_DUV, CMDID_ZELO_XPM_EXTENSIONS, req); }

  private:
    static constexpr std::uint64_t kBoot = 7'000'000;
    std::uint64_t ms_ = kBoot;
    Firmware fw_;
};

// Offsets of the fixed part; data starts after the 4-byte tag/count header.
constexpr std::size_t kHead = 4;
constexpr std::size_t kDcAt = kHead + 1;
constexpr std::size_t kHistogramAt = kHead + 9;

TEST(FwsimSnapshotConfig, BlocksOnTheWire) {
    Sim builtIn("");
    EXPECT_EQ(builtIn.config(kHistogramElement), ok({0, 0, 0, 100, 0, 0, 10, 50, 4, 0}));
    // 25 + 12 x 4 histogram bytes, then 16 + 2 x 5 + 8 + 1 + 3 x 9 extended.
    EXPECT_EQ(builtIn.config(kSnapshotElement), ok({0, 0, 0, 64, 0, 0, 0, 135}));
    EXPECT_EQ(builtIn.config(kInputPowerElement), ok({0, 0, 0, 2, 1, 1, 2, 2, 0, 0}));
    EXPECT_EQ(builtIn.buffer().size(), 4u + 135);

    Sim sim("histogram 0x1234 7 3 2\nchunk-size 300\ninput-power 3 2 5 4 1\n"
            "reg 0 0 14 0x04\n");
    EXPECT_EQ(sim.config(kHistogramElement), ok({0, 0, 0x12, 0x34, 0, 0, 3, 7, 2, 0}));
    EXPECT_EQ(sim.config(kSnapshotElement), ok({0, 0, 0x01, 0x2C, 0, 0, 0, 25 + 10 + 60}));
    EXPECT_EQ(sim.config(kInputPowerElement), ok({0, 0, 0, 3, 2, 5, 4, 1, 0, 0}));

    // Only the server measures; requests carry no parameters.
    for (const std::uint8_t element : {kHistogramElement, kSnapshotElement, kInputPowerElement}) {
        EXPECT_EQ(sim.config(element, kExpansionHandle)[0], 0xCC) << int{element};
        EXPECT_EQ(sim.invoke({element, ZELO_METHOD_READ_CONFIGURATION, 0})[0], 0xC7);
    }
}

// Walks the data of "power constant 350" after one 30 s period, the way a
// client would, checking every field it passes.
void expectLayout(const Bytes &b, bool blade, std::uint8_t caps, std::uint32_t ext) {
    std::size_t at = 0;
    const auto take = [&](std::size_t width) {
        const std::uint64_t v = be(b, at, width);
        at += width;
        return v;
    };
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
    if (caps & 0x80) {
        if (ext & 0x08) {
            EXPECT_EQ(take(8), 0u);
            EXPECT_EQ(take(8), 0u);
        }
        if ((ext & 0x04) && !blade) {
            for (std::uint64_t supply = 0; supply < 2; ++supply) {
                EXPECT_EQ(take(1), supply);
                EXPECT_EQ(take(2), 186u) << "input W of " << supply;
                EXPECT_EQ(take(2), 800u) << "label W of " << supply;
            }
        }
        if (ext & 0x10) {
            EXPECT_EQ(take(8), 30000u) << "timestamp";
        }
        if (ext & 0x20) {
            EXPECT_EQ(take(1), 3u);
            for (const auto &[type, watts] : {std::pair{1u, 157u}, {2u, 70u}, {4u, 35u}}) {
                EXPECT_EQ(take(1), type);
                EXPECT_EQ(take(8), watts * 30000) << "subsystem " << type;
            }
        }
    }
    EXPECT_EQ(at, b.size());
}

TEST(FwsimSnapshotLayout, FollowsPlatformAndCapabilityBits) {
    const struct {
        bool blade;
        std::uint8_t caps;
        std::uint32_t ext;
        std::size_t len;
    } cases[] = {
        {false, 0x01, 0x37C, 73}, {false, 0x81, 0x340, 73}, {false, 0x81, 0x37C, 135},
        {false, 0x81, 0x08, 89},  {false, 0x81, 0x04, 83},  {false, 0x81, 0x10, 81},
        {false, 0x81, 0x20, 101}, {false, 0x81, 0x34, 119}, {true, 0x81, 0x37C, 63 + 52},
        {true, 0x81, 0x04, 63},   {true, 0x01, 0x3C, 63},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "blade " << c.blade << " caps " << int{c.caps} << " ext " << c.ext);
        Sim sim(std::string("power constant 350\nstatus-byte 0x5A\nevent-word 0xBEEF\n") +
                (c.blade ? "blade yes\n" : "") + "reg 0 0 7 " + std::to_string(c.caps) +
                "\nreg 0 0 14 " + std::to_string(c.ext) + "\n");
        sim.at(30000);
        const Bytes b = sim.buffer();
        ASSERT_EQ(b.size(), kHead + c.len);
        EXPECT_EQ(be(b, 2, 2), c.len) << "bytes returned";
        EXPECT_EQ(be(sim.config(kSnapshotElement), 10, 2), c.len) << "configured size";
        expectLayout(Bytes(b.begin() + kHead, b.end()), c.blade, c.caps, c.ext);
    }
}

TEST(FwsimSnapshotLayout, SubsystemListAndInputPowerFollowTheScenario) {
    Sim sim("power constant 900\nsubsystems cooling,cpu\ninput-power 3 2 2 1 4\n"
            "reg 0 0 14 0x24\nreg 0 10 1 0x0320044C00000000\n");
    sim.at(30000);
    const Bytes b = sim.buffer();
    std::size_t at = kHead + 25 + 48;
    // Per entry: two index bytes, 957 W AC / 3 saturated to one byte, the
    // label in four, then one entry's worth of filler.
    const Bytes supplies = {0, 0, 255, 0, 0, 0x03, 0x20, 0, 0, 0, 0, 0, 0, 0,
                            1, 1, 255, 0, 0, 0x04, 0x4C, 0, 0, 0, 0, 0, 0, 0,
                            2, 2, 255, 0, 0, 0,    0,    0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(Bytes(b.begin() + at, b.begin() + at + 42), supplies);
    at += 42;
    EXPECT_EQ(b.at(at), 2);
    EXPECT_EQ(b.at(at + 1), 4);
    EXPECT_EQ(be(b, at + 2, 8), 90u * 30000);
    EXPECT_EQ(b.at(at + 10), 1);
    EXPECT_EQ(be(b, at + 11, 8), 405u * 30000);
    EXPECT_EQ(b.size(), at + 19);
}

TEST(FwsimSnapshotPower, AccumulatorsGrowByPowerTimesMilliseconds) {
    Sim sim("power constant 350\n");
    EXPECT_EQ(sim.tag(), 1);
    EXPECT_EQ(be(sim.buffer(), kDcAt, 8), 0u);
    sim.at(29999);
    EXPECT_EQ(sim.tag(), 1);
    sim.at(30000);
    const Bytes first = sim.buffer();
    sim.at(65000);
    const Bytes second = sim.buffer();
    EXPECT_EQ(be(first, 0, 2), 2u);
    EXPECT_EQ(be(second, 0, 2), 3u);
    const std::size_t tsAt = kHead + 73 + 16 + 10;
    EXPECT_EQ(be(second, tsAt, 8), 60000u);
    // What a client computes: energy growth over elapsed time.
    const std::uint64_t energy = be(second, kDcAt, 8) - be(first, kDcAt, 8);
    EXPECT_EQ(energy, 350u * 30000);
    EXPECT_EQ(energy / (be(second, tsAt, 8) - be(first, tsAt, 8)), 350u);

    // Steps integrate to the millisecond: 7 cycles of 4 s, then 1.5 s at
    // 100 W and 0.5 s at 300 W.
    Sim steps("power steps 1500:100,2500:300\n");
    steps.at(30000);
    const Bytes b = steps.buffer();
    EXPECT_EQ(be(b, kDcAt, 8), 7u * (150000 + 750000) + 150000 + 150000);
    EXPECT_EQ(b.at(kHead + 23 + 48), 24 + 12) << "outlet at 300 W, the level at the snapshot";

    Sim held("power steps 1000:100,1000:200 hold\n");
    held.at(60000);
    EXPECT_EQ(be(held.buffer(), kDcAt, 8), 100u * 1000 + 200u * 59000);
}

TEST(FwsimSnapshotPower, SnapshotsDoNotDependOnWhenRequestsCome) {
    // One-watt buckets: 320 W counts in bucket 1, 480 W in bucket 161.
    const std::string scenario =
        "power noisy 400 80 seed 3\nsnapshot-period 5000\nhistogram 320 1 161 2\n";
    Sim polled(scenario);
    Sim idle(scenario);
    for (std::uint64_t t = 0; t < 61000; t += 700) {
        polled.at(t);
        polled.tag();
    }
    polled.at(61000);
    idle.at(61000);
    const Bytes b = idle.buffer();
    EXPECT_EQ(polled.buffer(), b);
    EXPECT_EQ(be(b, 0, 2), 13u);
    // The energy is exactly the sixty one-second levels the histogram saw,
    // all within 320-480 W.
    const std::uint64_t energy = be(b, kDcAt, 8);
    std::uint64_t samples = 0;
    std::uint64_t sampled = 0;
    for (std::size_t bucket = 0; bucket < 163; ++bucket) {
        const std::uint64_t count = be(b, kHistogramAt + 2 * bucket, 2);
        EXPECT_TRUE(count == 0 || (bucket >= 1 && bucket <= 161)) << bucket;
        samples += count;
        sampled += count * (319 + bucket) * 1000;
    }
    EXPECT_EQ(samples, 60u);
    EXPECT_EQ(energy, sampled);
    EXPECT_NE(energy, 400u * 60000);

    Sim reseeded("power noisy 400 80 seed 4\nsnapshot-period 5000\n");
    reseeded.at(61000);
    EXPECT_NE(be(reseeded.buffer(), kDcAt, 8), energy);
}

TEST(FwsimSnapshotPower, HistogramCountsOneSamplePerSecondIntoItsBucket) {
    // Buckets: <100, 100-149, 150-199, >=200; one 30 s cycle per period.
    Sim sim("histogram 100 50 2 2\n"
            "power steps 2000:99,3000:100,1000:149,4000:150,5000:199,6000:200,9000:5000\n");
    sim.at(30000);
    Bytes b = sim.buffer();
    EXPECT_EQ(be(b, kHistogramAt, 2), 2u);
    EXPECT_EQ(be(b, kHistogramAt + 2, 2), 4u);
    EXPECT_EQ(be(b, kHistogramAt + 4, 2), 9u);
    EXPECT_EQ(be(b, kHistogramAt + 6, 2), 15u);
    sim.at(60000);
    b = sim.buffer();
    EXPECT_EQ(be(b, kHistogramAt + 6, 2), 30u);

    // Counters wrap at their width: 300 samples in one byte.
    Sim narrow("histogram 100 50 2 1\npower constant 120\nsnapshot-period 300000\n");
    narrow.at(300000);
    EXPECT_EQ(narrow.buffer().at(kHistogramAt + 1), 300 - 256);
}

TEST(FwsimSnapshotTag, CountsPeriodsAndWrapsPastZero) {
    Sim sim("snapshot-period 100\n");
    sim.at(100u * 65534);
    EXPECT_EQ(sim.tag(), 0xFFFF);
    sim.at(100u * 65535);
    EXPECT_EQ(sim.tag(), 1);
}

TEST(FwsimSnapshotTag, ChunkedReadAcrossABoundarySeesTwoTags) {
    Sim sim("");
    sim.at(29999);
    const Bytes first = sim.read(0, 64);
    EXPECT_EQ(Bytes(first.begin(), first.begin() + 8), ok({0, 1, 0, 64}));
    EXPECT_EQ(first.size(), 8u + 64);
    sim.at(30000);
    const Bytes second = sim.read(64, 64);
    EXPECT_EQ(be(second, 4, 2), 2u);
    EXPECT_EQ(be(second, 6, 2), 64u);
    const Bytes last = sim.read(128, 64);
    EXPECT_EQ(be(last, 6, 2), 7u);
    EXPECT_EQ(last.size(), 8u + 7);
    EXPECT_EQ(sim.read(135, 64), ok({0, 2, 0, 0}));
    EXPECT_EQ(sim.read(0xFFFF, 64), ok({0, 2, 0, 0}));
}

TEST(FwsimSnapshotTag, EveryKReadsForcesASnapshotAtOneInstant) {
    Sim sim("power constant 200\nsnapshot-every-reads 2\n");
    sim.at(5000);
    EXPECT_EQ(be(sim.read(0, 64), 4, 2), 1u);
    EXPECT_EQ(be(sim.read(64, 64), 4, 2), 1u);
    const Bytes b = sim.buffer();
    EXPECT_EQ(be(b, 0, 2), 2u);
    EXPECT_EQ(be(b, kDcAt, 8), 200u * 5000);
    // The time grid stays: the next periodic snapshot still comes at 30 s.
    sim.at(30000);
    const Bytes next = sim.buffer();
    EXPECT_EQ(be(next, 0, 2), 3u);
    EXPECT_EQ(be(next, kDcAt, 8), 200u * 30000);
}

TEST(FwsimSnapshotTag, RestartStartsOverAtTagOne) {
    Sim sim("power constant 100\nrestart-at 45000\n");
    sim.at(44999);
    EXPECT_EQ(sim.tag(), 2);
    EXPECT_EQ(be(sim.xpm(0, 0), 4, 4), 44u);
    sim.at(50000);
    Bytes b = sim.buffer();
    EXPECT_EQ(be(b, 0, 2), 1u);
    EXPECT_EQ(be(b, kDcAt, 8), 0u);
    EXPECT_EQ(be(b, kHistogramAt + 4, 4), 0u);
    EXPECT_EQ(be(sim.xpm(0, 0), 4, 4), 5u);
    sim.at(75000);
    b = sim.buffer();
    EXPECT_EQ(be(b, 0, 2), 2u);
    EXPECT_EQ(be(b, kDcAt, 8), 100u * 30000);
    EXPECT_EQ(be(b, kHistogramAt + 4, 4), 30u);
    EXPECT_EQ(be(b, kHead + 73 + 26, 8), 30000u) << "timestamp since the restart";
}

TEST(FwsimXpm, ReportsUtilisationPerBufferAndSelector) {
    Sim sim("perf 101 95 3 50\nperf-status 0x22\n");
    sim.at(12345);
    EXPECT_EQ(sim.xpm(0, 0), ok({0, 0, 0, 12, 7, 0x22, 101}));
    const struct {
        std::uint8_t buffer, current, max, min;
    } cases[] = {{0, 101, 101, 91}, {4, 95, 100, 85}, {5, 3, 13, 0}, {6, 50, 60, 40}};
    for (const auto &c : cases) {
        EXPECT_EQ(sim.xpm(c.buffer, 0).at(10), c.current) << int{c.buffer};
        EXPECT_EQ(sim.xpm(c.buffer, 1).at(10), c.max) << int{c.buffer};
        EXPECT_EQ(sim.xpm(c.buffer, 2).at(10), c.min) << int{c.buffer};
    }
    const Bytes fail = {0xCC, kId0, kId1, kId2};
    EXPECT_EQ(sim.xpm(1, 0), fail);
    EXPECT_EQ(sim.xpm(0, 3), fail);
    EXPECT_EQ(sim.xpmRaw({kId0, kId1, kId2, 4, 0, 0, 0, 0, 1, 0, 2}), fail);
    EXPECT_EQ(sim.xpmRaw({kId0, kId1, kId2, 4, 0, 0, 0, 0, 1, 0})[0], 0xC7);
}

TEST(FwsimXpm, AbsentOrBusyBuffers) {
    Sim none("perf none\n");
    EXPECT_EQ(none.xpm(0, 0)[0], 0xC1);
    EXPECT_EQ(none.xpmRaw({kId0})[0], 0xC1);

    Sim busy("fault xpm 0xC0 count 2\n");
    EXPECT_EQ(busy.xpmRaw({kId0, kId1})[0], 0xC7) << "not counted";
    EXPECT_EQ(busy.xpm(4, 0)[0], 0xC0);
    EXPECT_EQ(busy.xpm(4, 0)[0], 0xC0);
    EXPECT_EQ(busy.xpm(4, 0), ok({0, 0, 0, 0, 7, 0, 40}));

    Sim always("fault xpm 0xD5\n");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(always.xpm(0, 0)[0], 0xD5);
}

TEST(FwsimSnapshotFaults, ShortOverlongAndForcedAnswers) {
    Sim sim("short-answer 3 0x81 6\nshort-answer xpm 3\noverlong-read\nfault 0 2 0x80 0xC0\n");
    EXPECT_EQ(sim.read(0, 10), ok({0, 1}));
    EXPECT_EQ(sim.xpm(0, 0), Bytes({0, kId0, kId1}));
    EXPECT_EQ(sim.config(kHistogramElement), Bytes({0xC0, kId0, kId1, kId2}));

    Sim overlong("overlong-read\n");
    const Bytes rsp = overlong.read(130, 10);
    EXPECT_EQ(be(rsp, 6, 2), 6u);
    EXPECT_EQ(rsp.size(), 8u + 5);
    EXPECT_EQ(overlong.invoke({kSnapshotElement, ZELO_METHOD_READ_BUFFER, 0, 0, 0})[0], 0xC7);
    EXPECT_EQ(overlong.invoke({kSnapshotElement, ZELO_METHOD_READ_BUFFER, 0, 0, 0, 9},
                              kExpansionHandle)[0],
              0xCC);
}

TEST(FwsimSnapshotScenario, ErrorsNameTheLine) {
    const struct {
        const char *text;
        const char *error;
    } cases[] = {
        {"power constant 70000", "70000 out of range (0-65535)"},
        {"power steps 0:100", "bad step '0:100'"},
        {"power steps 1000:100 keep", "usage: power"},
        {"power noisy 50 60", "noisy power must stay within 0-65535 W"},
        {"efficiency 0", "0 out of range (1-100)"},
        {"shares 50 40 20", "shares add up to more than 100%"},
        {"snapshot-period 99", "99 out of range (100-86400000)"},
        {"histogram 100 0 10 4", "histogram width must be at least 1"},
        {"histogram 100 50 10 3", "bucket bytes must be 1, 2 or 4"},
        {"input-power 2 0 1 2 2", "input-power repeat and widths must be at least 1"},
        {"input-power 255 255 255 8 8", "snapshot buffer of up to"},
        {"subsystems cpu,disk", "unknown subsystem 'disk'"},
        {"blade maybe", "usage: blade"},
        {"perf 1 2 3", "usage: perf"},
        {"fault xpm 0", "completion code 0"},
        {"fault xpm 0xC0 count 0", "0 out of range (1-4294967295)"},
        {"short-answer 3 0x81", "usage: short-answer"},
    };
    for (const auto &c : cases) {
        Scenario s;
        std::string error;
        EXPECT_FALSE(parseScenario(std::string("blade yes\n\n") + c.text, "t.scn", s, error));
        const std::string expected = std::string("t.scn:3: ") + c.error;
        EXPECT_EQ(error.substr(0, expected.size()), expected);
        EXPECT_FALSE(s.snapshots.blade) << c.text;
    }
}

TEST(FwsimSnapshotScenario, SampleFilesStageWhatTheySay) {
    const auto dir = std::filesystem::path(__FILE__).parent_path() / "../../sim/scenarios";
    const auto load = [&](const char *file) {
        Scenario s;
        std::string error;
        EXPECT_TRUE(loadScenarioFile((dir / file).string(), s, error)) << error;
        return s;
    };
    const Scenario builtIn;
    const Scenario fromFile = load("default.scn");
    EXPECT_EQ(fromFile.power, builtIn.power);
    EXPECT_EQ(fromFile.snapshots, builtIn.snapshots);
    EXPECT_EQ(fromFile.perf, builtIn.perf);

    std::uint64_t ms = 0;
    Firmware constant(load("constant-350.scn"), [&] { return ms; });
    ms = 90000;
    const Bytes req = {
        kId0, kId1, kId2, kServerHandle, kSnapshotElement, ZELO_METHOD_READ_BUFFER, 0, 0, 0, 16};
    const Bytes rsp = constant.handle(NETFN_DUV, CMDID_ZELO_INVOKE_ELEMENT_METHOD, req);
    EXPECT_EQ(be(rsp, 4, 2), 4u);
    EXPECT_EQ(be(rsp, 8 + 1, 8) / ms, 350u);

    EXPECT_TRUE(load("blade.scn").snapshots.blade);
    EXPECT_EQ(load("lively.scn").power.dc.kind, PowerProfile::Kind::Noisy);
}

} // namespace
