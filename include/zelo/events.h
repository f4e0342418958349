/* Software events on power status changes and on changed power-cap limits.
 * The daemon calls both checks after each new snapshot has been logged. */
#ifndef ZELO_EVENTS_H
#define ZELO_EVENTS_H

#include <zelo/acquisition.h>
#include <zelo/common.h>

/* Event ids handed to sw_msg_dispatcher. */
#define ZELO_EVENT_PCAP_MIN_CHANGED 114
#define ZELO_EVENT_PCAP_MAX_CHANGED 115
#define ZELO_EVENT_PCAP_SOFT_MIN_CHANGED 116
#define ZELO_EVENT_POWER_EVENT_BIT3_SET 117
#define ZELO_EVENT_POWER_EVENT_BIT2_SET 118
#define ZELO_EVENT_STATUS_BITS45_SET 125
#define ZELO_EVENT_STATUS_BIT5_SET 126
#define ZELO_EVENT_STATUS_BIT4_SET 127
#define ZELO_EVENT_POWER_EVENT_BIT3_CLEAR 130
#define ZELO_EVENT_POWER_EVENT_BIT2_CLEAR 131

/* Which store reads / firmware reads succeeded, one bit per limit. */
#define ZELO_PCAP_BIT_CAP 0x01
#define ZELO_PCAP_BIT_MAX 0x02
#define ZELO_PCAP_BIT_MIN 0x04
#define ZELO_PCAP_BIT_SOFT_MIN 0x08

#define ZELO_PCAP_EVENT_TEXT_LEN 64

/* Parameter block of events 114 to 116, 192 bytes, handed over by address.
 * Texts are unsigned decimals, NUL-terminated; the third is the platform's. */
typedef struct {
    char szPreviousValue[ZELO_PCAP_EVENT_TEXT_LEN]; /* as last published in the store */
    char szNewValue[ZELO_PCAP_EVENT_TEXT_LEN];      /* as the firmware holds it now */
    char szReserved[ZELO_PCAP_EVENT_TEXT_LEN];      /* not filled by this system */
} PowerCapsEventParams;

ZELO_BEGIN_DECLS

/* Raises 117, 118, 125-127, 130, 131 when watched status bits change. */
ZELO_API void CheckBufForSendSWEvent(SnapshotBuffer *psBuffer);
/* Compares the firmware's cap maximum, minimum and soft minimum with the
 * store and raises 115, 114, 116 on a difference. */
ZELO_API void CheckPowercapRelatedSettingForSendSWEvent(void);
/* One limit. Both values are 16 bits: the store value is passed as its low
 * 16 bits (firmware limits are 16-bit registers), so equal low halves
 * compare equal. */
ZELO_API void SendPowerCapsChangedEvent(uint8_t u8KivMask, uint8_t u8ZeloMask, uint16_t u16KivValue,
                                        uint16_t u16ZeloValue, uint8_t u8Bit, uint16_t u16EventId,
                                        const char *pszKey);

ZELO_END_DECLS

#endif
