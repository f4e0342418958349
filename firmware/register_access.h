// The one engine behind every named register accessor: build the request for
// the element, run the transaction, decode big-endian fields, release.
#pragma once

#include "report.h"

#include <zelo/register_list.h>

#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>

namespace zelo::firmware {

using ReadBuilder = uint8_t (*)(uint8_t, uint8_t **);
using WriteBuilder = uint8_t (*)(uint8_t, uint8_t, uint8_t, uint8_t **, uint32_t *);

// An element's builders and what an accessor says when one yields no request.
struct Element {
    ReadBuilder read;
    const char *readFailure; // "[%s] ..." with the accessor's name
    WriteBuilder write;
    const char *writeFailure;
    Notice builderNotice;
};

// A value decoded from the response: its offset there and its width in bytes.
struct Field {
    uint8_t offset;
    uint8_t width;
};

// Reads `length` bytes of register `reg`; on result 0 decodes each field into
// the value of the same position. Values are left untouched on failure.
uint8_t readFields(const char *name, const Element &element, uint8_t handle, uint8_t reg,
                   uint8_t length, std::span<const Field> fields, std::span<uint64_t> values);

// Reads data.size() bytes (at most 255) of register `reg` into data; data is
// left untouched on failure.
uint8_t readData(const char *name, const Element &element, uint8_t handle, uint8_t reg,
                 std::span<uint8_t> data);

// Writes `length` bytes of value, most significant first, to register `reg`.
uint8_t writeValue(const char *name, const Element &element, uint8_t handle, uint8_t reg,
                   uint8_t length, uint64_t value);

// One output from data byte 0 over the whole length, narrowed to T.
template <typename T>
uint8_t readOne(const char *name, const Element &element, uint8_t handle, uint8_t reg,
                uint8_t length, T *out) {
    if (out == nullptr)
        return 253; // ZELO_RC_INVALID_PARAMETER
    *out = 0;
    const Field field{4, length};
    uint64_t value = 0;
    const uint8_t rc = readFields(name, element, handle, reg, length, {&field, 1}, {&value, 1});
    if (rc == 0)
        *out = static_cast<T>(value);
    return rc;
}

// Extended-capabilities query: handle, capabilities bit 7, then the mask
// against the extended register. Messages go to the system log only.
int extendedCapability(const char *name, uint32_t mask, const char *handleFailure);

// A named register's numbers, from the list the accessors and zeloctl share.
struct RegisterRow {
    std::string_view name;
    uint8_t element;
    uint8_t reg;
    uint8_t length;
};

#define ZELO_REGISTER_ROW(name, element, reg, length, type, label, access, form, read, write)      \
    {name, element, reg, length},
inline constexpr RegisterRow kRegisterRows[] = {ZELO_REGISTER_LIST(ZELO_REGISTER_ROW)};
#undef ZELO_REGISTER_ROW

// The numbers of a hand-written accessor's register; a name missing from the
// list does not compile.
consteval RegisterRow registerRow(std::string_view name) {
    for (const RegisterRow &row : kRegisterRows)
        if (row.name == name)
            return row;
    std::abort();
}

extern const Element kPowerSupplyElement;
extern const Element kPowerSupplyReportedElement;
extern const Element kPowerSupplyPerSupplyElement;

} // namespace zelo::firmware
