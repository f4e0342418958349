#include "model.h"

#include "ipmi_wire.h"

#include <zelo/firmware.h>

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <initializer_list>
#include <iterator>
#include <optional>

namespace zelo::sim {

namespace {

constexpr std::size_t kIdLen = 3;
constexpr std::uint8_t kId[kIdLen] = {
    static_cast<std::uint8_t>(ZELO_IANA_ID & 0xFF),
    static_cast<std::uint8_t>((ZELO_IANA_ID >> 8) & 0xFF),
    static_cast<std::uint8_t>((ZELO_IANA_ID >> 16) & 0xFF),
};

// Request offsets after the id.
constexpr std::size_t kDiscoveryInstance = 3;
constexpr std::size_t kDiscoveryLen = 6;
constexpr std::size_t kHandle = 3;
constexpr std::size_t kElement = 4;
constexpr std::size_t kMethod = 5;
constexpr std::size_t kRegisterId = ZELO_REQUEST_HEAD_LEN;
constexpr std::size_t kDataLen = ZELO_REQUEST_HEAD_LEN + 1;
constexpr std::size_t kRegisterRequestLen = ZELO_REQUEST_HEAD_LEN + 2;
constexpr std::size_t kConfigurationRequestLen = ZELO_REQUEST_HEAD_LEN;
constexpr std::size_t kBufferId = ZELO_REQUEST_HEAD_LEN;
constexpr std::size_t kEntryIndex = ZELO_REQUEST_HEAD_LEN + 1;
constexpr std::size_t kBytesWanted = ZELO_REQUEST_HEAD_LEN + 2;
constexpr std::size_t kIndexedBufferRequestLen = ZELO_REQUEST_HEAD_LEN + 3;

constexpr std::size_t kReadOffset = ZELO_REQUEST_HEAD_LEN;
constexpr std::size_t kReadWanted = ZELO_REQUEST_HEAD_LEN + 2;
constexpr std::size_t kSnapshotReadLen = ZELO_REQUEST_HEAD_LEN + 4;
// Keeps an answer within the socket frame the clients accept.
constexpr std::size_t kMaxReadLen = 4096 - 8;

constexpr std::size_t kXpmRequestLen = 11;
constexpr std::size_t kXpmBuffer = 4;
constexpr std::size_t kXpmSelector = 7;
constexpr std::uint8_t kXpmReturnedSize = 7;
// Performance buffer ids, in the order of Performance::current.
constexpr std::uint8_t kXpmBuffers[] = {0, 4, 5, 6};
constexpr std::uint8_t kXpmSpread = 10; // max / min around the current value

constexpr std::size_t kSensorRequestLen = 2;
constexpr std::uint8_t kTemperatureSensorType = 1;

constexpr unsigned kServer = 0;
constexpr std::size_t kCapabilitiesRow = *findRegister(0, 7);
constexpr std::size_t kExtendedRow = *findRegister(0, 14);
constexpr std::size_t kOutputLabelRow = *findRegister(10, 1);

constexpr std::uint8_t kConfigurationLen = 5;
constexpr std::uint8_t kPsuTypeBuffer = 0;
constexpr std::uint8_t kRedundancyBuffer = 1;

// Completion code and, when the request has one, its id echoed back.
std::vector<std::uint8_t> reply(std::uint8_t cc, std::span<const std::uint8_t> request) {
    std::vector<std::uint8_t> out;
    out.reserve(ZELO_RESPONSE_HEAD_LEN);
    out.push_back(cc);
    if (request.size() >= kIdLen)
        out.insert(out.end(), request.begin(), request.begin() + kIdLen);
    return out;
}

bool idMatches(std::span<const std::uint8_t> request) {
    return std::equal(kId, kId + kIdLen, request.begin());
}

void putU16(std::vector<std::uint8_t> &out, std::uint16_t v) {
    out.push_back(static_cast<std::uint8_t>(v >> 8));
    out.push_back(static_cast<std::uint8_t>(v));
}

std::uint16_t getU16(std::span<const std::uint8_t> request, std::size_t at) {
    return static_cast<std::uint16_t>((request[at] << 8) | request[at + 1]);
}

// Answer to a request that carries no parameters.
std::vector<std::uint8_t> plainAnswer(std::span<const std::uint8_t> request,
                                      std::initializer_list<std::uint8_t> data) {
    if (request.size() != kConfigurationRequestLen)
        return reply(kCcBadLength, request);
    std::vector<std::uint8_t> out = reply(kCcOk, request);
    out.insert(out.end(), data);
    return out;
}

std::uint8_t utilisation(std::uint8_t current, std::uint8_t selector) {
    const unsigned c = current;
    if (selector == 1)
        return static_cast<std::uint8_t>(std::max(c, std::min(c + kXpmSpread, 100U)));
    if (selector == 2)
        return static_cast<std::uint8_t>(c > kXpmSpread ? c - kXpmSpread : 0);
    return current;
}

std::vector<std::uint8_t> powerSupplyConfiguration(const PowerSupplyTables &t,
                                                   std::span<const std::uint8_t> request) {
    if (request.size() != kConfigurationRequestLen)
        return reply(kCcBadLength, request);
    std::vector<std::uint8_t> out = reply(kCcOk, request);
    // The scenario parser keeps both tables within a byte's count.
    out.insert(out.end(),
               {kConfigurationLen, t.configByte0, static_cast<std::uint8_t>(t.types.size()),
                static_cast<std::uint8_t>(t.configs.size()), t.factor1, t.factor2});
    return out;
}

// One entry of a power-supply buffer, with the length the firmware reports.
struct Entry {
    std::uint8_t reportedLen = 0;
    std::vector<std::uint8_t> bytes;
};

std::optional<Entry> powerSupplyEntry(const PowerSupplyTables &t, std::uint8_t buffer,
                                      std::uint8_t index) {
    Entry e;
    if (buffer == kPsuTypeBuffer && index < t.types.size()) {
        const PsuType &type = t.types[index];
        e.bytes = {type.bytes[0], type.bytes[1]};
        putU16(e.bytes, type.watts);
    } else if (buffer == kRedundancyBuffer && index < t.configs.size()) {
        const RedundancyConfig &c = t.configs[index];
        e.bytes.push_back(c.byte0);
        putU16(e.bytes, c.properties);
        e.bytes.push_back(c.n);
        e.bytes.push_back(c.m);
        for (const std::uint16_t w : c.words)
            putU16(e.bytes, w);
        e.bytes.insert(e.bytes.end(), c.typeList.begin(), c.typeList.end());
        if (c.entryLength) {
            e.reportedLen = *c.entryLength;
            return e;
        }
    } else {
        return std::nullopt;
    }
    e.reportedLen = static_cast<std::uint8_t>(e.bytes.size());
    return e;
}

std::vector<std::uint8_t> powerSupplyBuffer(const PowerSupplyTables &t,
                                            std::span<const std::uint8_t> request) {
    if (request.size() != kIndexedBufferRequestLen)
        return reply(kCcBadLength, request);
    const std::uint8_t buffer = request[kBufferId];
    const std::uint8_t index = request[kEntryIndex];
    const auto entry = powerSupplyEntry(t, buffer, index);
    if (!entry)
        return reply(kCcInvalidField, request);
    std::vector<std::uint8_t> out = reply(kCcOk, request);
    out.insert(out.end(), {buffer, index, entry->reportedLen});
    const std::size_t n = std::min<std::size_t>(entry->bytes.size(), request[kBytesWanted]);
    out.insert(out.end(), entry->bytes.begin(),
               entry->bytes.begin() + static_cast<std::ptrdiff_t>(n));
    return out;
}

} // namespace

std::uint64_t monotonicMs() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000U +
           static_cast<std::uint64_t>(ts.tv_nsec) / 1000000U;
}

Firmware::Firmware(Scenario scenario, MsClock clock, std::uint64_t wallOriginMs)
    : state_(std::move(scenario)), clock_(std::move(clock)), bootMs_(clock_()),
      recorder_(state_.power, state_.snapshots, state_.perf.current[1], wallOriginMs) {}

std::uint64_t Firmware::now() const {
    const std::uint64_t t = clock_();
    return t > bootMs_ ? t - bootMs_ : 0;
}

std::vector<std::uint8_t> Firmware::handle(std::uint8_t netFn, std::uint8_t cmd,
                                           std::span<const std::uint8_t> request) {
    if (netFn == wire::kSensorNetFn)
        return sensorRecord(cmd, request);
    if (netFn == wire::kControlNetFn) {
        std::string error;
        if (cmd == wire::kControlCmd &&
            control({reinterpret_cast<const char *>(request.data()), request.size()}, error))
            return {kCcOk};
        if (cmd != wire::kControlCmd)
            error = "unknown control command";
        Bytes out{wire::kCcControlRefused};
        out.insert(out.end(), error.begin(),
                   error.begin() +
                       static_cast<std::ptrdiff_t>(std::min(error.size(), wire::kMaxDataLen - 1)));
        return out;
    }
    if (!state_.present || netFn != NETFN_DUV)
        return {kCcInvalidCommand};
    switch (cmd) {
    case CMDID_ZELO_FIND_FIRMWARE_INSTANCE:
        return findInstance(request);
    case CMDID_ZELO_INVOKE_ELEMENT_METHOD:
        return invokeMethod(request);
    case CMDID_ZELO_XPM_EXTENSIONS: {
        Bytes out = xpm(request);
        cutShort(true, 0, 0, out);
        return out;
    }
    default:
        return {kCcInvalidCommand};
    }
}

bool Firmware::control(std::string_view line, std::string &error) {
    Scenario next = state_;
    ControlAction action;
    if (!parseControlLine(line, next, action, error))
        return false;
    const std::uint64_t t = now();
    state_ = std::move(next);
    recorder_.retune(t, state_.power, state_.snapshots, state_.perf.current[1]);
    switch (action.kind) {
    case ControlAction::Kind::Apply:
        break;
    case ControlAction::Kind::RestartNow:
        recorder_.restartNow(t);
        break;
    case ControlAction::Kind::SnapshotNow:
        recorder_.snapshotNow(t);
        break;
    case ControlAction::Kind::Tag:
        recorder_.setTag(t, action.tag);
        break;
    }
    return true;
}

Firmware::Bytes Firmware::findInstance(std::span<const std::uint8_t> request) {
    if (request.size() != kDiscoveryLen)
        return reply(kCcBadLength, request);
    if (!idMatches(request) || request[4] != 0 || request[5] != 1)
        return reply(kCcInvalidField, request);
    const std::uint8_t number = request[kDiscoveryInstance];
    if (const Fault *f = findFault(true, number, 0, 0))
        return reply(f->cc, request);

    Bytes out = reply(kCcOk, request);
    out.resize(10, 0);
    if (number < kInstanceCount && state_.instances[number].defined) {
        const InstanceSetup &inst = state_.instances[number];
        out[5] = inst.descriptor1;
        out[6] = inst.descriptor2;
        out[7] = inst.handle;
    }
    return out;
}

Firmware::Bytes Firmware::invokeMethod(std::span<const std::uint8_t> request) {
    if (request.size() < kIdLen)
        return reply(kCcBadLength, request);
    if (!idMatches(request))
        return reply(kCcInvalidField, request);
    if (request.size() < ZELO_REQUEST_HEAD_LEN)
        return reply(kCcBadLength, request);

    unsigned number = 0;
    while (number < kInstanceCount && !(state_.instances[number].defined &&
                                        state_.instances[number].handle == request[kHandle]))
        ++number;
    if (number == kInstanceCount)
        return reply(kCcInvalidField, request);
    const std::uint8_t element = request[kElement];
    const std::uint8_t method = request[kMethod];
    const Fault *f = findFault(false, static_cast<int>(number), element, method);
    Bytes out = f ? reply(f->cc, request) : runMethod(number, request);
    cutShort(false, element, method, out);
    return out;
}

Firmware::Bytes Firmware::runMethod(unsigned number, std::span<const std::uint8_t> request) {
    InstanceSetup &inst = state_.instances[number];
    switch (request[kMethod]) {
    case ZELO_METHOD_READ_REGISTER:
        return readRegister(inst, request);
    case ZELO_METHOD_WRITE_REGISTER:
        return writeRegister(inst, request);
    case ZELO_METHOD_READ_CONFIGURATION:
        return readConfiguration(number, request);
    case ZELO_METHOD_READ_BUFFER:
        if (number == kServer && request[kElement] == kSnapshotElement)
            return readSnapshot(request);
        return reply(kCcInvalidField, request);
    case ZELO_METHOD_READ_INDEXED_BUFFER:
        return readIndexedBuffer(inst, request);
    default:
        return reply(kCcInvalidField, request);
    }
}

Firmware::Bytes Firmware::readRegister(InstanceSetup &inst, std::span<const std::uint8_t> request) {
    if (request.size() != kRegisterRequestLen)
        return reply(kCcBadLength, request);
    const auto row = findRegister(request[kElement], request[kRegisterId]);
    const std::uint8_t n = request[kDataLen];
    if (!row || n == 0)
        return reply(kCcInvalidField, request);

    const std::uint64_t value = inst.registers[*row];
    Bytes out = reply(kCcOk, request);
    for (unsigned i = n; i-- > 0;)
        out.push_back(i < 8 ? static_cast<std::uint8_t>(value >> (8 * i)) : 0);
    return out;
}

Firmware::Bytes Firmware::writeRegister(InstanceSetup &inst,
                                        std::span<const std::uint8_t> request) {
    if (request.size() < kRegisterRequestLen ||
        request.size() != kRegisterRequestLen + request[kDataLen])
        return reply(kCcBadLength, request);
    const auto row = findRegister(request[kElement], request[kRegisterId]);
    if (!row || !kRegisters[*row].writable || request[kDataLen] == 0)
        return reply(kCcInvalidField, request);

    std::uint64_t value = 0;
    for (const std::uint8_t b : request.subspan(kRegisterRequestLen)) {
        if (value > (UINT64_MAX >> 8))
            return reply(kCcInvalidField, request);
        value = (value << 8) | b;
    }
    if (value > maxValue(kRegisters[*row].width))
        return reply(kCcInvalidField, request);
    inst.registers[*row] = value;
    return reply(kCcOk, request);
}

// Which elements have a configuration or indexed buffers, and their layout,
// differs per element: one case each.
Firmware::Bytes Firmware::readConfiguration(unsigned number,
                                            std::span<const std::uint8_t> request) {
    const std::uint8_t element = request[kElement];
    if (element == kPowerSupplyElement)
        return powerSupplyConfiguration(state_.instances[number].psu, request);
    if (number != kServer)
        return reply(kCcInvalidField, request);
    const HistogramSetup &h = state_.snapshots.histogram;
    const InputPowerSetup &ip = state_.snapshots.inputPower;
    switch (element) {
    case kHistogramElement:
        return plainAnswer(request, {0, 0, static_cast<std::uint8_t>(h.base >> 8),
                                     static_cast<std::uint8_t>(h.base), 0, 0, h.inner, h.width,
                                     h.bucketBytes, 0});
    case kSnapshotElement:
        return snapshotConfiguration(request);
    case kInputPowerElement:
        return plainAnswer(request,
                           {0, 0, 0, ip.entries, ip.repeat, ip.lead, ip.width1, ip.width2, 0, 0});
    default:
        return reply(kCcInvalidField, request);
    }
}

Firmware::Bytes Firmware::snapshotConfiguration(std::span<const std::uint8_t> request) {
    const std::uint16_t chunk = state_.snapshots.chunkSize;
    // The scenario parser keeps the largest layout within a u16.
    const auto total = static_cast<std::uint16_t>(currentBuffer().size());
    return plainAnswer(
        request, {0, 0, static_cast<std::uint8_t>(chunk >> 8), static_cast<std::uint8_t>(chunk), 0,
                  0, static_cast<std::uint8_t>(total >> 8), static_cast<std::uint8_t>(total)});
}

Firmware::Bytes Firmware::currentBuffer() {
    recorder_.advanceTo(now());
    const RegisterValues &r = state_.instances[kServer].registers;
    const LayoutRegisters regs{static_cast<std::uint8_t>(r[kCapabilitiesRow]),
                               static_cast<std::uint32_t>(r[kExtendedRow]), r[kOutputLabelRow]};
    return snapshotBuffer(recorder_.current(), state_.snapshots, regs);
}

Firmware::Bytes Firmware::readSnapshot(std::span<const std::uint8_t> request) {
    if (request.size() != kSnapshotReadLen)
        return reply(kCcBadLength, request);
    const Bytes buffer = currentBuffer();
    const std::size_t offset = getU16(request, kReadOffset);
    const std::size_t n = offset < buffer.size()
                              ? std::min({std::size_t{getU16(request, kReadWanted)},
                                          buffer.size() - offset, kMaxReadLen})
                              : 0;
    Bytes out = reply(kCcOk, request);
    putU16(out, recorder_.current().tag);
    putU16(out, static_cast<std::uint16_t>(n + (state_.snapshots.overlongRead ? 1 : 0)));
    const auto from = buffer.begin() + static_cast<std::ptrdiff_t>(std::min(offset, buffer.size()));
    out.insert(out.end(), from, from + static_cast<std::ptrdiff_t>(n));

    const std::uint32_t every = state_.snapshots.everyReads;
    if (every != 0 && ++reads_ % every == 0)
        recorder_.snapshotNow(now());
    return out;
}

Firmware::Bytes Firmware::xpm(std::span<const std::uint8_t> request) {
    if (!state_.perf.present)
        return reply(kCcInvalidCommand, request);
    if (request.size() != kXpmRequestLen)
        return reply(kCcBadLength, request);
    if (!idMatches(request))
        return reply(kCcInvalidField, request);
    if (std::optional<XpmFault> &f = state_.xpmFault; f && (!f->remaining || *f->remaining > 0)) {
        if (f->remaining)
            --*f->remaining;
        return reply(f->cc, request);
    }
    const auto buffer =
        std::find(std::begin(kXpmBuffers), std::end(kXpmBuffers), request[kXpmBuffer]);
    const std::uint8_t selector = request[kXpmSelector];
    const bool fixedBytes =
        request[3] == 0x04 && request[8] == 0x01 && request[9] == 0x00 && request[10] == 0x01;
    if (buffer == std::end(kXpmBuffers) || selector > 2 || !fixedBytes)
        return reply(kCcInvalidField, request);

    const std::uint64_t t = now();
    recorder_.advanceTo(t);
    const auto seconds = static_cast<std::uint32_t>(recorder_.stampMs(t) / 1000);
    const std::uint8_t current =
        state_.perf.current[static_cast<std::size_t>(buffer - std::begin(kXpmBuffers))];
    Bytes out = reply(kCcOk, request);
    putU16(out, static_cast<std::uint16_t>(seconds >> 16));
    putU16(out, static_cast<std::uint16_t>(seconds));
    out.insert(out.end(), {kXpmReturnedSize, state_.perf.status, utilisation(current, selector)});
    return out;
}

Firmware::Bytes Firmware::sensorRecord(std::uint8_t type,
                                       std::span<const std::uint8_t> request) const {
    if (state_.sensorFault)
        return {*state_.sensorFault};
    if (request.size() != kSensorRequestLen)
        return {kCcBadLength};
    const std::size_t index = getU16(request, 0);
    if (type != kTemperatureSensorType || index >= state_.sensors.size())
        return {wire::kCcNoMoreRecords};
    // The scenario parser keeps both texts within their length fields.
    const Sensor &s = state_.sensors[index];
    Bytes out{kCcOk, s.status, static_cast<std::uint8_t>(s.name.size())};
    out.insert(out.end(), s.name.begin(), s.name.end());
    putU16(out, static_cast<std::uint16_t>(s.reading.size()));
    out.insert(out.end(), s.reading.begin(), s.reading.end());
    return out;
}

Firmware::Bytes Firmware::readIndexedBuffer(const InstanceSetup &inst,
                                            std::span<const std::uint8_t> request) {
    switch (request[kElement]) {
    case kPowerSupplyElement:
        return powerSupplyBuffer(inst.psu, request);
    default:
        return reply(kCcInvalidField, request);
    }
}

void Firmware::cutShort(bool xpm, std::uint8_t element, std::uint8_t method, Bytes &answer) const {
    for (auto a = state_.shortAnswers.rbegin(); a != state_.shortAnswers.rend(); ++a) {
        if (a->xpm == xpm && (xpm || (a->element == element && a->method == method))) {
            answer.resize(std::min<std::size_t>(answer.size(), a->bytes));
            return;
        }
    }
}

const Fault *Firmware::findFault(bool discovery, int instance, std::uint8_t element,
                                 std::uint8_t method) const {
    for (auto f = state_.faults.rbegin(); f != state_.faults.rend(); ++f) {
        if (f->discovery != discovery)
            continue;
        if (discovery && (f->instance == kAnyInstance || f->instance == instance))
            return &*f;
        if (!discovery && f->instance == instance && f->element == element && f->method == method)
            return &*f;
    }
    return nullptr;
}

} // namespace zelo::sim
