// zelo-dbus: the command line.
#include "service.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

int main(int argc, char **argv) {
    zelo::bus::Options options;
    bool verbose = false;
    CLI::App app("Shows the zelo daemon's power, temperature, utilisation and energy figures, "
                 "and its power cap, as objects on the system bus (" +
                     std::string(zelo::bus::kBusName) + ").",
                 "zelo-dbus");
    app.add_option("--chassis", options.chassis,
                   "inventory path of the chassis the sensors belong to")
        ->capture_default_str();
    app.add_option("--cap-group", options.capGroup,
                   "a group whose members may set the power cap, besides root");
    app.add_flag("--verbose", verbose, "show the library's diagnostics on standard output");
    app.set_version_flag("--version", "zelo-dbus " ZELO_VERSION);
    CLI11_PARSE(app, argc, argv);
    if (options.chassis.empty() || options.chassis.front() != '/') {
        std::fprintf(stderr, "zelo-dbus: --chassis needs an object path, e.g. %s\n",
                     zelo::bus::Options{}.chassis.c_str());
        return 2;
    }
    // The library reports every firmware exchange on standard output.
    if (!verbose) {
        const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null >= 0) {
            (void)::dup2(null, STDOUT_FILENO);
            ::close(null);
        }
    }
    return zelo::bus::serve(options);
}
