// The history mechanism, written once for both sample shapes: 150-second
// samples accumulated from readings on a fixed grid, unknown samples for
// gaps, the shift when the clock goes back, the full file and the summaries.
#pragma once

#include "history_internal.h"
#include "hooks.h"
#include "paths.h"
#include "report.h"
#include "samples.h"
#include "support.h"

#include <zelo/platform.h>
#include <zelo/tracelog.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <sys/stat.h>

namespace zelo::history {

inline constexpr uint64_t kSampleSeconds = 150;
// The first interval is five snapshots long counted from the first one.
inline constexpr uint64_t kFirstIntervalSeconds = 120;
inline constexpr uint64_t kSnapshotSeconds = 30;
inline constexpr uint64_t kSnapshotsPerSample = 5;
inline constexpr int32_t kSaveEverySeconds = 600;
inline constexpr int kMaxEntriesPerRecord = 24;
inline constexpr std::array<int, 4> kEntriesPerRecord{1, 6, 12, 24};
inline constexpr const char *kFullFileDir = "/pstorage/power";

static_assert(sizeof(PowerHistorySample) == 4 + 6 * 2, "16-byte record, no padding");
static_assert(sizeof(PowerPerformanceSample) == 4 + 6 * 2, "16-byte record, no padding");
static_assert(kFullFileBytes == 9218, "u16 index and 576 records");
static_assert(kSummaryFileBytes == 386, "u16 count and 24 records");

template <class P>
const typename P::Sample &newest(const Tracker<P> &h) {
    return h.ring[h.nextIndex == 0 ? kSlots - 1 : h.nextIndex - 1];
}

// ---- Full file ----

template <class P>
int save(const Tracker<P> &h) {
    const char *path = P::kFiles.full;
    traceLine(P::kLevels.saving, P::kNames.save, "Info", P::kTexts.saving, path);
    ReplacedFile file(path, historyFile(true));
    FILE *out = file.stream();
    if (out == nullptr) {
        traceLine(0, P::kNames.save, "Error", P::kTexts.saveOpenError, path, std::strerror(errno));
        return 0;
    }
    uint8_t image[kFullFileBytes];
    putLe16(image, h.nextIndex);
    for (uint16_t i = 0; i < kSlots; ++i)
        encode<P>(h.ring[i], image + 2 + i * kSampleBytes);
    if (std::fwrite(image, 1, 2, out) != 2) {
        traceLine(0, P::kNames.save, "Error", P::kTexts.saveHeaderError, path, std::ferror(out));
        return 0;
    }
    if (std::fwrite(image + 2, 1, kFullFileBytes - 2, out) != kFullFileBytes - 2) {
        traceLine(0, P::kNames.save, "Error", P::kTexts.saveDataError, path, std::ferror(out));
        return 0;
    }
    // Failing to put the written file in place is reported as a failed data
    // write, with errno as the code.
    if (!file.commit()) {
        traceLine(0, P::kNames.save, "Error", P::kTexts.saveDataError, path, errno);
        return 0;
    }
    return 1;
}

// Reads the full file into the ring; false when it is missing, not exactly
// one ring long, names a slot outside the ring or ends ten years or more
// after the controller's clock. A slot
// stamped at or after 2^31 is kept empty: a step back of the clock moves
// empty slots at 0 there, and such a stamp would never close an interval.
template <class P>
bool readFull(Tracker<P> &h, FILE *in, const char *path) {
    uint8_t image[kFullFileBytes + 1];
    if (std::fread(image, 1, 2, in) != 2) {
        traceLine(0, P::kNames.load, "Error", P::kTexts.readHeaderError, path, std::ferror(in));
        return false;
    }
    const std::size_t got = std::fread(image + 2, 1, kFullFileBytes - 1, in);
    if (got < kFullFileBytes - 2) {
        traceLine(0, P::kNames.load, "Error", P::kTexts.readDataError, path, std::ferror(in));
        return false;
    }
    if (got != kFullFileBytes - 2) {
        traceLine(0, P::kNames.load, "Error", "File '%s' is longer than %u bytes", path,
                  static_cast<unsigned>(kFullFileBytes));
        return false;
    }
    const uint16_t next = getLe16(image);
    if (next >= kSlots) {
        traceLine(0, P::kNames.load, "Error", "Next sample index %i in file '%s' is out of range",
                  next, path);
        return false;
    }
    h.nextIndex = next;
    for (uint16_t i = 0; i < kSlots; ++i) {
        h.ring[i] = decode<P>(image + 2 + i * kSampleBytes);
        if (h.ring[i].timestamp > static_cast<uint32_t>(INT32_MAX))
            h.ring[i] = {};
    }
    // The samples carry the firmware's time, and the controller's clock may
    // not be set yet when the daemon starts: only a ring further ahead of it
    // than any clock could be is refused.
    constexpr std::time_t kTenYears = 10 * 365 * 86400;
    const auto last = static_cast<int32_t>(newest(h).timestamp);
    const std::time_t now = hooks().time(nullptr);
    if (now < last - kTenYears) {
        traceLine(0, P::kNames.load, "Error",
                  "Current time %i is less than last power history sample %i. Reseting power "
                  "history.\n",
                  static_cast<int>(now), last);
        return false;
    }
    return true;
}

template <class P>
int load(Tracker<P> &h) {
    const char *path = P::kFiles.full;
    char resolved[PATH_MAX];
    FILE *in = resolvePath(path, resolved, sizeof resolved) ? openRegularStream(resolved) : nullptr;
    if (in != nullptr) {
        const bool usable = readFull(h, in, path);
        std::fclose(in);
        if (usable)
            return 1;
    }
    traceLine(0, P::kNames.load, "Info", P::kTexts.fromScratch, path);
    std::memset(static_cast<void *>(h.ring), 0, sizeof h.ring);
    h.nextIndex = 0;
    // Group-only access, as the controller's storage expects.
    if (resolvePath(kFullFileDir, resolved, sizeof resolved) && makeDirectory(resolved, 0070))
        traceLine(0, P::kNames.load, "Info", "Power history file dir '%s' not found, creating it",
                  kFullFileDir);
    return 0;
}

// ---- Summary files ----

// One summary record folded from a group of ring entries.
template <class P>
struct Group {
    typename P::Acc acc{};
    unsigned count = 0;

    void add(const typename P::Sample &s) {
        ++count;
        for (std::size_t c = 0; c < P::kChannels.size(); ++c) {
            const auto &channel = P::kChannels[c];
            acc.sum[c] = static_cast<uint16_t>(acc.sum[c] + s.*channel.avg);
            if (channel.min == nullptr)
                continue;
            if (s.*channel.min < acc.min[c])
                acc.min[c] = s.*channel.min;
            if (s.*channel.max > acc.max[c])
                acc.max[c] = s.*channel.max;
        }
    }
    typename P::Sample record(uint32_t timestamp) const {
        typename P::Sample s{};
        s.timestamp = timestamp;
        for (std::size_t c = 0; c < P::kChannels.size(); ++c) {
            const auto &channel = P::kChannels[c];
            s.*channel.avg = static_cast<uint16_t>(acc.sum[c] / count);
            if (channel.min != nullptr) {
                s.*channel.min = acc.min[c];
                s.*channel.max = acc.max[c];
            }
        }
        return s;
    }
};

// outputs: one int per P::kMaxima entry, each may be null.
template <class P>
int generateFile(const Tracker<P> &h, const char *path, int next, int perRecord,
                 int *const *outputs) {
    const char *name = P::kNames.generateFile;
    for (std::size_t m = 0; m < P::kMaxima.size(); ++m)
        if (outputs[m] != nullptr)
            *outputs[m] = 0;
    // Only what keeps the walk inside the ring is accepted.
    if (path == nullptr || next < 0 || next >= kSlots || perRecord < 1 ||
        perRecord > kMaxEntriesPerRecord)
        return 0;
    int idx = next - kSummaryRecords * perRecord;
    if (idx < 0)
        idx += kSlots;
    traceLine(P::kLevels.fileIndex, name, "Info", P::kTexts.fileIndex, next, idx);

    // The summaries are derived from the ring and made again at start-up,
    // and /tmp is a tmpfs on the controller, where a sync keeps nothing a
    // power loss would take: they are not synced.
    ReplacedFile file(path, historyFile(false));
    FILE *out = file.stream();
    if (out == nullptr) {
        zelo::report(zelo::traced(name, "Error, couldn't open file"), "%s", path);
        return 0;
    }
    // Built whole in memory and written at once: the file is small, and one
    // write costs far less than one per record.
    uint8_t image[kSummaryFileBytes];
    putLe16(image, kSummaryRecords);
    bool anyUnknown = false;
    for (int r = 0; r < kSummaryRecords; ++r) {
        Group<P> group;
        uint32_t last = 0;
        for (int e = 0; e < perRecord; ++e) {
            const auto &entry = h.ring[idx];
            idx = idx + 1 == kSlots ? 0 : idx + 1;
            last = entry.timestamp;
            if (P::counts(entry))
                group.add(entry);
        }
        typename P::Sample record{};
        if (group.count != 0) {
            record = group.record(last);
            for (std::size_t m = 0; m < P::kMaxima.size(); ++m) {
                const int value = record.*P::kMaxima[m].field;
                if (outputs[m] != nullptr && value > *outputs[m])
                    *outputs[m] = value;
            }
            const auto &f = P::kRecord;
            traceLine(P::kLevels.fileRecord, name, "Info", P::kTexts.fileRecord, record.*f[0],
                      record.*f[1], record.*f[2], record.*f[3], record.*f[4], record.*f[5],
                      static_cast<int>(last), idx, static_cast<int>(group.count), path);
        } else {
            traceLine(P::kLevels.fileUnknown, name, "Info",
                      "Writing unknown data sample %i timestamp=%i for file '%s'", r,
                      static_cast<int>(last), path);
            anyUnknown = true;
        }
        encode<P>(record, image + 2 + r * kSampleBytes);
    }
    // A short write is told as the part it cut: the header, or the first
    // record not written whole.
    const std::size_t written = std::fwrite(image, 1, sizeof image, out);
    const bool whole = written == sizeof image;
    if (written < 2)
        traceLine(0, name, "Error", P::kTexts.fileHeaderError, path, errno);
    else if (!whole)
        traceLine(0, name, "Error", P::kTexts.fileRecordError,
                  static_cast<int>((written - 2) / kSampleBytes), path, errno);
    if (anyUnknown)
        for (std::size_t m = 0; m < P::kMaxima.size(); ++m)
            if (outputs[m] != nullptr)
                *outputs[m] = -1;
    // A file with a failed write is not put in place: readers keep the
    // previous one.
    if (!whole)
        return 0;
    if (!file.commit()) {
        zelo::report(zelo::traced(name, "Error, couldn't open file"), "%s", path);
        return 0;
    }
    return 1;
}

template <class P>
void generateFiles(const Tracker<P> &h) {
    std::array<int, P::kMaxima.size()> maxima{};
    std::array<int *, P::kMaxima.size()> outputs{};
    for (std::size_t m = 0; m < maxima.size(); ++m)
        outputs[m] = &maxima[m];
    for (std::size_t i = 0; i < kEntriesPerRecord.size(); ++i)
        generateFile(h, P::kFiles.summaries[i], h.nextIndex, kEntriesPerRecord[i], outputs.data());
    for (std::size_t m = 0; m < maxima.size(); ++m)
        kiv_config_set_int(P::kMaxima[m].storeKey, maxima[m], 0);
}

// ---- Tracker ----

template <class P>
void checkSave(Tracker<P> &h) {
    const int64_t now = hooks().monotonicSeconds();
    const auto elapsed =
        static_cast<int32_t>(static_cast<uint32_t>(now) - static_cast<uint32_t>(h.lastSaveTime));
    traceLine(P::kLevels.saveCheck, P::kNames.add, "Info", "num seconds since last save=%i",
              elapsed);
    // A failed save leaves the clock alone, so the next sample tries again.
    if (elapsed >= kSaveEverySeconds && save(h) != 0)
        h.lastSaveTime = static_cast<int32_t>(now);
}

template <class P>
void place(Tracker<P> &h, const typename P::Sample &s) {
    h.ring[h.nextIndex] = s;
    h.nextIndex = h.nextIndex + 1 == kSlots ? 0 : h.nextIndex + 1;
}

template <class P>
void add(Tracker<P> &h, const typename P::Sample &s) {
    place(h, s);
    checkSave(h);
}

// Appends count unknown samples stamped first, first + 150, ... A corrupt
// time stamp far in the future can ask for millions: from a full ring on,
// only the last 576 of them survive, so those are written straight into the
// slots they would have taken, and the save check runs once.
template <class P>
void appendUnknown(Tracker<P> &h, uint64_t first, uint64_t count) {
    if (count < kSlots) {
        for (uint64_t k = 0; k < count; ++k)
            add(h, unknownSample<P>(first + kSampleSeconds * k));
        return;
    }
    const uint64_t skipped = count - kSlots;
    h.nextIndex = static_cast<uint16_t>((h.nextIndex + skipped % kSlots) % kSlots);
    for (uint64_t k = skipped; k < count; ++k)
        place(h, unknownSample<P>(first + kSampleSeconds * k));
    checkSave(h);
}

// The clock went back (or stood still). A step within the ring's span moves
// the written samples and the open interval back by the whole step plus one
// snapshot period, as long as all of them stay after 1970. A
// larger step, or one to near zero (a firmware clock restarted), drops the
// open interval and starts a new grid after the newest sample: stamps never
// wrap and unwritten slots stay unstamped.
template <class P>
void stepBack(Tracker<P> &h, uint64_t t) {
    const uint64_t step = h.lastTimestamp + kSnapshotSeconds - t;
    uint64_t oldest = h.endtime;
    for (const auto &s : h.ring)
        if (s.timestamp != 0 && s.timestamp < oldest)
            oldest = s.timestamp;
    if (step <= kSlots * kSampleSeconds && step < oldest) {
        traceLine(0, P::kNames.track, "Info",
                  "System clock was set backwards, adjusting powerHistory by %u seconds",
                  static_cast<unsigned>(step));
        for (auto &s : h.ring)
            if (s.timestamp != 0)
                s.timestamp -= static_cast<uint32_t>(step); // below every stamp, so it fits
        h.endtime -= step;
        return;
    }
    traceLine(0, P::kNames.track, "Info",
              "System clock was set backwards by %llu seconds, starting powerHistory anew at %llu",
              static_cast<unsigned long long>(step - kSnapshotSeconds),
              static_cast<unsigned long long>(t));
    h.acc = {};
    h.endtime = t + kFirstIntervalSeconds;
}

// t is at or past endtime: close the interval, fill a gap with unknown
// samples and keep the 150-second grid.
template <class P>
void closeInterval(Tracker<P> &h, uint64_t t, const typename P::Reading &reading) {
    if (h.acc.count != 0)
        add(h, sampleOf<P>(h.acc, h.endtime));
    if (t == h.endtime) {
        h.acc = {};
        h.endtime = t + kSampleSeconds;
        return;
    }
    h.acc = restartedWith<P>(reading);
    const uint64_t periods = (t - h.endtime) / kSnapshotSeconds;
    const uint64_t snapshotsMissed = periods > 0 ? periods - 1 : 0;
    const uint64_t samplesMissed = snapshotsMissed / kSnapshotsPerSample;
    const uint64_t missedSampletime = h.endtime + kSampleSeconds;
    traceLine(1, P::kNames.track, "Info",
              "numSnapshotsMissed=%llu, numSamplesMissed=%llu, missedSampletime=%llu",
              static_cast<unsigned long long>(snapshotsMissed),
              static_cast<unsigned long long>(samplesMissed),
              static_cast<unsigned long long>(missedSampletime));
    if (snapshotsMissed >= kSnapshotsPerSample)
        appendUnknown(h, missedSampletime, samplesMissed);
    h.endtime += kSampleSeconds * (samplesMissed + 1);
    if (h.endtime == t) {
        add(h, sampleOf<P>(h.acc, h.endtime));
        h.acc = {};
        h.endtime = t + kSampleSeconds;
    }
}

template <class P>
void track(Tracker<P> &h, uint64_t stamp, const typename P::Reading &reading) {
    const uint64_t t = stamp / P::kTicksPerSecond;
    if (h.initialising != 0) {
        traceLine(1, P::kNames.track, "Info", "%s", P::kTexts.initialising);
        // What a run killed while replacing its files left behind.
        ReplacedFile::removeLeftovers(P::kFiles.full, historyFile(true));
        for (const char *summary : P::kFiles.summaries)
            ReplacedFile::removeLeftovers(summary, historyFile(false));
        // The stored u32 is a signed time stamp.
        if (load(h) != 0)
            h.endtime = static_cast<uint64_t>(
                static_cast<int64_t>(static_cast<int32_t>(newest(h).timestamp)));
        generateFiles(h);
        h.initialising = 0;
        // The start-up call (a time stamp of under one second) records nothing.
        if (t == 0)
            return;
    }
    if (P::rejects(reading)) {
        traceLine(0, P::kNames.track, "Error", "Invalid power sample");
        return;
    }
    // Stamps are stored in 32 bits and read back signed: a time whose
    // interval would end past that is refused rather than wrapped.
    if (t > static_cast<uint64_t>(INT32_MAX) - kSampleSeconds) {
        traceLine(0, P::kNames.track, "Error", "Time stamp %llu is out of range",
                  static_cast<unsigned long long>(t));
        return;
    }
    if (h.endtime == 0)
        h.endtime = t + kFirstIntervalSeconds;
    if (h.lastTimestamp >= t)
        stepBack(h, t);
    // A reading at endtime still belongs to the interval that ends there.
    if (t <= h.endtime)
        accumulate<P>(h.acc, reading);
    P::describe(t, h.endtime, h.nextIndex, reading, h.acc);
    if (t < h.endtime) {
        h.lastTimestamp = t;
        return;
    }
    closeInterval(h, t, reading);
    generateFiles(h);
    h.lastTimestamp = t;
}

// The persisted history, oldest slot first, as the print option shows it.
template <class P>
void print(Tracker<P> &h) {
    if (load(h) == 0) {
        zelo::print("%s\n", P::kTexts.printLoadFailed);
        return;
    }
    const auto &w = P::kPrintHeader;
    zelo::print("%5s %11s %5s %5s %5s %5s %5s %5s\n", w[0], w[1], w[2], w[3], w[4], w[5], w[6],
                w[7]);
    const auto &f = P::kPrinted;
    for (uint16_t i = 0; i < kSlots; ++i) {
        const uint16_t slot = static_cast<uint16_t>((h.nextIndex + i) % kSlots);
        const auto &s = h.ring[slot];
        zelo::print("%5i %11i %5i %5i %5i %5i %5i %5i\n", slot, static_cast<int>(s.timestamp),
                    s.*f[0], s.*f[1], s.*f[2], s.*f[3], s.*f[4], s.*f[5]);
    }
    zelo::print("\nCurrent time=%i, Unknown sample=%i\n\n", static_cast<int>(hooks().time(nullptr)),
                ZELO_POWER_HISTORY_UNKNOWN);
}

} // namespace zelo::history
