// The exported power and performance history operations: thin wrappers of
// the one mechanism over the two sample shapes.
#include "history_internal.h"
#include "mechanism.h"

#include <zelo/history.h>

namespace zelo::history {

Tracker<PowerPolicy> gPower;
Tracker<PerformancePolicy> gPerformance;

void resetHistories() {
    gPower = {};
    gPerformance = {};
}

} // namespace zelo::history

using namespace zelo::history;

extern "C" {

void trackPowerHistory(uint64_t timestampMs, uint64_t powerAC, uint64_t powerDC) {
    track(gPower, timestampMs, {powerAC, powerDC});
}
void addSampleToPowerHistory(const PowerHistorySample *sample) {
    if (sample != nullptr)
        add(gPower, *sample);
}
int loadPowerHistory(void) {
    return load(gPower);
}
int savePowerHistory(void) {
    return save(gPower);
}
void printFullPowerHistory(void) {
    print(gPower);
}
void generatePowerHistoryFiles(void) {
    generateFiles(gPower);
}
int generatePowerHistoryFile(const char *path, int nextSampleIndex, int entriesPerRecord,
                             int *maxDC, int *maxAC) {
    int *const outputs[] = {maxDC, maxAC};
    return generateFile(gPower, path, nextSampleIndex, entriesPerRecord, outputs);
}

void trackPowerPerformance(uint64_t timestamp, uint64_t system, uint64_t cpu, uint64_t mem,
                           uint64_t io) {
    track(gPerformance, timestamp, {system, cpu, mem, io});
}
void addSampleToPowerPerformance(const PowerPerformanceSample *sample) {
    if (sample != nullptr)
        add(gPerformance, *sample);
}
int loadPowerPerformance(void) {
    return load(gPerformance);
}
int savePowerPerformance(void) {
    return save(gPerformance);
}
void printFullPowerPerformance(void) {
    print(gPerformance);
}
void generatePowerPerformanceFiles(void) {
    generateFiles(gPerformance);
}
int generatePowerPerformanceFile(const char *path, int nextPerformanceSampleIndex,
                                 int entriesPerRecord) {
    return generateFile(gPerformance, path, nextPerformanceSampleIndex, entriesPerRecord, nullptr);
}

} // extern "C"
