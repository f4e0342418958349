// The D-Bus platform library's configuration file: what it takes and what
// it refuses, naming the line.
#include "bus_config.h"

#include <gtest/gtest.h>

namespace zelo::platform {
namespace {

struct ConfigCase {
    const char *text;
    BusConfig expected; // when error is empty
    const char *error;
};

TEST(BusConfigTest, TakesItsKeysAndRefusesAnythingElseByLine) {
    const ConfigCase cases[] = {
        {"", {}, ""},
        {"# only a comment\n\n  \n", {}, ""},
        {"channel = 0\ntimeout-ms=250 # short\n", {0, 250, {}}, ""},
        {"sensor =  xyz.Sim.T-1\t/xyz/openbmc_project/sensors/temperature/Inlet_1_Temp\n",
         {1,
          kDefaultTimeoutMs,
          {{"xyz.Sim.T-1", "/xyz/openbmc_project/sensors/temperature/Inlet_1_Temp"}}},
         ""},
        {"channel = 256\n", {}, "line 1: channel must be a number from 0 to 255"},
        {"channel = -1\n", {}, "line 1: channel must be a number from 0 to 255"},
        {"channel = 1\nchannel = 1\n", {}, "line 2: channel given twice"},
        {"timeout-ms = 0\n", {}, "line 1: timeout-ms must be a number from 1 to 60000"},
        {"timeout-ms = 60001\n", {}, "line 1: timeout-ms must be a number from 1 to 60000"},
        {"timeout-ms = 15 00\n", {}, "line 1: timeout-ms must be a number from 1 to 60000"},
        {"\n\nchanel = 1\n", {}, "line 3: unknown key 'chanel'"},
        {"channel 1\n", {}, "line 1: expected KEY = VALUE"},
        {"sensor = /xyz/openbmc_project/sensors/temperature/Inlet_Temp\n",
         {},
         "line 1: sensor must be a bus name and an object path under "
         "/xyz/openbmc_project/sensors/temperature/"},
        {"sensor = a.b /xyz/openbmc_project/sensors/power/total\n",
         {},
         "line 1: sensor must be a bus name and an object path under "
         "/xyz/openbmc_project/sensors/temperature/"},
        {"sensor = a.b /xyz/openbmc_project/sensors/temperature/../x\n",
         {},
         "line 1: sensor must be a bus name and an object path under "
         "/xyz/openbmc_project/sensors/temperature/"},
        {"sensor = 1a.b /xyz/openbmc_project/sensors/temperature/x\n",
         {},
         "line 1: sensor must be a bus name and an object path under "
         "/xyz/openbmc_project/sensors/temperature/"},
    };
    for (const ConfigCase &c : cases) {
        SCOPED_TRACE(c.text);
        BusConfig config;
        config.channel = 9; // untouched on a refusal
        std::string error;
        const bool ok = parseBusConfig(c.text, config, error);
        EXPECT_EQ(error, c.error);
        EXPECT_EQ(ok, std::string(c.error).empty());
        if (ok)
            EXPECT_EQ(config, c.expected);
        else
            EXPECT_EQ(config.channel, 9);
    }
    // A NUL byte is never part of a value.
    BusConfig config;
    std::string error;
    EXPECT_FALSE(parseBusConfig(std::string_view("channel = 1\0", 12), config, error));
    EXPECT_EQ(error, "line 1: NUL byte");
}

} // namespace
} // namespace zelo::platform
