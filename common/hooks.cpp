// The real calls behind the hooks, and their replacement for a test's duration.
#include "hooks.h"

#include "report.h"

#include <cstdlib>

namespace zelo {

namespace {

int64_t monotonicSeconds() {
    struct timespec now {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

Hooks gHooks{::sysinfo, ::poll,  ::usleep,  monotonicSeconds,
             std::time, ::fsync, systemLog, std::calloc};

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
