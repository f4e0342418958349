/* Power figures of the expansion unit's firmware (instance 1). */
#ifndef ZELO_EXPANSION_H
#define ZELO_EXPANSION_H

#include <zelo/common.h>

ZELO_BEGIN_DECLS

ZELO_API uint8_t GetTotalInputPowerForExpansion(uint32_t *pu32Power);
ZELO_API uint8_t GetStandbyPowerForExpansion(uint32_t *pu32Power);

ZELO_END_DECLS

#endif
