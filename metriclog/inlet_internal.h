// Inlet readings of a blade, shared inside the metric log; not exported.
#pragma once

#include <zelo/metriclog.h>

#include <cstdint>

namespace zelo::metriclog {

// The readings of the current cycle, filled by
// WriteBladeInletTemperatureFromInletSensor for the writer and emptied by the
// daemon once the cycle is done.
extern BladeInletSensorBuffer sBladeInletSensorBuffer;

// WriteBladeInletTemperatureFromInletSensor for a blade (`blade`) or not.
int gatherInletReadings(bool blade);

// The inlet sensor name stored as index; "Unknown" for anything outside the table.
const char *inletSensorName(uint32_t index);

} // namespace zelo::metriclog
