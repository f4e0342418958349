/* Compiled as strict C99: the exported header must stay usable from C. */
#include <zelo.h>

int zelo_c99_header_check(void);

/* The register list expands in C too: the writable registers' widths. */
#define ZELO_C99_WRITABLE(name, element, reg, length, type, label, access, form, read, write)      \
    +((access)&ZELO_ACCESS_W ? (length) : 0)

int zelo_c99_header_check(void) {
    uint8_t handle = ZELO_GetModuleHandle(0);
    uint8_t *request = NULL;
    uint8_t rc = GetReadStatusRegisterRequestBuffer(handle, &request);
    CleanReadBuffer(request, NULL);
    return rc + (int)IsBladeServer() + (msgBuf[0] != '\0') +
           (0 ZELO_REGISTER_LIST(ZELO_C99_WRITABLE));
}
