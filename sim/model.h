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
// Numbers are big-endian.
//
// Instance 0 (the server) also measures power (sim/telemetry.h):
//   element 2  0x80  histogram configuration: [0, 0, base (2), 0, 0, inner
//                    bucket count, bucket width, bucket bytes, 0]
//   element 3  0x80  snapshot configuration: [0, 0, chunk size (2), 0, 0,
//                    buffer length (2)]
//   element 3  0x81  snapshot read, parameters [offset (2), bytes wanted (2)]:
//                    [tag (2), bytes returned (2), bytes...]; at most what is
//                    left past the offset (none past the end) and 4088 bytes
//   element 11 0x80  input-power layout: [0, 0, 0, E, R, A, W1, W2, 0, 0]
// The snapshot buffer, multi-byte numbers big-endian, N the histogram bytes:
//   0 status, 1 DC energy (8, W x ms), 9 histogram counters (N), 9+N event
//   word (2), 11+N effective CPU (4); unless a blade: 15+N AC energy (8),
//   23+N outlet C, 24+N inlet C. With register 0/7 bit 7 an extended part
//   follows, its blocks chosen by register 0/14: 0x08 sixteen zero bytes,
//   0x04 (not on blades) the input-power block, 0x10 the snapshot's firmware
//   time (8, ms), 0x20 the subsystem list: count, then (type, energy (8)) with
//   types 1 CPU, 2 memory, 4 cooling. The layout follows the registers at the
//   time of the read.
//
// XPM command 0x84, request [id (3), 4, buffer, x, x, selector, 1, 0, 1] with
// buffer 0 system, 4 CPU, 5 memory, 6 I/O and selector 0 current, 1 max,
// 2 min: [firmware seconds (4), 7, status, utilisation %]. No performance
// buffers: 0xC1 to every request.
//
// Other elements answer 0xCC to the table methods.
//
// The controller's own sensors answer under network function 0x3A, also when
// the firmware is absent (protocol in platform/ipmi_wire.h): command = sensor
// type, request [index (2)]: [0, status, name length, name, reading length
// (2), reading] for the scenario's index-th sensor; 0xCB alone past the last
// one or for any type but temperature (1); 0xC7 for a request of another
// length; the scenario's sensor fault code to every request.
//
// Control requests (network function 0x3C, platform/ipmi_wire.h) change the
// running firmware by one scenario line, answered 0x00, or 0xCC and the
// reason. Snapshots already taken keep their status byte and event word; the
// next one carries the new values (`snapshot-now` takes it at once).
#pragma once

#include "scenario.h"
#include "telemetry.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zelo::sim {

inline constexpr std::uint8_t kCcOk = 0x00;
inline constexpr std::uint8_t kCcInvalidCommand = 0xC1;
inline constexpr std::uint8_t kCcBadLength = 0xC7;
inline constexpr std::uint8_t kCcInvalidField = 0xCC;

// Milliseconds since an arbitrary origin; must not run backwards.
using MsClock = std::function<std::uint64_t()>;

// CLOCK_MONOTONIC, which a time-faking preload library speeds up as well.
std::uint64_t monotonicMs();

class Firmware {
  public:
    // The firmware boots now: firmware time 0, the first snapshot. Its
    // time stamps count from wallOriginMs (milliseconds since the Unix epoch
    // at boot), or from its last restart when that is 0.
    explicit Firmware(Scenario scenario, MsClock clock = monotonicMs,
                      std::uint64_t wallOriginMs = 0);

    // One exchange; the answer starts with the completion code. Writes
    // change the state that later requests see.
    std::vector<std::uint8_t> handle(std::uint8_t netFn, std::uint8_t cmd,
                                     std::span<const std::uint8_t> request);

    // Applies one scenario line, or a runtime-only one, now. On refusal
    // nothing changes and error says why.
    bool control(std::string_view line, std::string &error);

    // How long the server waits before sending each answer.
    std::uint32_t responseDelayMs() const { return state_.delayMs; }

    // The scenario as it stands now (sensors, the bridge on a bus).
    const Scenario &state() const { return state_; }

  private:
    using Bytes = std::vector<std::uint8_t>;

    Bytes findInstance(std::span<const std::uint8_t> request);
    Bytes invokeMethod(std::span<const std::uint8_t> request);
    Bytes runMethod(unsigned number, std::span<const std::uint8_t> request);
    Bytes xpm(std::span<const std::uint8_t> request);
    Bytes sensorRecord(std::uint8_t type, std::span<const std::uint8_t> request) const;
    Bytes snapshotConfiguration(std::span<const std::uint8_t> request);
    Bytes readSnapshot(std::span<const std::uint8_t> request);
    Bytes currentBuffer();
    std::uint64_t now() const;
    Bytes readRegister(InstanceSetup &inst, std::span<const std::uint8_t> request);
    Bytes writeRegister(InstanceSetup &inst, std::span<const std::uint8_t> request);
    Bytes readConfiguration(unsigned number, std::span<const std::uint8_t> request);
    Bytes readIndexedBuffer(const InstanceSetup &inst, std::span<const std::uint8_t> request);
    const Fault *findFault(bool discovery, int instance, std::uint8_t element,
                           std::uint8_t method) const;
    void cutShort(bool xpm, std::uint8_t element, std::uint8_t method, Bytes &answer) const;

    Scenario state_;
    MsClock clock_;
    std::uint64_t bootMs_;
    Recorder recorder_;
    std::uint64_t reads_ = 0;
};

} // namespace zelo::sim
