#include <zelo/daemon.h>

#include <cstdio>
#include <cstring>

int main(int argc, char **argv) {
    // Answered here, apart from the daemon's own options (-d, -P, -r FILE).
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::puts("zelo " ZELO_VERSION);
        return 0;
    }
    return ZeloDaemonMain(argc, argv);
}
