// Writes the sensor records GetAllSensorInfoByType hands the library.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "zelo/platform.h"

namespace zelo::platform {

inline constexpr std::uint32_t kRecordLen = ZELO_SENSOR_RECORD_LEN;
inline constexpr std::uint32_t kStatusOffset = ZELO_SENSOR_RECORD_STATUS;
inline constexpr std::uint32_t kNameOffset = ZELO_SENSOR_RECORD_NAME;
inline constexpr std::uint32_t kReadingOffset = ZELO_SENSOR_RECORD_READING;
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
