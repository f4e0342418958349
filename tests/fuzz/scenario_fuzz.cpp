// Feeds arbitrary text to the simulator's scenario parser, then each of its
// lines as a control line to a firmware built from what parsed. A refused
// line must leave things as they were, and nothing may crash, leak or read
// past the text.
//
// Input: scenario text. Seeds: the scenarios in sim/scenarios.
#include "model.h"
#include "scenario.h"

#include <cstdint>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    zelo::sim::Scenario scenario;
    std::string error;
    (void)zelo::sim::parseScenario(text, "fuzz.scn", scenario, error);

    // Firmware time moves a second per line: restarts and snapshots take
    // effect without a real clock.
    std::uint64_t now = 0;
    zelo::sim::Firmware firmware(scenario, [&now] { return now; });
    for (std::size_t at = 0; at <= text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        now += 1000;
        (void)firmware.control(text.substr(at, end - at), error);
        at = end + 1;
    }
    return 0;
}
