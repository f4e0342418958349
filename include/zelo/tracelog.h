/* The daemon's trace log: two rotating files under /tmp/zelo_trace/. */
#ifndef ZELO_TRACELOG_H
#define ZELO_TRACELOG_H

#include <stdio.h>
#include <zelo/common.h>

#define ZELO_MSG_BUF_SIZE 1024

ZELO_BEGIN_DECLS

/* Scratch buffer for formatting a trace message; no owner, every use
 * overwrites it. */
ZELO_API extern char msgBuf[ZELO_MSG_BUF_SIZE];

ZELO_API uint32_t GetCurrentLogSize(void);
ZELO_API FILE *OpenCurrentLog(int s32Truncate);
ZELO_API int WriteToLog(const char *pszFunction, const char *pszLevel, const char *pszMessage);
/* Writes only when the configured verbosity is at least s32Level. */
ZELO_API int WriteToPowerHistoryLog(int32_t s32Level, const char *pszFunction, const char *pszLevel,
                                    const char *pszMessage);

/* Text from the firmware or a file made safe for a terminal: each control
 * byte (below 0x20, and 0x7F) of the u32Length bytes at pszText becomes \xNN,
 * every other byte stays. Writes at most u32Capacity bytes, never half an
 * escape, NUL-terminated when u32Capacity is not 0; returns the length of the
 * whole result without the NUL (at most UINT32_MAX), so a first call with no
 * room sizes the buffer. Every program of zelo prints outside text through it. */
ZELO_API uint32_t EscapeControlBytes(const char *pszText, uint32_t u32Length, char *pszOut,
                                     uint32_t u32Capacity);

ZELO_END_DECLS

#endif
