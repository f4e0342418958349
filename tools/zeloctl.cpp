// zeloctl: command-line access to the power-management firmware through the
// exported zelo interface, for people and scripts on the controller.
#include <zelo.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kExitFailure = 1; // the firmware or the library said no
constexpr int kExitUsage = 2;   // the command line was wrong

// Results go here; the library's own diagnostics are sent to stderr, so
// standard output carries only what zeloctl prints (clean --json).
FILE *out = stdout;
bool json = false;
int32_t instance = 0;

// ---- named registers ---------------------------------------------------

// Up to two decoded fields per register; most have one called "value".
struct Reading {
    uint8_t rc;
    uint64_t v[2];
};

struct Register {
    const char *name;
    const char *fields[2]; // field names; second null for one-field registers
    unsigned bytes;        // width of a written value
    Reading (*read)(uint8_t handle);
    uint8_t (*write)(uint8_t handle, uint64_t value);
};

template <typename T, uint8_t (*Fn)(uint8_t, T *)>
Reading readOne(uint8_t handle) {
    T value = 0;
    const uint8_t rc = Fn(handle, &value);
    return {rc, {value, 0}};
}

template <typename T, uint8_t (*Fn)(uint8_t, T)>
uint8_t writeOne(uint8_t handle, uint64_t value) {
    return Fn(handle, static_cast<T>(value));
}

Reading readStandby(uint8_t handle) {
    uint8_t byte = 0;
    uint16_t watts = 0;
    const uint8_t rc = ZELO_ReadStandbyPowerRegister(handle, &byte, &watts);
    return {rc, {byte, watts}};
}

Reading readPowerCycles(uint8_t handle) {
    uint16_t first = 0, second = 0;
    const uint8_t rc = ZELO_ReadNumberOfPowerCyclesRegister(handle, &first, &second);
    return {rc, {first, second}};
}

#define R(T, fn) readOne<T, fn>
#define W(T, fn) writeOne<T, fn>
const Register kRegisters[] = {
    {"power-status", {"value"}, 1, R(uint8_t, ZELO_ReadPowerStatusRegister), nullptr},
    {"power-event", {"value"}, 2, R(uint16_t, ZELO_2_6_ReadPowerEventRegister), nullptr},
    {"hardware-error", {"value"}, 1, R(uint8_t, ZELO_ReadPowerHardwareErrorRegister), nullptr},
    {"sms-policy",
     {"value"},
     1,
     R(uint8_t, ZELO_ReadSMSPowerControlPolicyRegister),
     W(uint8_t, ZELO_WriteSMSPowerControlPolicyRegister)},
    {"post-settings", {"value"}, 1, R(uint8_t, ZELO_ReadPOSTPowerSettingsRegister), nullptr},
    {"capabilities",
     {"value"},
     1,
     R(uint8_t, ZELO_ReadFirmwarePowerThermalCapabilitiesRegister),
     nullptr},
    {"server-capabilities",
     {"value"},
     1,
     R(uint8_t, ZELO_ReadServerPowerCapabilitiesRegister),
     nullptr},
    {"server-settings", {"value"}, 1, R(uint8_t, ZELO_ReadServerPowerSettingsRegister), nullptr},
    {"extended-capabilities",
     {"value"},
     4,
     R(uint32_t, ZELO_ReadExtendedFirmwareCapabilitiesRegister),
     nullptr},
    {"cff-policy",
     {"value"},
     1,
     R(uint8_t, ZELO_ReadCFFPowerControlPolicyRegister),
     W(uint8_t, ZELO_WriteCFFPowerControlPolicyRegister)},
    {"energy-dc", {"value"}, 8, R(uint64_t, ZELO_ReadEARDCRegister), nullptr},
    {"energy-ac", {"value"}, 8, R(uint64_t, ZELO_ReadEARACRegister), nullptr},
    {"clock-accumulator", {"value"}, 4, R(uint32_t, ZELO_ReadCARRegister), nullptr},
    {"clock-rate", {"value"}, 2, R(uint16_t, ZELO_ReadClockRateRegister), nullptr},
    {"power-cap",
     {"watts"},
     2,
     R(uint16_t, ZELO_ReadPcapRegister),
     W(uint16_t, ZELO_WritePcapRegister)},
    {"cap-max-hotplug", {"watts"}, 2, R(uint16_t, ZELO_ReadPcapMaxHotplugRegister), nullptr},
    {"cap-max", {"watts"}, 2, R(uint16_t, ZELO_ReadPcapMaxRegister), nullptr},
    {"cap-min", {"watts"}, 2, R(uint16_t, ZELO_ReadPcapMinRegister), nullptr},
    {"aux-max", {"watts"}, 2, R(uint16_t, ZELO_ReadPauxMaxRegister), nullptr},
    {"cap-soft-min", {"watts"}, 2, R(uint16_t, ZELO_ReadPcapSoftMinRegister), nullptr},
    {"nameplate", {"watts"}, 2, R(uint16_t, ZELO_ReadPnameplateRegister), nullptr},
    {"capping-mode",
     {"value"},
     1,
     R(uint8_t, ZELO_ReadPcapModeRegister),
     W(uint8_t, ZELO_WritePcapModeRegister)},
    {"cap-min-hotplug", {"watts"}, 2, R(uint16_t, ZELO_ReadPcapMinHotplugRegister), nullptr},
    {"exhaust-heat-index", {"value"}, 1, R(uint8_t, ZELO_ReadEHIRegister), nullptr},
    {"inlet-temperature", {"celsius"}, 1, R(uint8_t, ZELO_ReadInletTemperatureRegister), nullptr},
    {"power-down-support",
     {"value"},
     2,
     R(uint16_t, ZELO_ReadServerPowerDownSupportRegister),
     nullptr},
    {"standby-power", {"byte", "watts"}, 8, readStandby, nullptr},
    {"ipl-time", {"value"}, 2, R(uint16_t, ZELO_ReadIPLTimeRegister), nullptr},
    {"power-cycles", {"first", "second"}, 4, readPowerCycles, nullptr},
    {"wakes-from-s3", {"value"}, 2, R(uint16_t, ZELO_ReadNumberOWakesFromS3Register), nullptr},
    {"maximizer-status", {"value"}, 1, R(uint8_t, ZELO_ReadMaximizerStatusRegister), nullptr},
    {"max-power-supplies",
     {"value"},
     1,
     R(uint8_t, ZELO_ReadMaxNumberOfPowerSuppliesRegister),
     nullptr},
    {"redundancy-target",
     {"value"},
     1,
     R(uint8_t, ZELO_ReadRedundancyTargetRegister),
     W(uint8_t, ZELO_WriteRedundancyTargetRegister)},
    {"target-redundancy-config",
     {"value"},
     1,
     nullptr,
     W(uint8_t, ZELO_WriteTargetRedundancyConfigurationRegister)},
};
#undef R
#undef W

const Register *findRegister(std::string_view name) {
    for (const auto &r : kRegisters)
        if (name == r.name)
            return &r;
    return nullptr;
}

// ---- output --------------------------------------------------------------

std::string jsonString(std::string_view text) {
    std::string s = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            s += '\\';
            s += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\u%04x", static_cast<unsigned>(c));
            s += esc;
        } else {
            s += c;
        }
    }
    return s + "\"";
}

int fail(const char *what, unsigned rc) {
    std::fprintf(stderr, "zeloctl: %s failed, result code %u\n", what, rc);
    return kExitFailure;
}

int usageError(const char *format, const char *arg) {
    std::fprintf(stderr, "zeloctl: ");
    std::fprintf(stderr, format, arg);
    std::fprintf(stderr, "\nTry 'zeloctl --help'.\n");
    return kExitUsage;
}

// Parses an unsigned decimal or 0x-prefixed hexadecimal number no larger
// than max; anything else (signs, blanks, octal-looking zeros) is refused.
bool parseNumber(const char *text, uint64_t max, uint64_t *value) {
    if (text == nullptr)
        return false;
    const bool hex = text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char *digits = hex ? text + 2 : text;
    const char *accepted = hex ? "0123456789abcdefABCDEF" : "0123456789";
    if (*digits == '\0' || std::strspn(digits, accepted) != std::strlen(digits))
        return false;
    errno = 0;
    const unsigned long long v = std::strtoull(digits, nullptr, hex ? 16 : 10);
    if (errno != 0 || v > max)
        return false;
    *value = v;
    return true;
}

uint8_t handleOrFail() {
    const uint8_t handle = ZELO_GetModuleHandle(instance);
    if (handle == 0)
        std::fprintf(stderr, "zeloctl: no firmware module handle for instance %d\n",
                     static_cast<int>(instance));
    return handle;
}

// ---- commands ------------------------------------------------------------

int cmdDiscover() {
    uint8_t d1 = 0, d2 = 0, handle = 0;
    const uint8_t rc = ZELO_FindFirmwareInstance(static_cast<uint8_t>(instance), &d1, &d2, &handle);
    if (rc != ZELO_RC_SUCCESS)
        return fail("discovery", rc);
    if (json)
        std::fprintf(out, "{\"instance\":%d,\"handle\":%u,\"descriptors\":[%u,%u]}\n",
                     static_cast<int>(instance), handle, d1, d2);
    else
        std::fprintf(out, "instance       %d\nmodule handle  %u\ndescriptors    0x%02X 0x%02X\n",
                     static_cast<int>(instance), handle, d1, d2);
    return 0;
}

int cmdRegisters() {
    const auto access = [](const Register &r) {
        return r.read && r.write ? "read/write" : r.read ? "read" : "write";
    };
    if (json) {
        std::fprintf(out, "{\"registers\":[");
        for (const auto &r : kRegisters)
            std::fprintf(out, "%s{\"name\":\"%s\",\"access\":\"%s\",\"bytes\":%u}",
                         &r == kRegisters ? "" : ",", r.name, access(r), r.bytes);
        std::fprintf(out, "]}\n");
        return 0;
    }
    for (const auto &r : kRegisters)
        std::fprintf(out, "%-26s %-10s %u byte%s\n", r.name, access(r), r.bytes,
                     r.bytes == 1 ? "" : "s");
    return 0;
}

int cmdRead(const Register &reg) {
    if (reg.read == nullptr)
        return usageError("register '%s' can only be written", reg.name);
    const uint8_t handle = handleOrFail();
    if (handle == 0)
        return kExitFailure;
    const Reading r = reg.read(handle);
    if (r.rc != ZELO_RC_SUCCESS)
        return fail((std::string("read ") + reg.name).c_str(), r.rc);
    const int fields = reg.fields[1] != nullptr ? 2 : 1;
    if (json) {
        std::fprintf(out, "{\"register\":\"%s\"", reg.name);
        for (int i = 0; i < fields; ++i)
            std::fprintf(out, ",\"%s\":%" PRIu64, reg.fields[i], r.v[i]);
        std::fprintf(out, "}\n");
    } else {
        std::fprintf(out, "%s:", reg.name);
        for (int i = 0; i < fields; ++i)
            std::fprintf(out, " %s=%" PRIu64, reg.fields[i], r.v[i]);
        std::fprintf(out, "\n");
    }
    return 0;
}

int cmdWrite(const Register &reg, const char *text) {
    if (reg.write == nullptr)
        return usageError("register '%s' is read-only", reg.name);
    const uint64_t max = reg.bytes >= 8 ? UINT64_MAX : (uint64_t{1} << (8 * reg.bytes)) - 1;
    uint64_t value = 0;
    if (!parseNumber(text, max, &value)) {
        std::fprintf(stderr, "zeloctl: bad value '%s' for %s (0-%" PRIu64 ")\n", text, reg.name,
                     max);
        return kExitUsage;
    }
    const uint8_t handle = handleOrFail();
    if (handle == 0)
        return kExitFailure;
    const uint8_t rc = reg.write(handle, value);
    if (rc != ZELO_RC_SUCCESS)
        return fail((std::string("write ") + reg.name).c_str(), rc);
    if (json)
        std::fprintf(out, "{\"register\":\"%s\",\"written\":%" PRIu64 "}\n", reg.name, value);
    else
        std::fprintf(out, "%s: written %" PRIu64 "\n", reg.name, value);
    return 0;
}

int cmdRaw(const char *elementText, const char *regText, const char *lenText) {
    uint64_t element = 0, reg = 0, len = 0;
    if (!parseNumber(elementText, 255, &element) || !parseNumber(regText, 255, &reg) ||
        !parseNumber(lenText, 8, &len) || len == 0)
        return usageError("bad raw read '%s ...' (element 0-255, register 0-255, length 1-8)",
                          elementText);
    const uint8_t handle = handleOrFail();
    if (handle == 0)
        return kExitFailure;
    uint8_t *request = nullptr;
    uint8_t *response = nullptr;
    uint8_t rc = GetReadRegisterRequestBuffer(handle, static_cast<uint8_t>(element), &request);
    if (rc == ZELO_RC_SUCCESS)
        rc = ReadRegister(request, static_cast<uint8_t>(reg), static_cast<uint8_t>(len), &response);
    const uint64_t value =
        rc == ZELO_RC_SUCCESS
            ? MSBMultiBytesToValue(ZELO_RESPONSE_HEAD_LEN, response, static_cast<uint8_t>(len))
            : 0;
    CleanReadBuffer(request, response);
    if (rc != ZELO_RC_SUCCESS)
        return fail("raw read", rc);
    if (json)
        std::fprintf(out,
                     "{\"element\":%" PRIu64 ",\"register\":%" PRIu64 ",\"value\":%" PRIu64 "}\n",
                     element, reg, value);
    else
        std::fprintf(out,
                     "element %" PRIu64 " register %" PRIu64 ": %" PRIu64 " (0x%0*" PRIX64 ")\n",
                     element, reg, value, static_cast<int>(len * 2), value);
    return 0;
}

int cmdPsu() {
    const uint8_t handle = handleOrFail();
    if (handle == 0)
        return kExitFailure;
    uint8_t count = 0;
    uint8_t rc = ZELO_ReadMaxNumberOfPowerSuppliesRegister(handle, &count);
    if (rc != ZELO_RC_SUCCESS)
        return fail("read max-power-supplies", rc);
    struct Supply {
        uint8_t present;
        int32_t volts;
        uint32_t watts;
    };
    std::vector<Supply> supplies(count);
    // Four supplies per register instance; bits 3 and 4 of the id pick the instance.
    for (uint8_t group = 0; group * 4 < count; ++group) {
        const auto id = [group](uint8_t base) { return static_cast<uint8_t>(base + 8 * group); };
        const uint32_t n = std::min<uint32_t>(4, count - group * 4);
        uint8_t present[4] = {};
        int32_t volts[4] = {};
        uint32_t watts[4] = {};
        if ((rc = ZELO_ReadPowerSupplyPresenceRegister(handle, id(2), n, present)) != 0)
            return fail("read power-supply presence", rc);
        if ((rc = ZELO_ReadPowerSupplyInputVoltageRegister(handle, id(4), n, volts)) != 0)
            return fail("read power-supply input voltage", rc);
        if ((rc = ZELO_ReadOutputLabelPowerRegister(handle, id(1), n, watts)) != 0)
            return fail("read power-supply output label power", rc);
        for (uint32_t i = 0; i < n; ++i)
            supplies[group * 4 + i] = {present[i], volts[i], watts[i]};
    }
    if (json) {
        std::fprintf(out, "{\"supplies\":[");
        for (std::size_t i = 0; i < supplies.size(); ++i)
            std::fprintf(out,
                         "%s{\"index\":%zu,\"present\":%s,\"input_voltage\":%d,"
                         "\"output_label_power\":%u}",
                         i ? "," : "", i, supplies[i].present ? "true" : "false",
                         static_cast<int>(supplies[i].volts),
                         static_cast<unsigned>(supplies[i].watts));
        std::fprintf(out, "]}\n");
        return 0;
    }
    std::fprintf(out, "%-7s %-8s %-14s %s\n", "supply", "present", "input voltage",
                 "output label power");
    for (std::size_t i = 0; i < supplies.size(); ++i) {
        char volts[16];
        std::snprintf(volts, sizeof volts, supplies[i].volts ? "%d V" : "-",
                      static_cast<int>(supplies[i].volts));
        std::fprintf(out, "%-7zu %-8s %-14s %u W\n", i, supplies[i].present ? "yes" : "no", volts,
                     static_cast<unsigned>(supplies[i].watts));
    }
    return 0;
}

int cmdRedundancy() {
    RedundancyConfigs r{};
    const uint8_t rc = ZELO_GetRedundancyConfigs(&r);
    if (rc != ZELO_RC_SUCCESS) {
        std::fprintf(stderr, "zeloctl: redundancy report failed, result code %u: %s\n", rc,
                     r.errorText);
        ZELO_FreeRedundancyConfigs(&r);
        return kExitFailure;
    }
    if (json) {
        std::fprintf(out,
                     "{\"policy\":%u,\"target\":%u,\"active\":%d,\"allowed_count\":%d,"
                     "\"first_power_mode_1\":%d,\"psu_types\":[",
                     r.powerControlPolicy, r.redundancyTarget, static_cast<int>(r.activeConfig),
                     static_cast<int>(r.allowedConfigCount),
                     static_cast<int>(r.firstPowerMode1Config));
        for (int32_t i = 0; i < r.supportedPSUTypes; ++i)
            std::fprintf(out, "%s{\"index\":%d,\"watts\":%u}", i ? "," : "", static_cast<int>(i),
                         r.psuTypes[i].u16PSUWattage);
        std::fprintf(out, "],\"configs\":[");
        for (int32_t i = 0; i < r.supportedConfigs; ++i)
            std::fprintf(out,
                         "%s{\"index\":%d,\"description\":%s,\"n\":%u,\"m\":%u,\"power_mode\":%u,"
                         "\"allowed\":%s,\"active\":%s}",
                         i ? "," : "", static_cast<int>(i), jsonString(r.descriptions[i]).c_str(),
                         r.configs[i].u8RedundancyN, r.configs[i].u8RedundancyM,
                         r.configs[i].u8PowerMode, r.allowed[i] ? "true" : "false",
                         r.configs[i].u8Active ? "true" : "false");
        std::fprintf(out, "]}\n");
    } else {
        std::fprintf(out, "power control policy 0x%02X, redundancy target %u\nPSU types:",
                     r.powerControlPolicy, r.redundancyTarget);
        for (int32_t i = 0; i < r.supportedPSUTypes; ++i)
            std::fprintf(out, "%s %d: %u W", i ? "," : "", static_cast<int>(i),
                         r.psuTypes[i].u16PSUWattage);
        std::fprintf(out, "\n%-7s %-7s %-8s %-5s %s\n", "config", "active", "allowed", "mode",
                     "description");
        for (int32_t i = 0; i < r.supportedConfigs; ++i)
            std::fprintf(out, "%-7d %-7s %-8s %-5u %s\n", static_cast<int>(i),
                         r.configs[i].u8Active ? "*" : "", r.allowed[i] ? "yes" : "no",
                         r.configs[i].u8PowerMode, r.descriptions[i]);
    }
    ZELO_FreeRedundancyConfigs(&r);
    return 0;
}

int cmdExpansion() {
    uint32_t input = 0, standby = 0;
    uint8_t rc = GetTotalInputPowerForExpansion(&input);
    if (rc != ZELO_RC_SUCCESS)
        return fail("expansion total input power", rc);
    rc = GetStandbyPowerForExpansion(&standby);
    if (rc != ZELO_RC_SUCCESS)
        return fail("expansion standby power", rc);
    if (json)
        std::fprintf(out, "{\"total_input_power\":%u,\"standby_power\":%u}\n",
                     static_cast<unsigned>(input), static_cast<unsigned>(standby));
    else
        std::fprintf(out, "total input power  %u W\nstandby power      %u W\n",
                     static_cast<unsigned>(input), static_cast<unsigned>(standby));
    return 0;
}

// ---- command line --------------------------------------------------------

struct Command {
    const char *name;
    const char *args;
    int argc; // exact number of arguments
    const char *help;
};

const Command kCommands[] = {
    {"discover", "", 0, "find the firmware instance and show its module handle"},
    {"registers", "", 0, "list the register names, their access and width"},
    {"read", "NAME", 1, "read a named register"},
    {"write", "NAME VALUE", 2, "write a writable register; VALUE must fit its width"},
    {"raw", "ELEMENT REGISTER LENGTH", 3, "read any register by number (LENGTH 1-8 bytes)"},
    {"psu", "", 0, "power supplies: presence, input voltage, output label power"},
    {"redundancy", "", 0, "redundancy configurations: description, allowed, active"},
    {"expansion", "", 0, "total input and standby power of the expansion unit"},
};

void usage(FILE *to) {
    std::fprintf(
        to, "usage: zeloctl [--json] [--verbose] [--instance N] COMMAND [ARGS]\n\ncommands:\n");
    for (const auto &c : kCommands) {
        const std::string synopsis = std::string(c.name) + (*c.args ? " " : "") + c.args;
        std::fprintf(to, "  %-33s %s\n", synopsis.c_str(), c.help);
    }
    std::fprintf(to, "\noptions:\n"
                     "  --json        print results as one JSON object\n"
                     "  --verbose     show the library's diagnostics on stderr\n"
                     "  --instance N  firmware instance for discover, read, write, raw, psu:\n"
                     "                0 the server (default), 1 the expansion unit\n"
                     "  --help        show this text; 'zeloctl COMMAND --help' shows one command\n"
                     "\nNumbers are decimal or 0x-prefixed hexadecimal. Exit status: 0 success,\n"
                     "1 the firmware or library failed (the result code is shown), 2 bad usage.\n");
}

void commandUsage(const Command &c) {
    std::fprintf(out, "usage: zeloctl [--json] [--instance N] %s%s%s\n  %s\n", c.name,
                 *c.args ? " " : "", c.args, c.help);
    if (std::string_view(c.name) == "read" || std::string_view(c.name) == "write")
        std::fprintf(out, "  NAME is one of the names 'zeloctl registers' lists.\n");
}

int run(const Command &c, char **args) {
    const std::string_view name = c.name;
    if (name == "discover")
        return cmdDiscover();
    if (name == "registers")
        return cmdRegisters();
    if (name == "raw")
        return cmdRaw(args[0], args[1], args[2]);
    if (name == "psu")
        return cmdPsu();
    if (name == "redundancy")
        return cmdRedundancy();
    if (name == "expansion")
        return cmdExpansion();
    const Register *reg = findRegister(args[0]);
    if (reg == nullptr)
        return usageError("unknown register '%s' (see 'zeloctl registers')", args[0]);
    return name == "read" ? cmdRead(*reg) : cmdWrite(*reg, args[1]);
}

} // namespace

// Keeps standard output for results and sends what the library prints to
// stderr (--verbose) or nowhere, so scripts can parse the output.
void separateLibraryOutput(bool verbose) {
    std::fflush(stdout);
    const int results = ::dup(STDOUT_FILENO);
    const int sink = verbose ? ::dup(STDERR_FILENO) : ::open("/dev/null", O_WRONLY);
    if (results < 0 || sink < 0 || ::dup2(sink, STDOUT_FILENO) < 0) {
        out = stdout; // cannot separate: everything stays on stdout
        return;
    }
    ::close(sink);
    out = ::fdopen(results, "w");
    if (out == nullptr)
        out = stdout;
    // Line by line, so diagnostics and zeloctl's own errors keep their order.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
}

int main(int argc, char **argv) {
    bool verbose = false;
    for (int k = 1; k < argc && argv[k][0] == '-'; ++k) {
        verbose = verbose || std::string_view(argv[k]) == "--verbose";
        k += std::string_view(argv[k]) == "--instance"; // skip its value
    }
    separateLibraryOutput(verbose);

    int i = 1;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        const std::string_view opt = argv[i];
        uint64_t n = 0;
        if (opt == "--help" || opt == "-h") {
            usage(out);
            return 0;
        }
        if (opt == "--json") {
            json = true;
        } else if (opt == "--verbose") {
            // handled before
        } else if (opt == "--instance" && i + 1 < argc && parseNumber(argv[i + 1], 1, &n)) {
            instance = static_cast<int32_t>(n);
            ++i;
        } else {
            return usageError("bad option '%s'", argv[i]);
        }
    }
    if (i >= argc) {
        usage(stderr);
        return kExitUsage;
    }
    const std::string_view name = argv[i++];
    for (const auto &c : kCommands) {
        if (name != c.name)
            continue;
        if (i < argc &&
            (std::string_view(argv[i]) == "--help" || std::string_view(argv[i]) == "-h")) {
            commandUsage(c);
            return 0;
        }
        if (argc - i != c.argc)
            return usageError("wrong number of arguments for '%s'", c.name);
        return run(c, argv + i);
    }
    return usageError("unknown command '%s'", argv[i - 1]);
}
