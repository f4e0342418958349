// Inlet temperatures of a blade: its snapshot carries none, so every cycle
// the readings come from the controller's own temperature sensors instead.
#include "cycle.h"
#include "hooks.h"
#include "inlet_internal.h"
#include "report.h"

#include <zelo/firmware.h>
#include <zelo/metriclog.h>
#include <zelo/platform.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace zelo::metriclog {

BladeInletSensorBuffer sBladeInletSensorBuffer = {0, nullptr};

namespace {

// Texts end at their NUL or at the record's end.
constexpr uint32_t kRecordLen = ZELO_SENSOR_RECORD_LEN;
constexpr uint32_t kRecordCapacity = 768;
constexpr uint32_t kAreaLen = kRecordLen * kRecordCapacity;
static_assert(kAreaLen == 1145856, "the receiving area holds 768 records");
constexpr uint32_t kStatusOffset = ZELO_SENSOR_RECORD_STATUS;
constexpr uint32_t kNameOffset = ZELO_SENSOR_RECORD_NAME;
constexpr uint32_t kReadingOffset = ZELO_SENSOR_RECORD_READING;

constexpr uint8_t kTemperatureSensorType = 1; // the IPMI sensor type code
constexpr std::size_t kReadingMax = ZELO_INLET_TEMPERATURE_TEXT - 1;
constexpr const char *kUnavailable = "Unavailable";
constexpr const char *kWriteFunction = "WriteBladeInletTemperatureFromInletSensor";

// The stored index is the position in this table.
constexpr const char *kInletNames[ZELO_INLET_SENSOR_UNKNOWN] = {
    "Inlet Temp", "Inlet 1 Temp", "Inlet 2 Temp", "PEN Inlet Temp", "SEN Inlet Temp",
};

const char *textAt(const uint8_t *record, uint32_t offset) {
    return reinterpret_cast<const char *>(record + offset);
}

// The record's name, or null when no NUL ends it inside the record.
const char *recordName(const uint8_t *record) {
    const char *name = textAt(record, kNameOffset);
    return std::memchr(name, '\0', kRecordLen - kNameOffset) != nullptr ? name : nullptr;
}

// Links the inlet readings among `count` records at the front of the daemon's
// list; 1 when a node cannot be had (the nodes linked so far stay).
int collect(const uint8_t *area, uint32_t count) {
    BladeInletSensorBuffer &list = sBladeInletSensorBuffer;
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t *record = area + std::size_t{i} * kRecordLen;
        const char *name = recordName(record);
        if (record[kStatusOffset] != 0 || name == nullptr)
            continue;
        const uint32_t index = GetInletSensorIndexPerSensorName(name);
        if (index == ZELO_INLET_SENSOR_UNKNOWN)
            continue;
        // The count is one byte: a node beyond it could never be released.
        if (list.u8SensorNum == UINT8_MAX)
            break;
        auto *node =
            static_cast<InletSensorTemperature *>(std::calloc(1, sizeof(InletSensorTemperature)));
        if (node == nullptr)
            return 1;
        node->u32SensorIndex = index;
        const char *reading = textAt(record, kReadingOffset);
        std::memcpy(
            node->szTemperature, reading,
            strnlen(reading, std::min<std::size_t>(kReadingMax, kRecordLen - kReadingOffset)));
        if (std::strcmp(node->szTemperature, kUnavailable) == 0) {
            zelo::report(zelo::traced(kWriteFunction, "WARN"), "Sensor[%s] 's inlet temp is %s",
                         name, node->szTemperature);
        }
        node->psNext = list.psSensor;
        list.psSensor = node;
        ++list.u8SensorNum;
    }
    return 0;
}

} // namespace

const char *inletSensorName(uint32_t index) {
    return index < ZELO_INLET_SENSOR_UNKNOWN ? kInletNames[index] : "Unknown";
}

void releaseCycleInlets() {
    FreeBladeInletSensorBuffer(&sBladeInletSensorBuffer);
}

} // namespace zelo::metriclog

using namespace zelo::metriclog;

extern "C" {

uint32_t GetInletSensorIndexPerSensorName(const char *pszName) {
    uint32_t index = 0;
    while (index < ZELO_INLET_SENSOR_UNKNOWN &&
           (pszName == nullptr || std::strcmp(pszName, kInletNames[index]) != 0))
        ++index;
    return index;
}

int WriteBladeInletTemperatureFromInletSensor(void) {
    return gatherInletReadings(IsBladeServer() != 0);
}

} // extern "C"

int zelo::metriclog::gatherInletReadings(bool blade) {
    if (!blade) {
        zelo::print("%s -- non-blade platform does not need read inlet temperature from ipmi "
                    "sensor at all\n",
                    kWriteFunction);
        return 0;
    }
    // Zeroed, so bytes a platform claims but never wrote read as empty texts.
    auto *area = static_cast<uint8_t *>(zelo::hooks().calloc(kAreaLen, 1));
    if (area == nullptr) {
        zelo::print("Unable to malloc (%d bytes)memory for sensor info\n)",
                    static_cast<int>(kAreaLen));
        return 1;
    }
    const uint8_t type = kTemperatureSensorType;
    uint32_t delivered = 0;
    const int rc = GetAllSensorInfoByType(&delivered, kAreaLen, &type, area);
    int result = 1;
    if (rc != 0) {
        zelo::print("Unable to get sensor info (type %d), KIV returned %d\n", type, rc);
    } else if (delivered < kRecordLen) {
        zelo::print("No sensor info for type %d\n", type);
    } else {
        // A platform claiming more than the area holds must not lead the walk past it.
        const uint32_t count = std::min(delivered, kAreaLen) / kRecordLen;
        zelo::print("totally there are %d sensor info for type %d\n", static_cast<int>(count),
                    type);
        result = collect(area, count);
    }
    std::free(area);
    return result;
}

extern "C" {

void CopyInletTemperatureSnapshotBuffer(BladeInletSensorBuffer *psDest,
                                        const BladeInletSensorBuffer *psSource) {
    if (psDest == nullptr || psSource == nullptr)
        return;
    const uint8_t count = psSource->u8SensorNum;
    zelo::print("%s --source len [%d] --dest len [%d]\n", "CopyInletTemperatureSnapshotBuffer",
                count, count);
    psDest->psSensor = nullptr;
    InletSensorTemperature **tail = &psDest->psSensor;
    uint8_t copied = 0;
    for (const InletSensorTemperature *from = psSource->psSensor; from != nullptr && copied < count;
         from = from->psNext) {
        auto *node =
            static_cast<InletSensorTemperature *>(std::calloc(1, sizeof(InletSensorTemperature)));
        if (node == nullptr)
            break;
        node->u32SensorIndex = from->u32SensorIndex;
        std::memcpy(node->szTemperature, from->szTemperature, sizeof node->szTemperature);
        node->szTemperature[kReadingMax] = '\0';
        *tail = node;
        tail = &node->psNext;
        ++copied;
    }
    // Counts what the copy holds, so releasing it frees every node even when
    // the source had fewer nodes than its count or memory ran out.
    psDest->u8SensorNum = copied;
}

void FreeBladeInletSensorBuffer(BladeInletSensorBuffer *psList) {
    if (psList == nullptr)
        return;
    InletSensorTemperature *node = psList->psSensor;
    for (unsigned i = 0; i < psList->u8SensorNum && node != nullptr; ++i) {
        InletSensorTemperature *next = node->psNext;
        std::free(node);
        node = next;
    }
    psList->psSensor = nullptr;
    psList->u8SensorNum = 0;
}

} // extern "C"
