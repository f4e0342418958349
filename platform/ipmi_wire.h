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

// The controller's own sensors travel on the same socket under a network
// function the power-management firmware never uses (0x3A, in the range IPMI
// leaves to a controller's own commands), one record per exchange:
//   request:  netFn 0x3A, cmd = IPMI sensor type, data = record index u16
//             big-endian, counted from 0
//   response: 0x00, status u8, name length u8, name, reading length u16
//             big-endian, reading (texts without NUL); 0xCB alone past the
//             last record of that type; any other code is a refusal
inline constexpr std::uint8_t kSensorNetFn = 0x3A;
inline constexpr std::uint8_t kCcNoMoreRecords = 0xCB;
// The longest texts a platform sensor record holds with their NUL.
inline constexpr std::size_t kSensorNameMax = 191;
inline constexpr std::size_t kSensorReadingMax = 1293;

// Control of a running simulator, never sent by the library: network
// function 0x3C (also in the controller's own range, unused by it), one
// scenario line per exchange (sim/scenario.h):
//   request:  netFn 0x3C, cmd 0, data = the line's text (no NUL, no line end)
//   response: 0x00 alone when applied; 0xCC and the error text when refused
// Answered at once, also by an absent or delayed firmware.
inline constexpr std::uint8_t kControlNetFn = 0x3C;
inline constexpr std::uint8_t kControlCmd = 0x00;
inline constexpr std::uint8_t kCcControlRefused = 0xCC;

inline void putLe16(std::uint8_t *p, std::uint16_t v) {
    p[0] = static_cast<std::uint8_t>(v & 0xFF);
    p[1] = static_cast<std::uint8_t>(v >> 8);
}
inline std::uint16_t getLe16(const std::uint8_t *p) {
    return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}

} // namespace zelo::wire
