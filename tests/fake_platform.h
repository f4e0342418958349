// Scripted fake of the platform interfaces for unit tests: IPMI exchanges are
// checked byte for byte against a script and answered from it; the
// configuration store is a map whose every call is recorded in order.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "hooks.h"
#include "model.h"

namespace zelo::test {

using Bytes = std::vector<uint8_t>;

struct IpmiStep {
    uint8_t netFn;
    uint8_t cmd;
    Bytes request;  // expected request bytes
    Bytes response; // canned answer, completion code first
    int rc = 0;     // transport result; non-zero means no answer
};

struct FakePlatform {
    std::vector<IpmiStep> script;
    // When set, requests go to this in-process firmware instead of the script.
    sim::Firmware *firmware = nullptr;
    std::size_t next = 0;
    uint32_t lastCapacity = 0;
    std::size_t exchanges = 0; // every IPMI_DoIPMICmd, scripted or answered by the firmware

    std::map<std::string, int64_t> store;
    std::vector<std::string> storeCalls; // "get_bool k", "set_int k=5 flag 1", "clear k"
    std::set<std::string> failingSets;   // keys whose setters fail

    std::vector<std::pair<int, std::string>> syslog; // priority, message

    // GetAllSensorInfoByType copies sensorRecords into the area, cut to its
    // size, and returns sensorResult (non-zero: nothing delivered);
    // sensorClaimed, when set, is the length it reports instead.
    Bytes sensorRecords;
    int sensorResult = 0;
    std::optional<uint32_t> sensorClaimed;
    std::vector<uint8_t> sensorTypes; // asked for, one per call
    uint32_t sensorAreaSize = 0;

    // Software events handed to sw_msg_dispatcher, with a copy of their
    // parameter block when one came; every call answers eventResult.
    struct SentEvent {
        uint16_t id;
        std::optional<std::array<uint8_t, 192>> params;
    };
    std::vector<SentEvent> events;
    int eventResult = 0;

    long uptime = 100;
    bool sysinfoFails = false;

    void expect(IpmiStep step) { script.push_back(std::move(step)); }
    std::size_t pending() const { return script.size() - next; }
};

FakePlatform &fake();

// Resets the fake, the library's support cache, the histories, the metric
// log's and the trace log's daemon-wide state, gives the test its own
// ZELO_ROOT and hooks (the fake uptime and system log; the test may replace
// more), and checks at the end that the script ran out.
class PlatformTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    // The root's first trace file, and whether it holds text.
    std::string trace() const;
    bool traced(const std::string &text) const { return trace().find(text) != std::string::npos; }
    // The in-process simulated firmware of the scenario answers every request.
    void useFirmware(const std::string &scenario);
    std::string root;
    HooksOverride hooks;
    std::unique_ptr<sim::Firmware> firmware;
};

// A file's bytes; none when it cannot be read.
Bytes fileBytes(const std::string &path);

// The element-method request head for the build's enterprise id.
Bytes head(uint8_t handle, uint8_t element, uint8_t method);
Bytes concat(Bytes a, const Bytes &b);
// The discovery request for an instance.
inline Bytes discoveryRequest(uint8_t instance) {
    return head(instance, 0, 1);
}
// A successful response: completion code 0, id echo, data.
Bytes okResponse(const Bytes &data);

} // namespace zelo::test
