/* Compiled as strict C99: the exported header must stay usable from C. */
#include <zelo.h>

int zelo_c99_header_check(void);

int zelo_c99_header_check(void) {
    uint8_t handle = ZELO_GetModuleHandle(0);
    uint8_t *request = NULL;
    uint8_t rc = GetReadStatusRegisterRequestBuffer(handle, &request);
    CleanReadBuffer(request, NULL);
    return rc + (int)IsBladeServer() + (msgBuf[0] != '\0');
}
