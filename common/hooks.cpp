// The real calls behind the hooks, and their replacement for a test's duration.
#include "hooks.h"

#include <cstdlib>
#include <syslog.h>

namespace zelo {

namespace {

int64_t monotonicSeconds() {
    struct timespec now {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

void toSyslog(int priority, const char *message) {
    ::syslog(LOG_USER | priority, "%s", message);
}

Hooks gHooks{::sysinfo, ::poll,  ::usleep, monotonicSeconds,
             std::time, ::fsync, toSyslog, std::malloc};

} // namespace

const Hooks &hooks() {
    return gHooks;
}

HooksOverride::HooksOverride() : saved_(gHooks) {}

HooksOverride::~HooksOverride() {
    gHooks = saved_;
}

Hooks *HooksOverride::operator->() {
    return &gHooks;
}

} // namespace zelo
