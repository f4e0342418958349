// Software events: status bits of each snapshot, and power-cap limits of the
// firmware against the store, through the fake platform and the in-process
// simulated firmware.
#include "fake_platform.h"

#include "events/events_internal.h"

#include <zelo/events.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace zelo::test {
namespace {

using Ids = std::vector<uint16_t>;

class EventsTest : public PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        events::u8StatusBit4Reported = 0;
        events::u8StatusBit5Reported = 0;
        events::u8StatusBothReported = 0;
        events::u8PowerEventBit3Reported = 0;
        events::u8PowerEventBit2Reported = 0;
        std::filesystem::create_directories(root + "/tmp/zelo_trace");
    }
    // Ids raised since the last call.
    Ids raised() {
        Ids ids;
        for (const auto &e : fake().events)
            ids.push_back(e.id);
        fake().events.clear();
        return ids;
    }
    Ids check(uint8_t status, uint16_t event = 0) {
        SnapshotBuffer s{};
        s.u8PowerStatus = status;
        s.u16PowerEvent = event;
        CheckBufForSendSWEvent(&s);
        for (const auto &e : fake().events)
            EXPECT_FALSE(e.params.has_value()) << e.id;
        return raised();
    }
    // The firmware of the scenario answers; the store knows it as instance 0.
    void knownFirmware(const std::string &scenario) {
        useFirmware(scenario);
        fake().store["zelo_supported_0"] = 1;
        fake().store["zelo_module_handle_0"] = 5;
    }
    void publish(int64_t max, int64_t min, int64_t softMin) {
        fake().store["pcap_kiv_element_zelo"] = 450;
        fake().store["pcap_max_kiv_element_zelo"] = max;
        fake().store["pcap_min_kiv_element_zelo"] = min;
        fake().store["pcap_soft_min_kiv_element_zelo"] = softMin;
    }
    void checkCaps() {
        testing::internal::CaptureStdout(); // failed register reads print
        CheckPowercapRelatedSettingForSendSWEvent();
        testing::internal::GetCapturedStdout();
    }
    // Store writes of the limit keys, in order.
    std::vector<std::string> capWrites() const {
        std::vector<std::string> out;
        for (const auto &c : fake().storeCalls)
            if (c.rfind("set_int pcap_", 0) == 0)
                out.push_back(c);
        return out;
    }
};

// Built-in firmware limits: maximum 650, minimum 200, soft minimum 250.
constexpr const char *kCapping = "reg 0 0 9 2\n";

// Each sequence on a fresh fixture; the steps after a reset prove what it reset.
TEST_F(EventsTest, StatusBitsFourAndFive) {
    const std::vector<std::vector<std::pair<uint8_t, Ids>>> sequences = {
        // Both at once: only the combined event, and once.
        {{0x32, {125}}, {0x32, {}}},
        // One after the other, then both gone without an event.
        {{0x12, {127}}, {0x32, {126, 125}}, {0x02, {}}, {0x12, {127}}, {0x32, {126, 125}}},
        {{0x22, {126}}, {0x32, {127, 125}}, {0x12, {}}, {0x32, {126, 125}}},
        {{0x22, {126}}, {0x12, {127}}, {0x22, {126}}},
        // Bit 0 does not take part in the state check.
        {{0x13, {127}}},
        // Other power states change nothing at all.
        {{0x16, {}}, {0x00, {}}, {0x30, {}}, {0x32, {125}}},
    };
    for (std::size_t n = 0; n < sequences.size(); ++n) {
        TearDown();
        SetUp();
        for (const auto &[status, expected] : sequences[n])
            EXPECT_EQ(check(status), expected) << "sequence " << n << " status " << int{status};
    }
}

TEST_F(EventsTest, EventWordBitsThreeAndTwo) {
    EXPECT_EQ(check(0x02, 0x0008), Ids{117});
    EXPECT_EQ(check(0x02, 0x0008), Ids{});
    EXPECT_EQ(check(0x02, 0x0000), Ids{130});
    EXPECT_EQ(check(0x02, 0x000C), (Ids{117, 118}));
    EXPECT_EQ(check(0x02, 0x0004), Ids{130});
    EXPECT_EQ(check(0x02, 0x0000), Ids{131});
    // Status and event word together, status first.
    EXPECT_EQ(check(0x12, 0x0008), (Ids{127, 117}));
    // Outside the watched power state the event word is not looked at.
    EXPECT_EQ(check(0x16, 0x0000), Ids{});
    EXPECT_EQ(check(0x00, 0x0004), Ids{});
}

TEST_F(EventsTest, FailedHandOverIsLoggedAndNotRetried) {
    fake().eventResult = 1;
    EXPECT_EQ(check(0x12, 0x0008), (Ids{127, 117})); // the second runs despite the first
    EXPECT_EQ(check(0x12, 0x0008), Ids{});
    EXPECT_TRUE(traced("Generate sw message 117 failed!!"));
    CheckBufForSendSWEvent(nullptr);
    EXPECT_TRUE(traced("Null parament."));
}

TEST_F(EventsTest, ChangedMaximumRaisesOnceWithBothTexts) {
    knownFirmware(std::string(kCapping) + "reg 0 7 2 3500\n");
    publish(3000, 200, 250);
    checkCaps();
    ASSERT_EQ(fake().events.size(), 1u);
    const auto &e = fake().events[0];
    EXPECT_EQ(e.id, 115);
    ASSERT_TRUE(e.params.has_value());
    std::array<uint8_t, 192> expected{};
    std::memcpy(expected.data(), "3000", 5);
    std::memcpy(expected.data() + 64, "3500", 5);
    EXPECT_EQ(*e.params, expected);
    EXPECT_EQ(capWrites(),
              std::vector<std::string>{"set_int pcap_max_kiv_element_zelo=3500 flag 1"});
    EXPECT_EQ(fake().store["pcap_max_kiv_element_zelo"], 3500);

    fake().events.clear();
    checkCaps();
    EXPECT_TRUE(fake().events.empty()) << "the store holds the new value";

    fake().store["pcap_max_kiv_element_zelo"] = 65536 + 3500;
    checkCaps();
    EXPECT_TRUE(fake().events.empty()) << "only the low 16 bits of the store count";
}

TEST_F(EventsTest, EveryChangedLimitInMaximumMinimumSoftMinimumOrder) {
    knownFirmware(kCapping);
    publish(600, 100, 300);
    fake().eventResult = 7;
    fake().failingSets.insert("pcap_max_kiv_element_zelo");
    checkCaps();
    EXPECT_EQ(raised(), (Ids{115, 114, 116}));
    EXPECT_EQ(capWrites(),
              (std::vector<std::string>{"set_int pcap_max_kiv_element_zelo=650 flag 1",
                                        "set_int pcap_min_kiv_element_zelo=200 flag 1",
                                        "set_int pcap_soft_min_kiv_element_zelo=250 flag 1"}));
    // Refused by the event service, yet the store moved on where it could.
    checkCaps();
    EXPECT_EQ(raised(), Ids{115}) << "the failed store write raises again";
}

// Unreadable limits are written as 0 and missing keys with the firmware's
// value, without an event; a limit rising from 0 is raised.
TEST_F(EventsTest, UnreadableLimitsAndMissingKeysAreWrittenSilently) {
    // Every element-7 read fails; the status element still answers.
    knownFirmware(std::string(kCapping) + "fault 0 7 0x82 0xFF\n");
    fake().store["pcap_max_kiv_element_zelo"] = 650;
    checkCaps();
    EXPECT_EQ(raised(), Ids{});
    EXPECT_EQ(capWrites(),
              (std::vector<std::string>{"set_int pcap_min_kiv_element_zelo=0 flag 1",
                                        "set_int pcap_soft_min_kiv_element_zelo=0 flag 1"}));
    auto store = fake().store;
    store.erase("pcap_soft_min_kiv_element_zelo");
    knownFirmware(kCapping);
    fake().store = store;
    fake().storeCalls.clear();
    checkCaps();
    EXPECT_EQ(raised(), Ids{114});
    EXPECT_EQ(capWrites(),
              (std::vector<std::string>{"set_int pcap_min_kiv_element_zelo=200 flag 1",
                                        "set_int pcap_soft_min_kiv_element_zelo=250 flag 1"}));
}

// Capping settings other than 2 or 5 are only warned about; a blade, or a
// firmware without power utilisation, is not asked for limits at all.
TEST_F(EventsTest, CappingSettingAndPowerUtilisation) {
    const struct {
        const char *lines;
        bool blade, warned, compared;
    } cases[] = {
        {"reg 0 0 9 1\n", false, true, true},    {"reg 0 0 9 2\n", false, false, true},
        {"reg 0 0 9 5\n", false, false, true},   {"reg 0 0 9 0x0D\n", false, false, true},
        {"reg 0 0 9 0x0C\n", false, true, true}, {kCapping, true, false, false},
        {"reg 0 0 5 0\n", false, false, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.lines);
        TearDown(); // a fresh fixture per case
        SetUp();
        if (c.blade)
            ::setenv("RUX_FAMILY", "blade", 1);
        knownFirmware(c.lines);
        checkCaps();
        EXPECT_EQ(traced("capping is not enabled"), c.warned);
        EXPECT_EQ(raised(), Ids{}) << "missing keys are written without an event";
        EXPECT_EQ(capWrites().size(), c.compared ? 3u : 0u);
    }
}

} // namespace
} // namespace zelo::test
