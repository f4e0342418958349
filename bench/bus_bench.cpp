// A property get through the bus, as a client of zelo-dbus makes it: one
// connection, then Get of total AC power's Value, round trip each time. The
// bus is the one DBUS_SYSTEM_BUS_ADDRESS names (scripts/bench-dbus starts a
// private one).
#include <benchmark/benchmark.h>

#include <systemd/sd-bus.h>

#include <cstdio>

namespace {

void propertyGet(benchmark::State &state) {
    sd_bus *bus = nullptr;
    if (sd_bus_open_system(&bus) < 0) {
        state.SkipWithError("no system bus");
        return;
    }
    for (auto _ : state) {
        double watts = 0;
        sd_bus_error error = SD_BUS_ERROR_NULL;
        const int r = sd_bus_get_property_trivial(
            bus, "xyz.openbmc_project.Zelo", "/xyz/openbmc_project/sensors/power/total_ac",
            "xyz.openbmc_project.Sensor.Value", "Value", &error, 'd', &watts);
        sd_bus_error_free(&error);
        if (r < 0) {
            state.SkipWithError("the get failed");
            break;
        }
        benchmark::DoNotOptimize(watts);
    }
    sd_bus_flush_close_unref(bus);
}
BENCHMARK(propertyGet)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
