// Element-method transport: request builders and the two register
// transactions every firmware operation is written against.
#include "exchange.h"
#include "hooks.h"

#include <zelo/firmware.h>
#include <zelo/platform.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zelo::firmware {
namespace {

constexpr uint32_t kWriteResponseLen = ZELO_RESPONSE_HEAD_LEN;

// A completion code is the register operation's result, not reported.
constexpr ExchangeTexts kRegisterTexts{kElementMethodTexts.notice, kElementMethodTexts.allocation,
                                       ZELO_RC_NO_MEMORY, kElementMethodTexts.transport, nullptr};

} // namespace

uint8_t readRegister(Exchange &x, uint8_t *request, uint8_t reg, uint8_t length) {
    request[6] = reg;
    request[7] = length;
    return x.run("ReadRegister", CMDID_ZELO_INVOKE_ELEMENT_METHOD, {request, kReadRequestLen},
                 uint32_t{length} + ZELO_RESPONSE_HEAD_LEN, kRegisterTexts);
}

} // namespace zelo::firmware

using namespace zelo::firmware;

extern "C" {

uint8_t GetInvokeElementMethodRequestBuffer(uint8_t u8ModuleHandle, uint8_t u8Element,
                                            uint8_t u8Method, uint32_t u32RequestLen,
                                            uint8_t **ppu8Request) {
    if (ppu8Request == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    *ppu8Request = nullptr;
    // The head alone is 6 bytes: a shorter request cannot be built.
    if (u32RequestLen < ZELO_REQUEST_HEAD_LEN)
        return ZELO_RC_FAILURE;
    auto *request = static_cast<uint8_t *>(std::calloc(u32RequestLen, 1));
    if (request == nullptr)
        return ZELO_RC_NO_MEMORY;
    std::memcpy(request, zelo::kEnterpriseBytes.data(), zelo::kEnterpriseBytes.size());
    request[3] = u8ModuleHandle;
    request[4] = u8Element;
    request[5] = u8Method;
    *ppu8Request = request;
    return ZELO_RC_SUCCESS;
}

uint8_t GetReadRegisterRequestBuffer(uint8_t u8ModuleHandle, uint8_t u8Element,
                                     uint8_t **ppu8Request) {
    return GetInvokeElementMethodRequestBuffer(u8ModuleHandle, u8Element, ZELO_METHOD_READ_REGISTER,
                                               kReadRequestLen, ppu8Request);
}

uint8_t GetWriteRegisterRequestBuffer(uint8_t u8ModuleHandle, uint8_t u8Element,
                                      uint8_t u8RegisterId, uint8_t u8DataLen,
                                      uint8_t **ppu8Request, uint32_t *pu32RequestLen) {
    if (pu32RequestLen == nullptr) {
        if (ppu8Request != nullptr)
            *ppu8Request = nullptr;
        return ZELO_RC_INVALID_PARAMETER;
    }
    // The length is reported even when the allocation then fails.
    *pu32RequestLen = static_cast<uint32_t>(u8DataLen) + kReadRequestLen;
    const uint8_t rc = GetInvokeElementMethodRequestBuffer(
        u8ModuleHandle, u8Element, ZELO_METHOD_WRITE_REGISTER, *pu32RequestLen, ppu8Request);
    if (rc == ZELO_RC_SUCCESS) {
        (*ppu8Request)[6] = u8RegisterId;
        (*ppu8Request)[7] = u8DataLen;
    }
    return rc;
}

#define ZELO_READ_BUILDER(name, element)                                                           \
    uint8_t name(uint8_t u8ModuleHandle, uint8_t **ppu8Request) {                                  \
        return GetReadRegisterRequestBuffer(u8ModuleHandle, element, ppu8Request);                 \
    }
#define ZELO_WRITE_BUILDER(name, element)                                                          \
    uint8_t name(uint8_t u8ModuleHandle, uint8_t u8RegisterId, uint8_t u8DataLen,                  \
                 uint8_t **ppu8Request, uint32_t *pu32RequestLen) {                                \
        return GetWriteRegisterRequestBuffer(u8ModuleHandle, element, u8RegisterId, u8DataLen,     \
                                             ppu8Request, pu32RequestLen);                         \
    }

ZELO_READ_BUILDER(GetReadStatusRegisterRequestBuffer, 0)
ZELO_READ_BUILDER(GetReadEnergyAccumulatorRegisterRequestBuffer, 1)
ZELO_READ_BUILDER(GetReadClockAccumulationRegisterRequestBuffer, 4)
ZELO_READ_BUILDER(GetReadPowerControlRegisterRequestBuffer, 7)
ZELO_READ_BUILDER(GetReadExhaustHeatIndexRegisterRequestBuffer, 9)
ZELO_READ_BUILDER(GetReadPowerSupplyRegisterRequestBuffer, 10)
ZELO_READ_BUILDER(GetReadServerPowerDownRegisterRequestBuffer, 13)
ZELO_READ_BUILDER(GetReadPowerMaximizerRequestBuffer, 14)
ZELO_WRITE_BUILDER(GetWriteStatusControlRegisterRequestBuffer, 0)
ZELO_WRITE_BUILDER(GetWritePowerControlRegisterRequestBuffer, 7)
ZELO_WRITE_BUILDER(GetWritePowerSupplyRegisterRequestBuffer, 10)

uint8_t ReadRegister(uint8_t *pu8Request, uint8_t u8RegisterId, uint8_t u8DataLen,
                     uint8_t **ppu8Response) {
    if (ppu8Response == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    *ppu8Response = nullptr;
    if (pu8Request == nullptr) // nothing to send
        return ZELO_RC_FAILURE;
    // The caller's area first: without it nothing is sent.
    const uint32_t capacity = uint32_t{u8DataLen} + ZELO_RESPONSE_HEAD_LEN;
    *ppu8Response = static_cast<uint8_t *>(zelo::hooks().calloc(capacity, 1));
    if (*ppu8Response == nullptr) {
        report(kRegisterTexts.notice, kRegisterTexts.allocation, "ReadRegister");
        return ZELO_RC_NO_MEMORY;
    }
    Exchange x;
    x.answerInto(*ppu8Response, capacity);
    return readRegister(x, pu8Request, u8RegisterId, u8DataLen);
}

uint8_t WriteRegister(uint8_t *pu8Request, uint32_t u32RequestLen) {
    // A shorter request would be sent without its register id and length.
    if (pu8Request == nullptr || u32RequestLen < kReadRequestLen)
        return ZELO_RC_FAILURE;
    Exchange x;
    return x.run("WriteRegister", CMDID_ZELO_INVOKE_ELEMENT_METHOD, {pu8Request, u32RequestLen},
                 kWriteResponseLen, kRegisterTexts);
}

uint64_t MSBMultiBytesToValue(uint32_t u32Offset, const uint8_t *pu8Buffer, uint8_t u8Len) {
    if (u8Len == 0 || pu8Buffer == nullptr)
        return 0;
    return zelo::getBe(pu8Buffer + u32Offset, u8Len);
}

void CleanReadBuffer(uint8_t *pu8Request, uint8_t *pu8Response) {
    std::free(pu8Request);
    std::free(pu8Response);
}

} // extern "C"
