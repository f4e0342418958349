// Byte-order helpers: unsigned values of 1 to 8 bytes read from and written
// to byte arrays, big-endian as the firmware answers, little-endian as the
// files hold them; the enterprise number that heads every request; and the
// one bounded reader over bytes that came from outside (the helpers above it
// check no bounds: a caller reads only bytes it has checked are there).
#pragma once

#include <zelo/firmware.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

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

enum class ByteOrder { Big, Little };

// Reads over bytes from outside (a firmware answer, the snapshot, a metric log
// file) that never pass their end. A read that would reads 0 or nothing and
// fails the decode (ok() turns false). Reads in order (take, next, skip) stop
// at the first failure, so a decode goes no further than the bytes go; reads
// at an offset stand each on its own. A number wider than 8 bytes keeps its
// low 64 bits.
class Reader {
  public:
    constexpr Reader(const uint8_t *data, std::size_t size, ByteOrder order = ByteOrder::Big)
        : data_(data), size_(size), order_(order) {}

    // The next `width` bytes as one number in the reader's byte order.
    uint64_t take(std::size_t width) {
        const uint8_t *at = next(width);
        return at == nullptr ? 0 : order_ == ByteOrder::Big ? getBe(at, width) : getLe(at, width);
    }
    // The next n bytes (their start), or null when they are not all there.
    const uint8_t *next(std::size_t n) {
        if (!ok_ || n > size_ - offset_) {
            ok_ = false;
            return nullptr;
        }
        const uint8_t *at = data_ + offset_;
        offset_ += n;
        return at;
    }
    bool skip(std::size_t n) { return next(n) != nullptr; }
    const uint8_t *here() const { return data_ + offset_; }

    // Big-endian at a fixed offset; the position of the reads in order stays.
    uint64_t be(std::size_t offset, std::size_t width) {
        return holds(offset, width) ? getBe(data_ + offset, width) : 0;
    }
    uint8_t byte(std::size_t offset) { return static_cast<uint8_t>(be(offset, 1)); }
    // Copies out.size() bytes from offset; nothing when they are not all there.
    bool copy(std::size_t offset, std::span<uint8_t> out) {
        if (!holds(offset, out.size()))
            return false;
        std::copy_n(data_ + offset, out.size(), out.begin());
        return true;
    }

    bool ok() const { return ok_; }
    std::size_t offset() const { return offset_; }
    std::size_t left() const { return size_ - offset_; }

  private:
    bool holds(std::size_t offset, std::size_t n) {
        const bool inside = offset <= size_ && n <= size_ - offset;
        ok_ = ok_ && inside;
        return inside;
    }

    const uint8_t *data_;
    std::size_t size_;
    ByteOrder order_;
    std::size_t offset_ = 0;
    bool ok_ = true;
};

// The build's enterprise number, least significant byte first, as every
// request begins.
inline constexpr std::array<uint8_t, 3> kEnterpriseBytes{
    static_cast<uint8_t>(ZELO_IANA_ID & 0xFF), static_cast<uint8_t>((ZELO_IANA_ID >> 8) & 0xFF),
    static_cast<uint8_t>((ZELO_IANA_ID >> 16) & 0xFF)};

} // namespace zelo
