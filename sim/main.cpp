// zelo-fwsim: stands in for the host's power-management firmware so the
// library runs end to end on a development machine.
#ifdef ZELO_FWSIM_BUS
#include "bus_server.h"
#endif
#include "model.h"
#include "paths.h"
#include "scenario.h"
#include "server.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <poll.h>
#include <string>

namespace {

#ifdef ZELO_FWSIM_BUS
// Under $ZELO_ROOT: the entries the logging service on the bus was handed.
constexpr const char *kEntriesPath = "/var/log/zelo-fwsim/entries.log";
#endif

std::atomic<bool> gStop{false};
static_assert(std::atomic<bool>::is_always_lock_free, "stop flag is set from a signal handler");

extern "C" void onStopSignal(int) {
    gStop.store(true);
}

void usage(std::FILE *to) {
    std::fputs(
        "usage: zelo-fwsim [--scenario FILE] [--socket PATH] [--time-scale N] [--epoch MS]\n"
        "       zelo-fwsim --bus ADDRESS [--scenario FILE] [--socket PATH] [--time-scale N] ...\n"
        "       zelo-fwsim --control LINE [--socket PATH]\n"
        "Answers power-management firmware requests on a Unix-domain socket.\n"
        "  --scenario FILE  firmware setup (default: the built-in firmware)\n"
        "  --socket PATH    where to listen (default: $ZELO_IPMI_SOCKET, else\n"
        "                   /run/zelo-fwsim.sock under $ZELO_ROOT)\n"
        "  --bus ADDRESS    also serve the same firmware on the D-Bus bus at ADDRESS\n"
        "                   (unix:path=...) as the controller's IPMB bridge, with its\n"
        "                   temperature sensors, an object mapper and a logging\n"
        "                   service writing var/log/zelo-fwsim/entries.log under\n"
        "                   $ZELO_ROOT\n"
        "  --time-scale N   firmware time runs N times faster than real time\n"
        "                   (1-100000; default 1), so tests need not wait\n"
        "  --epoch MS       the firmware clock at start, in milliseconds since the\n"
        "                   Unix epoch (default: now); 0 stamps snapshots with the\n"
        "                   time since the firmware's last restart\n"
        "  --control LINE   change the simulator listening at --socket while it\n"
        "                   runs: one scenario line, or restart-now, snapshot-now,\n"
        "                   tag <n>; exits 1 with the reason when refused\n"
        "  --version        show the version\n"
        "  --help           show this text\n",
        to);
}

bool parseNumber(const char *text, std::uint64_t lowest, std::uint64_t highest,
                 std::uint64_t *value) {
    char *end = nullptr;
    errno = 0;
    const unsigned long long v = std::strtoull(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < lowest || v > highest || text[0] == '-')
        return false;
    *value = v;
    return true;
}

std::uint64_t wallClockMs() {
    timespec ts{};
    ::clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000U +
           static_cast<std::uint64_t>(ts.tv_nsec) / 1000000U;
}

bool installSignals() {
    struct sigaction sa {};
    sa.sa_handler = onStopSignal;
    sigemptyset(&sa.sa_mask);
    // No SA_RESTART: a signal should cut a wait short, not resume it.
    if (sigaction(SIGTERM, &sa, nullptr) != 0 || sigaction(SIGINT, &sa, nullptr) != 0)
        return false;
    return std::signal(SIGPIPE, SIG_IGN) != SIG_ERR;
}

int run(int argc, char **argv) {
    std::string scenarioPath;
    std::string socketPath;
    std::string controlLine;
    std::string busAddress;
    bool control = false;
    std::uint64_t timeScale = 1;
    std::uint64_t epochMs = wallClockMs();
    bool epochGiven = false;
    for (int i = 1; i < argc; ++i) {
        const bool hasValue = i + 1 < argc;
        if (std::strcmp(argv[i], "--help") == 0) {
            usage(stdout);
            return 0;
        }
        if (std::strcmp(argv[i], "--version") == 0) {
            std::puts("zelo-fwsim " ZELO_VERSION);
            return 0;
        }
        if (std::strcmp(argv[i], "--scenario") == 0 && hasValue) {
            scenarioPath = argv[++i];
        } else if (std::strcmp(argv[i], "--control") == 0 && hasValue) {
            control = true;
            controlLine = argv[++i];
        } else if (std::strcmp(argv[i], "--socket") == 0 && hasValue) {
            socketPath = argv[++i];
        } else if (std::strcmp(argv[i], "--bus") == 0 && hasValue) {
            busAddress = argv[++i];
        } else if (std::strcmp(argv[i], "--time-scale") == 0 && hasValue &&
                   parseNumber(argv[i + 1], 1, 100000, &timeScale)) {
            ++i;
        } else if (std::strcmp(argv[i], "--epoch") == 0 && hasValue &&
                   parseNumber(argv[i + 1], 0, UINT64_MAX / 2, &epochMs)) {
            epochGiven = true;
            ++i;
        } else {
            std::fprintf(stderr, "zelo-fwsim: bad argument '%s'\n", argv[i]);
            usage(stderr);
            return 2;
        }
    }

    std::string error;
    if (control && (!scenarioPath.empty() || !busAddress.empty() || timeScale != 1 || epochGiven)) {
        std::fputs("zelo-fwsim: --control takes only --socket\n", stderr);
        usage(stderr);
        return 2;
    }
    if (control) {
        if (socketPath.empty())
            socketPath = zelo::sim::defaultSocketPath();
        if (!zelo::sim::sendControl(socketPath, controlLine, error)) {
            std::fprintf(stderr, "zelo-fwsim: %s\n", error.c_str());
            return 1;
        }
        return 0;
    }

    zelo::sim::Scenario scenario;
    if (!scenarioPath.empty() && !zelo::sim::loadScenarioFile(scenarioPath, scenario, error)) {
        std::fprintf(stderr, "zelo-fwsim: %s\n", error.c_str());
        return 2;
    }
    if (socketPath.empty())
        socketPath = zelo::sim::defaultSocketPath();
    if (socketPath.empty()) {
        std::fputs("zelo-fwsim: socket path under $ZELO_ROOT is too long\n", stderr);
        return 1;
    }
    if (!installSignals()) {
        std::fprintf(stderr, "zelo-fwsim: signals: %s\n", std::strerror(errno));
        return 1;
    }

    zelo::sim::Firmware firmware(
        std::move(scenario), [timeScale] { return zelo::sim::monotonicMs() * timeScale; }, epochMs);
    zelo::sim::Server server(firmware, gStop);
    if (!server.listen(socketPath, error)) {
        std::fprintf(stderr, "zelo-fwsim: %s\n", error.c_str());
        return 1;
    }
    if (busAddress.empty()) {
        std::printf("zelo-fwsim: listening on %s\n", socketPath.c_str());
        std::fflush(stdout);
        server.run();
        return 0;
    }
#ifdef ZELO_FWSIM_BUS
    char entries[4096];
    if (!zelo::resolvePath(kEntriesPath, entries, sizeof entries) ||
        !zelo::makeDirectories(entries, false)) {
        std::fputs("zelo-fwsim: no place for the logging service's entries\n", stderr);
        return 1;
    }
    zelo::sim::BusServer bus(firmware, entries);
    if (!bus.connect(busAddress, error)) {
        std::fprintf(stderr, "zelo-fwsim: %s\n", error.c_str());
        return 1;
    }
    std::printf("zelo-fwsim: listening on %s and on the bus at %s\n", socketPath.c_str(),
                busAddress.c_str());
    std::fflush(stdout);
    while (!gStop.load()) {
        pollfd ready[2] = {{server.fd(), POLLIN, 0}, {bus.fd(), bus.events(), 0}};
        if (::poll(ready, 2, bus.timeoutMs()) > 0 && (ready[0].revents & POLLIN) != 0)
            server.serveOnce(0);
        bus.process();
    }
    return 0;
#else
    std::fputs("zelo-fwsim: built without D-Bus (libsystemd): no --bus\n", stderr);
    return 2;
#endif
}

} // namespace

int main(int argc, char **argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "zelo-fwsim: %s\n", e.what());
    } catch (...) {
        std::fputs("zelo-fwsim: unexpected failure\n", stderr);
    }
    return 1;
}
