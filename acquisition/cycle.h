// What the daemon's cycle asks of the acquisition, with the platform family
// asked once for the whole cycle; shared inside the library, not exported.
//
// The cycle shares a slow channel with every other service of the
// controller, so it asks the firmware only what can have changed: the
// layout answers once per firmware run, the rest of the snapshot only when
// its first chunk shows a new tag, and each utilisation figure once.
#pragma once

#include "performance.h"

#include <zelo/acquisition.h>

#include <array>
#include <cstdint>
#include <functional>
#include <optional>

namespace zelo::acquisition {

// The answers that describe the snapshot's layout: the configuration blocks
// of the snapshot, the histogram and the input power block, and the two
// capability registers. They do not change while the firmware runs; each is
// kept once answered. The exported operations ask them afresh every time.
struct Layout {
    struct Snapshot {
        uint16_t chunk, second, total;
    };
    struct Histogram {
        uint16_t base, second;
        uint8_t inner, width, size, sixth;
    };
    uint8_t handle = 0; // the module they describe
    std::optional<Snapshot> snapshot;
    std::optional<Histogram> histogram;
    std::optional<uint8_t> capabilities;
    std::optional<uint32_t> extended;
    std::optional<std::array<uint8_t, 8>> inputPower;
    bool kept = false; // the last fetch used answers from an earlier one

    void forget() { *this = Layout{}; }
    // The firmware restarted: answers older than the last fetch are asked again.
    void restarted() {
        if (kept)
            forget();
    }
};

// GetSnapshotBufferFromZELO for a blade (`blade`) or not.
uint8_t fetchSnapshot(SnapshotBuffer **ppsBuffer, HistogramData *psHistogram, bool blade);

// The same with the layout answers kept in `layout`. When the first chunk
// carries `unchangedTag`, the read stops there: the record holds only that
// tag and the histogram no buckets. A first chunk with tag 1 (a firmware
// restart, or a wrap) has the kept layout asked again before the read goes
// on. A failed fetch forgets the layout.
uint8_t fetchSnapshot(SnapshotBuffer **ppsBuffer, HistogramData *psHistogram, bool blade,
                      Layout &layout, uint16_t unchangedTag);

// ReadTotalSnapshotBuffer that stops after a first chunk (of the read, or of
// a read restarted by a tag change) whose tag `stopAt` accepts: then *tag is
// that tag and *stopped is set. An empty `stopAt` never stops.
uint8_t readTotalSnapshot(uint8_t handle, uint16_t chunkSize, uint16_t totalSize,
                          uint16_t *bytesRead, uint8_t *destination, uint16_t *tag,
                          const std::function<bool(uint16_t)> &stopAt, bool *stopped);

} // namespace zelo::acquisition
