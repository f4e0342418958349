// Daemon internals shared with tests; not exported.
#pragma once

#include "acquisition/cycle.h"
#include "events/events.h"
#include "metriclog/cycle.h"
#include "tracelog/verbosity.h"

#include <zelo/acquisition.h>

#include <array>
#include <csignal>
#include <cstdint>

namespace zelo::daemon {

// The signal that ends the daemon, 0 while it runs.
extern volatile std::sig_atomic_t gTerminateSignal;

// 1 when this process may run, 0 when another daemon holds the pid file's
// lock, -1 when a process of another user holds it (the daemon says which).
int CheckProcess();

// The directories the daemon writes in: made when missing, checked at every
// cycle. The persistent storage above /pstorage/power is the controller's
// mount and never made: without it, the history would go to the wrong disk.
struct OwnDir {
    const char *path;
    bool makeParents;
};
inline constexpr std::array<OwnDir, 3> kOwnDirs{
    {{trace::kTraceDir, true}, {metriclog::kLogDir, true}, {"/pstorage/power", false}}};

// What one cycle read, released together at its end.
enum class Found { Nothing, Restart, Unchanged, New };
struct Acquired {
    Found found = Found::Nothing; // Nothing: the snapshot could not be read
    SnapshotBuffer *snapshot = nullptr;
    HistogramData histogram{};
    acquisition::CyclePerformance perf; // with extremes for a new snapshot
    events::PowercapReadings caps;      // for a new snapshot
    Acquired() = default;
    Acquired(const Acquired &) = delete;
    Acquired &operator=(const Acquired &) = delete;
    ~Acquired();
};

// The daemon's own state across cycles.
struct Daemon {
    bool debug = false;
    std::array<bool, kOwnDirs.size()> refused{}; // told once, and again when usable
    uint16_t u16LastTag = 0;
    bool snapshotFailing = false;
    bool recordsFailing = false;
    PerformanceData sPerformanceData{};
    acquisition::Layout layout; // from the first read until the firmware restarts

    // A snapshot that cannot be read is told once when it starts and once
    // when it ends, not every cycle.
    void snapshotRead(bool read);
    // The same for records that cannot be written (a full file system, say),
    // `error` 0 when one was.
    void recordWritten(int error);
    // Makes a directory removed while the daemon runs again, and tells a
    // refused one once, and when it is usable again.
    void checkDirectories();
    void seedFirstSnapshot();
    void firstPerformance();
    // One ten-second cycle under the metric log lock: the snapshot, and the
    // performance figures, in the steps below, each once and in this order.
    void cycle();
    // The snapshot, and for a new one the utilisation figures with their
    // extremes, the inlet readings and the cap settings; the current
    // utilisation figures always.
    void acquire(Acquired &now, bool blade);
    // The road of what was acquired: a restart, or a new snapshot's
    // figures, record and publication; the utilisation figures always.
    void follow(Acquired &now, bool blade);
    // A restarted firmware's snapshot becomes the baseline, the log starts afresh.
    void restartFrom(Acquired &now);
    // A new snapshot's interval figures.
    void compute(Acquired &now, bool blade);
    // Its record in the metric log.
    void record(const Acquired &now);
    // Its figures to the store and the histories, its events; the current
    // utilisation figures to the store and the performance history.
    void publish(Acquired &now, bool blade);
    int saveAndEnd();
};

} // namespace zelo::daemon
