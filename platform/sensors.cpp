// Host sensor list: the controller's own sensors are the ones the firmware
// simulator's scenario lists. They are asked for one record per exchange, so
// every frame stays small, and laid out as the controller's platform lays out
// its sensor records. Results: 0; -errno when the simulator cannot be reached
// or answers nonsense; the completion code when it refuses.
#include "bytes.h"
#include "ipmi_wire.h"
#include "sensor_record.h"
#include "socket_exchange.h"

#include <zelo/platform.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace {

using namespace zelo::wire;
using zelo::platform::kRecordLen;

static_assert(kSensorNameMax == zelo::platform::kRecordNameMax &&
                  kSensorReadingMax == zelo::platform::kRecordReadingMax,
              "a record holds what the wire carries");
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
    zelo::platform::writeRecord(record, status, {reinterpret_cast<const char *>(name), nameLen},
                                {reinterpret_cast<const char *>(reading), readingLen});
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
