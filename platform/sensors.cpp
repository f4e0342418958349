// Host sensor list: the controller's own sensors are the ones the firmware
// simulator's scenario lists. They are asked for one record per exchange, so
// every frame stays small, and laid out as the controller's platform lays out
// its sensor records. Results: 0; -errno when the simulator cannot be reached
// or answers nonsense; the completion code when it refuses.
#include "bytes.h"
#include "ipmi_wire.h"
#include "socket_exchange.h"

#include <zelo/platform.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace {

using namespace zelo::wire;

// A platform sensor record: zero but for the status byte and two
// NUL-terminated texts.
constexpr uint32_t kRecordLen = 1492;
constexpr uint32_t kStatusOffset = 2;
constexpr uint32_t kNameOffset = 6;
constexpr uint32_t kReadingOffset = 198;
static_assert(kNameOffset + kSensorNameMax < kReadingOffset, "the name keeps its NUL");
static_assert(kReadingOffset + kSensorReadingMax < kRecordLen, "the reading keeps its NUL");
constexpr uint32_t kLastIndex = 0xFFFF; // indices travel as 16 bits

// Fills one record from the data after the completion code; false when the
// answer is not one record's fields.
bool fillRecord(const uint8_t *data, std::size_t len, uint8_t *record) {
    // A field running past the answer's end spoils the whole answer.
    zelo::Reader f(data, len);
    const auto status = static_cast<uint8_t>(f.take(1));
    const auto nameLen = static_cast<std::size_t>(f.take(1));
    const uint8_t *name = f.next(nameLen);
    const auto readingLen = static_cast<std::size_t>(f.take(2));
    const uint8_t *reading = f.next(readingLen);
    if (!f.ok() || f.left() != 0 || nameLen > kSensorNameMax || readingLen > kSensorReadingMax)
        return false;
    std::memset(record, 0, kRecordLen);
    record[kStatusOffset] = status;
    if (nameLen > 0)
        std::memcpy(record + kNameOffset, name, nameLen);
    if (readingLen > 0)
        std::memcpy(record + kReadingOffset, reading, readingLen);
    return true;
}

} // namespace

extern "C" int GetAllSensorInfoByType(uint32_t *deliveredLen, uint32_t areaSize,
                                      const uint8_t *sensorType, uint8_t *area) {
    if (deliveredLen == nullptr || sensorType == nullptr || (area == nullptr && areaSize > 0))
        return -EINVAL;
    *deliveredLen = 0;
    uint32_t written = 0;
    // Only whole records are delivered; the rest of the area is not touched.
    for (uint32_t index = 0; index <= kLastIndex && areaSize - written >= kRecordLen; ++index) {
        const uint8_t request[2] = {static_cast<uint8_t>(index >> 8),
                                    static_cast<uint8_t>(index & 0xFF)};
        uint8_t answer[kMaxDataLen];
        uint32_t answerLen = sizeof answer;
        if (const int rc = zelo::platform::exchange(kSensorNetFn, *sensorType, request,
                                                    sizeof request, answer, &answerLen);
            rc != 0)
            return rc;
        if (answerLen == 0)
            return -EPROTO;
        if (answer[0] == kCcNoMoreRecords)
            break;
        if (answer[0] != 0)
            return answer[0];
        if (!fillRecord(answer + 1, answerLen - 1, area + written))
            return -EPROTO;
        written += kRecordLen;
    }
    *deliveredLen = written;
    return 0;
}
