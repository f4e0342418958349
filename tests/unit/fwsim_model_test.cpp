// The firmware simulator's model, scenario files and socket server, driven
// in-process.
#include "model.h"
#include "platform/ipmi_wire.h"
#include "scenario.h"
#include "server.h"

#include <zelo/firmware.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace zelo::sim;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t kId0 = ZELO_IANA_ID & 0xFF;
constexpr std::uint8_t kId1 = (ZELO_IANA_ID >> 8) & 0xFF;
constexpr std::uint8_t kId2 = (ZELO_IANA_ID >> 16) & 0xFF;
constexpr std::uint8_t kHandle0 = 5; // built-in handles
constexpr std::uint8_t kHandle1 = 9;

// Reserving first keeps GCC 12's -Warray-bounds quiet about the insert.
Bytes cat(Bytes head, const Bytes &tail) {
    head.reserve(head.size() + tail.size());
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

Bytes discovery(std::uint8_t instance) {
    return {kId0, kId1, kId2, instance, 0, 1};
}

Bytes readReg(std::uint8_t handle, std::uint8_t element, std::uint8_t reg, std::uint8_t n) {
    return {kId0, kId1, kId2, handle, element, ZELO_METHOD_READ_REGISTER, reg, n};
}

Bytes writeReg(std::uint8_t handle, std::uint8_t element, std::uint8_t reg, const Bytes &value) {
    const auto n = static_cast<std::uint8_t>(value.size());
    return cat({kId0, kId1, kId2, handle, element, ZELO_METHOD_WRITE_REGISTER, reg, n}, value);
}

Bytes readConfig(std::uint8_t handle, std::uint8_t element = kPowerSupplyElement) {
    return {kId0, kId1, kId2, handle, element, ZELO_METHOD_READ_CONFIGURATION};
}

Bytes readEntry(std::uint8_t handle, std::uint8_t buffer, std::uint8_t index,
                std::uint8_t wanted = 0xFF, std::uint8_t element = kPowerSupplyElement) {
    return {kId0,   kId1,  kId2,  handle, element, ZELO_METHOD_READ_INDEXED_BUFFER,
            buffer, index, wanted};
}

Bytes find(Firmware &fw, const Bytes &req) {
    return fw.handle(NETFN_DUV, CMDID_ZELO_FIND_FIRMWARE_INSTANCE, req);
}
Bytes invoke(Firmware &fw, const Bytes &req) {
    return fw.handle(NETFN_DUV, CMDID_ZELO_INVOKE_ELEMENT_METHOD, req);
}
Bytes ok(const Bytes &data = {}) {
    return cat({0, kId0, kId1, kId2}, data);
}
Bytes failed(std::uint8_t cc) {
    return {cc, kId0, kId1, kId2};
}

Scenario parsed(const std::string &text) {
    Scenario s;
    std::string error;
    EXPECT_TRUE(parseScenario(text, "t.scn", s, error)) << error;
    return s;
}

TEST(FwsimDiscovery, AnswersEachInstanceWithItsHandle) {
    Firmware fw{Scenario{}};
    EXPECT_EQ(find(fw, discovery(0)), ok({0, 0x01, 0x02, kHandle0, 0, 0}));
    EXPECT_EQ(find(fw, discovery(1)), ok({0, 0x01, 0x03, kHandle1, 0, 0}));
    EXPECT_EQ(find(fw, discovery(2)), ok({0, 0, 0, 0, 0, 0}));

    Firmware alone{parsed("instance 1 none\n")};
    EXPECT_EQ(find(alone, discovery(1)), ok({0, 0, 0, 0, 0, 0}));
}

TEST(FwsimDiscovery, RejectsMalformedRequests) {
    Firmware fw{Scenario{}};
    Bytes longer = discovery(0);
    longer.push_back(0);
    EXPECT_EQ(find(fw, longer), failed(0xC7));
    EXPECT_EQ(find(fw, {kId0, kId1}), Bytes{0xC7});
    EXPECT_EQ(find(fw, {kId0, kId1, static_cast<std::uint8_t>(kId2 ^ 1), 0, 0, 1}),
              (Bytes{0xCC, kId0, kId1, static_cast<std::uint8_t>(kId2 ^ 1)}));
    EXPECT_EQ(find(fw, {kId0, kId1, kId2, 0, 0, 2}), failed(0xCC));
}

TEST(FwsimRegisters, EveryRegisterReadsAtItsNaturalWidth) {
    Firmware fw{Scenario{}};
    for (const RegisterDef &r : kRegisters) {
        const Bytes rsp = invoke(fw, readReg(kHandle0, r.element, r.id, r.width));
        ASSERT_EQ(rsp.size(), 4u + r.width) << r.name;
        EXPECT_EQ(Bytes(rsp.begin(), rsp.begin() + 4), ok()) << r.name;
        std::uint64_t v = 0;
        for (std::size_t i = 4; i < rsp.size(); ++i)
            v = (v << 8) | rsp[i];
        EXPECT_EQ(v, r.initial) << r.name;
    }
}

TEST(FwsimRegisters, ReadsBigEndianAndAdjustsToRequestedLength) {
    Firmware fw{Scenario{}};
    EXPECT_EQ(invoke(fw, readReg(kHandle0, 7, 0, 2)), ok({0x01, 0xC2})); // 450 W
    EXPECT_EQ(invoke(fw, readReg(kHandle0, 13, 1, 8)), ok({0, 0, 7, 0, 0x1E, 0, 0, 0}));
    EXPECT_EQ(invoke(fw, readReg(kHandle0, 7, 0, 1)), ok({0xC2}));
    EXPECT_EQ(invoke(fw, readReg(kHandle0, 7, 0, 4)), ok({0, 0, 0x01, 0xC2}));
    EXPECT_EQ(invoke(fw, readReg(kHandle0, 0, 0, 10)), ok({0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
    // The expansion unit has its own register file.
    EXPECT_EQ(invoke(fw, readReg(kHandle1, 7, 9, 2)), ok({0x06, 0x40})); // 1600 W
}

TEST(FwsimRegisters, RejectsUnknownTargetsAndBadLengths) {
    Firmware fw{Scenario{}};
    EXPECT_EQ(invoke(fw, readReg(kHandle0, 7, 99, 2)), failed(0xCC));
    EXPECT_EQ(invoke(fw, readReg(kHandle0, 11, 0, 1)), failed(0xCC));
    EXPECT_EQ(invoke(fw, readReg(kHandle0, 10, 3, 1)), failed(0xCC));
    EXPECT_EQ(invoke(fw, readReg(kHandle0, 7, 0, 0)), failed(0xCC));
    EXPECT_EQ(invoke(fw, readReg(42, 7, 0, 2)), failed(0xCC));
    Bytes longer = readReg(kHandle0, 7, 0, 2);
    longer.push_back(0);
    EXPECT_EQ(invoke(fw, longer), failed(0xC7));
    EXPECT_EQ(invoke(fw, {kId0, kId1, kId2, kHandle0, 7}), failed(0xC7));
    EXPECT_EQ(invoke(fw, {kId0}), Bytes{0xC7});
    for (const int method : {ZELO_METHOD_READ_CONFIGURATION, ZELO_METHOD_READ_BUFFER,
                             ZELO_METHOD_READ_INDEXED_BUFFER, 0x42}) {
        const Bytes req{kId0, kId1, kId2, kHandle0, 7, static_cast<std::uint8_t>(method), 0, 2};
        EXPECT_EQ(invoke(fw, req), failed(0xCC)) << method;
    }
}

TEST(FwsimRegisters, WritesAreReadBackOnTheTargetInstanceOnly) {
    Firmware fw{Scenario{}};
    EXPECT_EQ(invoke(fw, writeReg(kHandle0, 7, 0, {0x01, 0x90})), ok()); // 400 W
    EXPECT_EQ(invoke(fw, readReg(kHandle0, 7, 0, 2)), ok({0x01, 0x90}));
    EXPECT_EQ(invoke(fw, readReg(kHandle1, 7, 0, 2)), ok({0x01, 0xC2}));
    // Leading zero bytes are fine; a value wider than the register is not.
    EXPECT_EQ(invoke(fw, writeReg(kHandle1, 7, 10, {0, 0, 0x02})), ok());
    EXPECT_EQ(invoke(fw, readReg(kHandle1, 7, 10, 1)), ok({0x02}));
    EXPECT_EQ(invoke(fw, writeReg(kHandle1, 7, 10, {0x01, 0x02})), failed(0xCC));
    EXPECT_EQ(invoke(fw, readReg(kHandle1, 7, 10, 1)), ok({0x02}));
}

TEST(FwsimRegisters, RefusesBadWrites) {
    Firmware fw{Scenario{}};
    EXPECT_EQ(invoke(fw, writeReg(kHandle0, 7, 9, {0x00, 0x10})), failed(0xCC)); // nameplate
    EXPECT_EQ(invoke(fw, readReg(kHandle0, 7, 9, 2)), ok({0x03, 0x20}));
    EXPECT_EQ(invoke(fw, writeReg(kHandle0, 7, 0, {})), failed(0xCC));
    Bytes shortWrite = writeReg(kHandle0, 7, 0, {0x01, 0x90});
    shortWrite.pop_back();
    EXPECT_EQ(invoke(fw, shortWrite), failed(0xC7));
    Bytes longWrite = writeReg(kHandle0, 7, 0, {0x01, 0x90});
    longWrite.push_back(0);
    EXPECT_EQ(invoke(fw, longWrite), failed(0xC7));
}

TEST(FwsimPowerSupplies, PerSupplyRegistersHaveFourInstances) {
    Firmware fw{parsed("reg 0 10 9 0x0640000000000000\n"
                       "reg 0 10 10 0x01\n"
                       "reg 0 10 12 0x0102\n")};
    EXPECT_EQ(invoke(fw, readReg(kHandle0, 10, 1, 8)), ok({0x03, 0x20, 0x03, 0x20, 0, 0, 0, 0}));
    EXPECT_EQ(invoke(fw, readReg(kHandle0, 10, 9, 8)), ok({0x06, 0x40, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(invoke(fw, readReg(kHandle0, 10, 2, 1)), ok({0x03}));
    EXPECT_EQ(invoke(fw, readReg(kHandle0, 10, 10, 1)), ok({0x01}));
    EXPECT_EQ(invoke(fw, readReg(kHandle0, 10, 4, 2)), ok({0x03, 0x05}));
    EXPECT_EQ(invoke(fw, readReg(kHandle0, 10, 12, 2)), ok({0x01, 0x02}));
    EXPECT_EQ(invoke(fw, readReg(kHandle1, 10, 9, 8)), ok(Bytes(8, 0)));
    // Only the redundancy target and configuration take writes.
    EXPECT_EQ(invoke(fw, writeReg(kHandle0, 10, 30, {1})), ok());
    EXPECT_EQ(invoke(fw, writeReg(kHandle0, 10, 31, {3})), ok());
    EXPECT_EQ(invoke(fw, readReg(kHandle0, 10, 31, 1)), ok({3}));
    EXPECT_EQ(invoke(fw, writeReg(kHandle0, 10, 2, {0x0F})), failed(0xCC));
}

TEST(FwsimPowerSupplies, ConfigurationCountsTheTablesOfEachInstance) {
    Firmware builtIn{Scenario{}};
    EXPECT_EQ(invoke(builtIn, readConfig(kHandle0)), ok({5, 0, 2, 4, 2, 2}));

    Firmware fw{parsed("psu-factors 0 3 4 byte0 0x80\n"
                       "psutype 0 0 800\npsutype 0 1 1100\npsutype 0 2 1600\n"
                       "redundancy 0 0 1+1 props 0x7E list 0,0\n")};
    EXPECT_EQ(invoke(fw, readConfig(kHandle0)), ok({5, 0x80, 3, 1, 3, 4}));
    EXPECT_EQ(invoke(fw, readConfig(kHandle1)), ok({5, 0, 2, 4, 2, 2}));
}

TEST(FwsimPowerSupplies, EntriesCarryTheirFieldsBigEndian) {
    Firmware fw{parsed("psutype 0 0 800 bytes 0x01 0x00\n"
                       "psutype 0 1 1600 bytes 0x03 0x7F\n"
                       "redundancy 0 0 2+1 props 0x017E list 1,0 byte0 0x81 "
                       "words 0x0102 0x0304 0xA0B0\n"
                       "redundancy 0 1 1+1 props 0x0002 list 0,1,0,1\n"
                       "redundancy 0 2 1+0 props 0x0001 list none\n")};
    EXPECT_EQ(invoke(fw, readEntry(kHandle0, 0, 1)), ok({0, 1, 4, 0x03, 0x7F, 0x06, 0x40}));
    EXPECT_EQ(invoke(fw, readEntry(kHandle0, 1, 0)),
              ok({1, 0, 13, 0x81, 0x01, 0x7E, 2, 1, 0x01, 0x02, 0x03, 0x04, 0xA0, 0xB0, 1, 0}));
    EXPECT_EQ(invoke(fw, readEntry(kHandle0, 1, 1)),
              ok({1, 1, 15, 0, 0, 0x02, 1, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 1}));
    EXPECT_EQ(invoke(fw, readEntry(kHandle0, 1, 2)),
              ok({1, 2, 11, 0, 0, 0x01, 1, 0, 0, 0, 0, 0, 0, 0}));
    // The expansion unit keeps the built-in tables: 1100 W, then 1+1 active.
    EXPECT_EQ(invoke(fw, readEntry(kHandle1, 0, 1)), ok({0, 1, 4, 0x02, 0x00, 0x04, 0x4C}));
    EXPECT_EQ(invoke(fw, readEntry(kHandle1, 1, 0)),
              ok({1, 0, 13, 0, 0, 0x7E, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(FwsimPowerSupplies, EntriesAreCutToTheBytesWanted) {
    Firmware fw{parsed("redundancy 0 0 1+1 props 0x0002 list 0,1,0,1\n"
                       "redundancy 0 1 1+1 props 0x0002 list 0,1 entrylen 10\n")};
    EXPECT_EQ(invoke(fw, readEntry(kHandle0, 0, 1, 2)), ok({0, 1, 4, 0x02, 0x00}));
    EXPECT_EQ(invoke(fw, readEntry(kHandle0, 0, 1, 0)), ok({0, 1, 4}));
    // The length byte still tells the whole entry.
    EXPECT_EQ(invoke(fw, readEntry(kHandle0, 1, 0, 12)),
              ok({1, 0, 15, 0, 0, 0x02, 1, 1, 0, 0, 0, 0, 0, 0, 0}));
    // A lying firmware reports 10 but sends what it has.
    const Bytes lying = invoke(fw, readEntry(kHandle0, 1, 1));
    ASSERT_EQ(lying.size(), 4u + 3 + 13);
    EXPECT_EQ(lying[6], 10);
}

TEST(FwsimPowerSupplies, RejectsUnknownEntriesElementsAndLengths) {
    Firmware fw{Scenario{}};
    EXPECT_EQ(invoke(fw, readEntry(kHandle0, 0, 2)), failed(0xCC));
    EXPECT_EQ(invoke(fw, readEntry(kHandle0, 1, 4)), failed(0xCC));
    EXPECT_EQ(invoke(fw, readEntry(kHandle0, 2, 0)), failed(0xCC));
    EXPECT_EQ(invoke(fw, readEntry(kHandle0, 0, 0, 0xFF, 7)), failed(0xCC));
    EXPECT_EQ(invoke(fw, readConfig(kHandle0, 7)), failed(0xCC));

    Bytes config = readConfig(kHandle0);
    config.push_back(0);
    EXPECT_EQ(invoke(fw, config), failed(0xC7));
    Bytes entry = readEntry(kHandle0, 0, 0);
    entry.push_back(0);
    EXPECT_EQ(invoke(fw, entry), failed(0xC7));
    entry.resize(entry.size() - 2);
    EXPECT_EQ(invoke(fw, entry), failed(0xC7));
}

TEST(FwsimPowerSupplies, ForcedCodesHitTheTableMethods) {
    Firmware fw{parsed("fault 0 10 0x80 0xD5\nfault 1 10 0x87 0xC0\n")};
    EXPECT_EQ(invoke(fw, readConfig(kHandle0)), failed(0xD5));
    EXPECT_EQ(invoke(fw, readEntry(kHandle0, 0, 0))[0], 0);
    EXPECT_EQ(invoke(fw, readConfig(kHandle1))[0], 0);
    EXPECT_EQ(invoke(fw, readEntry(kHandle1, 0, 0)), failed(0xC0));
}

TEST(FwsimPowerSupplies, ScenarioListsReplaceTheBuiltInOnesPerText) {
    Scenario s = parsed("psutype 0 0 1600\nredundancy 1 0 1+1 props 2 list 0,0\n");
    EXPECT_EQ(s.instances[0].psu.types, (std::vector<PsuType>{{1600, {0, 0}}}));
    EXPECT_EQ(s.instances[0].psu.configs, Scenario{}.instances[0].psu.configs);
    EXPECT_EQ(s.instances[1].psu.configs.size(), 1u);
    EXPECT_EQ(s.instances[1].psu.types.size(), 2u);

    // A second text starts over as well: last file wins, as with registers.
    std::string error;
    ASSERT_TRUE(parseScenario("psutype 0 0 900\n", "u.scn", s, error)) << error;
    EXPECT_EQ(s.instances[0].psu.types, (std::vector<PsuType>{{900, {0, 0}}}));

    // Lists a client must refuse are still staged: odd length, unknown type.
    s = parsed("redundancy 0 0 1+1 props 2 list 0,9,0\n");
    EXPECT_EQ(s.instances[0].psu.configs[0].typeList, (std::vector<std::uint8_t>{0, 9, 0}));

    std::string longest = "redundancy 0 0 1+1 props 2 list 0";
    for (std::size_t i = 1; i < kMaxTypeListLen; ++i)
        longest += ",1";
    Firmware fw{parsed(longest + "\n")};
    const Bytes rsp = invoke(fw, readEntry(kHandle0, 1, 0));
    ASSERT_EQ(rsp.size(), 4u + 3 + 255);
    EXPECT_EQ(rsp[6], 255);

    EXPECT_FALSE(parseScenario(longest + ",1\n", "t.scn", s, error));
    EXPECT_EQ(error, "t.scn:1: type list longer than 244 entries");
}

TEST(FwsimRouting, UnknownNetFnCommandOrAbsentFirmwareIsInvalidCommand) {
    Firmware fw{Scenario{}};
    EXPECT_EQ(fw.handle(0x06, CMDID_ZELO_FIND_FIRMWARE_INSTANCE, discovery(0)), Bytes{0xC1});
    EXPECT_EQ(fw.handle(NETFN_DUV, 0x7F, discovery(0)), Bytes{0xC1});

    Firmware absent{parsed("present no\n")};
    EXPECT_EQ(find(absent, discovery(0)), Bytes{0xC1});
    EXPECT_EQ(invoke(absent, readReg(kHandle0, 7, 0, 2)), Bytes{0xC1});
}

// The controller's sensors: one record per index, whatever the firmware does.
TEST(FwsimSensors, AnswersEachRecordInScenarioOrderThenNoMore) {
    const auto ask = [](Firmware &fw, std::uint8_t type, unsigned index) {
        const Bytes request{static_cast<std::uint8_t>(index >> 8),
                            static_cast<std::uint8_t>(index)};
        return fw.handle(zelo::wire::kSensorNetFn, type, request);
    };
    const auto answer = [](std::uint8_t status, const std::string &name, const std::string &text) {
        const Bytes head{0, status, static_cast<std::uint8_t>(name.size())};
        const Bytes length{static_cast<std::uint8_t>(text.size() >> 8),
                           static_cast<std::uint8_t>(text.size())};
        return cat(cat(cat(head, Bytes(name.begin(), name.end())), length),
                   Bytes(text.begin(), text.end()));
    };
    const std::string longName(191, 'n');
    const std::string longText(1293, 'r');
    Firmware fw{parsed("present no\n"
                       "sensor \"Inlet Temp\"\t0   24 degrees  C   # comment\n"
                       "sensor CPU_Temp 0x07 \"  padded \"\n"
                       "sensor \"\" 0 \"\"\n"
                       "sensor " +
                       longName + " 0 " + longText + "\n")};
    EXPECT_EQ(ask(fw, 1, 0), answer(0, "Inlet Temp", "24 degrees  C"));
    EXPECT_EQ(ask(fw, 1, 1), answer(7, "CPU_Temp", "  padded "));
    EXPECT_EQ(ask(fw, 1, 2), answer(0, "", ""));
    EXPECT_EQ(ask(fw, 1, 3), answer(0, longName, longText));
    EXPECT_EQ(ask(fw, 1, 4), Bytes{0xCB});
    EXPECT_EQ(ask(fw, 1, 0x100), Bytes{0xCB}) << "the index is 16 bits, high byte first";
    EXPECT_EQ(ask(fw, 2, 0), Bytes{0xCB}) << "only temperature sensors";
    EXPECT_EQ(fw.handle(zelo::wire::kSensorNetFn, 1, Bytes{0}), Bytes{0xC7});

    Firmware refusing{parsed("sensor X 0 1 C\nfault sensors 0xC3\n")};
    EXPECT_EQ(ask(refusing, 1, 0), Bytes{0xC3});
}

TEST(FwsimFaults, ForcedCodesHitOnlyTheirTarget) {
    Firmware fw{parsed("fault 0 7 0x82 0xC9\n"
                       "fault discovery 1 0xC3\n")};
    EXPECT_EQ(invoke(fw, readReg(kHandle0, 7, 0, 2)), failed(0xC9));
    EXPECT_EQ(invoke(fw, readReg(kHandle1, 7, 0, 2)), ok({0x01, 0xC2}));
    EXPECT_EQ(invoke(fw, readReg(kHandle0, 9, 1, 1)), ok({24}));
    EXPECT_EQ(invoke(fw, writeReg(kHandle0, 7, 0, {0x01, 0x90})), ok());
    EXPECT_EQ(find(fw, discovery(1)), failed(0xC3));
    EXPECT_EQ(find(fw, discovery(0))[0], 0);

    Firmware later{parsed("fault discovery 0xC3\nfault discovery 0 0xD5\n")};
    EXPECT_EQ(find(later, discovery(0)), failed(0xD5));
    EXPECT_EQ(find(later, discovery(1)), failed(0xC3));
}

TEST(FwsimScenario, OverridesTheBuiltInFirmware) {
    Firmware fw{parsed("  # comment\n"
                       "\n"
                       "instance 0 handle 0x30 descriptors 7 8   # trailing comment\r\n"
                       "reg 0 7 0 0x01F4\n"
                       "reg 1 13 1 18446744073709551615\n"
                       "delay 250\n")};
    EXPECT_EQ(find(fw, discovery(0)), ok({0, 7, 8, 0x30, 0, 0}));
    EXPECT_EQ(invoke(fw, readReg(0x30, 7, 0, 2)), ok({0x01, 0xF4}));
    EXPECT_EQ(invoke(fw, readReg(kHandle1, 13, 1, 8)), ok(Bytes(8, 0xFF)));
    EXPECT_EQ(fw.responseDelayMs(), 250u);
}

TEST(FwsimScenario, ErrorsNameTheLineAndLeaveTheScenarioUnchanged) {
    // The offending line is the last one of each text.
    const struct {
        std::string text;
        const char *error;
    } cases[] = {
        {"reg 0 0 99 1", "unknown register 0/99"},
        {"\n# x\nbogus 1", "unknown keyword 'bogus'"},
        {"reg 0 0 0 0x100", "value 0x100 too wide for register 0/0 (1 bytes)"},
        {"reg 0 1 0 18446744073709551616", "18446744073709551616 out of range"},
        {"reg 2 0 0 1", "2 out of range (0-1)"},
        {"reg 0 7 0 12x", "bad number '12x'"},
        {"reg 0 7 0 -1", "bad number '-1'"},
        {"reg 0 7 0", "usage: reg"},
        {"instance 0 handle 0", "handle 0 means no instance"},
        {"instance 1 handle 5", "handle 5 already used by instance 0"},
        {"instance 0 handle 5 descriptors 1", "usage: instance"},
        {"present maybe", "usage: present"},
        {"fault 0 7 0x82 0", "completion code 0"},
        {"fault discovery 0 1 0xC1", "usage: fault discovery"},
        {"delay 60001", "60001 out of range (0-60000)"},
        {"psu-factors 0 2", "usage: psu-factors"},
        {"psu-factors 0 2 256", "256 out of range (0-255)"},
        {"psutype 0 0 70000", "70000 out of range (0-65535)"},
        {"psutype 0 255 800", "255 out of range (0-254)"},
        {"psutype 0 0 800 bytes 1", "usage: psutype"},
        {"psutype 0 1 800", "psutype index 1 out of order; next is 0"},
        {"psutype 0 0 800\npsutype 0 2 900", "psutype index 2 out of order; next is 1"},
        {"psutype 0 0 800\npsutype 0 0 900", "psutype index 0 out of order; next is 1"},
        {"redundancy 0 1 1+1 props 2 list 0", "redundancy index 1 out of order; next is 0"},
        {"redundancy 0 0 1-1 props 2 list 0", "bad N+M '1-1'"},
        {"redundancy 0 0 1+256 props 2 list 0", "bad N+M '1+256'"},
        {"redundancy 0 0 +1 props 2 list 0", "bad N+M '+1'"},
        {"redundancy 0 0 1+1 props 0x10000 list 0", "0x10000 out of range (0-65535)"},
        {"redundancy 0 0 1+1 props 2 list 0,,1", "bad number ''"},
        {"redundancy 0 0 1+1 props 2 list 0,256", "256 out of range (0-255)"},
        {"redundancy 0 0 1+1 props 2 list 0 words 1 2", "usage: redundancy"},
        {"redundancy 0 0 1+1 props 2 list 0 colour 3", "usage: redundancy"},
        {"redundancy 0 0 1+1 list 0 props 2", "usage: redundancy"},
        {"redundancy 0 0 1+1 props 2 list 0 entrylen 256", "256 out of range (0-255)"},
        {"sensor \"Inlet Temp 0 24 C", "sensor name misses its closing quote"},
        {"sensor \"Inlet\"Temp 0 24 C", "blank expected after the sensor name's closing quote"},
        {"sensor \"Inlet Temp\" 0", "usage: sensor"},
        {"sensor X 256 24 C", "256 out of range (0-255)"},
        {"sensor X 0 \"24 C", "sensor reading misses its closing quote"},
        {"sensor " + std::string(192, 'n') + " 0 x", "sensor name longer than 191 characters"},
        {"sensor X 0 " + std::string(1294, 'r'), "sensor reading longer than 1293 characters"},
        {"fault sensors 0", "completion code 0"},
    };
    for (const auto &c : cases) {
        const std::string text = std::string("delay 7\n") + c.text;
        const auto line = 1 + std::count(text.begin(), text.end(), '\n');
        Scenario s;
        std::string error;
        EXPECT_FALSE(parseScenario(text, "t.scn", s, error)) << c.text;
        const std::string expected = "t.scn:" + std::to_string(line) + ": " + c.error;
        EXPECT_EQ(error.substr(0, expected.size()), expected);
        EXPECT_EQ(s.delayMs, 0u) << c.text;
        EXPECT_EQ(s.instances[0].psu, Scenario{}.instances[0].psu) << c.text;
        EXPECT_TRUE(s.sensors.empty()) << c.text;
    }
    // Moving instance 1 off its handle frees that handle for instance 0.
    parsed("instance 1 handle 7\ninstance 0 handle 9\n");
}

TEST(FwsimScenario, SampleFilesLoad) {
    const auto dir = std::filesystem::path(__FILE__).parent_path() / "../../sim/scenarios";
    int seen = 0;
    for (const auto &entry : std::filesystem::directory_iterator(dir)) {
        if (entry.path().extension() != ".scn")
            continue;
        Scenario s;
        std::string error;
        EXPECT_TRUE(loadScenarioFile(entry.path().string(), s, error)) << error;
        ++seen;
    }
    EXPECT_GE(seen, 2);

    Scenario s;
    std::string error;
    EXPECT_FALSE(loadScenarioFile((dir / "missing.scn").string(), s, error));
    EXPECT_NE(error.find("missing.scn: "), std::string::npos) << error;
}

TEST(FwsimScenario, SampleFilesStageWhatTheySay) {
    const auto dir = std::filesystem::path(__FILE__).parent_path() / "../../sim/scenarios";
    const auto load = [&](const char *file) {
        Scenario s;
        std::string error;
        EXPECT_TRUE(loadScenarioFile((dir / file).string(), s, error)) << error;
        return s;
    };

    // The default file spells out the built-in firmware.
    const Scenario fromFile = load("default.scn");
    const Scenario builtIn;
    for (unsigned n = 0; n < kInstanceCount; ++n) {
        EXPECT_EQ(fromFile.instances[n].registers, builtIn.instances[n].registers) << n;
        EXPECT_EQ(fromFile.instances[n].psu, builtIn.instances[n].psu) << n;
    }

    const auto configs = load("redundancy.scn").instances[0].psu.configs;
    ASSERT_FALSE(configs.empty());
    const auto active = std::count_if(configs.begin(), configs.end(),
                                      [](const auto &c) { return c.properties & kPropActive; });
    EXPECT_EQ(active, 1);
    EXPECT_FALSE(configs[0].properties & kPropActive);

    for (const auto &inst : load("no-redundancy.scn").instances)
        EXPECT_EQ(inst.registers[*findRegister(0, 14)] & (1U << 9), 0u);
}

// Socket tests run client and server in one thread: the client's frame waits
// in the socket buffer until serveOnce() accepts it.
class FwsimServer : public ::testing::Test {
  protected:
    void SetUp() override {
        char dir[] = "/tmp/fwsim-test-XXXXXX";
        ASSERT_NE(::mkdtemp(dir), nullptr);
        dir_ = dir;
        path_ = dir_ + "/run/sim.sock";
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    int connectClient() const {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        path_.copy(addr.sun_path, sizeof addr.sun_path - 1);
        EXPECT_EQ(::connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr), 0);
        timeval tv{5, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        return fd;
    }

    static Bytes readAll(int fd) {
        Bytes out;
        std::uint8_t buf[256];
        ssize_t n = 0;
        while ((n = ::recv(fd, buf, sizeof buf, 0)) > 0)
            out.insert(out.end(), buf, buf + n);
        return out;
    }

    static void send(int fd, const Bytes &b) {
        ASSERT_EQ(::send(fd, b.data(), b.size(), MSG_NOSIGNAL), static_cast<ssize_t>(b.size()));
    }

    std::string dir_;
    std::string path_;
    std::atomic<bool> stop_{false};
};

TEST_F(FwsimServer, FramesOneExchangePerConnection) {
    Firmware fw{parsed("delay 120\n")};
    {
        Server server(fw, stop_);
        std::string error;
        ASSERT_TRUE(server.listen(path_, error)) << error;

        const int fd = connectClient();
        send(fd, {NETFN_DUV, CMDID_ZELO_INVOKE_ELEMENT_METHOD, 8, 0});
        send(fd, readReg(kHandle0, 7, 0, 2));
        const auto start = std::chrono::steady_clock::now();
        EXPECT_TRUE(server.serveOnce(1000));
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(120));
        EXPECT_EQ(readAll(fd), cat({6, 0}, ok({0x01, 0xC2})));
        ::close(fd);
        EXPECT_FALSE(server.serveOnce(0));
    }
    struct stat st {};
    EXPECT_NE(::lstat(path_.c_str(), &st), 0) << "socket file left behind";
}

TEST_F(FwsimServer, DropsOversizedAndStalledClients) {
    Firmware fw{Scenario{}};
    Server server(fw, stop_, 100);
    std::string error;
    ASSERT_TRUE(server.listen(path_, error)) << error;

    int fd = connectClient();
    // Announces 4097 bytes and sends them all: refused without an answer.
    send(fd, cat({NETFN_DUV, CMDID_ZELO_INVOKE_ELEMENT_METHOD, 0x01, 0x10}, Bytes(4097, 0)));
    EXPECT_TRUE(server.serveOnce(1000));
    EXPECT_EQ(readAll(fd), Bytes{});
    ::close(fd);

    fd = connectClient();
    send(fd, {NETFN_DUV, CMDID_ZELO_INVOKE_ELEMENT_METHOD, 8, 0, kId0});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(server.serveOnce(1000));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(readAll(fd), Bytes{});
    ::close(fd);
}

TEST_F(FwsimServer, ReplacesStaleSocketButNotALiveOne) {
    Firmware fw{Scenario{}};
    std::string error;
    {
        Server first(fw, stop_);
        ASSERT_TRUE(first.listen(path_, error)) << error;
        Server second(fw, stop_);
        EXPECT_FALSE(second.listen(path_, error));
        EXPECT_NE(error.find("another server"), std::string::npos) << error;
        // A crashed server leaves its file behind: keep it past the close.
        ASSERT_EQ(::link(path_.c_str(), (dir_ + "/kept").c_str()), 0);
    }
    ASSERT_EQ(::rename((dir_ + "/kept").c_str(), path_.c_str()), 0);
    Server third(fw, stop_);
    EXPECT_TRUE(third.listen(path_, error)) << error;
}

} // namespace
