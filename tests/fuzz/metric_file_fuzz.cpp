// Feeds arbitrary bytes as a metric log file to the reader: whatever a file
// holds, the reader must not crash, leak, or allocate without bound.
//
// Input: one byte choosing whether the platform offers performance figures
// (bit 0), then the file's bytes.
#include "acquisition/performance_internal.h"

#include <zelo.h>
#include <zelo/platform.h>

#include "fuzz_platform.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {
bool gPerformance = false;
std::string gPath;
} // namespace

extern "C" {

// The only firmware exchange the reader makes asks whether performance
// figures exist: answer yes (a value) or no (0xC1).
int IPMI_DoIPMICmd(uint8_t, uint8_t, const uint8_t *, uint32_t, uint8_t *response,
                   uint32_t *responseLen) {
    const uint8_t yes[11] = {0, 0, 0, 0, 0, 0, 0, 1, 7, 0, 50};
    const uint8_t no[1] = {0xC1};
    const uint8_t *answer = gPerformance ? yes : no;
    const uint32_t n = gPerformance ? sizeof yes : sizeof no;
    const uint32_t copied = n < *responseLen ? n : *responseLen;
    std::memcpy(response, answer, copied);
    *responseLen = copied;
    return 0;
}
int LLVMFuzzerInitialize(int *, char ***) {
    (void)std::freopen("/dev/null", "w", stdout);
    // A firmware without performance figures answers busy-looking codes that
    // are retried; the waits between retries are not under test.
    zelo::acquisition::gSleep = [](useconds_t) { return 0; };
    char name[] = "/tmp/zelo-metric-fuzz-XXXXXX";
    const int fd = ::mkstemp(name);
    if (fd >= 0)
        ::close(fd);
    gPath = name;
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    if (size < 1)
        return 0;
    gPerformance = data[0] & 1;
    FILE *file = std::fopen(gPath.c_str(), "wb");
    if (file == nullptr)
        return 0;
    std::fwrite(data + 1, 1, size - 1, file);
    std::fclose(file);

    SnapshotBuffer snapshot{};
    BladeInletSensorBuffer inlets{};
    PerfMetricSet perf{};
    if (ReadMeticValueFromFile(gPath.c_str(), &snapshot, &inlets, &perf) == 0)
        PrintAllMetricValue(&snapshot, &inlets, &perf);
    FreeSignalMetricValue(&snapshot, &inlets, &perf);
    return 0;
}

} // extern "C"
