// The snapshot record: fetch the raw buffer and parse its packed big-endian
// layout, which depends on the platform family and two capability registers.
#include "bytes.h"
#include "cycle.h"
#include "report.h"
#include "snapshot_records.h"

#include <zelo/acquisition.h>
#include <zelo/firmware.h>
#include <zelo/registers.h>

#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

constexpr uint8_t kCapExtendedPart = 0x80; // firmware power/thermal capabilities
constexpr uint32_t kExtSkipped = 0x08;     // extended capabilities, in layout order
constexpr uint32_t kExtInputPower = 0x04;
constexpr uint32_t kExtTimestamp = 0x10;
constexpr uint32_t kExtSubsystems = 0x20;
constexpr std::size_t kSkippedBlockLen = 16;

using zelo::Reader;

MetricStat *newStat(uint64_t average) {
    auto *stat = static_cast<MetricStat *>(std::calloc(1, sizeof(MetricStat)));
    if (stat != nullptr)
        stat->u64Avg = average;
    return stat;
}

uint8_t layoutDoesNotFit(const Reader &cursor, uint16_t rawLength) {
    zelo::print(
        "[%s] The snapshot layout does not fit the %d bytes of the buffer (at offset %d).\n",
        "ParseSnapshotBuffer", rawLength, static_cast<int>(cursor.offset()));
    return ZELO_RC_FAILURE;
}

using zelo::acquisition::Layout;

// A layout answer the parse needs and the layout does not hold yet: the
// parse stops there, the answer is asked, and the parse starts again.
enum class Needs { Nothing, Histogram, Capabilities, Extended, InputPower };

// An answer kept once read; a failed read is told, unless `call` is null
// (the read has told it).
template <typename T>
uint8_t keep(std::optional<T> &kept, const T &read, uint8_t rc, const char *call) {
    if (rc == ZELO_RC_SUCCESS)
        kept = read;
    else if (call != nullptr)
        zelo::print("Failed to call %s() and the result code is %d.\n", call, rc);
    return rc;
}

// Asks the firmware the answer the parse needs, and keeps it in `layout`.
uint8_t ask(Layout &layout, uint8_t handle, Needs needs) {
    switch (needs) {
    case Needs::Histogram: {
        Layout::Histogram r{};
        return keep(layout.histogram, r,
                    ZELO_ReadPowerHistogramConfiguration(handle, &r.base, &r.second, &r.inner,
                                                         &r.width, &r.size, &r.sixth),
                    nullptr);
    }
    case Needs::Capabilities: {
        uint8_t r = 0;
        return keep(layout.capabilities, r,
                    ZELO_ReadFirmwarePowerThermalCapabilitiesRegister(handle, &r),
                    "ZELO_ReadFirmwarePowerThermalCapabilitiesRegister");
    }
    case Needs::Extended: {
        uint32_t r = 0;
        return keep(layout.extended, r, ZELO_ReadExtendedFirmwareCapabilitiesRegister(handle, &r),
                    "ZELO_ReadExtendedFirmwareCapabilitiesRegister");
    }
    case Needs::InputPower: {
        std::array<uint8_t, 8> r{};
        return keep(layout.inputPower, r,
                    ZELO_ReadInputPowerBufferConfiguration(handle, &r[0], &r[1], &r[2], &r[3],
                                                           &r[4], &r[5], &r[6], &r[7]),
                    "ZELO_ReadInputPowerBufferConfiguration");
    }
    case Needs::Nothing:
        break;
    }
    return ZELO_RC_SUCCESS;
}

uint8_t snapshotConfiguration(Layout &layout, uint8_t handle, Layout::Snapshot &c) {
    if (!layout.snapshot) {
        Layout::Snapshot r{};
        const uint8_t rc =
            ZELO_ReadSnapshotBufferConfiguration(handle, &r.chunk, &r.second, &r.total);
        if (rc != ZELO_RC_SUCCESS)
            return rc;
        layout.snapshot = r;
    }
    c = *layout.snapshot;
    return ZELO_RC_SUCCESS;
}

// Result of a block parse: a result code, or the layout not fitting.
constexpr int kDoesNotFit = -1;

// The input power block: E entries, each R x (A + W1 + W2) bytes apart.
int parseInputPower(const std::array<uint8_t, 8> &b, Reader &cursor, SnapshotBuffer &s) {
    const uint8_t entries = b[1], repeat = b[2], lead = b[3], width1 = b[4], width2 = b[5];
    s.psPowerSupplyAC =
        static_cast<MetricStat *>(std::calloc(entries ? entries : 1, sizeof(MetricStat)));
    if (s.psPowerSupplyAC == nullptr)
        return ZELO_RC_NO_MEMORY;
    s.u8PowerSupplyACNum = entries;
    const std::size_t entryLen = std::size_t{lead} + width1 + width2;
    for (uint8_t i = 0; i < entries; ++i) {
        Reader entry = cursor;
        entry.skip(lead);
        s.psPowerSupplyAC[i].u64Avg = entry.take(width1);
        s.psPowerSupplyAC[i].u64Max = entry.take(width2);
        if (!entry.ok() || !cursor.skip(repeat * entryLen))
            return kDoesNotFit;
    }
    return ZELO_RC_SUCCESS;
}

// The subsystem list: a count, then (type, eight-byte value) pairs.
uint8_t parseSubsystems(Reader &cursor, SnapshotBuffer &s) {
    const auto count = static_cast<unsigned>(cursor.take(1));
    for (unsigned i = 0; i < count && cursor.ok(); ++i) {
        const auto type = static_cast<int>(cursor.take(1));
        const uint64_t value = cursor.take(8);
        if (!cursor.ok())
            break;
        MetricStat **slot = nullptr;
        const char *duplicate = nullptr;
        switch (type) {
        case 1:
            slot = &s.psCPUPower;
            duplicate = "CPU Subsystems already existed.";
            break;
        case 2:
            slot = &s.psMemoryPower;
            duplicate = "Memory Subsystems already existed.";
            break;
        case 4:
            slot = &s.psCoolingPower;
            duplicate = "Cooling Subsystems already existed.";
            break;
        default:
            zelo::print("Type(%d) of subsystem is not supported!\n", type);
            return ZELO_RC_FAILURE;
        }
        if (*slot != nullptr) {
            zelo::print("%s\n", duplicate);
            return ZELO_RC_FAILURE;
        }
        if ((*slot = newStat(value)) == nullptr)
            return ZELO_RC_NO_MEMORY;
    }
    return cursor.ok() ? ZELO_RC_SUCCESS : ZELO_RC_FAILURE;
}

// The parse proper, on the raw bytes and the layout answers it is given.
// Without an answer it needs, it stops and names it in `needs`.
uint8_t parseWith(const Layout &layout, const uint8_t *pu8Raw, uint16_t u16RawLength,
                  SnapshotBuffer &s, HistogramData *psHistogram, bool blade, Needs &needs) {
    Reader cursor(pu8Raw, u16RawLength);
    const auto missing = [&needs](Needs what) {
        needs = what;
        return ZELO_RC_FAILURE;
    };

    s.u8PowerStatus = static_cast<uint8_t>(cursor.take(1));
    const uint64_t firstPower = cursor.take(8);
    if (!cursor.ok())
        return layoutDoesNotFit(cursor, u16RawLength);
    // The first value is the DC power.
    MetricStat *&firstRecord = s.*zelo::acquisition::powerRecords(blade).dc;
    if ((firstRecord = newStat(firstPower)) == nullptr)
        return ZELO_RC_NO_MEMORY;

    if (!layout.histogram)
        return missing(Needs::Histogram);
    const Layout::Histogram &h = *layout.histogram;
    const uint16_t base = h.base;
    const uint8_t inner = h.inner, width = h.width, size = h.size;
    // The record counts buckets in one byte: more than 255 would wrap.
    if (inner > UINT8_MAX - 2) {
        zelo::print("[%s] The histogram has more buckets (%d) than a snapshot can carry.\n",
                    "ParseSnapshotBuffer", inner + 2);
        return ZELO_RC_FAILURE;
    }
    psHistogram->pu8BucketData = nullptr;
    psHistogram->u16HistogramBase = base;
    psHistogram->u8BucketNum = static_cast<uint8_t>(inner + 2);
    psHistogram->u8BucketWidth = width;
    psHistogram->u8BucketSize = size;
    const std::size_t histogramLen = (std::size_t{inner} + 2) * size;
    // Never a null array for a present histogram, even one of zero bytes.
    psHistogram->pu8BucketData =
        static_cast<uint8_t *>(std::calloc(histogramLen ? histogramLen : 1, 1));
    if (psHistogram->pu8BucketData == nullptr) {
        zelo::print("[%s] Failed to allocate memory for power histogram data.\n",
                    "ParseSnapshotBuffer");
        return ZELO_RC_NO_MEMORY;
    }
    const uint8_t *buckets = cursor.here();
    if (!cursor.skip(histogramLen))
        return layoutDoesNotFit(cursor, u16RawLength);
    std::memcpy(psHistogram->pu8BucketData, buckets, histogramLen);

    s.u16PowerEvent = static_cast<uint16_t>(cursor.take(2));
    const uint64_t effectiveCpu = cursor.take(4);
    if (!cursor.ok())
        return layoutDoesNotFit(cursor, u16RawLength);
    if ((s.psEffectiveCPU = newStat(effectiveCpu)) == nullptr)
        return ZELO_RC_NO_MEMORY;

    if (!blade) {
        const uint64_t systemAc = cursor.take(8);
        s.u8OutletTemperature = static_cast<uint8_t>(cursor.take(1));
        s.u8InletTemperature = static_cast<uint8_t>(cursor.take(1));
        if (!cursor.ok())
            return layoutDoesNotFit(cursor, u16RawLength);
        if ((s.psSystemAC = newStat(systemAc)) == nullptr)
            return ZELO_RC_NO_MEMORY;
    }

    if (!layout.capabilities)
        return missing(Needs::Capabilities);
    if ((*layout.capabilities & kCapExtendedPart) == 0)
        return ZELO_RC_SUCCESS;
    if (!layout.extended)
        return missing(Needs::Extended);
    const uint32_t extended = *layout.extended;

    if ((extended & kExtSkipped) && !cursor.skip(kSkippedBlockLen))
        return layoutDoesNotFit(cursor, u16RawLength);
    if ((extended & kExtInputPower) && !blade) {
        if (!layout.inputPower)
            return missing(Needs::InputPower);
        const int result = parseInputPower(*layout.inputPower, cursor, s);
        if (result == kDoesNotFit)
            return layoutDoesNotFit(cursor, u16RawLength);
        if (result != ZELO_RC_SUCCESS)
            return static_cast<uint8_t>(result);
    }
    if (extended & kExtTimestamp) {
        s.u64Timestamp = cursor.take(8);
        if (!cursor.ok())
            return layoutDoesNotFit(cursor, u16RawLength);
    }
    if (extended & kExtSubsystems) {
        const bool fitted = cursor.ok();
        const uint8_t rc = parseSubsystems(cursor, s);
        if (fitted && !cursor.ok())
            return layoutDoesNotFit(cursor, u16RawLength);
        if (rc != ZELO_RC_SUCCESS)
            return rc;
    }
    return ZELO_RC_SUCCESS;
}

// The parse, with the layout answers it lacks asked as it comes to them and
// kept in `layout`: the bytes are parsed again from the start with each.
uint8_t parse(uint8_t handle, const uint8_t *pu8Raw, uint16_t u16RawLength,
              SnapshotBuffer *psBuffer, HistogramData *psHistogram, bool blade, Layout &layout) {
    if (pu8Raw == nullptr || psBuffer == nullptr || psHistogram == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    for (;;) {
        SnapshotBuffer parsed{};
        parsed.u16Tag = psBuffer->u16Tag;
        Needs needs = Needs::Nothing;
        const uint8_t rc =
            parseWith(layout, pu8Raw, u16RawLength, parsed, psHistogram, blade, needs);
        if (needs == Needs::Nothing) {
            *psBuffer = parsed;
            return rc;
        }
        zelo::acquisition::releaseRecords(parsed);
        if (needs != Needs::Histogram) { // the buckets are the parse's own by then
            std::free(psHistogram->pu8BucketData);
            psHistogram->pu8BucketData = nullptr;
        }
        const uint8_t asked = ask(layout, handle, needs);
        if (asked != ZELO_RC_SUCCESS)
            return asked;
    }
}

} // namespace

namespace {

// A record that carries only the tag: the snapshot the caller already has.
uint8_t unchangedRecord(SnapshotBuffer **ppsBuffer, uint16_t tag) {
    auto *record = static_cast<SnapshotBuffer *>(std::calloc(1, sizeof(SnapshotBuffer)));
    if (record == nullptr)
        return ZELO_RC_NO_MEMORY;
    record->u16Tag = tag;
    *ppsBuffer = record;
    return ZELO_RC_SUCCESS;
}

uint8_t fetch(SnapshotBuffer **ppsBuffer, HistogramData *psHistogram, bool blade, Layout &layout,
              const uint16_t *unchangedTag) {
    static constexpr const char *kName = "GetSnapshotBufferFromZELO";
    if (ppsBuffer == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    *ppsBuffer = nullptr;
    if (psHistogram == nullptr) {
        zelo::print("[%s] The point of sHistogramData is NULL.\n", kName);
        return ZELO_RC_INVALID_PARAMETER;
    }
    const uint8_t handle = ZELO_GetModuleHandle(0);
    if (handle == 0) {
        zelo::print("[%s] Failed to call ZELO_GetModuleHandle().\n", kName);
        return ZELO_RC_FAILURE;
    }
    if (layout.handle != handle) {
        layout.forget();
        layout.handle = handle;
    }
    layout.kept = layout.snapshot.has_value();
    Layout::Snapshot config{};
    uint8_t rc = snapshotConfiguration(layout, handle, config);
    if (rc != ZELO_RC_SUCCESS) {
        zelo::print("Failed to call ZELO_ReadSnapshotBufferConfiguration() and the result code is "
                    "%d.\n",
                    rc);
        return rc;
    }
    const uint16_t total = config.total;
    auto *raw = static_cast<uint8_t *>(std::calloc(total ? total : 1, 1));
    if (raw == nullptr) {
        zelo::print("[%s] Failed to allocate memory for snapshot buffer.\n", kName);
        return ZELO_RC_NO_MEMORY;
    }
    uint16_t bytesRead = 0, tag = 0;
    if (total == 0 || config.chunk == 0) {
        rc = ZELO_RC_INVALID_PARAMETER; // as ReadTotalSnapshotBuffer answers them
    } else {
        // Tag 1 after a kept layout: the firmware may have restarted with another.
        const bool kept = layout.kept;
        const auto stopAt = [unchangedTag, kept](uint16_t first) {
            return (unchangedTag != nullptr && first == *unchangedTag) || (kept && first == 1);
        };
        bool stopped = false;
        rc = zelo::acquisition::readTotalSnapshot(handle, config.chunk, total, &bytesRead, raw,
                                                  &tag, stopAt, &stopped);
        if (rc == ZELO_RC_SUCCESS && stopped) {
            std::free(raw);
            if (unchangedTag != nullptr && tag == *unchangedTag)
                return unchangedRecord(ppsBuffer, tag);
            layout.forget();
            return fetch(ppsBuffer, psHistogram, blade, layout, unchangedTag);
        }
    }
    if (rc != ZELO_RC_SUCCESS) {
        zelo::print("Failed to call ReadTotalSnapshotBuffer() and the result code is %d.\n", rc);
        std::free(raw);
        return rc;
    }
    auto *record = static_cast<SnapshotBuffer *>(std::calloc(1, sizeof(SnapshotBuffer)));
    if (record == nullptr) {
        zelo::print("[%s] Failed to allocate memory for snapshot buffer struct.\n", kName);
        std::free(raw);
        return ZELO_RC_NO_MEMORY;
    }
    // Overwritten, never released: the caller hands in a record without bucket data.
    psHistogram->pu8BucketData = nullptr;
    rc = parse(handle, raw, total, record, psHistogram, blade, layout);
    std::free(raw);
    if (rc != ZELO_RC_SUCCESS) {
        zelo::print("[%s] Failed to call ParseSnapshotBuffer(), return code is %d.\n", kName, rc);
        std::free(psHistogram->pu8BucketData);
        psHistogram->pu8BucketData = nullptr;
        FreeSnapshotBuffer(record);
        return rc;
    }
    record->u16Tag = tag;
    *ppsBuffer = record;
    return ZELO_RC_SUCCESS;
}

} // namespace

uint8_t zelo::acquisition::fetchSnapshot(SnapshotBuffer **ppsBuffer, HistogramData *psHistogram,
                                         bool blade) {
    Layout asked; // every answer asked afresh
    return fetch(ppsBuffer, psHistogram, blade, asked, nullptr);
}

uint8_t zelo::acquisition::fetchSnapshot(SnapshotBuffer **ppsBuffer, HistogramData *psHistogram,
                                         bool blade, Layout &layout, uint16_t unchangedTag) {
    const uint8_t rc = fetch(ppsBuffer, psHistogram, blade, layout, &unchangedTag);
    if (rc != ZELO_RC_SUCCESS)
        layout.forget(); // a layout that no longer fits is asked again
    return rc;
}

extern "C" {

uint8_t ParseSnapshotBuffer(uint8_t u8ModuleHandle, const uint8_t *pu8Raw, uint16_t u16RawLength,
                            SnapshotBuffer *psBuffer, HistogramData *psHistogram) {
    Layout asked;
    return parse(u8ModuleHandle, pu8Raw, u16RawLength, psBuffer, psHistogram, IsBladeServer() != 0,
                 asked);
}

uint8_t GetSnapshotBufferFromZELO(SnapshotBuffer **ppsBuffer, HistogramData *psHistogram) {
    return zelo::acquisition::fetchSnapshot(ppsBuffer, psHistogram, IsBladeServer() != 0);
}

void FreeSnapshotBuffer(SnapshotBuffer *psBuffer) {
    if (psBuffer == nullptr)
        return;
    zelo::acquisition::releaseRecords(*psBuffer);
    std::free(psBuffer);
}

} // extern "C"
