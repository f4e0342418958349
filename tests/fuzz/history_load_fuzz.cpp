// Arbitrary bytes as a persisted history file, read as items, loaded, and
// tracked through three snapshots: nothing may crash or leak, and no stamp
// may wrap (none negative, the open interval ending within what a stamp holds).
//
// Input: flags(1) wall clock(4) three snapshot times(3 x 4), seconds, little-
// endian, then the file. Flag bit 0: the performance history; bit 1: the
// file padded with zeros to one whole ring.
#include "history/history_internal.h"
#include "hooks.h"
#include "tracelog/state.h"

#include <zelo/telemetry.h>

#include "fuzz_platform.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace h = zelo::history;

constexpr std::size_t kHeadLen = 17;
std::time_t gWall = 0;

uint32_t le32(const uint8_t *at) {
    return at[0] | at[1] << 8 | at[2] << 16 | static_cast<uint32_t>(at[3]) << 24;
}

template <class P>
void check(const h::Tracker<P> &t) {
    for (const auto &s : t.ring)
        if (static_cast<int32_t>(s.timestamp) < 0)
            std::abort();
    if (t.endtime > static_cast<uint64_t>(INT32_MAX))
        std::abort();
}

} // namespace

extern "C" {

int IPMI_DoIPMICmd(uint8_t, uint8_t, const uint8_t *, uint32_t, uint8_t *, uint32_t *) {
    return -1;
}

int LLVMFuzzerInitialize(int *, char ***) {
    (void)std::freopen("/dev/null", "w", stdout);
    char root[] = "/tmp/zelo-history-fuzz-XXXXXX";
    if (::mkdtemp(root) == nullptr)
        std::abort();
    ::setenv("ZELO_ROOT", root, 1);
    std::filesystem::create_directories(std::string(root) + "/pstorage/power");
    std::filesystem::create_directories(std::string(root) + "/tmp");
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    if (size < kHeadLen)
        return 0;
    const bool performance = data[0] & 1;
    std::vector<uint8_t> file(data + kHeadLen, data + size);
    if ((data[0] & 2) != 0 && file.size() < h::kFullFileBytes)
        file.resize(h::kFullFileBytes, 0);
    const std::string path =
        std::string(std::getenv("ZELO_ROOT")) +
        (performance ? "/pstorage/power/PowerPerformanceFull" : "/pstorage/power/PowerHistoryFull");
    FILE *out = std::fopen(path.c_str(), "wb");
    if (out == nullptr)
        return 0;
    std::fwrite(file.data(), 1, file.size(), out);
    std::fclose(out);

    // A new process on the input's wall clock; no trace lines, no fsync.
    h::resetHistories();
    gWall = static_cast<std::time_t>(le32(data + 1));
    static zelo::HooksOverride hooks;
    hooks->time = [](std::time_t *) { return gWall; };
    hooks->monotonicSeconds = [] { return int64_t{0}; };
    hooks->sync = [](int) { return 0; };
    zelo::trace::s32PowerHistoryLogLevel = -1;

    std::vector<PowerHistoryItem> items(ZELO_HISTORY_SLOTS);
    std::vector<PowerPerformanceItem> perfItems(ZELO_HISTORY_SLOTS);
    uint16_t count = 0;
    if (performance) {
        (void)ReadPowerPerformanceItems(perfItems.data(), ZELO_HISTORY_SLOTS, &count);
        trackPowerPerformance(0, 0, 0, 0, 0);
        for (int i = 0; i < 3; ++i)
            trackPowerPerformance(le32(data + 5 + 4 * i), 50, 40, 30, 20);
        check(h::gPerformance);
    } else {
        (void)ReadPowerHistoryItems(items.data(), ZELO_HISTORY_SLOTS, &count);
        trackPowerHistory(0, 0, 0);
        for (int i = 0; i < 3; ++i)
            trackPowerHistory(uint64_t{le32(data + 5 + 4 * i)} * 1000, 500, 400);
        check(h::gPower);
    }
    return 0;
}

} // extern "C"
