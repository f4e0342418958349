// The three configuration blocks that describe the snapshot buffer, and the
// buffer itself, read chunk by chunk so that every byte comes from one
// snapshot.
#include "cycle.h"
#include "exchange.h"
#include "report.h"

#include <zelo/acquisition.h>
#include <zelo/firmware.h>

#include <algorithm>
#include <cstring>
#include <iterator>

using zelo::firmware::Exchange;

namespace {

constexpr uint8_t kHistogramElement = 2;
constexpr uint8_t kSnapshotElement = 3;
constexpr uint8_t kInputPowerElement = 11;
constexpr uint32_t kBufferRequestLen = 10;
constexpr uint32_t kBufferResponseHead = 8;
constexpr unsigned kMaxChunkReads = 7;
constexpr std::size_t kConfigurationFirstByte = 6;

// Reads an element's configuration block; on success `block` holds the
// blockLen response bytes from byte 6 on.
uint8_t readConfiguration(const char *name, uint8_t handle, uint8_t element, uint8_t *block,
                          std::size_t blockLen) {
    Exchange x;
    if (GetInvokeElementMethodRequestBuffer(handle, element, ZELO_METHOD_READ_CONFIGURATION,
                                            ZELO_REQUEST_HEAD_LEN, &x.request) != 0) {
        zelo::print("[%s] Failed to call GetInvokeElementMethodRequestBuffer().\n", name);
        return ZELO_RC_NO_MEMORY;
    }
    const auto capacity = static_cast<uint32_t>(kConfigurationFirstByte + blockLen);
    const uint8_t rc = x.run(name, CMDID_ZELO_INVOKE_ELEMENT_METHOD, ZELO_REQUEST_HEAD_LEN,
                             capacity, zelo::firmware::kElementMethodTexts);
    if (rc != ZELO_RC_SUCCESS)
        return rc;
    return x.answer().copy(kConfigurationFirstByte, {block, blockLen}) ? ZELO_RC_SUCCESS
                                                                       : ZELO_RC_FAILURE;
}

uint16_t be16(const uint8_t *p) {
    return static_cast<uint16_t>(zelo::getBe(p, 2));
}

} // namespace

extern "C" {

uint8_t ZELO_ReadPowerHistogramConfiguration(uint8_t u8ModuleHandle, uint16_t *pu16HistogramBase,
                                             uint16_t *pu16Second, uint8_t *pu8InnerBucketCount,
                                             uint8_t *pu8BucketWidth, uint8_t *pu8BucketSize,
                                             uint8_t *pu8Sixth) {
    if (!pu16HistogramBase || !pu16Second || !pu8InnerBucketCount || !pu8BucketWidth ||
        !pu8BucketSize || !pu8Sixth)
        return ZELO_RC_INVALID_PARAMETER;
    *pu16HistogramBase = *pu16Second = 0;
    *pu8InnerBucketCount = *pu8BucketWidth = *pu8BucketSize = *pu8Sixth = 0;
    uint8_t b[8] = {};
    const uint8_t rc = readConfiguration("ZELO_ReadPowerHistogramConfiguration", u8ModuleHandle,
                                         kHistogramElement, b, sizeof b);
    if (rc == ZELO_RC_SUCCESS) {
        *pu16HistogramBase = be16(b);
        *pu16Second = be16(b + 2);
        *pu8InnerBucketCount = b[4];
        *pu8BucketWidth = b[5];
        *pu8BucketSize = b[6];
        *pu8Sixth = b[7];
    }
    return rc;
}

uint8_t ZELO_ReadSnapshotBufferConfiguration(uint8_t u8ModuleHandle, uint16_t *pu16ChunkSize,
                                             uint16_t *pu16Second, uint16_t *pu16TotalSize) {
    if (!pu16ChunkSize || !pu16Second || !pu16TotalSize)
        return ZELO_RC_INVALID_PARAMETER;
    *pu16ChunkSize = *pu16Second = *pu16TotalSize = 0;
    uint8_t b[6] = {};
    const uint8_t rc = readConfiguration("ZELO_ReadSnapshotBufferConfiguration", u8ModuleHandle,
                                         kSnapshotElement, b, sizeof b);
    if (rc == ZELO_RC_SUCCESS) {
        *pu16ChunkSize = be16(b);
        *pu16Second = be16(b + 2);
        *pu16TotalSize = be16(b + 4);
    }
    return rc;
}

uint8_t ZELO_ReadInputPowerBufferConfiguration(uint8_t u8ModuleHandle, uint8_t *pu8Out1,
                                               uint8_t *pu8Out2, uint8_t *pu8Out3, uint8_t *pu8Out4,
                                               uint8_t *pu8Out5, uint8_t *pu8Out6, uint8_t *pu8Out7,
                                               uint8_t *pu8Out8) {
    uint8_t *const outputs[8] = {pu8Out1, pu8Out2, pu8Out3, pu8Out4,
                                 pu8Out5, pu8Out6, pu8Out7, pu8Out8};
    if (std::find(std::begin(outputs), std::end(outputs), nullptr) != std::end(outputs))
        return ZELO_RC_INVALID_PARAMETER;
    for (uint8_t *out : outputs)
        *out = 0;
    uint8_t b[8] = {};
    const uint8_t rc = readConfiguration("ZELO_ReadInputPowerBufferConfiguration", u8ModuleHandle,
                                         kInputPowerElement, b, sizeof b);
    if (rc == ZELO_RC_SUCCESS)
        for (std::size_t i = 0; i < 8; ++i)
            *outputs[i] = b[i];
    return rc;
}

uint8_t ZELO_ReadSnapshotBuffer(uint8_t u8ModuleHandle, uint16_t u16Offset, uint16_t u16Length,
                                uint16_t *pu16Tag, uint16_t *pu16ReturnedLength,
                                uint8_t *pu8Destination) {
    static constexpr const char *kName = "ZELO_ReadSnapshotBuffer";
    if (pu16Tag == nullptr || pu16ReturnedLength == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    *pu16Tag = 0;
    *pu16ReturnedLength = 0;
    if (pu8Destination == nullptr)
        return ZELO_RC_INVALID_PARAMETER;

    Exchange x;
    if (GetInvokeElementMethodRequestBuffer(u8ModuleHandle, kSnapshotElement,
                                            ZELO_METHOD_READ_BUFFER, kBufferRequestLen,
                                            &x.request) != 0) {
        zelo::print("[%s]Failed to call GetInvokeElementMethodRequestBuffer().\n", kName);
        return ZELO_RC_NO_MEMORY;
    }
    x.request[6] = static_cast<uint8_t>(u16Offset >> 8);
    x.request[7] = static_cast<uint8_t>(u16Offset & 0xFF);
    x.request[8] = static_cast<uint8_t>(u16Length >> 8);
    x.request[9] = static_cast<uint8_t>(u16Length & 0xFF);
    const uint8_t rc = x.run(kName, CMDID_ZELO_INVOKE_ELEMENT_METHOD, kBufferRequestLen,
                             u16Length + kBufferResponseHead, zelo::firmware::kElementMethodTexts);
    if (rc != ZELO_RC_SUCCESS)
        return rc;
    zelo::firmware::Reader answer = x.answer();
    *pu16Tag = static_cast<uint16_t>(answer.be(4, 2));
    *pu16ReturnedLength = static_cast<uint16_t>(answer.be(6, 2));
    if (*pu16ReturnedLength > u16Length) {
        zelo::print("[%s] The returned buffer size (%d) is bigger than expected size (%d)!\n",
                    kName, *pu16ReturnedLength, u16Length);
        return ZELO_RC_FAILURE;
    }
    // The area holds u16Length data bytes; what the firmware did not send reads as zero.
    return answer.copy(kBufferResponseHead, {pu8Destination, *pu16ReturnedLength})
               ? ZELO_RC_SUCCESS
               : ZELO_RC_FAILURE;
}

uint8_t ReadTotalSnapshotBuffer(uint8_t u8ModuleHandle, uint16_t u16ChunkSize,
                                uint16_t u16TotalSize, uint16_t *pu16BytesRead,
                                uint8_t *pu8Destination, uint16_t *pu16Tag) {
    if (pu16Tag == nullptr || pu16BytesRead == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    *pu16Tag = 0;
    if (pu8Destination == nullptr || u16TotalSize == 0 || u16ChunkSize == 0)
        return ZELO_RC_INVALID_PARAMETER;
    bool stopped = false;
    return zelo::acquisition::readTotalSnapshot(u8ModuleHandle, u16ChunkSize, u16TotalSize,
                                                pu16BytesRead, pu8Destination, pu16Tag, {},
                                                &stopped);
}

} // extern "C"

uint8_t zelo::acquisition::readTotalSnapshot(uint8_t handle, uint16_t chunkSize, uint16_t totalSize,
                                             uint16_t *bytesRead, uint8_t *destination,
                                             uint16_t *tag,
                                             const std::function<bool(uint16_t)> &stopAt,
                                             bool *stopped) {
    *tag = 0;
    *stopped = false;
    *bytesRead = 0;
    uint16_t offset = 0;
    uint16_t remaining = totalSize;
    uint16_t expectedTag = 0;
    // At most seven reads, restarts included: a buffer counts as read only
    // when it is complete within six.
    for (unsigned reads = 1;; ++reads) {
        uint16_t got = 0;
        uint16_t chunkTag = 0;
        const uint8_t rc = ZELO_ReadSnapshotBuffer(handle, offset, std::min(chunkSize, remaining),
                                                   &chunkTag, &got, destination + offset);
        if (rc != ZELO_RC_SUCCESS)
            return rc;
        if (expectedTag != 0 && chunkTag != expectedTag) {
            // The firmware has taken a new snapshot: start over.
            *bytesRead = 0;
            if (reads >= kMaxChunkReads)
                break;
            offset = 0;
            remaining = totalSize;
            expectedTag = 0;
            continue;
        }
        if (offset == 0 && stopAt && stopAt(chunkTag)) {
            *bytesRead = got;
            *tag = chunkTag;
            *stopped = true;
            return ZELO_RC_SUCCESS;
        }
        offset = static_cast<uint16_t>(offset + got);
        *bytesRead = static_cast<uint16_t>(*bytesRead + got);
        remaining = static_cast<uint16_t>(remaining - got);
        if (reads >= kMaxChunkReads)
            break;
        if (remaining == 0) {
            *tag = chunkTag;
            return ZELO_RC_SUCCESS;
        }
        expectedTag = chunkTag;
    }
    *tag = 0;
    *bytesRead = 0;
    return ZELO_RC_FAILURE;
}
