// The zelo daemon. Its cycle is not built yet; until then it only tells how
// it is called.
#include <cstdio>

int main() {
    std::puts(
        "usage:\n   zelo [-options] [log file]- Zelo.\noptions:\n   -d: debug mode.\n   -r: read "
        "log file.\n   -P: print full power history.");
    return 0;
}
