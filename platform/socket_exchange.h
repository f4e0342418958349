// One exchange with the firmware simulator over its socket, shared by the
// host platform calls that reach it (IPMI requests, the controller's sensors).
#pragma once

#include <cstdint>

namespace zelo::platform {

// The request and response as IPMI_DoIPMICmd takes them: *responseLen is the
// capacity in and the bytes kept out; 0 on success, -errno when no answer
// arrived. Answers longer than the capacity are cut to it.
[[gnu::visibility("hidden")]] int exchange(std::uint8_t netFn, std::uint8_t cmd,
                                           const std::uint8_t *request, std::uint32_t requestLen,
                                           std::uint8_t *response, std::uint32_t *responseLen);

} // namespace zelo::platform
