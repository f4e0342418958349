// Daemon internals shared with tests; not exported.
#pragma once

#include <zelo/acquisition.h>

#include <csignal>
#include <cstdint>

namespace zelo::daemon {

// The signal that ends the daemon, 0 while it runs.
extern volatile std::sig_atomic_t gTerminateSignal;

// 1 when this process may run, 0 when another daemon holds the pid file's
// lock, -1 when a process of another user holds it (the daemon says which).
int CheckProcess();

// The daemon's own state across cycles.
struct Daemon {
    bool debug = false;
    uint16_t u16LastTag = 0;
    bool snapshotFailing = false;
    PerformanceData sPerformanceData{};

    // A snapshot that cannot be read is told once when it starts and once
    // when it ends, not every cycle.
    void snapshotRead(bool read);
    void seedFirstSnapshot();
    void firstPerformance();
    // One ten-second cycle under the metric log lock: the snapshot, and the
    // performance figures.
    void cycle();
    int saveAndEnd();
};

} // namespace zelo::daemon
