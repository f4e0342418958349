// Software events as entries of the controller's logging service: one
// Logging.Create call each, the event's type and id (and for a power-cap
// limit its old and new value) in the additional data, with a severity that
// fits the event. 0 when the service took the entry.
#include "bus_config.h"
#include "bus_link.h"
#include "bus_names.h"

#include <zelo/events.h>
#include <zelo/platform.h>

#include <string>
#include <utility>
#include <vector>

namespace {

namespace names = zelo::busnames;

struct EventKind {
    uint16_t id;
    const char *type;
    const char *level; // of xyz.openbmc_project.Logging.Entry.Level
};

// A limit moved or a condition went away: worth knowing. A status or power
// event bit newly set: worth a look.
constexpr EventKind kKinds[] = {
    {ZELO_EVENT_PCAP_MIN_CHANGED, "PowerCapMinChanged", "Informational"},
    {ZELO_EVENT_PCAP_MAX_CHANGED, "PowerCapMaxChanged", "Informational"},
    {ZELO_EVENT_PCAP_SOFT_MIN_CHANGED, "PowerCapSoftMinChanged", "Informational"},
    {ZELO_EVENT_POWER_EVENT_BIT3_SET, "PowerEventBit3Set", "Warning"},
    {ZELO_EVENT_POWER_EVENT_BIT2_SET, "PowerEventBit2Set", "Warning"},
    {ZELO_EVENT_STATUS_BITS45_SET, "PowerStatusBits4And5Set", "Warning"},
    {ZELO_EVENT_STATUS_BIT5_SET, "PowerStatusBit5Set", "Warning"},
    {ZELO_EVENT_STATUS_BIT4_SET, "PowerStatusBit4Set", "Warning"},
    {ZELO_EVENT_POWER_EVENT_BIT3_CLEAR, "PowerEventBit3Cleared", "Informational"},
    {ZELO_EVENT_POWER_EVENT_BIT2_CLEAR, "PowerEventBit2Cleared", "Informational"},
};

bool carriesCaps(uint16_t id) {
    return id == ZELO_EVENT_PCAP_MIN_CHANGED || id == ZELO_EVENT_PCAP_MAX_CHANGED ||
           id == ZELO_EVENT_PCAP_SOFT_MIN_CHANGED;
}

// A parameter text: at most its field's length even without a NUL, and
// printable characters only.
std::string printable(const char *field) {
    std::string text;
    for (std::size_t i = 0; i < ZELO_PCAP_EVENT_TEXT_LEN && field[i] != '\0'; ++i) {
        const auto c = static_cast<unsigned char>(field[i]);
        text += c >= 0x20 && c < 0x7F ? field[i] : '?';
    }
    return text;
}

} // namespace

namespace {

int dispatch(uint16_t eventId, void *params) {
    std::string type = "Event" + std::to_string(eventId);
    std::string level = "Notice";
    for (const EventKind &k : kKinds)
        if (k.id == eventId) {
            type = k.type;
            level = k.level;
        }
    std::vector<std::pair<std::string, std::string>> data = {{"EVENT_ID", std::to_string(eventId)},
                                                             {"EVENT_TYPE", type}};
    if (params != nullptr && carriesCaps(eventId)) {
        const auto *caps = static_cast<const PowerCapsEventParams *>(params);
        data.emplace_back("OLD_VALUE", printable(caps->szPreviousValue));
        data.emplace_back("NEW_VALUE", printable(caps->szNewValue));
    }
    const std::string message = "xyz.openbmc_project.Zelo.Event." + type;
    const std::string severity = names::kLevelPrefix + level;
    const auto fill = [&](sd_bus_message *m) {
        int r = sd_bus_message_append(m, "ss", message.c_str(), severity.c_str());
        if (r >= 0)
            r = sd_bus_message_open_container(m, 'a', "{ss}");
        for (std::size_t i = 0; r >= 0 && i < data.size(); ++i)
            r = sd_bus_message_append(m, "{ss}", data[i].first.c_str(), data[i].second.c_str());
        return r < 0 ? r : sd_bus_message_close_container(m);
    };
    const int rc = zelo::platform::callMethod(
        {names::kLoggingService, names::kLoggingPath, names::kCreateInterface, names::kCreate},
        fill, [](sd_bus_message *) { return 0; }, zelo::platform::busConfig().timeoutMs);
    return rc == 0 ? 0 : 1;
}

} // namespace

extern "C" int sw_msg_dispatcher(uint16_t eventId, void *params) {
    // An entry without memory for its texts is not logged.
    return zelo::platform::withoutExceptions(1, [&] { return dispatch(eventId, params); });
}
