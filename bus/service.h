// zelo-dbus: the daemon's figures and the power cap as objects on the
// system bus.
#pragma once

#include <string>

namespace zelo::bus {

inline constexpr const char *kBusName = "xyz.openbmc_project.Zelo";

struct Options {
    std::string chassis = "/xyz/openbmc_project/inventory/system/chassis";
    std::string capGroup; // besides root, who may set the power cap
};

// Serves until the bus goes away (1) or SIGTERM (0); 1 as well when the
// service cannot start, with the reason on standard error.
int serve(const Options &options);

} // namespace zelo::bus
