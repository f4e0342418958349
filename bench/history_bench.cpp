// trackPowerHistory with ordinary 30-second snapshots and with a ten-year
// jump (a corrupt firmware clock). Files go to a fresh ZELO_ROOT under
// $TMPDIR (default /tmp), so the figures include the file system's sync.
#include <zelo/history.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

constexpr uint64_t kTenYearsMs = 10ull * 365 * 86400 * 1000;
uint64_t gNowMs = 1'700'000'000'000ull;

void ordinarySnapshots(benchmark::State &state) {
    for (auto _ : state) {
        gNowMs += 30'000;
        trackPowerHistory(gNowMs, 350, 300);
    }
}
BENCHMARK(ordinarySnapshots);

void tenYearGap(benchmark::State &state) {
    for (auto _ : state) {
        gNowMs += kTenYearsMs;
        trackPowerHistory(gNowMs, 350, 300);
    }
}
BENCHMARK(tenYearGap);

} // namespace

int main(int argc, char **argv) {
    const char *tmp = std::getenv("TMPDIR");
    std::string root =
        std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") + "/zelo-bench-XXXXXX";
    if (::mkdtemp(root.data()) == nullptr)
        return 1;
    ::setenv("ZELO_ROOT", root.c_str(), 1);
    std::filesystem::create_directories(root + "/tmp");
    std::filesystem::create_directories(root + "/pstorage/power");
    trackPowerHistory(0, 0, 0);

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove_all(root);
    return 0;
}
