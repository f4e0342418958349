// Feeds arbitrary raw snapshot bytes, with arbitrary configuration values and
// capability bits, to the parser. Whatever arrives, it must neither read past
// the raw bytes nor leak.
//
// Input: blade(1) caps(1) extended(4) histogram base(2) inner(1) width(1)
// size(1) input power E(1) R(1) A(1) W1(1) W2(1) failures(1) chunk size(1),
// then the raw snapshot. Failure bits make a read fail: 0 histogram
// configuration, 1 capabilities, 2 extended capabilities, 3 input power
// configuration; bit 4 fetches the buffer through GetSnapshotBufferFromZELO
// in chunks instead of parsing it directly.
#include <zelo.h>
#include <zelo/platform.h>

#include "fuzz_platform.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr std::size_t kHeadLen = 18;
constexpr uint8_t kFailCode = 0xC3;
const uint8_t *gRaw = nullptr;
std::size_t gRawLen = 0;
const uint8_t *gConfig = nullptr; // the head of the current input

bool fails(int bit) {
    return (gConfig[16] >> bit) & 1;
}

// Answers the parser's register and configuration reads from the input head.
std::vector<uint8_t> answer(const uint8_t *request, uint32_t length) {
    std::vector<uint8_t> r = {0, request[0], request[1], request[2]};
    if (length < 6)
        return {0xC7};
    const uint8_t element = request[4];
    const uint8_t method = request[5];
    if (method == ZELO_METHOD_READ_REGISTER && element == 0 && length == 8) {
        if (request[6] == 7)
            return fails(1) ? std::vector<uint8_t>{kFailCode} : (r.push_back(gConfig[1]), r);
        if (request[6] != 14 || fails(2))
            return {kFailCode};
        r.insert(r.end(), {gConfig[2], gConfig[3], gConfig[4], gConfig[5]});
    } else if (method == ZELO_METHOD_READ_CONFIGURATION && element == 2 && !fails(0)) {
        r.insert(r.end(),
                 {0, 0, gConfig[6], gConfig[7], 0, 0, gConfig[8], gConfig[9], gConfig[10], 0});
    } else if (method == ZELO_METHOD_READ_CONFIGURATION && element == 11 && !fails(3)) {
        r.insert(r.end(),
                 {0, 0, 0, gConfig[11], gConfig[12], gConfig[13], gConfig[14], gConfig[15], 0, 0});
    } else if (method == ZELO_METHOD_READ_CONFIGURATION && element == 3) {
        const auto total = static_cast<uint16_t>(gRawLen);
        r.insert(r.end(), {0, 0, 0, gConfig[17], 0, 0, static_cast<uint8_t>(total >> 8),
                           static_cast<uint8_t>(total)});
    } else if (method == ZELO_METHOD_READ_BUFFER && element == 3 && length == 10) {
        const std::size_t offset = (request[6] << 8) | request[7];
        const std::size_t wanted = (request[8] << 8) | request[9];
        const std::size_t n = offset < gRawLen ? std::min(wanted, gRawLen - offset) : 0;
        r.insert(r.end(), {0, 1, static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)});
        r.insert(r.end(), gRaw + offset, gRaw + offset + n);
    } else {
        return {kFailCode};
    }
    return r;
}

} // namespace

extern "C" {

int IPMI_DoIPMICmd(uint8_t, uint8_t, const uint8_t *request, uint32_t requestLen, uint8_t *response,
                   uint32_t *responseLen) {
    const auto r = answer(request, requestLen);
    const uint32_t n = r.size() < *responseLen ? static_cast<uint32_t>(r.size()) : *responseLen;
    std::memcpy(response, r.data(), n);
    *responseLen = n;
    return 0;
}
int LLVMFuzzerInitialize(int *, char ***) {
    (void)std::freopen("/dev/null", "w", stdout);
    gFuzzFirmwareKnown = true; // GetSnapshotBufferFromZELO asks the store for the handle
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    if (size < kHeadLen || size - kHeadLen > UINT16_MAX)
        return 0;
    gConfig = data;
    if (data[0] & 1)
        ::setenv("RUX_FAMILY", "blade", 1);
    else
        ::unsetenv("RUX_FAMILY");
    // Exactly sized, so the sanitizer sees any read past the end.
    const std::size_t rawLen = size - kHeadLen;
    auto *raw = static_cast<uint8_t *>(std::malloc(rawLen ? rawLen : 1));
    std::memcpy(raw, data + kHeadLen, rawLen);
    gRaw = raw;
    gRawLen = rawLen;
    HistogramData histogram{};
    if (fails(4)) {
        // The whole road: configuration, chunks under one tag, parse, and the
        // release of everything when the parse fails.
        SnapshotBuffer *record = nullptr;
        if (GetSnapshotBufferFromZELO(&record, &histogram) == ZELO_RC_SUCCESS) {
            FreeSnapshotBuffer(record);
            std::free(histogram.pu8BucketData);
        }
    } else {
        auto *record = static_cast<SnapshotBuffer *>(std::calloc(1, sizeof(SnapshotBuffer)));
        ParseSnapshotBuffer(5, raw, static_cast<uint16_t>(rawLen), record, &histogram);
        std::free(histogram.pu8BucketData);
        FreeSnapshotBuffer(record);
    }
    std::free(raw);
    return 0;
}

} // extern "C"
