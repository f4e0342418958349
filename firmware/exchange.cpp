#include "exchange.h"

#include "hooks.h"

#include <zelo/platform.h>

#include <cstdlib>
#include <cstring>

namespace zelo::firmware {

Exchange::~Exchange() {
    std::free(request);
    if (area_ != small_.data() && !borrowed_)
        std::free(area_);
}

void Exchange::answerInto(uint8_t *area, uint32_t capacity) {
    if (area_ != small_.data() && !borrowed_)
        std::free(area_);
    area_ = area;
    capacity_ = capacity;
    borrowed_ = true;
}

bool Exchange::allocate(uint32_t capacity) {
    if (borrowed_) {
        if (capacity > capacity_)
            return false;
    } else if (area_ == nullptr || capacity != capacity_) {
        if (area_ != small_.data())
            std::free(area_);
        if (capacity > small_.size()) {
            area_ = static_cast<uint8_t *>(hooks().calloc(capacity, 1)); // zeroed already
            capacity_ = area_ != nullptr ? capacity : 0;
            return area_ != nullptr;
        }
        area_ = small_.data();
        capacity_ = capacity;
    }
    if (area_ != nullptr)
        std::memset(area_, 0, capacity_);
    return area_ != nullptr;
}

uint8_t Exchange::run(const char *name, uint8_t command, uint32_t requestLen, uint32_t capacity,
                      const ExchangeTexts &texts) {
    return run(name, command, {request, request != nullptr ? requestLen : 0}, capacity, texts);
}

uint8_t Exchange::run(const char *name, uint8_t command, std::span<const uint8_t> bytes,
                      uint32_t capacity, const ExchangeTexts &texts) {
    transportFailed_ = false;
    if (!allocate(capacity)) {
        report(texts.notice, texts.allocation, name);
        return texts.allocationResult;
    }
    received_ = capacity;
    const int rc = IPMI_DoIPMICmd(NETFN_DUV, command, bytes.data(),
                                  static_cast<uint32_t>(bytes.size()), area_, &received_);
    if (rc != 0) {
        transportFailed_ = true;
        report(texts.notice, texts.transport, name, rc);
        return ZELO_RC_FAILURE;
    }
    if (area_[0] != 0 && texts.completion != nullptr)
        report(texts.notice, texts.completion, name, area_[0]);
    return area_[0];
}

} // namespace zelo::firmware
