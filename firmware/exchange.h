// One element-method exchange whose request and response are released
// together on every path, and whose received length is known.
#pragma once

#include <zelo/firmware.h>
#include <zelo/platform.h>

#include <cstdint>
#include <cstdlib>

namespace zelo::firmware {

struct Exchange {
    uint8_t *request = nullptr;
    uint8_t *response = nullptr;
    uint32_t received = 0;

    Exchange() = default;
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;
    ~Exchange() { CleanReadBuffer(request, response); }

    // A zero-filled response area; false when it cannot be had.
    bool allocateResponse(uint32_t capacity) {
        response = static_cast<uint8_t *>(std::calloc(capacity, 1));
        return response != nullptr;
    }

    // Sends requestLen bytes of the request; returns the transport's result.
    int send(uint8_t command, uint32_t requestLen, uint32_t capacity) {
        received = capacity;
        return IPMI_DoIPMICmd(NETFN_DUV, command, request, requestLen, response, &received);
    }
};

} // namespace zelo::firmware
