// zeloctl: command-line access to the power-management firmware through the
// exported zelo interface, for people and scripts on the controller.
#include <zelo.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

constexpr int kExitUsage = 2;
constexpr int kExitFailure = 1;

void usage(FILE *out) {
    std::fputs("usage: zeloctl [--instance N] COMMAND [ARGS]\n"
               "commands:\n"
               "  discover                         find the firmware and show its module handle\n"
               "  read ELEMENT REGISTER LENGTH     read a register by number (LENGTH 1-8 bytes)\n"
               "options:\n"
               "  --instance N   firmware instance: 0 the server (default), 1 the expansion unit\n"
               "  --help         show this text\n"
               "Numbers are decimal or 0x-prefixed hexadecimal.\n",
               out);
}

// Parses an unsigned number no larger than max; false on anything else.
bool parseNumber(const char *text, unsigned long max, unsigned long *value) {
    if (text == nullptr || *text == '\0' || *text == '-')
        return false;
    char *end = nullptr;
    errno = 0;
    const unsigned long v = std::strtoul(text, &end, 0);
    if (errno != 0 || *end != '\0' || v > max)
        return false;
    *value = v;
    return true;
}

int discover(int32_t instance) {
    uint8_t d1 = 0, d2 = 0, handle = 0;
    const uint8_t rc = ZELO_FindFirmwareInstance(static_cast<uint8_t>(instance), &d1, &d2, &handle);
    if (rc != ZELO_RC_SUCCESS) {
        std::fprintf(stderr, "zeloctl: discovery of instance %d failed, result code %u\n",
                     static_cast<int>(instance), rc);
        return kExitFailure;
    }
    std::printf("instance       %d\nmodule handle  %u\ndescriptors    0x%02X 0x%02X\n",
                static_cast<int>(instance), handle, d1, d2);
    return 0;
}

int readRaw(int32_t instance, uint8_t element, uint8_t reg, uint8_t len) {
    const uint8_t handle = ZELO_GetModuleHandle(instance);
    if (handle == 0) {
        std::fprintf(stderr, "zeloctl: no module handle for instance %d\n",
                     static_cast<int>(instance));
        return kExitFailure;
    }
    uint8_t *request = nullptr;
    uint8_t *response = nullptr;
    uint8_t rc = GetReadRegisterRequestBuffer(handle, element, &request);
    if (rc == ZELO_RC_SUCCESS)
        rc = ReadRegister(request, reg, len, &response);
    if (rc == ZELO_RC_SUCCESS) {
        const uint64_t value = MSBMultiBytesToValue(ZELO_RESPONSE_HEAD_LEN, response, len);
        std::printf("element %u register %u: %" PRIu64 " (0x%0*" PRIX64 ")\n", element, reg, value,
                    len * 2, value);
    } else {
        std::fprintf(stderr, "zeloctl: read of element %u register %u failed, result code %u\n",
                     element, reg, rc);
    }
    CleanReadBuffer(request, response);
    return rc == ZELO_RC_SUCCESS ? 0 : kExitFailure;
}

} // namespace

int main(int argc, char **argv) {
    int i = 1;
    unsigned long instance = 0;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        const std::string_view opt = argv[i];
        if (opt == "--help" || opt == "-h") {
            usage(stdout);
            return 0;
        }
        if (opt == "--instance" && i + 1 < argc && parseNumber(argv[i + 1], 1, &instance)) {
            ++i;
            continue;
        }
        std::fprintf(stderr, "zeloctl: bad option '%s'\n", argv[i]);
        usage(stderr);
        return kExitUsage;
    }
    if (i >= argc) {
        usage(stderr);
        return kExitUsage;
    }
    const std::string_view command = argv[i++];
    const int rest = argc - i;
    const auto inst = static_cast<int32_t>(instance);
    if (command == "discover" && rest == 0)
        return discover(inst);
    unsigned long element = 0, reg = 0, len = 0;
    if (command == "read" && rest == 3 && parseNumber(argv[i], 255, &element) &&
        parseNumber(argv[i + 1], 255, &reg) && parseNumber(argv[i + 2], 8, &len) && len > 0)
        return readRaw(inst, static_cast<uint8_t>(element), static_cast<uint8_t>(reg),
                       static_cast<uint8_t>(len));
    std::fprintf(stderr, "zeloctl: bad command or arguments: %s\n", std::string(command).c_str());
    usage(stderr);
    return kExitUsage;
}
