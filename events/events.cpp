// Software events: changes of the watched status bits of each new snapshot,
// and power-cap limits that moved in the firmware since last published.
#include "events.h"
#include "events_internal.h"
#include "firmware/family.h"
#include "report.h"

#include <zelo/events.h>
#include <zelo/firmware.h>
#include <zelo/platform.h>
#include <zelo/registers.h>

#include <array>
#include <cstdarg>
#include <cstddef>

namespace zelo::events {

uint8_t u8StatusBit4Reported = 0;
uint8_t u8StatusBit5Reported = 0;
uint8_t u8StatusBothReported = 0;
uint8_t u8PowerEventBit3Reported = 0;
uint8_t u8PowerEventBit2Reported = 0;

namespace {

// The event service takes the block as raw bytes; no padding may creep in.
static_assert(sizeof(PowerCapsEventParams) == 192, "event parameter block is 192 bytes");
static_assert(offsetof(PowerCapsEventParams, szNewValue) == 64, "new value at offset 64");
static_assert(offsetof(PowerCapsEventParams, szReserved) == 128, "third text at offset 128");

constexpr const char *kCheckBuf = "CheckBufForSendSWEvent";
constexpr const char *kCheckCaps = "CheckPowercapRelatedSettingForSendSWEvent";
constexpr const char *kSendCaps = "SendPowerCapsChangedEvent";

constexpr uint8_t kStatusModeMask = 0x0E;
constexpr uint8_t kStatusModeWatched = 0x02;
constexpr uint8_t kStatusBit4 = 0x10;
constexpr uint8_t kStatusBit5 = 0x20;
constexpr uint16_t kEventBit3 = 0x0008;
constexpr uint16_t kEventBit2 = 0x0004;

// Settings values (low three bits) under which the power cap can be read.
constexpr uint8_t kCappingSettingsMask = 0x07;

ZELO_FORMAT(3, 4)
void traceFormat(const char *function, const char *level, const char *format, ...) {
    va_list args;
    va_start(args, format);
    zelo::vreport(zelo::traced(function, level), format, args);
    va_end(args);
}

// A failed hand-over is only logged: whatever led to it has already moved on.
void raise(const char *function, uint16_t id, void *params) {
    if (sw_msg_dispatcher(id, params) != 0)
        traceFormat(function, "ERROR", "Generate sw message %d failed!!", id);
}

// One event-word bit: raise `setId` when it turns up, `clearId` when it goes.
void eventWordBit(uint16_t word, uint16_t bit, uint8_t &reported, uint16_t setId,
                  uint16_t clearId) {
    if ((word & bit) != 0 && reported == 0) {
        reported = 1;
        raise(kCheckBuf, setId, nullptr);
    } else if ((word & bit) == 0 && reported == 1) {
        reported = 0;
        raise(kCheckBuf, clearId, nullptr);
    }
}

void statusBits(uint8_t status) {
    const bool bit4 = (status & kStatusBit4) != 0;
    const bool bit5 = (status & kStatusBit5) != 0;
    if (bit4 && bit5) {
        if (u8StatusBothReported == 1)
            return;
        // Only the bit not yet reported on its own gets its event; when
        // neither was, the combined event alone tells both.
        if (u8StatusBit4Reported == 0 && u8StatusBit5Reported == 0) {
            u8StatusBit4Reported = 1;
            u8StatusBit5Reported = 1;
        } else if (u8StatusBit4Reported == 0) {
            u8StatusBit4Reported = 1;
            raise(kCheckBuf, ZELO_EVENT_STATUS_BIT4_SET, nullptr);
        } else if (u8StatusBit5Reported == 0) {
            u8StatusBit5Reported = 1;
            raise(kCheckBuf, ZELO_EVENT_STATUS_BIT5_SET, nullptr);
        }
        u8StatusBothReported = 1;
        raise(kCheckBuf, ZELO_EVENT_STATUS_BITS45_SET, nullptr);
        return;
    }
    u8StatusBothReported = 0;
    if (bit4 && u8StatusBit4Reported == 0) {
        u8StatusBit4Reported = 1;
        raise(kCheckBuf, ZELO_EVENT_STATUS_BIT4_SET, nullptr);
    } else if (!bit4) {
        u8StatusBit4Reported = 0;
    }
    if (bit5 && u8StatusBit5Reported == 0) {
        u8StatusBit5Reported = 1;
        raise(kCheckBuf, ZELO_EVENT_STATUS_BIT5_SET, nullptr);
    } else if (!bit5) {
        u8StatusBit5Reported = 0;
    }
}

// The three limits compared, in the order they are read and told.
struct Limit {
    const char *key;
    uint8_t bit;
    uint16_t event;
    uint8_t (*read)(uint8_t, uint16_t *);
};
constexpr std::array<Limit, 3> kLimits{{
    {"pcap_max_kiv_element_zelo", ZELO_PCAP_BIT_MAX, ZELO_EVENT_PCAP_MAX_CHANGED,
     ZELO_ReadPcapMaxRegister},
    {"pcap_min_kiv_element_zelo", ZELO_PCAP_BIT_MIN, ZELO_EVENT_PCAP_MIN_CHANGED,
     ZELO_ReadPcapMinRegister},
    {"pcap_soft_min_kiv_element_zelo", ZELO_PCAP_BIT_SOFT_MIN, ZELO_EVENT_PCAP_SOFT_MIN_CHANGED,
     ZELO_ReadPcapSoftMinRegister},
}};

// Reads one published limit; its bit joins the mask when the key was there.
void readStoredLimit(const char *key, uint8_t bit, uint8_t &mask, int &value) {
    if (kiv_config_get_int(key, &value) != 0)
        mask |= bit;
    else
        traceFormat(kCheckCaps, "ERROR", "[%s]:Failed to get kiv element %s.", kCheckCaps, key);
}

void readFirmwareLimit(uint8_t (*read)(uint8_t, uint16_t *), uint8_t handle, uint8_t bit,
                       uint8_t &mask, uint16_t &value) {
    if (read(handle, &value) == ZELO_RC_SUCCESS)
        mask |= bit;
    else
        value = 0;
}

void publish(const char *key, uint16_t value) {
    if (kiv_config_set_int(key, value, 1) == 0)
        traceFormat(kSendCaps, "ERROR", "write pcaps [%d] to kiv failed!", value);
}

} // namespace
} // namespace zelo::events

using namespace zelo::events;

extern "C" {

void CheckBufForSendSWEvent(SnapshotBuffer *psBuffer) {
    if (psBuffer == nullptr) {
        zelo::report(zelo::traced(kCheckBuf, "ERROR"), "Null parament.");
        return;
    }
    // The bits mean something only in this power state.
    if ((psBuffer->u8PowerStatus & kStatusModeMask) != kStatusModeWatched)
        return;
    statusBits(psBuffer->u8PowerStatus);
    eventWordBit(psBuffer->u16PowerEvent, kEventBit3, u8PowerEventBit3Reported,
                 ZELO_EVENT_POWER_EVENT_BIT3_SET, ZELO_EVENT_POWER_EVENT_BIT3_CLEAR);
    eventWordBit(psBuffer->u16PowerEvent, kEventBit2, u8PowerEventBit2Reported,
                 ZELO_EVENT_POWER_EVENT_BIT2_SET, ZELO_EVENT_POWER_EVENT_BIT2_CLEAR);
}

void CheckPowercapRelatedSettingForSendSWEvent(void) {
    checkPowercapSettings(IsBladeServer() != 0);
}

} // extern "C"

namespace zelo::events {

void checkPowercapSettings(bool blade) {
    sendPowercapEvents(readPowercapSettings(blade));
}

PowercapReadings readPowercapSettings(bool blade) {
    PowercapReadings r;
    if (firmware::supportsPowerUtilization(blade) == 0)
        return r;
    r.checked = true;
    // The current cap takes part in no comparison; its read only seeds the
    // mask (the store answers 1, which carries none of the limit bits).
    int current = 0;
    r.kivMask = static_cast<uint8_t>(kiv_config_get_int("pcap_kiv_element_zelo", &current));
    for (std::size_t i = 0; i < kLimits.size(); ++i)
        readStoredLimit(kLimits[i].key, kLimits[i].bit, r.kivMask, r.stored[i]);

    const uint8_t handle = ZELO_GetModuleHandle(0);
    if (handle == 0) {
        traceFormat(kCheckCaps, "ERROR", "[%s]:Failed to call ZELO_GetModuleHandle().", kCheckCaps);
        return r;
    }
    uint8_t settings = 0;
    if (ZELO_ReadServerPowerSettingsRegister(handle, &settings) == ZELO_RC_SUCCESS) {
        const uint8_t capping = settings & kCappingSettingsMask;
        if (capping != 2 && capping != 5) {
            traceFormat(kCheckCaps, "WARN",
                        "%s: Pcap can not be read as power capping is not enabled[%d]", kCheckCaps,
                        capping);
        } else {
            uint16_t cap = 0;
            if (ZELO_ReadPcapRegister(handle, &cap) == ZELO_RC_SUCCESS)
                r.zeloMask |= ZELO_PCAP_BIT_CAP;
        }
    }
    for (std::size_t i = 0; i < kLimits.size(); ++i)
        readFirmwareLimit(kLimits[i].read, handle, kLimits[i].bit, r.zeloMask, r.firmware[i]);
    return r;
}

void sendPowercapEvents(const PowercapReadings &r) {
    if (!r.checked)
        return;
    // Only the low 16 bits of a stored value count: the registers are 16 bits.
    for (std::size_t i = 0; i < kLimits.size(); ++i)
        SendPowerCapsChangedEvent(r.kivMask, r.zeloMask, static_cast<uint16_t>(r.stored[i]),
                                  r.firmware[i], kLimits[i].bit, kLimits[i].event, kLimits[i].key);
}

} // namespace zelo::events

extern "C" {

void SendPowerCapsChangedEvent(uint8_t u8KivMask, uint8_t u8ZeloMask, uint16_t u16KivValue,
                               uint16_t u16ZeloValue, uint8_t u8Bit, uint16_t u16EventId,
                               const char *pszKey) {
    const bool stored = (u8KivMask & u8Bit) != 0;
    const bool read = (u8ZeloMask & u8Bit) != 0;
    if (!stored) {
        // Nothing to compare with: publish what the firmware said, even the 0
        // of a failed read, so the next answer is compared with something.
        traceFormat(kSendCaps, "ERROR", "%s: failed to get [%s] from kiv", kSendCaps, pszKey);
        publish(pszKey, u16ZeloValue);
        if (read)
            traceFormat(kSendCaps, "DBG", "%s: succeeds to get [%s] from zelo and value:[%d]",
                        kSendCaps, pszKey, u16ZeloValue);
        else
            traceFormat(kSendCaps, "ERROR", "%s: failed to get %s from zelo", kSendCaps, pszKey);
        return;
    }
    if (!read) {
        traceFormat(kSendCaps, "DBG", "%s: succeeds to get [%s] from kiv and value:[%d]", kSendCaps,
                    pszKey, u16KivValue);
        traceFormat(kSendCaps, "ERROR", "%s: failed to get %s from zelo", kSendCaps, pszKey);
        return;
    }
    if (u16KivValue == u16ZeloValue)
        return;

    if (u16EventId != ZELO_EVENT_PCAP_MIN_CHANGED && u16EventId != ZELO_EVENT_PCAP_MAX_CHANGED &&
        u16EventId != ZELO_EVENT_PCAP_SOFT_MIN_CHANGED) {
        traceFormat(kSendCaps, "ERROR", "%d unexpected event id !!", u16EventId);
    } else {
        PowerCapsEventParams params{};
        zelo::formatText(params.szPreviousValue, sizeof params.szPreviousValue, "%u",
                         static_cast<unsigned>(u16KivValue));
        zelo::formatText(params.szNewValue, sizeof params.szNewValue, "%u",
                         static_cast<unsigned>(u16ZeloValue));
        raise(kSendCaps, u16EventId, &params);
    }
    publish(pszKey, u16ZeloValue);
}

} // extern "C"
