#include "model.h"

#include <zelo/firmware.h>

#include <algorithm>

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
    // Configuration and buffer reads come with snapshot buffers and the
    // power-supply tables; each is one more case and handler.
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
