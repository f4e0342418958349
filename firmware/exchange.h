// One firmware exchange: send the request, check the transport's result and
// the completion code, report failures from the caller's message row, and
// hand back a bounded reader over the answer.
#pragma once

#include "bytes.h"
#include "report.h"

#include <zelo/firmware.h>

#include <array>
#include <cstdint>
#include <span>

namespace zelo::firmware {

// Answers are read with the library's one bounded reader.
using zelo::Reader;

// What an exchange says when it fails; every text starts with the
// operation's name ("[%s] ...").
struct ExchangeTexts {
    Notice notice;
    const char *allocation;   // no memory for the response area
    uint8_t allocationResult; // returned then
    const char *transport;    // with the transport's result; 255 is returned
    const char *completion;   // with the completion code; null: not reported
};

// Printed texts of an element-method exchange.
inline constexpr ExchangeTexts kElementMethodTexts{
    kPrinted, "[%s] Failed to allocate memory for response buffer.\n", ZELO_RC_NO_MEMORY,
    "[%s] Failed to call IPMI_DoIPMICmd(NETFN_DUV, CMDID_ZELO_INVOKE_ELEMENT_METHOD) and the "
    "result code is %d.\n",
    "[%s] Failed to call IPMI Command(NETFN_DUV, CMDID_ZELO_INVOKE_ELEMENT_METHOD) and the result "
    "code is %d.\n"};

inline constexpr uint32_t kReadRequestLen = 8;

// A request and its response area, released together on every path.
class Exchange {
  public:
    Exchange() = default;
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;
    ~Exchange();

    uint8_t *request = nullptr; // made by one of the request builders

    // Answers go into the caller's area of `capacity` bytes, which the
    // exchange neither frees nor replaces.
    void answerInto(uint8_t *area, uint32_t capacity);

    // Sends the request's first requestLen bytes (or `bytes`) with `command`
    // into a zero-filled area of `capacity` bytes. 0 when the firmware
    // answered with completion code 0; else the allocation result, 255 for
    // a failed transport, or the completion code.
    uint8_t run(const char *name, uint8_t command, uint32_t requestLen, uint32_t capacity,
                const ExchangeTexts &texts);
    uint8_t run(const char *name, uint8_t command, std::span<const uint8_t> bytes,
                uint32_t capacity, const ExchangeTexts &texts);

    bool transportFailed() const { return transportFailed_; }
    uint8_t completionCode() const { return area_ != nullptr ? area_[0] : 0; }
    uint32_t received() const { return received_; }
    // The area is zero-filled, so bytes a short answer left out read as zero.
    Reader answer() const { return Reader(area_, capacity_); }

  private:
    bool allocate(uint32_t capacity);

    std::array<uint8_t, 16> small_{}; // most answers fit here
    uint8_t *area_ = nullptr;
    uint32_t capacity_ = 0;
    uint32_t received_ = 0;
    bool borrowed_ = false;
    bool transportFailed_ = false;
};

// The register read behind every accessor: register id and length go into
// bytes 6 and 7 of the request, the answer is the head and length data bytes.
uint8_t readRegister(Exchange &x, uint8_t *request, uint8_t reg, uint8_t length);

} // namespace zelo::firmware
