// IPMI over the controller's IPMB bridge: each exchange is one sendRequest
// call on the firmware's channel, answered within the configured timeout.
#include "bus_config.h"
#include "bus_link.h"
#include "bus_names.h"

#include <zelo/platform.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// Longer than any IPMI message; a request beyond it is refused unsent.
constexpr uint32_t kMaxRequestLen = 4096;
constexpr uint8_t kLun = 0;

} // namespace

namespace {

int doCommand(uint8_t netFn, uint8_t cmd, const uint8_t *request, uint32_t requestLen,
              uint8_t *response, uint32_t *responseLen) {
    namespace names = zelo::busnames;
    if (responseLen == nullptr || (response == nullptr && *responseLen > 0) ||
        (request == nullptr && requestLen > 0) || requestLen > kMaxRequestLen)
        return -EINVAL;
    const uint32_t capacity = *responseLen;
    *responseLen = 0;
    const zelo::platform::BusConfig &config = zelo::platform::busConfig();
    const auto fill = [&](sd_bus_message *m) {
        const int r = sd_bus_message_append(m, "yyyy", config.channel, netFn, kLun, cmd);
        return r < 0 ? r : sd_bus_message_append_array(m, 'y', request, requestLen);
    };
    const auto read = [&](sd_bus_message *m) {
        int32_t status = 0;
        uint8_t answerNetFn = 0, lun = 0, answerCmd = 0, cc = 0;
        const void *data = nullptr;
        std::size_t len = 0;
        if (const int r =
                sd_bus_message_read(m, "iyyyy", &status, &answerNetFn, &lun, &answerCmd, &cc);
            r < 0)
            return r;
        if (const int r = sd_bus_message_read_array(m, 'y', &data, &len); r < 0)
            return r;
        // The bridge got no answer from the firmware.
        if (status != 0)
            return -EIO;
        // An answer to another request (the response's network function is
        // the request's plus one).
        if (answerCmd != cmd || (answerNetFn | 1) != (netFn | 1))
            return -EPROTO;
        if (capacity == 0)
            return 0;
        response[0] = cc;
        const std::size_t kept = std::min<std::size_t>(len, capacity - 1);
        if (kept > 0)
            std::memcpy(response + 1, data, kept);
        *responseLen = static_cast<uint32_t>(kept + 1);
        return 0;
    };
    return zelo::platform::callMethod(
        {names::kIpmbService, names::kIpmbPath, names::kIpmbInterface, names::kSendRequest}, fill,
        read, config.timeoutMs);
}

} // namespace

extern "C" int IPMI_DoIPMICmd(uint8_t netFn, uint8_t cmd, const uint8_t *request,
                              uint32_t requestLen, uint8_t *response, uint32_t *responseLen) {
    return zelo::platform::withoutExceptions(
        -ENOMEM, [&] { return doCommand(netFn, cmd, request, requestLen, response, responseLen); });
}
