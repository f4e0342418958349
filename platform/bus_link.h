// The D-Bus platform library's one connection to the system bus
// ($DBUS_SYSTEM_BUS_ADDRESS when set), opened at the first call and again
// after the bus went away or the process forked. Calls are serialised: a
// connection is not to be shared between threads.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <functional>
#include <memory>

namespace zelo::platform {

struct MessageUnref {
    void operator()(sd_bus_message *m) const { sd_bus_message_unref(m); }
};
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

struct Target {
    const char *service;
    const char *path;
    const char *interface;
    const char *member;
};

// Calls one method: `fill` appends the arguments, `read` takes the reply.
// Either returns a negative errno to fail the call. The whole call, a new
// connection included, ends within timeoutMs. 0, or a negative errno:
// -ETIMEDOUT when no answer came in time; an error's name goes to
// *errorName when given (128 bytes).
int callMethod(const Target &target, const std::function<int(sd_bus_message *)> &fill,
               const std::function<int(sd_bus_message *)> &read, std::uint32_t timeoutMs,
               char *errorName = nullptr);

// One of the library's calls at the C edge, which no exception crosses: one
// (no memory for a message's texts) fails the call with `failed`.
template <class Call>
int withoutExceptions(int failed, const Call &call) noexcept {
    try {
        return call();
    } catch (...) {
        return failed;
    }
}

} // namespace zelo::platform
