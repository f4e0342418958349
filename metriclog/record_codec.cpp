#include "record_codec.h"

#include "acquisition/snapshot_records.h"
#include "bytes.h"

#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace zelo::metriclog {

using acquisition::kSingleRecords;
using acquisition::kSupplyRecords;

namespace {

void putStat(const MetricStat &stat, uint8_t *out) {
    putLe(out, stat.u64Avg, 8);
    putLe(out + 8, stat.u64Max, 8);
    putLe(out + 16, stat.u64Min, 8);
}

class Encoder {
  public:
    explicit Encoder(std::vector<uint8_t> &out) : out_(out) {}
    void le(uint64_t value, std::size_t width) {
        uint8_t at[8];
        putLe(at, value, width);
        out_.insert(out_.end(), at, at + width);
    }
    void optional(const MetricStat *stat) {
        uint8_t at[kOptionalBytes];
        out_.insert(out_.end(), at, at + putOptional(stat, at));
    }
    // A count byte and that many records (none when the array is missing).
    void array(uint8_t count, const MetricStat *stats) {
        le(count, 1);
        for (uint8_t i = 0; stats != nullptr && i < count; ++i) {
            uint8_t at[kStatBytes];
            putStat(stats[i], at);
            out_.insert(out_.end(), at, at + kStatBytes);
        }
    }
    void readings(const BladeInletSensorBuffer *list) {
        le(list != nullptr ? list->u8SensorNum : 0, 1);
        const InletSensorTemperature *node = list != nullptr ? list->psSensor : nullptr;
        for (unsigned i = 0; node != nullptr && i < list->u8SensorNum; ++i, node = node->psNext) {
            le(node->u32SensorIndex, 4);
            out_.insert(out_.end(), node->szTemperature,
                        node->szTemperature + sizeof node->szTemperature);
        }
    }

  private:
    std::vector<uint8_t> &out_;
};

// Reads in file order. A part that cannot be allocated is read past all the
// same, so the rest stays in step.
class Decoder {
  public:
    Decoder(const uint8_t *data, std::size_t length) : in_(data, length, ByteOrder::Little) {}

    // count records into a new array (null for none); the bytes are checked
    // before anything is allocated for them.
    void stats(std::size_t count, MetricStat **out) {
        *out = nullptr;
        const uint8_t *bytes = in_.next(count * kStatBytes);
        if (bytes == nullptr || count == 0)
            return;
        auto *stats = static_cast<MetricStat *>(std::calloc(count, sizeof(MetricStat)));
        allocated_ = allocated_ && stats != nullptr;
        for (std::size_t i = 0; stats != nullptr && i < count; ++i)
            stats[i] = getStat(bytes + i * kStatBytes);
        *out = stats;
    }
    void optional(MetricStat **out) {
        const uint64_t present = in_.take(1);
        formed_ = formed_ && present <= 1;
        stats(present <= 1 ? present : 0, out);
    }
    // Each reading goes to the front of the list.
    void readings(BladeInletSensorBuffer &list) {
        const uint64_t count = in_.take(1);
        for (uint64_t i = 0; i < count; ++i) {
            const uint8_t *bytes = in_.next(kInletReadingBytes);
            if (bytes == nullptr)
                return;
            auto *node = static_cast<InletSensorTemperature *>(
                std::calloc(1, sizeof(InletSensorTemperature)));
            allocated_ = allocated_ && node != nullptr;
            if (node == nullptr)
                continue;
            node->u32SensorIndex = static_cast<uint32_t>(getLe(bytes, 4));
            std::memcpy(node->szTemperature, bytes + 4, sizeof node->szTemperature);
            // A foreign file need not end the text.
            node->szTemperature[sizeof node->szTemperature - 1] = '\0';
            node->psNext = list.psSensor;
            list.psSensor = node;
            ++list.u8SensorNum;
        }
    }
    Reader &in() { return in_; }
    bool formed() const { return formed_ && in_.ok(); }
    bool allocated() const { return allocated_; }

  private:
    Reader in_;
    bool formed_ = true;
    bool allocated_ = true;
};

// What a damaged record allocated, released; the performance records only
// when they were read (`performance` not null).
void release(SnapshotBuffer &s, BladeInletSensorBuffer &inlets, PerfMetricSet *performance) {
    acquisition::releaseRecords(s);
    FreeSignalMetricValue(nullptr, &inlets, performance);
    const uint16_t tag = s.u16Tag, event = s.u16PowerEvent;
    s = SnapshotBuffer{};
    s.u16Tag = tag;
    s.u16PowerEvent = event;
    inlets = BladeInletSensorBuffer{};
    if (performance != nullptr)
        *performance = PerfMetricSet{};
}

} // namespace

std::size_t putOptional(const MetricStat *stat, uint8_t *out) {
    out[0] = stat != nullptr ? 1 : 0;
    if (stat == nullptr)
        return 1;
    putStat(*stat, out + 1);
    return kOptionalBytes;
}

MetricStat getStat(const uint8_t *bytes) {
    return {getLe(bytes, 8), getLe(bytes + 8, 8), getLe(bytes + 16, 8)};
}

void encode(const SnapshotBuffer &s, const BladeInletSensorBuffer *inlets,
            const MetricStat *performance, std::vector<uint8_t> &out) {
    Encoder e(out);
    for (const auto &supplies : kSupplyRecords)
        e.array(s.*supplies.count, s.*supplies.records);
    for (const auto &single : kSingleRecords)
        e.optional(s.*single.record);
    e.le(s.u8InletTemperature, 1);
    e.le(s.u8OutletTemperature, 1);
    e.le(s.u64Timestamp, 8);
    e.le(s.u8PowerStatus, 1);
    e.readings(inlets);
    for (std::size_t i = 0; performance != nullptr && i < kPerformanceRecords; ++i)
        e.optional(&performance[i]);
}

Decoded decode(const uint8_t *data, std::size_t length, int perfSupported, SnapshotBuffer &s,
               BladeInletSensorBuffer &inlets, PerfMetricSet *performance) {
    Decoder d(data, length);
    for (const auto &supplies : kSupplyRecords) {
        s.*supplies.count = static_cast<uint8_t>(d.in().take(1));
        d.stats(s.*supplies.count, &(s.*supplies.records));
    }
    for (const auto &single : kSingleRecords)
        d.optional(&(s.*single.record));
    s.u8InletTemperature = static_cast<uint8_t>(d.in().take(1));
    s.u8OutletTemperature = static_cast<uint8_t>(d.in().take(1));
    s.u64Timestamp = d.in().take(8);
    s.u8PowerStatus = static_cast<uint8_t>(d.in().take(1));
    inlets = BladeInletSensorBuffer{};
    d.readings(inlets);
    // The writer adds the performance block when its platform offers one.
    PerfMetricSet *const read =
        performance != nullptr && perfSupported == 1 && d.formed() && d.in().left() != 0
            ? performance
            : nullptr;
    if (read != nullptr)
        for (MetricStat **record :
             {&read->psSystemPerf, &read->psCPUPerf, &read->psMemoryPerf, &read->psIOPerf})
            d.optional(record);
    if (!d.formed()) {
        release(s, inlets, read);
        return Decoded::Damaged;
    }
    if (!d.allocated())
        return Decoded::NoMemory;
    return d.in().left() == 0 ? Decoded::Whole : Decoded::Trailing;
}

} // namespace zelo::metriclog
