// Daemon internals shared with tests; not exported.
#pragma once

#include <csignal>

namespace zelo::daemon {

// The signal that ends the daemon, 0 while it runs.
extern volatile std::sig_atomic_t gTerminateSignal;

// 1 when this process may run, 0 when another zelo runs.
int CheckProcess();

} // namespace zelo::daemon
