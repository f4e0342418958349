// The platform calls a fuzz target does not drive itself. Included by exactly
// one source file of each fuzz target; the target defines IPMI_DoIPMICmd.
#pragma once

#include <zelo/platform.h>

// When true, the store knows the firmware: supported, module handle 5.
inline bool gFuzzFirmwareKnown = false;

extern "C" {

int GetAllSensorInfoByType(uint32_t *, uint32_t, const uint8_t *, uint8_t *) {
    return -1;
}
int kiv_config_get_bool(const char *, uint8_t *value) {
    if (!gFuzzFirmwareKnown)
        return 0;
    *value = 1;
    return 1;
}
int kiv_config_get_int(const char *, int *value) {
    if (!gFuzzFirmwareKnown)
        return 0;
    *value = 5;
    return 1;
}
int kiv_config_set_bool(const char *, uint8_t, int) {
    return 0;
}
int kiv_config_set_int(const char *, int, int) {
    return 0;
}
int kiv_config_set_int64(const char *, int64_t, int) {
    return 0;
}
int kiv_config_clear(const char *) {
    return 0;
}
int sw_msg_dispatcher(uint16_t, void *) {
    return -1;
}

} // extern "C"
