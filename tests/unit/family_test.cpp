#include <zelo/firmware.h>

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

TEST(IsBladeServer, OnlyTheTwoExactFamilyNamesAreBlades) {
    const struct {
        const char *family;
        unsigned expected;
    } cases[] = {
        {nullptr, 0},  {"", 0},       {"blade", 1},  {"iteblade", 1},  {"Blade", 0},
        {"blade1", 0}, {" blade", 0}, {"blade ", 0}, {"itebladex", 0}, {"rack", 0},
    };
    for (const auto &c : cases) {
        if (c.family == nullptr)
            ::unsetenv("RUX_FAMILY");
        else
            ::setenv("RUX_FAMILY", c.family, 1);
        EXPECT_EQ(IsBladeServer(), c.expected) << (c.family ? c.family : "(unset)");
    }
    ::unsetenv("RUX_FAMILY");
}

} // namespace
