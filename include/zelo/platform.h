/* Interfaces of the controller's platform libraries that libzelo calls.
 * libzelo leaves these symbols undefined; the controller's libraries, the
 * host platform library or a test's fake provide them. */
#ifndef ZELO_PLATFORM_H
#define ZELO_PLATFORM_H

#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One IPMI request/response. *responseLen: capacity in, received out.
 * Returns 0 on success; the completion code is response byte 0. */
int IPMI_DoIPMICmd(uint8_t netFn, uint8_t cmd, const uint8_t *request, uint32_t requestLen,
                   uint8_t *response, uint32_t *responseLen);
int GetAllSensorInfoByType(uint32_t *deliveredLen, uint32_t areaSize, const uint8_t *sensorType,
                           uint8_t *area);
/* The records GetAllSensorInfoByType puts back to back in the area: offsets
 * of the only fields defined, the rest is zero. Status 0 is a valid reading;
 * name and reading are texts ending at their NUL. */
enum {
    ZELO_SENSOR_RECORD_LEN = 1492,
    ZELO_SENSOR_RECORD_STATUS = 2,
    ZELO_SENSOR_RECORD_NAME = 6,
    ZELO_SENSOR_RECORD_READING = 198
};

/* Configuration store: non-zero on success. */
int kiv_config_get_bool(const char *key, uint8_t *value);
int kiv_config_set_bool(const char *key, uint8_t value, int flag);
int kiv_config_get_int(const char *key, int *value);
int kiv_config_set_int(const char *key, int value, int flag);
int kiv_config_set_int64(const char *key, int64_t value, int flag);
int kiv_config_clear(const char *key);

/* Queues a software event; 0 on success. */
int sw_msg_dispatcher(uint16_t eventId, void *params);

/* Runs a command without a shell and reads its output. */
FILE *secure_popen(const char *command, const char *mode);
int secure_pclose(FILE *stream);

#ifdef __cplusplus
}
#endif

#endif
