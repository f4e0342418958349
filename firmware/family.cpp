// Platform family: a blade server reports neither system DC power nor
// temperatures through the firmware, and several decisions hang on that.
#include "family.h"

#include <zelo/firmware.h>
#include <zelo/registers.h>

#include <cstdlib>
#include <cstring>

extern "C" unsigned int IsBladeServer(void) {
    // Read on every call: the answer is whatever the environment holds now.
    const char *family = std::getenv("RUX_FAMILY");
    if (family == nullptr)
        return 0;
    return std::strcmp(family, "iteblade") == 0 || std::strcmp(family, "blade") == 0 ? 1 : 0;
}

namespace zelo::firmware {

int supportsPowerUtilization(bool blade) {
    return ZELO_IsSupported(0) != 0 && !blade && ZELO_IsPowerCappingEnabled() != 0 ? 1 : 0;
}

} // namespace zelo::firmware
