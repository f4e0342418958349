#include <zelo/daemon.h>

int main(int argc, char **argv) {
    return ZeloDaemonMain(argc, argv);
}
