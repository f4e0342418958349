/* Definitions shared by every part of the zelo interface. */
#ifndef ZELO_COMMON_H
#define ZELO_COMMON_H

#include <stdint.h>

#if defined(ZELO_BUILDING_LIBRARY)
#define ZELO_API __attribute__((visibility("default")))
#else
#define ZELO_API
#endif

#ifdef __cplusplus
#define ZELO_BEGIN_DECLS extern "C" {
#define ZELO_END_DECLS }
#else
#define ZELO_BEGIN_DECLS
#define ZELO_END_DECLS
#endif

/* Result codes. Any other non-zero code is the firmware's IPMI completion
 * code, passed through unchanged. */
#define ZELO_RC_SUCCESS 0
#define ZELO_RC_NO_INSTANCE 213
#define ZELO_RC_INVALID_PARAMETER 253
#define ZELO_RC_NO_MEMORY 254
#define ZELO_RC_FAILURE 255

#endif
