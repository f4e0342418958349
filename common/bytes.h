// Byte-order helpers: unsigned values of 1 to 8 bytes read from and written
// to byte arrays, big-endian as the firmware answers, little-endian as the
// files hold them; and the enterprise number that heads every request. They
// check no bounds: a caller reads only bytes it has checked are there.
#pragma once

#include <zelo/firmware.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace zelo {

constexpr uint64_t getBe(const uint8_t *at, std::size_t width) {
    uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i)
        value = value << 8 | at[i];
    return value;
}

constexpr void putBe(uint8_t *at, uint64_t value, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i)
        at[i] = static_cast<uint8_t>(value >> (8 * (width - 1 - i)));
}

constexpr uint64_t getLe(const uint8_t *at, std::size_t width) {
    uint64_t value = 0;
    for (std::size_t i = width; i-- > 0;)
        value = value << 8 | at[i];
    return value;
}

constexpr void putLe(uint8_t *at, uint64_t value, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i)
        at[i] = static_cast<uint8_t>(value >> (8 * i));
}

// The build's enterprise number, least significant byte first, as every
// request begins.
inline constexpr std::array<uint8_t, 3> kEnterpriseBytes{
    static_cast<uint8_t>(ZELO_IANA_ID & 0xFF), static_cast<uint8_t>((ZELO_IANA_ID >> 8) & 0xFF),
    static_cast<uint8_t>((ZELO_IANA_ID >> 16) & 0xFF)};

} // namespace zelo
