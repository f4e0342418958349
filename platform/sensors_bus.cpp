// The controller's temperature sensors on the bus, laid out as the
// platform's sensor records: the sensors named in the configuration, or else
// those the object mapper knows under the temperature root, by path.
// Results: 0; a negative errno when the bus, the mapper or a sensor fails.
#include "bus_config.h"
#include "bus_link.h"
#include "bus_names.h"
#include "sensor_record.h"

#include <zelo/platform.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

namespace {

namespace names = zelo::busnames;
using zelo::platform::SensorSource;

constexpr uint8_t kTemperatureType = 1; // the IPMI sensor type code

// The sensors under the temperature root, each with the first service the
// mapper names for it, ordered by path.
int mapperSensors(uint32_t timeoutMs, std::vector<SensorSource> &found) {
    const auto fill = [](sd_bus_message *m) {
        const int r = sd_bus_message_append(m, "si", names::kTemperatureRoot, 0);
        return r < 0 ? r : sd_bus_message_append(m, "as", 1, names::kValueInterface);
    };
    const auto read = [&found](sd_bus_message *m) {
        int r = sd_bus_message_enter_container(m, 'a', "{sa{sas}}");
        while (r >= 0 && (r = sd_bus_message_enter_container(m, 'e', "sa{sas}")) > 0) {
            const char *path = nullptr;
            const char *service = nullptr;
            r = sd_bus_message_read(m, "s", &path);
            if (r >= 0)
                r = sd_bus_message_enter_container(m, 'a', "{sas}");
            while (r >= 0 && (r = sd_bus_message_enter_container(m, 'e', "sas")) > 0) {
                const char *name = nullptr;
                r = sd_bus_message_read(m, "s", &name);
                if (r >= 0 && service == nullptr)
                    service = name;
                if (r >= 0)
                    r = sd_bus_message_skip(m, "as");
                if (r >= 0)
                    r = sd_bus_message_exit_container(m);
            }
            if (r >= 0)
                r = sd_bus_message_exit_container(m);
            if (r >= 0)
                r = sd_bus_message_exit_container(m);
            if (r >= 0 && service != nullptr && found.size() < zelo::platform::kMaxSensors)
                found.push_back({service, path});
        }
        if (r >= 0)
            r = sd_bus_message_exit_container(m);
        return r < 0 ? r : 0;
    };
    const int rc = zelo::platform::callMethod(
        {names::kMapperService, names::kMapperPath, names::kMapperInterface, "GetSubTree"}, fill,
        read, timeoutMs);
    std::sort(found.begin(), found.end(),
              [](const SensorSource &a, const SensorSource &b) { return a.path < b.path; });
    return rc;
}

// One property through org.freedesktop.DBus.Properties.Get.
template <typename T>
int property(const SensorSource &s, const char *interface, const char *name, char type, T *value,
             uint32_t timeoutMs) {
    const auto fill = [&](sd_bus_message *m) {
        return sd_bus_message_append(m, "ss", interface, name);
    };
    const auto read = [&](sd_bus_message *m) {
        const char contents[2] = {type, '\0'};
        return sd_bus_message_read(m, "v", contents, value);
    };
    return zelo::platform::callMethod(
        {s.service.c_str(), s.path.c_str(), names::kPropertiesInterface, "Get"}, fill, read,
        timeoutMs);
}

// "Inlet_1_Temp" names the sensor "Inlet 1 Temp": a path holds no blanks.
std::string sensorName(const std::string &path) {
    std::string name = path.substr(path.rfind('/') + 1);
    std::replace(name.begin(), name.end(), '_', ' ');
    return name;
}

// The reading as the controller's platform words it.
std::string readingText(double celsius) {
    if (!std::isfinite(celsius))
        return "Unavailable";
    char text[64];
    std::snprintf(text, sizeof text, "%g degrees C", celsius);
    return text;
}

} // namespace

namespace {

int sensorInfo(uint32_t *deliveredLen, uint32_t areaSize, const uint8_t *sensorType,
               uint8_t *area) {
    using namespace zelo::platform;
    if (deliveredLen == nullptr || sensorType == nullptr || (area == nullptr && areaSize > 0))
        return -EINVAL;
    *deliveredLen = 0;
    if (*sensorType != kTemperatureType)
        return 0;
    const BusConfig &config = busConfig();
    std::vector<SensorSource> found;
    if (config.sensors.empty())
        if (const int rc = mapperSensors(config.timeoutMs, found); rc != 0)
            return rc;
    const std::vector<SensorSource> &sensors = config.sensors.empty() ? found : config.sensors;
    uint32_t written = 0;
    // Only whole records are delivered; the rest of the area is not touched.
    for (const SensorSource &s : sensors) {
        if (areaSize - written < kRecordLen)
            break;
        double value = NAN;
        if (const int rc =
                property(s, names::kValueInterface, "Value", 'd', &value, config.timeoutMs);
            rc != 0)
            return rc;
        // A sensor without the status interface counts as working.
        int functional = 1;
        property(s, names::kStatusInterface, "Functional", 'b', &functional, config.timeoutMs);
        writeRecord(area + written, functional != 0 ? 0 : 1, sensorName(s.path),
                    readingText(value));
        written += kRecordLen;
    }
    *deliveredLen = written;
    return 0;
}

} // namespace

extern "C" int GetAllSensorInfoByType(uint32_t *deliveredLen, uint32_t areaSize,
                                      const uint8_t *sensorType, uint8_t *area) {
    return zelo::platform::withoutExceptions(
        -ENOMEM, [&] { return sensorInfo(deliveredLen, areaSize, sensorType, area); });
}
