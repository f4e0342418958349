// Commands that ask the firmware: discovery, named and raw registers, power
// supplies, the redundancy report and the expansion unit.
#include "zeloctl.h"

#include <zelo.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cinttypes>
#include <string_view>
#include <type_traits>
#include <vector>

namespace zeloctl {
namespace {

// ---- named registers ----

// Up to two decoded fields per register; most have one, named by its label.
struct Reading {
    uint8_t rc;
    uint64_t v[2];
};

struct Register {
    const char *name;
    std::array<const char *, 2> fields; // second null for one-field registers
    unsigned bytes;                     // width of a written value
    Reading (*read)(uint8_t handle);
    uint8_t (*write)(uint8_t handle, uint64_t value);
};

template <typename T>
Reading readWith(uint8_t (*fn)(uint8_t, T *), uint8_t handle) {
    T value = 0;
    const uint8_t rc = fn(handle, &value);
    return {rc, {value, 0}};
}

template <typename A, typename B>
Reading readWith(uint8_t (*fn)(uint8_t, A *, B *), uint8_t handle) {
    A first = 0;
    B second = 0;
    const uint8_t rc = fn(handle, &first, &second);
    return {rc, {first, second}};
}

// The table's reader and writer of an accessor; none for ZELO_NO_ACCESSOR.
template <auto Fn>
constexpr Reading (*reader())(uint8_t) {
    if constexpr (std::is_integral_v<decltype(Fn)>)
        return nullptr;
    else
        return [](uint8_t handle) { return readWith(Fn, handle); };
}

template <typename T>
uint8_t writeWith(uint8_t (*fn)(uint8_t, T), uint8_t handle, uint64_t value) {
    return fn(handle, static_cast<T>(value));
}

template <auto Fn>
constexpr uint8_t (*writer())(uint8_t, uint64_t) {
    if constexpr (std::is_integral_v<decltype(Fn)>)
        return nullptr;
    else
        return [](uint8_t handle, uint64_t value) { return writeWith(Fn, handle, value); };
}

// A one-value register's field is its label; the two-value ones name theirs here.
consteval std::array<const char *, 2> fieldsOf(std::string_view name, const char *label) {
    if (label != nullptr)
        return {label, nullptr};
    if (name == "standby-power")
        return {"byte", "watts"};
    if (name == "power-cycles")
        return {"first", "second"};
    throw "a two-value register without field names";
}

#define ZELOCTL_REGISTER(name, element, reg, length, type, label, access, form, read, write)       \
    {name, fieldsOf(name, label), length, reader<read>(), writer<write>()},
const Register kRegisters[] = {ZELO_REGISTER_LIST(ZELOCTL_REGISTER)};
#undef ZELOCTL_REGISTER

const Register *findRegister(std::string_view name) {
    for (const auto &r : kRegisters)
        if (name == r.name)
            return &r;
    return nullptr;
}

// The module handle straight from the firmware. The library's
// ZELO_GetModuleHandle would cache it in the configuration store, and a
// command that only reads should leave no file behind, least of all under a
// mistyped root.
uint8_t handleOrFail(int32_t instance) {
    uint8_t d1 = 0, d2 = 0, handle = 0;
    const uint8_t rc = ZELO_FindFirmwareInstance(static_cast<uint8_t>(instance), &d1, &d2, &handle);
    if (rc != ZELO_RC_SUCCESS) {
        fail("no firmware instance " + std::to_string(instance) + ": discovery", rc);
        return 0;
    }
    return handle;
}

uint8_t handleOrFail() {
    return handleOrFail(gOutput.instance);
}

// A field label as a JSON key, in the style of every key zeloctl prints:
// "watts" is "Watts".
std::string pascalCase(std::string_view label) {
    std::string key;
    bool upper = true;
    for (const char c : label) {
        if (c == '-' || c == '_' || c == ' ') {
            upper = true;
            continue;
        }
        key += upper ? static_cast<char>(std::toupper(static_cast<unsigned char>(c))) : c;
        upper = false;
    }
    return key;
}

} // namespace

int cmdDiscover() {
    const int32_t instance = gOutput.instance;
    uint8_t d1 = 0, d2 = 0, handle = 0;
    const uint8_t rc = ZELO_FindFirmwareInstance(static_cast<uint8_t>(instance), &d1, &d2, &handle);
    if (rc != ZELO_RC_SUCCESS)
        return fail("discovery", rc);
    if (gOutput.json)
        emit({{"Instance", instance}, {"Handle", handle}, {"Descriptors", {d1, d2}}});
    else
        std::fprintf(gOutput.out,
                     "instance       %d\nmodule handle  %u\ndescriptors    0x%02X 0x%02X\n",
                     static_cast<int>(instance), handle, d1, d2);
    return 0;
}

int cmdRegisters() {
    const auto access = [](const Register &r) {
        return r.read && r.write ? "read/write" : r.read ? "read" : "write";
    };
    if (gOutput.json) {
        Json list = Json::array();
        for (const auto &r : kRegisters)
            list.push_back({{"Name", r.name}, {"Access", access(r)}, {"Bytes", r.bytes}});
        emit({{"Registers", list}});
        return 0;
    }
    for (const auto &r : kRegisters)
        std::fprintf(gOutput.out, "%-26s %-10s %u byte%s\n", r.name, access(r), r.bytes,
                     r.bytes == 1 ? "" : "s");
    return 0;
}

int cmdRead(const std::string &name) {
    const Register *reg = findRegister(name);
    if (reg == nullptr)
        return usageError("unknown register '" + printable(name) + "' (see 'zeloctl registers')");
    if (reg->read == nullptr)
        return usageError("register '" + name + "' can only be written");
    const uint8_t handle = handleOrFail();
    if (handle == 0)
        return kExitFailure;
    const Reading r = reg->read(handle);
    if (r.rc != ZELO_RC_SUCCESS)
        return fail("read " + name, r.rc);
    const int fields = reg->fields[1] != nullptr ? 2 : 1;
    if (gOutput.json) {
        Json object{{"Register", reg->name}};
        for (int i = 0; i < fields; ++i)
            object[pascalCase(reg->fields[i])] = r.v[i];
        emit(object);
        return 0;
    }
    std::fprintf(gOutput.out, "%s:", reg->name);
    for (int i = 0; i < fields; ++i)
        std::fprintf(gOutput.out, " %s=%" PRIu64, reg->fields[i], r.v[i]);
    std::fprintf(gOutput.out, "\n");
    return 0;
}

int cmdWrite(const std::string &name, const std::string &text) {
    const Register *reg = findRegister(name);
    if (reg == nullptr)
        return usageError("unknown register '" + printable(name) + "' (see 'zeloctl registers')");
    if (reg->write == nullptr)
        return usageError("register '" + name + "' is read-only");
    const uint64_t max = reg->bytes >= 8 ? UINT64_MAX : (uint64_t{1} << (8 * reg->bytes)) - 1;
    uint64_t value = 0;
    if (!parseNumber(text, max, &value)) {
        std::fprintf(stderr, "zeloctl: bad value '%s' for %s (0-%" PRIu64 ")\n",
                     printable(text).c_str(), reg->name, max);
        return kExitUsage;
    }
    const uint8_t handle = handleOrFail();
    if (handle == 0)
        return kExitFailure;
    const uint8_t rc = reg->write(handle, value);
    if (rc != ZELO_RC_SUCCESS)
        return fail("write " + name, rc);
    if (gOutput.json)
        emit({{"Register", reg->name}, {"Written", value}});
    else
        std::fprintf(gOutput.out, "%s: written %" PRIu64 "\n", reg->name, value);
    return 0;
}

int cmdRaw(const std::string &elementText, const std::string &regText, const std::string &lenText) {
    uint64_t element = 0, reg = 0, len = 0;
    if (!parseNumber(elementText, 255, &element) || !parseNumber(regText, 255, &reg) ||
        !parseNumber(lenText, 8, &len) || len == 0)
        return usageError("bad raw read '" + printable(elementText) +
                          " ...' (element 0-255, register 0-255, length 1-8)");
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
    if (gOutput.json)
        emit({{"Element", element}, {"Register", reg}, {"Value", value}});
    else
        std::fprintf(gOutput.out,
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
    if (gOutput.json) {
        Json list = Json::array();
        for (std::size_t i = 0; i < supplies.size(); ++i)
            list.push_back({{"Index", i},
                            {"Present", supplies[i].present != 0},
                            {"InputVoltage", supplies[i].volts},
                            {"OutputLabelPower", supplies[i].watts}});
        emit({{"Supplies", list}});
        return 0;
    }
    std::fprintf(gOutput.out, "%-7s %-8s %-14s %s\n", "supply", "present", "input voltage",
                 "output label power");
    for (std::size_t i = 0; i < supplies.size(); ++i) {
        char volts[16];
        std::snprintf(volts, sizeof volts, supplies[i].volts ? "%d V" : "-",
                      static_cast<int>(supplies[i].volts));
        std::fprintf(gOutput.out, "%-7zu %-8s %-14s %u W\n", i, supplies[i].present ? "yes" : "no",
                     volts, static_cast<unsigned>(supplies[i].watts));
    }
    return 0;
}

int cmdRedundancy() {
    // The report takes its handle through the store: it is asked only of a
    // firmware that is there, so a failed discovery leaves nothing behind.
    if (handleOrFail(0) == 0)
        return kExitFailure;
    RedundancyConfigs r{};
    const uint8_t rc = ZELO_GetRedundancyConfigs(&r);
    if (rc != ZELO_RC_SUCCESS) {
        std::fprintf(stderr, "zeloctl: redundancy report failed, result code %u: %s\n", rc,
                     printable(r.errorText).c_str());
        ZELO_FreeRedundancyConfigs(&r);
        return kExitFailure;
    }
    if (gOutput.json) {
        Json types = Json::array(), configs = Json::array();
        for (int32_t i = 0; i < r.supportedPSUTypes; ++i)
            types.push_back({{"Index", i}, {"Watts", r.psuTypes[i].u16PSUWattage}});
        for (int32_t i = 0; i < r.supportedConfigs; ++i)
            configs.push_back({{"Index", i},
                               {"Description", r.descriptions[i]},
                               {"N", r.configs[i].u8RedundancyN},
                               {"M", r.configs[i].u8RedundancyM},
                               {"PowerMode", r.configs[i].u8PowerMode},
                               {"Allowed", r.allowed[i] != 0},
                               {"Active", r.configs[i].u8Active != 0}});
        emit({{"Policy", r.powerControlPolicy},
              {"Target", r.redundancyTarget},
              {"Active", r.activeConfig},
              {"AllowedCount", r.allowedConfigCount},
              {"FirstPowerMode1", r.firstPowerMode1Config},
              {"PSUTypes", types},
              {"Configs", configs}});
    } else {
        std::fprintf(gOutput.out, "power control policy 0x%02X, redundancy target %u\nPSU types:",
                     r.powerControlPolicy, r.redundancyTarget);
        for (int32_t i = 0; i < r.supportedPSUTypes; ++i)
            std::fprintf(gOutput.out, "%s %d: %u W", i ? "," : "", static_cast<int>(i),
                         r.psuTypes[i].u16PSUWattage);
        std::fprintf(gOutput.out, "\n%-7s %-7s %-8s %-5s %s\n", "config", "active", "allowed",
                     "mode", "description");
        for (int32_t i = 0; i < r.supportedConfigs; ++i)
            std::fprintf(gOutput.out, "%-7d %-7s %-8s %-5u %s\n", static_cast<int>(i),
                         r.configs[i].u8Active ? "*" : "", r.allowed[i] ? "yes" : "no",
                         r.configs[i].u8PowerMode, printable(r.descriptions[i]).c_str());
    }
    ZELO_FreeRedundancyConfigs(&r);
    return 0;
}

int cmdExpansion() {
    if (handleOrFail(ZELO_EXPANSION_INSTANCE) == 0)
        return kExitFailure;
    uint32_t input = 0, standby = 0;
    uint8_t rc = GetTotalInputPowerForExpansion(&input);
    if (rc != ZELO_RC_SUCCESS)
        return fail("expansion total input power", rc);
    rc = GetStandbyPowerForExpansion(&standby);
    if (rc != ZELO_RC_SUCCESS)
        return fail("expansion standby power", rc);
    if (gOutput.json)
        emit({{"TotalInputPower", input}, {"StandbyPower", standby}});
    else
        std::fprintf(gOutput.out, "total input power  %u W\nstandby power      %u W\n",
                     static_cast<unsigned>(input), static_cast<unsigned>(standby));
    return 0;
}

} // namespace zeloctl
