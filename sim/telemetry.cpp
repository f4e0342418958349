#include "telemetry.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace zelo::sim {

namespace {

constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();

// Stateless, so the same second always draws the same value.
std::uint64_t mix(std::uint64_t x) {
    x += 0x9E3779B97F4A7C15U;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9U;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBU;
    return x ^ (x >> 31);
}

std::uint64_t cycleMs(const PowerProfile &p) {
    std::uint64_t sum = 0;
    for (const PowerStep &s : p.steps)
        sum += s.ms;
    return sum;
}

// Step in force at ms and when it ends; the last step never ends when held.
std::pair<std::uint16_t, std::uint64_t> stepAt(const PowerProfile &p, std::uint64_t ms) {
    const std::uint64_t cycle = cycleMs(p);
    if (p.steps.empty() || cycle == 0)
        return {0, kNever};
    if (p.hold && ms >= cycle)
        return {p.steps.back().watts, kNever};
    const std::uint64_t start = ms - ms % cycle;
    std::uint64_t end = start;
    for (const PowerStep &s : p.steps) {
        end += s.ms;
        if (ms < end)
            return {s.watts, p.hold && &s == &p.steps.back() ? kNever : end};
    }
    return {p.steps.back().watts, kNever}; // not reached: ms < start + cycle
}

void putBe(std::vector<std::uint8_t> &out, std::uint64_t v, std::size_t width) {
    for (std::size_t i = width; i-- > 0;)
        out.push_back(i < 8 ? static_cast<std::uint8_t>(v >> (8 * i)) : 0);
}

std::uint64_t saturate(std::uint64_t v, std::size_t width) {
    return width >= 8 ? v : std::min(v, (std::uint64_t{1} << (8 * width)) - 1);
}

std::uint64_t subsystemEnergy(const Snapshot &snap, Subsystem s) {
    switch (s) {
    case Subsystem::Cpu:
        return snap.energy[kCpu];
    case Subsystem::Memory:
        return snap.energy[kMemory];
    case Subsystem::Cooling:
        return snap.energy[kCooling];
    }
    return 0;
}

void putInputPower(std::vector<std::uint8_t> &out, const Snapshot &snap, const InputPowerSetup &ip,
                   std::uint64_t labels) {
    for (unsigned i = 0; i < ip.entries; ++i) {
        const std::uint64_t input = snap.levels.watts[kAc] / ip.entries;
        const std::uint64_t label = i < 4 ? (labels >> (48 - 16 * i)) & 0xFFFF : 0;
        out.insert(out.end(), ip.lead, static_cast<std::uint8_t>(i));
        putBe(out, saturate(input, ip.width1), ip.width1);
        putBe(out, saturate(label, ip.width2), ip.width2);
        out.insert(out.end(), (ip.repeat - 1U) * ip.entryLen(), 0);
    }
}

} // namespace

std::uint16_t dcWatts(const PowerProfile &p, std::uint64_t ms) {
    switch (p.kind) {
    case PowerProfile::Kind::Constant:
        return p.watts;
    case PowerProfile::Kind::Steps:
        return stepAt(p, ms).first;
    case PowerProfile::Kind::Noisy: {
        const std::uint64_t span = 2U * p.amplitude + 1U;
        const std::uint64_t draw = mix(p.seed ^ mix(ms / kMsPerSample)) % span;
        return static_cast<std::uint16_t>(p.watts - p.amplitude + draw);
    }
    }
    return 0;
}

std::uint64_t nextChange(const PowerProfile &p, std::uint64_t ms) {
    switch (p.kind) {
    case PowerProfile::Kind::Constant:
        return kNever;
    case PowerProfile::Kind::Steps:
        return stepAt(p, ms).second;
    case PowerProfile::Kind::Noisy:
        return (ms / kMsPerSample + 1) * kMsPerSample;
    }
    return kNever;
}

PowerLevels levelsAt(const PowerModel &m, std::uint64_t ms) {
    const std::uint32_t dc = dcWatts(m.dc, ms);
    PowerLevels l;
    l.watts[kDc] = dc;
    l.watts[kAc] = dc * 100U / m.efficiencyPct;
    l.watts[kCpu] = dc * m.cpuPct / 100U;
    l.watts[kMemory] = dc * m.memoryPct / 100U;
    l.watts[kCooling] = dc * m.coolingPct / 100U;
    l.inletC = m.inletC;
    l.outletC = static_cast<std::uint8_t>(std::min(255U, m.inletC + dc * m.outletRiseC / 100U));
    return l;
}

std::size_t largestSnapshotLen(const SnapshotSetup &setup) {
    return 25 + setup.histogram.buckets() * setup.histogram.bucketBytes + kOpaqueBlockLen +
           setup.inputPower.blockLen() + 8 + 1 + 9 * setup.subsystems.size();
}

std::vector<std::uint8_t> snapshotBuffer(const Snapshot &snap, const SnapshotSetup &setup,
                                         const LayoutRegisters &regs) {
    std::vector<std::uint8_t> out;
    out.push_back(snap.status);
    putBe(out, snap.energy[kDc], 8);
    for (const std::uint64_t count : snap.histogram)
        putBe(out, count, setup.histogram.bucketBytes);
    putBe(out, snap.event, 2);
    putBe(out, snap.effectiveCpu, 4);
    if (!setup.blade) {
        putBe(out, snap.energy[kAc], 8);
        out.push_back(snap.levels.outletC);
        out.push_back(snap.levels.inletC);
    }
    if (!(regs.capabilities & kCapsExtendedSnapshot))
        return out;
    if (regs.extended & kExtOpaqueBlock)
        out.insert(out.end(), kOpaqueBlockLen, 0);
    if ((regs.extended & kExtInputPower) && !setup.blade)
        putInputPower(out, snap, setup.inputPower, regs.outputLabels);
    if (regs.extended & kExtTimestamp)
        putBe(out, snap.stampMs, 8);
    if (regs.extended & kExtSubsystems) {
        out.push_back(static_cast<std::uint8_t>(setup.subsystems.size()));
        for (const Subsystem s : setup.subsystems) {
            out.push_back(static_cast<std::uint8_t>(s));
            putBe(out, subsystemEnergy(snap, s), 8);
        }
    }
    return out;
}

Recorder::Recorder(PowerModel power, SnapshotSetup setup, std::uint8_t cpuPct,
                   std::uint64_t wallOriginMs)
    : power_(std::move(power)), setup_(std::move(setup)), cpuPct_(cpuPct),
      restartPending_(setup_.restartAtMs.has_value()), wallOriginMs_(wallOriginMs) {
    start(0);
}

void Recorder::start(std::uint64_t now) {
    epoch_ = now;
    nextBoundary_ = setup_.periodMs;
    running_ = Snapshot{};
    running_.histogram.assign(setup_.histogram.buckets(), 0);
    running_.levels = levelsAt(power_, 0);
    running_.stampMs = stampMs(now);
    running_.status = setup_.status;
    running_.event = setup_.event;
    snap_ = running_;
}

void Recorder::advanceTo(std::uint64_t now) {
    for (;;) {
        const std::uint64_t boundary = epoch_ + nextBoundary_;
        const std::uint64_t restart = restartPending_ ? *setup_.restartAtMs : kNever;
        // A restart wins over a boundary at the same instant.
        if (restart <= now && restart <= boundary) {
            restartPending_ = false;
            start(restart);
        } else if (boundary <= now) {
            take(nextBoundary_);
            nextBoundary_ += setup_.periodMs;
        } else {
            return;
        }
    }
}

void Recorder::snapshotNow(std::uint64_t now) {
    advanceTo(now);
    take(firmwareMs(now));
}

void Recorder::restartNow(std::uint64_t now) {
    advanceTo(now);
    start(now);
}

void Recorder::setTag(std::uint64_t now, std::uint16_t tag) {
    advanceTo(now);
    snap_.tag = tag;
    running_.tag = tag;
}

void Recorder::retune(std::uint64_t now, const PowerModel &power, const SnapshotSetup &setup,
                      std::uint8_t cpuPct) {
    advanceTo(now);
    accumulate(firmwareMs(now));
    if (setup.restartAtMs != setup_.restartAtMs)
        restartPending_ = setup.restartAtMs.has_value();
    power_ = power;
    setup_ = setup;
    cpuPct_ = cpuPct;
}

// Splitting an interval anywhere gives the same counters: energy is summed
// per piece, and each whole second is sampled in exactly one piece.
void Recorder::accumulate(std::uint64_t to) {
    Snapshot &r = running_;
    for (std::uint64_t t = r.ms; t < to;) {
        const std::uint64_t end = std::min(to, nextChange(power_.dc, t));
        const PowerLevels l = levelsAt(power_, t);
        for (std::size_t q = 0; q < kEnergyCount; ++q)
            r.energy[q] += std::uint64_t{l.watts[q]} * (end - t);
        t = end;
    }
    for (std::uint64_t s = (r.ms + kMsPerSample - 1) / kMsPerSample; s * kMsPerSample < to; ++s) {
        ++r.histogram[bucketOf(dcWatts(power_.dc, s * kMsPerSample))];
        r.effectiveCpu += cpuPct_;
    }
    r.ms = std::max(r.ms, to);
}

void Recorder::take(std::uint64_t to) {
    accumulate(to);
    running_.levels = levelsAt(power_, to);
    running_.status = setup_.status;
    running_.event = setup_.event;
    running_.tag = running_.tag == 0xFFFF ? 1 : static_cast<std::uint16_t>(running_.tag + 1);
    running_.stampMs = stampMs(epoch_ + to);
    snap_ = running_;
}

std::size_t Recorder::bucketOf(std::uint16_t watts) const {
    const HistogramSetup &h = setup_.histogram;
    if (watts < h.base)
        return 0;
    return std::min<std::size_t>(1U + (watts - h.base) / h.width, h.buckets() - 1);
}

} // namespace zelo::sim
