#include <zelo/daemon.h>

#include <cstdio>
#include <cstring>

int main(int argc, char **argv) {
    // Answered here, apart from the daemon's own options (-d, -P, -r FILE).
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        static constexpr char kVersion[] = "zelo " ZELO_VERSION "\n";
        std::fwrite(kVersion, 1, sizeof kVersion - 1, stdout);
        return 0;
    }
    return ZeloDaemonMain(argc, argv);
}
