// Serves the simulated firmware on a D-Bus bus as the controller's services
// would: the IPMB bridge's sendRequest answers from the same firmware model
// (its scenario, faults and delay) as the socket; the scenario's sensors are
// temperature sensors (Sensor.Value, OperationalStatus) that a minimal object
// mapper lists; a minimal logging service appends each entry it is handed
// to a file, one line each:
//   <severity> <message> KEY=VALUE...   (as received, '?' for control bytes)
// `bridge no` releases the bridge's name until `bridge yes`. Single-threaded: the
// program's loop polls fd() beside the socket and calls process(). A
// delayed answer is held back without holding up anything else; a bus
// that goes away is joined again once it is back.
#pragma once

#include "model.h"

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace zelo::sim {

class BusServer {
  public:
    // entriesPath: where the logging service's entries go.
    BusServer(Firmware &firmware, std::string entriesPath);
    ~BusServer();
    BusServer(const BusServer &) = delete;
    BusServer &operator=(const BusServer &) = delete;

    // Connects to the bus at address (a D-Bus address such as
    // unix:path=/run/bus) and takes the services' names.
    bool connect(const std::string &address, std::string &error);

    // What to poll for and for how long at most (milliseconds).
    int fd() const;
    short events() const;
    int timeoutMs() const;

    // Handles what arrived and sends the answers that are due.
    void process();

  private:
    using Clock = std::chrono::steady_clock;
    struct Held {
        sd_bus_message *reply;
        Clock::time_point due;
    };

    bool join(std::string &error);
    void leave();
    void followBridge();
    const Sensor *sensorAt(const char *path) const;
    static int onSendRequest(sd_bus_message *call, void *userdata, sd_bus_error *error);
    static int onCreate(sd_bus_message *call, void *userdata, sd_bus_error *error);
    static int onGetSubTree(sd_bus_message *call, void *userdata, sd_bus_error *error);
    static int findSensor(sd_bus *, const char *path, const char *, void *userdata, void **found,
                          sd_bus_error *);
    static int sensorProperty(sd_bus *, const char *path, const char *, const char *property,
                              sd_bus_message *reply, void *userdata, sd_bus_error *error);

    Firmware &firmware_;
    std::string entriesPath_;
    std::string address_;
    bool bridgeOwned_ = false;
    sd_bus *bus_ = nullptr;
    std::vector<sd_bus_slot *> slots_;
    std::vector<Held> held_;
    Clock::time_point nextJoin_{};
};

} // namespace zelo::sim
