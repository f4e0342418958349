// The scenario line parser, shared by the files that hold its keywords:
// scenario.cpp (the frame, numbers and words), scenario_firmware.cpp
// (instances, registers, faults, sensors, supplies) and scenario_load.cpp
// (power model and snapshot layout).
#pragma once

#include "scenario.h"

#include <array>
#include <charconv>
#include <cinttypes>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zelo::sim::lines {

[[gnu::format(printf, 1, 2)]] std::string format(const char *fmt, ...);

inline constexpr const char *kBlanks = " \t\r";
std::string_view skipBlanks(std::string_view text);

// Per instance: whether this text already started its own type and
// configuration lists (the first line replaces the built-in one).
struct ListsStarted {
    std::array<bool, kInstanceCount> types{};
    std::array<bool, kInstanceCount> configs{};
};

// Lines that set one number.
struct NumberLine {
    std::string_view keyword;
    const char *usage;
    std::uint64_t min;
    std::uint64_t max;
    void (*set)(Scenario &, std::uint64_t);
};

// One line's worth of parsing; every check leaves its message in error.
class LineParser {
  public:
    // action: where the lines only a running simulator takes go; null for a
    // scenario file.
    LineParser(const std::vector<std::string_view> &words, Scenario &scenario,
               ListsStarted &started, std::string &error, ControlAction *action = nullptr)
        : words_(words), sc_(scenario), started_(started), error_(error), action_(action) {}

    bool apply();

  private:
    bool present();
    bool bridge();
    bool restartNow();
    bool snapshotNow();
    bool tag();
    bool instance();
    bool reg();
    bool fault();
    bool xpmFault();
    bool sensorFault();
    // The texts come from the line itself rather than its words, so a quoted
    // name or a reading keeps its inner blanks as written.
    bool sensor();
    bool shortAnswer();
    bool overlongRead();
    bool psuFactors();
    bool psuType();
    bool redundancy();
    bool redundancyShape(std::string_view word, RedundancyConfig &c);
    bool typeList(std::string_view word, std::vector<std::uint8_t> &out);
    bool power();
    bool powerSteps(std::string_view word, std::vector<PowerStep> &out);
    bool shares();
    bool temperatures();
    // The buffer size travels as a u16; only these lines can grow it past.
    bool bufferFits();
    bool histogram();
    bool inputPower();
    bool blade();
    bool subsystems();
    bool perf();
    bool numberLine(const NumberLine &line);

    bool usage(const char *text) { return fail(std::string("usage: ") + text); }

    bool fail(std::string message) {
        error_ = std::move(message);
        return false;
    }

    bool number(std::size_t index, std::uint64_t max, std::uint64_t &out, std::uint64_t min = 0) {
        return numberIn(words_[index], max, out, min);
    }

    bool numberIn(const std::string_view shownWord, std::uint64_t max, std::uint64_t &out,
                  std::uint64_t min = 0) {
        std::string_view word = shownWord;
        int base = 10;
        if (word.size() > 2 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X')) {
            word.remove_prefix(2);
            base = 16;
        }
        const char *end = word.data() + word.size();
        const auto [ptr, ec] = std::from_chars(word.data(), end, out, base);
        const int shown = static_cast<int>(shownWord.size());
        if (ec == std::errc::result_out_of_range ||
            (ec == std::errc() && ptr == end && (out > max || out < min)))
            return fail(format("%.*s out of range (%" PRIu64 "-%" PRIu64 ")", shown,
                               shownWord.data(), min, max));
        if (ec != std::errc() || ptr != end || word.empty())
            return fail(format("bad number '%.*s'", shown, shownWord.data()));
        return true;
    }

    bool u16(std::size_t index, std::uint16_t &out) {
        std::uint64_t v = 0;
        if (!number(index, 0xFFFF, v))
            return false;
        out = static_cast<std::uint16_t>(v);
        return true;
    }

    // Next index of a dense table; the first line of this text for the
    // instance replaces the built-in entries.
    template <typename T>
    bool tableIndex(std::vector<T> &table, bool &started, const char *what, std::size_t &out) {
        std::uint64_t index = 0;
        if (!number(2, kMaxTableEntries - 1, index))
            return false;
        const std::size_t next = started ? table.size() : 0;
        if (index != next)
            return fail(
                format("%s index %" PRIu64 " out of order; next is %zu", what, index, next));
        if (!started)
            table.clear();
        started = true;
        out = next;
        return true;
    }

    bool byte(std::size_t index, std::uint8_t &out) {
        std::uint64_t v = 0;
        if (!number(index, 0xFF, v))
            return false;
        out = static_cast<std::uint8_t>(v);
        return true;
    }

    bool instanceNumber(std::size_t index, unsigned &out) {
        std::uint64_t v = 0;
        if (!number(index, kInstanceCount - 1, v))
            return false;
        out = static_cast<unsigned>(v);
        return true;
    }

    // The values of a line with only numbers after the keyword.
    template <std::size_t N>
    bool numbers(const char *usageText, const std::array<std::uint64_t, N> &max,
                 std::array<std::uint64_t, N> &out) {
        if (words_.size() != N + 1)
            return usage(usageText);
        for (std::size_t i = 0; i < N; ++i) {
            if (!number(i + 1, max[i], out[i]))
                return false;
        }
        return true;
    }

    bool yesNo(const char *usageText, bool &out) {
        if (words_.size() != 2 || (words_[1] != "yes" && words_[1] != "no"))
            return usage(usageText);
        out = words_[1] == "yes";
        return true;
    }

    bool completionCode(std::size_t index, std::uint8_t &out) {
        if (!byte(index, out))
            return false;
        return out != 0 || fail("completion code 0 is success, not a fault");
    }

    bool runtimeOnly() {
        return action_ != nullptr ||
               fail(format("'%.*s' works only on a running simulator (zelo-fwsim --control)",
                           static_cast<int>(words_[0].size()), words_[0].data()));
    }

    const std::vector<std::string_view> &words_;
    Scenario &sc_;
    ListsStarted &started_;
    std::string &error_;
    ControlAction *action_;
};

} // namespace zelo::sim::lines
