// One sample of either shape: its 16-byte record, and the interval
// accumulator it is made from. No files, no clock, no trace.
#pragma once

#include "support.h"

#include <cstddef>
#include <cstdint>

namespace zelo::history {

// Record layout: u32 timestamp, then the six u16 values in record order.
template <class P>
void encode(const typename P::Sample &s, uint8_t *at) {
    putLe32(at, s.timestamp);
    for (std::size_t i = 0; i < P::kRecord.size(); ++i)
        putLe16(at + 4 + 2 * i, s.*P::kRecord[i]);
}

template <class P>
typename P::Sample decode(const uint8_t *at) {
    typename P::Sample s{};
    s.timestamp = getLe32(at);
    for (std::size_t i = 0; i < P::kRecord.size(); ++i)
        s.*P::kRecord[i] = getLe16(at + 4 + 2 * i);
    return s;
}

template <class P>
typename P::Sample unknownSample(uint64_t endtime) {
    typename P::Sample s{};
    s.timestamp = static_cast<uint32_t>(endtime);
    for (auto field : P::kRecord)
        s.*field = P::kUnknownValue;
    return s;
}

template <class P>
typename P::Sample sampleOf(const typename P::Acc &a, uint64_t endtime) {
    typename P::Sample s{};
    s.timestamp = static_cast<uint32_t>(endtime);
    for (std::size_t c = 0; c < P::kChannels.size(); ++c) {
        const auto &channel = P::kChannels[c];
        s.*channel.avg = static_cast<uint16_t>(a.sum[c] / a.count); // a mean of 16-bit values
        if (channel.min != nullptr) {
            s.*channel.min = a.min[c];
            s.*channel.max = a.max[c];
        }
    }
    return s;
}

// Extremes compare the whole reading; what is kept is its low 16 bits.
template <class P>
void accumulate(typename P::Acc &a, const typename P::Reading &r) {
    for (std::size_t c = 0; c < P::kChannels.size(); ++c) {
        const auto low = static_cast<uint16_t>(r[c]);
        a.sum[c] += low;
        if (P::kChannels[c].min == nullptr)
            continue;
        if (r[c] < a.min[c])
            a.min[c] = low;
        if (r[c] > a.max[c])
            a.max[c] = low;
    }
    ++a.count;
}

// An interval holding this reading alone. Not accumulate() on an empty
// interval: a reading of 65535 or more must still become the minimum.
template <class P>
typename P::Acc restartedWith(const typename P::Reading &r) {
    typename P::Acc a{};
    for (std::size_t c = 0; c < P::kChannels.size(); ++c) {
        const auto low = static_cast<uint16_t>(r[c]);
        a.sum[c] = low;
        a.min[c] = low;
        a.max[c] = low;
    }
    a.count = 1;
    return a;
}

} // namespace zelo::history
