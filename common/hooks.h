// The few system calls that tests replace (clocks, waits, file sync, the
// system log), gathered in one place. The library calls them through
// hooks(); a test replaces them for its own duration with a HooksOverride.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <poll.h>
#include <sys/sysinfo.h>
#include <unistd.h>

namespace zelo {

struct Hooks {
    int (*sysinfo)(struct sysinfo *); // uptime, for the support cache
    int (*poll)(struct pollfd *fds, nfds_t count,
                int milliseconds);          // waits for the metric log lock
    int (*usleep)(useconds_t microseconds); // between retries of a performance read
    int64_t (*monotonicSeconds)();          // paces the history saves
    std::time_t (*time)(std::time_t *);     // wall time of the history files
    int (*sync)(int fd);                    // a replaced history file to stable storage
    void (*syslog)(int priority, const char *message);
    void *(*calloc)(std::size_t count, std::size_t size); // areas a test may refuse
};

const Hooks &hooks();

// Replaces hooks while it lives (`over->sleep = ...`) and puts back, when it
// ends, what was there before it.
class HooksOverride {
  public:
    HooksOverride();
    ~HooksOverride();
    HooksOverride(const HooksOverride &) = delete;
    HooksOverride &operator=(const HooksOverride &) = delete;
    Hooks *operator->();

  private:
    Hooks saved_;
};

} // namespace zelo
