// Framing of one IPMI exchange between the host platform library and the
// firmware simulator over a Unix-domain stream socket, one exchange per
// connection:
//   request:  netFn u8, cmd u8, length u16 little-endian, request data
//   response: length u16 little-endian, response data (completion code first)
#pragma once

#include <cstddef>
#include <cstdint>

namespace zelo::wire {

inline constexpr std::size_t kRequestHeadLen = 4;
inline constexpr std::size_t kResponseHeadLen = 2;
// Larger than any IPMI message; frames announcing more are refused.
inline constexpr std::size_t kMaxDataLen = 4096;
// Socket location under the root when $ZELO_IPMI_SOCKET is not set.
inline constexpr const char *kDefaultSocket = "/run/zelo-fwsim.sock";
inline constexpr const char *kSocketEnv = "ZELO_IPMI_SOCKET";

inline void putLe16(std::uint8_t *p, std::uint16_t v) {
    p[0] = static_cast<std::uint8_t>(v & 0xFF);
    p[1] = static_cast<std::uint8_t>(v >> 8);
}
inline std::uint16_t getLe16(const std::uint8_t *p) {
    return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}

} // namespace zelo::wire
