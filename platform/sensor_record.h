// The controller's sensor record as GetAllSensorInfoByType lays it out:
// zero but for the status byte and two NUL-terminated texts.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace zelo::platform {

inline constexpr std::uint32_t kRecordLen = 1492;
inline constexpr std::uint32_t kStatusOffset = 2;
inline constexpr std::uint32_t kNameOffset = 6;
inline constexpr std::uint32_t kReadingOffset = 198;
// The longest texts a record holds with their NUL.
inline constexpr std::size_t kRecordNameMax = 191;
inline constexpr std::size_t kRecordReadingMax = 1293;
static_assert(kNameOffset + kRecordNameMax < kReadingOffset, "the name keeps its NUL");
static_assert(kReadingOffset + kRecordReadingMax < kRecordLen, "the reading keeps its NUL");

// Fills one record; texts longer than their field are cut.
inline void writeRecord(std::uint8_t *record, std::uint8_t status, std::string_view name,
                        std::string_view reading) {
    std::memset(record, 0, kRecordLen);
    record[kStatusOffset] = status;
    if (!name.empty())
        std::memcpy(record + kNameOffset, name.data(), std::min(name.size(), kRecordNameMax));
    if (!reading.empty())
        std::memcpy(record + kReadingOffset, reading.data(),
                    std::min(reading.size(), kRecordReadingMax));
}

} // namespace zelo::platform
