// Power figures of the expansion unit, which has a firmware instance of its own.
#include "report.h"

#include <zelo/expansion.h>
#include <zelo/firmware.h>
#include <zelo/registers.h>

namespace {

// Shared steps of both queries; read(handle, &value) is the register read.
template <typename Read>
uint8_t expansionPower(const char *name, const char *readName, uint32_t *power, Read read) {
    if (power == nullptr)
        return ZELO_RC_INVALID_PARAMETER;
    *power = 0;
    if (ZELO_IsSupported(ZELO_EXPANSION_INSTANCE) == 0) {
        zelo::print("%s Don't support the ZELO for ZELO_EXPANSION_INSTANCE.\n", name);
        return ZELO_RC_FAILURE;
    }
    const uint8_t handle = ZELO_GetModuleHandle(ZELO_EXPANSION_INSTANCE);
    if (handle == 0) {
        zelo::print("%s Failed to call ZELO_GetModuleHandle().\n", name);
        return ZELO_RC_FAILURE;
    }
    uint16_t value = 0;
    const uint8_t rc = read(handle, &value);
    if (rc != ZELO_RC_SUCCESS) {
        zelo::print("%s Failed to call %s() and the result code is %d.\n", name, readName, rc);
        return rc;
    }
    *power = value;
    zelo::print("%s Total input power is %d.\n", name, value);
    return ZELO_RC_SUCCESS;
}

} // namespace

extern "C" {

uint8_t GetTotalInputPowerForExpansion(uint32_t *pu32Power) {
    return expansionPower("GetTotalInputPowerForExpansion", "ZELO_ReadPnameplateRegister",
                          pu32Power, ZELO_ReadPnameplateRegister);
}

uint8_t GetStandbyPowerForExpansion(uint32_t *pu32Power) {
    return expansionPower("GetStandbyPowerForExpansion", "ZELO_ReadStandbyPowerRegister", pu32Power,
                          [](uint8_t handle, uint16_t *standby) {
                              uint8_t unused = 0;
                              return ZELO_ReadStandbyPowerRegister(handle, &unused, standby);
                          });
}

} // extern "C"
