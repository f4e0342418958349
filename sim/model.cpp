#include "model.h"

#include <zelo/firmware.h>

#include <algorithm>
#include <cstddef>
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

std::vector<std::uint8_t> Firmware::handle(std::uint8_t netFn, std::uint8_t cmd,
                                           std::span<const std::uint8_t> request) {
    if (!state_.present || netFn != NETFN_DUV)
        return {kCcInvalidCommand};
    switch (cmd) {
    case CMDID_ZELO_FIND_FIRMWARE_INSTANCE:
        return findInstance(request);
    case CMDID_ZELO_INVOKE_ELEMENT_METHOD:
        return invokeMethod(request);
    default:
        return {kCcInvalidCommand};
    }
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
    const std::uint8_t method = request[kMethod];
    if (const Fault *f = findFault(false, static_cast<int>(number), request[kElement], method))
        return reply(f->cc, request);

    InstanceSetup &inst = state_.instances[number];
    switch (method) {
    case ZELO_METHOD_READ_REGISTER:
        return readRegister(inst, request);
    case ZELO_METHOD_WRITE_REGISTER:
        return writeRegister(inst, request);
    case ZELO_METHOD_READ_CONFIGURATION:
        return readConfiguration(inst, request);
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
Firmware::Bytes Firmware::readConfiguration(const InstanceSetup &inst,
                                            std::span<const std::uint8_t> request) {
    switch (request[kElement]) {
    case kPowerSupplyElement:
        return powerSupplyConfiguration(inst.psu, request);
    default:
        return reply(kCcInvalidField, request);
    }
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
