#include "scenario.h"

#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace zelo::sim {

namespace {

// Handles of the built-in firmware; any unique non-zero values would do.
constexpr std::uint8_t kServerHandle = 5;
constexpr std::uint8_t kExpansionHandle = 9;

[[gnu::format(printf, 1, 2)]] std::string format(const char *fmt, ...) {
    std::va_list args;
    va_start(args, fmt);
    std::va_list again;
    va_copy(again, args);
    const int n = std::vsnprintf(nullptr, 0, fmt, args);
    va_end(args);
    std::string out(n > 0 ? static_cast<std::size_t>(n) : 0, '\0');
    if (n > 0)
        std::vsnprintf(out.data(), out.size() + 1, fmt, again);
    va_end(again);
    return out;
}

std::vector<std::string_view> splitWords(std::string_view line) {
    std::vector<std::string_view> words;
    if (const auto hash = line.find('#'); hash != std::string_view::npos)
        line = line.substr(0, hash);
    std::size_t pos = 0;
    while (pos < line.size()) {
        const std::size_t start = line.find_first_not_of(" \t\r", pos);
        if (start == std::string_view::npos)
            break;
        std::size_t end = line.find_first_of(" \t\r", start);
        if (end == std::string_view::npos)
            end = line.size();
        words.push_back(line.substr(start, end - start));
        pos = end;
    }
    return words;
}

// A believable two-supply server: two PSU types, four configurations of
// which 1+1 on the installed 800 W pair is active.
PowerSupplyTables builtInPowerSupplies() {
    PowerSupplyTables t;
    t.types = {{800, {0x01, 0x00}}, {1100, {0x02, 0x00}}};
    const std::uint16_t allowedAlways = kPropAllowedPolicySetNoTarget |
                                        kPropAllowedPolicyClearNoTarget |
                                        kPropAllowedPolicySetTarget | kPropAllowedPolicyClearTarget;
    RedundancyConfig c;
    c.n = 1;
    c.m = 1;
    c.typeList = {0, 0};
    c.properties = kPropValid | allowedAlways | kPropActive;
    t.configs.push_back(c);
    // Both supplies share the load: no redundancy, so only without a target.
    c.n = 2;
    c.m = 0;
    c.properties = kPropPowerMode2 | kPropValid | kPropAllowedPolicySetNoTarget |
                   kPropAllowedPolicyClearNoTarget;
    t.configs.push_back(c);
    c.n = 1;
    c.m = 1;
    c.typeList = {0, 0, 0, 0};
    c.properties = kPropValid | kPropAllowedPolicySetNoTarget | kPropAllowedPolicySetTarget;
    t.configs.push_back(c);
    c.typeList = {0, 1, 0, 1};
    c.properties = kPropValid;
    t.configs.push_back(c);
    return t;
}

// Per instance: whether this text already started its own type and
// configuration lists (the first line replaces the built-in one).
struct ListsStarted {
    std::array<bool, kInstanceCount> types{};
    std::array<bool, kInstanceCount> configs{};
};

// One line's worth of parsing; every check leaves its message in error.
class LineParser {
  public:
    LineParser(const std::vector<std::string_view> &words, Scenario &scenario,
               ListsStarted &started, std::string &error)
        : words_(words), sc_(scenario), started_(started), error_(error) {}

    bool apply() {
        const std::string_view keyword = words_[0];
        if (keyword == "present")
            return present();
        if (keyword == "instance")
            return instance();
        if (keyword == "reg")
            return reg();
        if (keyword == "fault")
            return fault();
        if (keyword == "delay")
            return delay();
        if (keyword == "psu-factors")
            return psuFactors();
        if (keyword == "psutype")
            return psuType();
        if (keyword == "redundancy")
            return redundancy();
        return fail(
            format("unknown keyword '%.*s'", static_cast<int>(keyword.size()), keyword.data()));
    }

  private:
    bool fail(std::string message) {
        error_ = std::move(message);
        return false;
    }

    bool usage(const char *text) { return fail(std::string("usage: ") + text); }

    bool number(std::size_t index, std::uint64_t max, std::uint64_t &out) {
        return numberIn(words_[index], max, out);
    }

    bool numberIn(const std::string_view shownWord, std::uint64_t max, std::uint64_t &out) {
        std::string_view word = shownWord;
        int base = 10;
        if (word.size() > 2 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X')) {
            word.remove_prefix(2);
            base = 16;
        }
        const char *end = word.data() + word.size();
        const auto [ptr, ec] = std::from_chars(word.data(), end, out, base);
        const int shown = static_cast<int>(shownWord.size());
        if (ec == std::errc::result_out_of_range || (ec == std::errc() && ptr == end && out > max))
            return fail(format("%.*s out of range (0-%" PRIu64 ")", shown, shownWord.data(), max));
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

    bool present() {
        if (words_.size() != 2 || (words_[1] != "yes" && words_[1] != "no"))
            return usage("present yes|no");
        sc_.present = words_[1] == "yes";
        return true;
    }

    bool instance() {
        static constexpr const char *kUsage =
            "instance <n> handle <h> [descriptors <d1> <d2>] | instance <n> none";
        unsigned n = 0;
        if (words_.size() < 3)
            return usage(kUsage);
        if (!instanceNumber(1, n))
            return false;
        InstanceSetup &inst = sc_.instances[n];
        if (words_.size() == 3 && words_[2] == "none") {
            inst.defined = false;
            return true;
        }
        const bool withDescriptors = words_.size() == 7 && words_[4] == "descriptors";
        if (words_[2] != "handle" || (words_.size() != 4 && !withDescriptors))
            return usage(kUsage);
        std::uint8_t handle = 0;
        if (!byte(3, handle))
            return false;
        if (handle == 0)
            return fail("handle 0 means no instance; use 1-255");
        for (unsigned other = 0; other < kInstanceCount; ++other) {
            const InstanceSetup &o = sc_.instances[other];
            if (other != n && o.defined && o.handle == handle)
                return fail(
                    format("handle %u already used by instance %u", unsigned{handle}, other));
        }
        if (withDescriptors && (!byte(5, inst.descriptor1) || !byte(6, inst.descriptor2)))
            return false;
        inst.defined = true;
        inst.handle = handle;
        return true;
    }

    bool reg() {
        if (words_.size() != 5)
            return usage("reg <instance> <element> <register> <value>");
        unsigned n = 0;
        std::uint8_t element = 0;
        std::uint8_t id = 0;
        if (!instanceNumber(1, n) || !byte(2, element) || !byte(3, id))
            return false;
        const auto row = findRegister(element, id);
        if (!row)
            return fail(format("unknown register %u/%u", unsigned{element}, unsigned{id}));
        std::uint64_t value = 0;
        if (!number(4, UINT64_MAX, value))
            return false;
        const RegisterDef &def = kRegisters[*row];
        if (value > maxValue(def.width))
            return fail(format("value %.*s too wide for register %u/%u (%u bytes)",
                               static_cast<int>(words_[4].size()), words_[4].data(),
                               unsigned{element}, unsigned{id}, unsigned{def.width}));
        sc_.instances[n].registers[*row] = value;
        return true;
    }

    bool fault() {
        Fault f;
        std::size_t ccIndex = 0;
        if (words_.size() >= 3 && words_[1] == "discovery") {
            if (words_.size() > 4)
                return usage("fault discovery [<instance>] <cc>");
            f.discovery = true;
            if (words_.size() == 4) {
                unsigned n = 0;
                if (!instanceNumber(2, n))
                    return false;
                f.instance = static_cast<int>(n);
            }
            ccIndex = words_.size() - 1;
        } else {
            if (words_.size() != 5)
                return usage("fault <instance> <element> <method> <cc> | fault discovery "
                             "[<instance>] <cc>");
            unsigned n = 0;
            if (!instanceNumber(1, n) || !byte(2, f.element) || !byte(3, f.method))
                return false;
            f.instance = static_cast<int>(n);
            ccIndex = 4;
        }
        if (!byte(ccIndex, f.cc))
            return false;
        if (f.cc == 0)
            return fail("completion code 0 is success, not a fault");
        sc_.faults.push_back(f);
        return true;
    }

    bool delay() {
        if (words_.size() != 2)
            return usage("delay <ms>");
        std::uint64_t ms = 0;
        if (!number(1, kMaxDelayMs, ms))
            return false;
        sc_.delayMs = static_cast<std::uint32_t>(ms);
        return true;
    }

    bool psuFactors() {
        const bool withByte0 = words_.size() == 6 && words_[4] == "byte0";
        if (words_.size() != 4 && !withByte0)
            return usage("psu-factors <instance> <f1> <f2> [byte0 <v>]");
        unsigned n = 0;
        if (!instanceNumber(1, n))
            return false;
        PowerSupplyTables &t = sc_.instances[n].psu;
        if (!byte(2, t.factor1) || !byte(3, t.factor2))
            return false;
        return !withByte0 || byte(5, t.configByte0);
    }

    bool psuType() {
        const bool withBytes = words_.size() == 7 && words_[4] == "bytes";
        if (words_.size() != 4 && !withBytes)
            return usage("psutype <instance> <index> <watts> [bytes <b0> <b1>]");
        unsigned n = 0;
        PsuType type;
        if (!instanceNumber(1, n) || !u16(3, type.watts))
            return false;
        if (withBytes && (!byte(5, type.bytes[0]) || !byte(6, type.bytes[1])))
            return false;
        PowerSupplyTables &t = sc_.instances[n].psu;
        std::size_t index = 0;
        if (!tableIndex(t.types, started_.types[n], "psutype", index))
            return false;
        t.types.push_back(type);
        return true;
    }

    bool redundancy() {
        static constexpr const char *kUsage =
            "redundancy <instance> <index> <N>+<M> props <p> list <i>,<i>...|none "
            "[byte0 <v>] [words <w1> <w2> <w3>] [entrylen <v>]";
        if (words_.size() < 8 || words_[4] != "props" || words_[6] != "list")
            return usage(kUsage);
        unsigned n = 0;
        RedundancyConfig c;
        if (!instanceNumber(1, n) || !redundancyShape(words_[3], c) || !u16(5, c.properties) ||
            !typeList(words_[7], c.typeList))
            return false;
        for (std::size_t i = 8; i < words_.size();) {
            const std::string_view option = words_[i];
            std::size_t values = 1;
            if (option == "words")
                values = 3;
            else if (option != "byte0" && option != "entrylen")
                return usage(kUsage);
            if (i + values >= words_.size())
                return usage(kUsage);
            if (option == "byte0" && !byte(i + 1, c.byte0))
                return false;
            if (option == "words") {
                for (std::size_t w = 0; w < c.words.size(); ++w) {
                    if (!u16(i + 1 + w, c.words[w]))
                        return false;
                }
            }
            if (option == "entrylen") {
                std::uint8_t length = 0;
                if (!byte(i + 1, length))
                    return false;
                c.entryLength = length;
            }
            i += 1 + values;
        }
        PowerSupplyTables &t = sc_.instances[n].psu;
        std::size_t index = 0;
        if (!tableIndex(t.configs, started_.configs[n], "redundancy", index))
            return false;
        t.configs.push_back(std::move(c));
        return true;
    }

    bool redundancyShape(std::string_view word, RedundancyConfig &c) {
        const std::size_t plus = word.find('+');
        std::uint64_t n = 0;
        std::uint64_t m = 0;
        const bool good = plus != std::string_view::npos &&
                          numberIn(word.substr(0, plus), 0xFF, n) &&
                          numberIn(word.substr(plus + 1), 0xFF, m);
        if (!good) // replaces the number's message: the whole word is what is wrong
            return fail(format("bad N+M '%.*s' (e.g. 2+1, each 0-255)",
                               static_cast<int>(word.size()), word.data()));
        c.n = static_cast<std::uint8_t>(n);
        c.m = static_cast<std::uint8_t>(m);
        return true;
    }

    bool typeList(std::string_view word, std::vector<std::uint8_t> &out) {
        if (word == "none")
            return true;
        for (;;) {
            const std::size_t comma = word.find(',');
            std::uint64_t index = 0;
            if (!numberIn(word.substr(0, comma), 0xFF, index))
                return false;
            if (out.size() == kMaxTypeListLen)
                return fail(format("type list longer than %zu entries", kMaxTypeListLen));
            out.push_back(static_cast<std::uint8_t>(index));
            if (comma == std::string_view::npos)
                return true;
            word.remove_prefix(comma + 1);
        }
    }

    const std::vector<std::string_view> &words_;
    Scenario &sc_;
    ListsStarted &started_;
    std::string &error_;
};

} // namespace

Scenario::Scenario() {
    instances[0].defined = true;
    instances[0].handle = kServerHandle;
    instances[0].descriptor1 = 0x01;
    instances[0].descriptor2 = 0x02;

    instances[0].psu = builtInPowerSupplies();

    // The expansion unit is a larger chassis with its own supplies.
    InstanceSetup &exp = instances[1];
    exp.defined = true;
    exp.handle = kExpansionHandle;
    exp.descriptor1 = 0x01;
    exp.descriptor2 = 0x03;
    exp.registers[*findRegister(7, 9)] = 1600;
    exp.registers[*findRegister(13, 1)] = 0x0000050014000000; // 20 W
    exp.psu = instances[0].psu;
}

bool parseScenario(std::string_view text, std::string_view name, Scenario &scenario,
                   std::string &error) {
    Scenario work = scenario;
    ListsStarted started;
    unsigned lineNo = 0;
    while (!text.empty()) {
        ++lineNo;
        const std::size_t nl = text.find('\n');
        const std::string_view line = text.substr(0, nl);
        text = nl == std::string_view::npos ? std::string_view{} : text.substr(nl + 1);
        const auto words = splitWords(line);
        if (words.empty())
            continue;
        std::string what;
        if (!LineParser(words, work, started, what).apply()) {
            error = format("%.*s:%u: ", static_cast<int>(name.size()), name.data(), lineNo) + what;
            return false;
        }
    }
    scenario = std::move(work);
    return true;
}

bool loadScenarioFile(const std::string &path, Scenario &scenario, std::string &error) {
    std::FILE *f = std::fopen(path.c_str(), "r");
    if (f == nullptr) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    std::string text;
    char buf[4096];
    std::size_t got = 0;
    while ((got = std::fread(buf, 1, sizeof buf, f)) > 0)
        text.append(buf, got);
    const bool readError = std::ferror(f) != 0;
    std::fclose(f);
    if (readError) {
        error = path + ": read error";
        return false;
    }
    return parseScenario(text, path, scenario, error);
}

} // namespace zelo::sim
