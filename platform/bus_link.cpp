#include "bus_link.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <unistd.h>

namespace zelo::platform {
namespace {

using Clock = std::chrono::steady_clock;

std::mutex gMutex;
sd_bus *gBus = nullptr;
pid_t gOwner = 0;

uint64_t usecLeft(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<uint64_t>(left) : 0;
}

void drop() {
    // A child of a fork must not touch its parent's connection: it is
    // forgotten, not closed.
    if (gBus != nullptr && gOwner == ::getpid())
        sd_bus_flush_close_unref(gBus);
    gBus = nullptr;
}

// The open connection, once the bus has greeted it; null when none could be
// had before the deadline (the reason in *rc).
sd_bus *connection(Clock::time_point deadline, int *rc) {
    if (gBus != nullptr && (gOwner != ::getpid() || sd_bus_is_open(gBus) <= 0))
        drop();
    if (gBus == nullptr) {
        sd_bus *bus = nullptr;
        if (const int r = sd_bus_open_system(&bus); r < 0) {
            *rc = r;
            return nullptr;
        }
        gBus = bus;
        gOwner = ::getpid();
    }
    // The greeting is waited for here, so a bus that accepts connections but
    // does not answer costs the deadline, not a hang.
    for (;;) {
        const int ready = sd_bus_is_ready(gBus);
        if (ready > 0) {
            // What a call left queued (a reply that came after its time-out,
            // a signal) is dropped here, so that it cannot pile up.
            while (sd_bus_process(gBus, nullptr) > 0) {
            }
            return gBus;
        }
        if (ready < 0) {
            *rc = ready;
            drop();
            return nullptr;
        }
        const int processed = sd_bus_process(gBus, nullptr);
        if (processed < 0) {
            *rc = processed;
            drop();
            return nullptr;
        }
        if (processed > 0)
            continue;
        const uint64_t left = usecLeft(deadline);
        if (left == 0) {
            *rc = -ETIMEDOUT;
            drop();
            return nullptr;
        }
        if (const int r = sd_bus_wait(gBus, left); r < 0 && r != -EINTR) {
            *rc = r;
            drop();
            return nullptr;
        }
    }
}

[[gnu::destructor]] void closeAtExit() {
    const std::lock_guard lock(gMutex);
    drop();
}

} // namespace

int callMethod(const Target &target, const std::function<int(sd_bus_message *)> &fill,
               const std::function<int(sd_bus_message *)> &read, std::uint32_t timeoutMs,
               char *errorName) {
    const std::lock_guard lock(gMutex);
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    int rc = 0;
    sd_bus *bus = connection(deadline, &rc);
    if (bus == nullptr)
        return rc;
    sd_bus_message *raw = nullptr;
    if (const int r = sd_bus_message_new_method_call(bus, &raw, target.service, target.path,
                                                     target.interface, target.member);
        r < 0)
        return r;
    const Message call(raw);
    if (const int r = fill(call.get()); r < 0)
        return r;
    const uint64_t left = usecLeft(deadline);
    if (left == 0)
        return -ETIMEDOUT;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    raw = nullptr;
    const int r = sd_bus_call(bus, call.get(), left, &error, &raw);
    const Message reply(raw);
    if (r < 0) {
        const bool timedOut =
            r == -ETIMEDOUT || sd_bus_error_has_name(&error, SD_BUS_ERROR_NO_REPLY);
        if (errorName != nullptr && sd_bus_error_is_set(&error)) {
            std::strncpy(errorName, error.name, 127);
            errorName[127] = '\0';
        }
        sd_bus_error_free(&error);
        // A broken connection is opened anew by the next call.
        if (sd_bus_is_open(bus) <= 0)
            drop();
        return timedOut ? -ETIMEDOUT : r;
    }
    sd_bus_error_free(&error);
    const int taken = read(reply.get());
    return taken < 0 ? taken : 0;
}

} // namespace zelo::platform
