// The simulated power-management firmware: answers IPMI requests of network
// function 0x2E from the register files of its instances.
//
// Every request starts with the 3-byte enterprise id (least significant byte
// first); every answer is the completion code, the id echo, then method data.
// Errors carry the completion code and the id echo when the id could be read.
//   0xC1  netFn or command not understood, or firmware absent (just [0xC1])
//   0xC7  request length wrong for the command or method
//   0xCC  wrong enterprise id, unknown handle, element, register or method,
//         write to a read-only register, value wider than the register
//
// Register reads of n bytes return the value as an n-byte big-endian number:
// high bytes are dropped when n is below the register's width, zeros are
// prepended when above. Writes take n bytes the same way and are refused when
// the number does not fit the register.
//
// Element 10 (power supplies) also has its tables:
//   0x80 read configuration, no parameters: [5, first configuration byte,
//        PSU types, redundancy configurations, factor1, factor2]
//   0x87 read indexed buffer, parameters [buffer, index, bytes wanted]:
//        [buffer, index, entry length, entry bytes...], the entry cut to the
//        bytes wanted. Buffer 0 holds PSU types [b0, b1, watts (2)], buffer 1
//        redundancy configurations [byte0, properties (2), N, M, three u16
//        words, PSU-type list]. Unknown buffer or index: 0xCC.
// Numbers are big-endian. Other elements answer 0xCC to both methods.
#pragma once

#include "scenario.h"

#include <cstdint>
#include <span>
#include <vector>

namespace zelo::sim {

inline constexpr std::uint8_t kCcOk = 0x00;
inline constexpr std::uint8_t kCcInvalidCommand = 0xC1;
inline constexpr std::uint8_t kCcBadLength = 0xC7;
inline constexpr std::uint8_t kCcInvalidField = 0xCC;

class Firmware {
  public:
    explicit Firmware(Scenario scenario) : state_(std::move(scenario)) {}

    // One exchange; the answer starts with the completion code. Writes
    // change the state that later requests see.
    std::vector<std::uint8_t> handle(std::uint8_t netFn, std::uint8_t cmd,
                                     std::span<const std::uint8_t> request);

    // How long the server waits before sending each answer.
    std::uint32_t responseDelayMs() const { return state_.delayMs; }

  private:
    using Bytes = std::vector<std::uint8_t>;

    Bytes findInstance(std::span<const std::uint8_t> request);
    Bytes invokeMethod(std::span<const std::uint8_t> request);
    Bytes readRegister(InstanceSetup &inst, std::span<const std::uint8_t> request);
    Bytes writeRegister(InstanceSetup &inst, std::span<const std::uint8_t> request);
    Bytes readConfiguration(const InstanceSetup &inst, std::span<const std::uint8_t> request);
    Bytes readIndexedBuffer(const InstanceSetup &inst, std::span<const std::uint8_t> request);
    const Fault *findFault(bool discovery, int instance, std::uint8_t element,
                           std::uint8_t method) const;

    Scenario state_;
};

} // namespace zelo::sim
