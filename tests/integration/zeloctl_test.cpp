// zeloctl, as people and scripts use it, against the real simulator.
#include "sim_process.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <sstream>

namespace zelo::test {
namespace {

RunResult zeloctl(const std::vector<std::string> &args) {
    return runProgram(ZELO_ZELOCTL_PATH, args);
}

// The words of a command line, apart by spaces.
std::vector<std::string> words(const std::string &line) {
    std::istringstream in(line);
    std::vector<std::string> list;
    for (std::string word; in >> word;)
        list.push_back(word);
    return list;
}

bool contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

// The first key of a JSON document, at any depth, that is not PascalCase
// (capital first, letters and digits after); empty when there is none.
std::string keyNotPascalCase(const nlohmann::json &value) {
    if (!value.is_structured())
        return {};
    for (const auto &[key, part] : value.items()) {
        const bool pascal =
            value.is_array() || (!key.empty() && std::isupper(static_cast<unsigned char>(key[0])) &&
                                 std::all_of(key.begin(), key.end(), [](char c) {
                                     return std::isalnum(static_cast<unsigned char>(c));
                                 }));
        if (!pascal)
            return key;
        if (const std::string inner = keyNotPascalCase(part); !inner.empty())
            return inner;
    }
    return {};
}

class ZeloctlTest : public ::testing::Test {
  protected:
    TempRoot root;
};

// A redundant firmware through every command: the report, the supplies and
// the expansion as people and scripts read them, then each command's one
// parsable JSON object and its own help.
TEST_F(ZeloctlTest, EveryCommandOfARedundantFirmware) {
    SimProcess sim(root.path(), scenarioFile("redundancy.scn"));
    const auto text = zeloctl({"redundancy"});
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_TRUE(contains(text.out, "PSU types: 0: 1100 W, 1: 1600 W, 2: 800 W")) << text.out;
    EXPECT_TRUE(contains(text.out, "1       *       yes      1     2+1 with two 1600W power "
                                   "supplies per feed"))
        << text.out;
    EXPECT_TRUE(contains(text.out, "4               no       2     2+0 with one 1600W power "
                                   "supply per feed"))
        << text.out;
    EXPECT_EQ(text.err, "") << "library diagnostics stay out of the way";

    const auto json = zeloctl({"--json", "redundancy"});
    EXPECT_EQ(json.out.rfind("{\"Policy\":0,\"Target\":1,\"Active\":1,\"AllowedCount\":2,", 0), 0u)
        << json.out;
    EXPECT_TRUE(contains(json.out, "{\"Index\":3,\"Description\":\"1+1 with one 1100W power supply "
                                   "per feed\",\"N\":1,\"M\":1,\"PowerMode\":2,"))
        << json.out;
    const auto psu = zeloctl({"psu"});
    ASSERT_EQ(psu.status, 0) << psu.err;
    EXPECT_TRUE(contains(psu.out, "0       yes      220 V          1600 W\n")) << psu.out;
    EXPECT_TRUE(contains(psu.out, "3       no       -              0 W\n")) << psu.out;

    EXPECT_EQ(zeloctl({"--json", "expansion"}).out,
              "{\"TotalInputPower\":1600,\"StandbyPower\":20}\n");

    EXPECT_EQ(zeloctl({"--help"}).status, 0);
    for (const char *command :
         {"discover", "registers", "read standby-power", "write power-cap 400", "raw 7 0 2", "psu",
          "redundancy", "expansion"}) {
        const std::vector<std::string> args = words(std::string("--json ") + command);
        const auto help = zeloctl({args[1], "--help"});
        EXPECT_EQ(help.status, 0) << command;
        EXPECT_EQ(help.out.rfind("usage: zeloctl", 0), 0u) << help.out;
        const auto r = zeloctl(args);
        ASSERT_EQ(r.status, 0) << command << ": " << r.err;
        const auto object = nlohmann::json::parse(r.out);
        EXPECT_TRUE(object.is_object()) << r.out;
        EXPECT_EQ(keyNotPascalCase(object), "") << command;
    }
}

TEST_F(ZeloctlTest, WithoutTheRedundancyCapabilityTheReportFails) {
    SimProcess sim(root.path(), scenarioFile("no-redundancy.scn"));
    const auto r = zeloctl({"redundancy"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "zeloctl: redundancy report failed, result code 255: Error reading supported "
                     "PSU types indexed buffer for index=0, rc=255\n");
    const auto gated = zeloctl({"write", "target-redundancy-config", "1"});
    EXPECT_EQ(gated.status, 1);
    EXPECT_TRUE(contains(gated.err, "result code 255")) << gated.err;
    // The redundancy target itself has no such gate.
    EXPECT_EQ(zeloctl({"write", "redundancy-target", "1"}).status, 0);
}

TEST_F(ZeloctlTest, NamedRegistersReadWriteAndRefuse) {
    SimProcess sim(root.path(), scenarioFile("default.scn") + "fault 0 9 0x82 0xC9\n");
    EXPECT_EQ(zeloctl({"read", "power-cap"}).out, "power-cap: watts=450\n");
    EXPECT_EQ(zeloctl({"write", "power-cap", "0x12C"}).status, 0);
    EXPECT_EQ(zeloctl({"--json", "read", "power-cap"}).out,
              "{\"Register\":\"power-cap\",\"Watts\":300}\n");
    EXPECT_EQ(zeloctl({"--json", "read", "standby-power"}).out,
              "{\"Register\":\"standby-power\",\"Byte\":7,\"Watts\":30}\n");
    EXPECT_EQ(zeloctl({"read", "standby-power"}).out, "standby-power: byte=7 watts=30\n");
    EXPECT_EQ(zeloctl({"raw", "7", "0", "2"}).out, "element 7 register 0: 300 (0x012C)\n");

    const auto faulted = zeloctl({"read", "inlet-temperature"});
    EXPECT_EQ(faulted.status, 1);
    EXPECT_EQ(faulted.err, "zeloctl: read inlet-temperature failed, result code 201\n");

    const struct {
        std::vector<std::string> args;
        const char *error;
    } refused[] = {
        {{"write", "power-cap", "65536"}, "bad value '65536' for power-cap (0-65535)"},
        {{"write", "power-cap", "-1"}, "bad value '-1'"},
        {{"write", "power-cap", " 5"}, "bad value ' 5'"},
        {{"write", "power-cap", "0x"}, "bad value '0x'"},
        {{"write", "nameplate", "3"}, "register 'nameplate' is read-only"},
        {{"read", "target-redundancy-config"}, "can only be written"},
        {{"read", "bogus"}, "unknown register 'bogus'"},
        {{"raw", "7", "0", "9"}, "bad raw read"},
        {{"write", "power-cap", "00012"}, "bad value '00012'"},
    };
    for (const auto &c : refused) {
        const auto r = zeloctl(c.args);
        EXPECT_EQ(r.status, 2) << testing::PrintToString(c.args);
        EXPECT_TRUE(contains(r.err, c.error)) << r.err;
    }
    EXPECT_EQ(zeloctl({"read", "power-cap"}).out, "power-cap: watts=300\n") << "nothing written";
}

// A command that only reads leaves the root as it found it: the module handle
// comes from the firmware, not through the configuration store, which a
// mistyped root would otherwise get created for it.
TEST_F(ZeloctlTest, ReadOnlyCommandsCreateNothing) {
    {
        SimProcess sim(root.path(), scenarioFile("redundancy.scn"));
        const auto before = treeOf(root.path());
        for (const char *line : {"discover", "read power-cap", "raw 7 0 2", "psu",
                                 "--instance 1 read nameplate", "registers"})
            EXPECT_EQ(zeloctl(words(line)).status, 0) << line;
        EXPECT_EQ(treeOf(root.path()), before);
    }
    const std::string wrong = root.path() + "/nonexistent/root";
    ::setenv("ZELO_ROOT", wrong.c_str(), 1);
    for (const char *line : {"discover", "read power-cap", "raw 7 0 2", "psu", "redundancy",
                             "expansion", "power", "history", "metrics", "chart"})
        EXPECT_EQ(zeloctl(words(line)).status, 1) << line;
    ::setenv("ZELO_ROOT", root.path().c_str(), 1);
    EXPECT_FALSE(std::filesystem::exists(root.path() + "/nonexistent"));
}

// A wrong command line is refused with status 2, before anything is asked,
// and the message names what is wrong.
TEST_F(ZeloctlTest, WrongCommandLinesNameTheirFault) {
    const struct {
        const char *line;
        const char *error;
    } wrong[] = {
        {"power --window", "option '--window' needs a value"},
        {"power --window= --json", "option '--window' needs a value"},
        {"chart --out --hours 2", "option '--out' needs a value"},
        {"--instance", "option '--instance' needs a value"},
        {"--instance 1 read --instance 0 power-cap", "option '--instance' is given twice"},
        {"--json=1 power", "option '--json' takes no value"},
        {"history --csv=no", "option '--csv' takes no value"},
        {"--json chart", "option '--json' does not apply to 'chart'"},
        {"--instance 1 power",
         "option '--instance' does not apply to 'power' (only to discover, read, write, raw and "
         "psu)"},
        {"redundancy --instance 0", "option '--instance' does not apply to 'redundancy' (only to "
                                    "discover, read, write, raw and psu)"},
        {"power --hours 2", "option '--hours' does not apply to 'power'"},
        {"--window 1h power",
         "option '--window' goes after the command: zeloctl power --window ..."},
        {"power -w 1", "bad option '-w'"},
        {"frobnicate", "unknown command 'frobnicate'"},
        {"power extra", "wrong number of arguments for 'power'"},
        {"read", "wrong number of arguments for 'read'"},
        {"--instance power",
         "bad value 'power' for --instance (0 the server, 1 the expansion unit)"},
        {"--instance 2 discover",
         "--instance 2 is out of range (0 the server, 1 the expansion unit)"},
        {"--instance \x1b[2J discover",
         "bad value '\\x1B[2J' for --instance (0 the server, 1 the expansion unit)"},
        {"power --window 0", "bad window '0' (a number with s, m or h, e.g. 30s, 90m, 2h, 24h, "
                             "or seconds alone; 1 s to 24 h)"},
        {"power --window 86401", "bad window '86401' (a number with s, m or h, e.g. 30s, 90m, 2h, "
                                 "24h, or seconds alone; 1 s to 24 h)"},
        {"power --window 25h", "bad window '25h' (a number with s, m or h, e.g. 30s, 90m, 2h, "
                               "24h, or seconds alone; 1 s to 24 h)"},
        {"power --window -1h", "bad window '-1h' (a number with s, m or h, e.g. 30s, 90m, 2h, "
                               "24h, or seconds alone; 1 s to 24 h)"},
        {"power --window 1hs", "bad window '1hs' (a number with s, m or h, e.g. 30s, 90m, 2h, "
                               "24h, or seconds alone; 1 s to 24 h)"},
        {"power --window 2d", "bad window '2d' (a number with s, m or h, e.g. 30s, 90m, 2h, 24h, "
                              "or seconds alone; 1 s to 24 h)"},
        {"history --hours 25", "bad hours '25' (1-24)"},
        {"chart --hours x", "bad hours 'x' (1-24)"},
        {"metrics --last 0", "bad count '0' (1-120)"},
        {"history --json --csv", "choose one of --json and --csv"},
    };
    for (const auto &c : wrong) {
        const auto r = zeloctl(words(c.line));
        EXPECT_EQ(r.status, 2) << c.line;
        EXPECT_EQ(r.err, std::string("zeloctl: ") + c.error + "\nTry 'zeloctl --help'.\n");
        EXPECT_EQ(r.out, "");
    }
    const auto bare = zeloctl({});
    EXPECT_EQ(bare.status, 2);
    EXPECT_EQ(bare.err.rfind("usage: zeloctl", 0), 0u) << bare.err;
}

// Each command's help shows only the options it takes.
TEST_F(ZeloctlTest, HelpAdvertisesOnlyTheOptionsACommandTakes) {
    EXPECT_EQ(zeloctl({"chart", "--help"}).out.rfind("usage: zeloctl [--verbose] chart [", 0), 0u);
    EXPECT_EQ(
        zeloctl({"power", "--help"}).out.rfind("usage: zeloctl [--json] [--verbose] power [", 0),
        0u);
    EXPECT_EQ(zeloctl({"read", "--help"})
                  .out.rfind("usage: zeloctl [--json] [--verbose] [--instance N] read NAME\n", 0),
              0u);
}

TEST_F(ZeloctlTest, EveryProgramTellsItsVersion) {
    const std::pair<const char *, const char *> programs[] = {{ZELO_ZELOCTL_PATH, "zeloctl"},
                                                              {ZELO_FWSIM_PATH, "zelo-fwsim"},
                                                              {ZELO_DAEMON_PATH, "zelo"}};
    for (const auto &[path, name] : programs) {
        const auto r = runProgram(path, {"--version"});
        EXPECT_EQ(r.status, 0) << name;
        EXPECT_EQ(r.out, std::string(name) + " " ZELO_VERSION "\n");
    }
}

TEST_F(ZeloctlTest, AbsentFirmwareIsReported) {
    SimProcess sim(root.path(), scenarioFile("absent.scn"));
    const struct {
        std::vector<std::string> args;
        const char *error;
    } absent[] = {
        {{"discover"}, "discovery failed, result code 193"},
        {{"read", "power-cap"}, "no firmware instance 0: discovery failed, result code 193"},
        {{"redundancy"}, "no firmware instance 0: discovery failed, result code 193"},
        {{"expansion"}, "no firmware instance 1: discovery failed, result code 193"},
    };
    for (const auto &c : absent) {
        const auto r = zeloctl(c.args);
        EXPECT_EQ(r.status, 1) << c.args[0];
        EXPECT_EQ(r.err, std::string("zeloctl: ") + c.error + "\n");
    }
}

} // namespace
} // namespace zelo::test
