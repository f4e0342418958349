// Scenario lines that set up the firmware: instances, registers, faults,
// sensors, power supplies and redundancy, and the runtime-only lines.
#include "ipmi_wire.h"
#include "scenario_lines.h"

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <iterator>
#include <utility>

namespace zelo::sim::lines {

bool LineParser::present() {
    return yesNo("present yes|no", sc_.present);
}

bool LineParser::bridge() {
    return yesNo("bridge yes|no", sc_.bridge);
}

bool LineParser::restartNow() {
    if (!runtimeOnly())
        return false;
    if (words_.size() != 1)
        return usage("restart-now");
    action_->kind = ControlAction::Kind::RestartNow;
    return true;
}

bool LineParser::snapshotNow() {
    if (!runtimeOnly())
        return false;
    if (words_.size() != 1)
        return usage("snapshot-now");
    action_->kind = ControlAction::Kind::SnapshotNow;
    return true;
}

bool LineParser::tag() {
    if (!runtimeOnly())
        return false;
    if (words_.size() != 2)
        return usage("tag <n>");
    if (!u16(1, action_->tag))
        return false;
    action_->kind = ControlAction::Kind::Tag;
    return true;
}

bool LineParser::instance() {
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
            return fail(format("handle %u already used by instance %u", unsigned{handle}, other));
    }
    if (withDescriptors && (!byte(5, inst.descriptor1) || !byte(6, inst.descriptor2)))
        return false;
    inst.defined = true;
    inst.handle = handle;
    return true;
}

bool LineParser::reg() {
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
                           static_cast<int>(words_[4].size()), words_[4].data(), unsigned{element},
                           unsigned{id}, unsigned{def.width}));
    sc_.instances[n].registers[*row] = value;
    return true;
}

bool LineParser::fault() {
    if (words_.size() >= 2 && words_[1] == "xpm")
        return xpmFault();
    if (words_.size() >= 2 && words_[1] == "sensors")
        return sensorFault();
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
    if (!completionCode(ccIndex, f.cc))
        return false;
    sc_.faults.push_back(f);
    return true;
}

bool LineParser::xpmFault() {
    const bool counted = words_.size() == 5 && words_[3] == "count";
    if (words_.size() != 3 && !counted)
        return usage("fault xpm <cc> [count <k>]");
    XpmFault f;
    if (!completionCode(2, f.cc))
        return false;
    if (counted) {
        std::uint64_t k = 0;
        if (!number(4, UINT32_MAX, k, 1))
            return false;
        f.remaining = static_cast<std::uint32_t>(k);
    }
    sc_.xpmFault = f;
    return true;
}

bool LineParser::sensorFault() {
    if (words_.size() != 3)
        return usage("fault sensors <cc>");
    std::uint8_t cc = 0;
    if (!completionCode(2, cc))
        return false;
    sc_.sensorFault = cc;
    return true;
}

// The texts come from the line itself rather than its words, so a quoted
// name or a reading keeps its inner blanks as written.
bool LineParser::sensor() {
    static constexpr const char *kUsage = "sensor <name> <status> <reading>";
    if (words_.size() < 2)
        return usage(kUsage);
    const std::string_view last = words_.back();
    std::string_view rest(words_[1].data(),
                          static_cast<std::size_t>(last.data() + last.size() - words_[1].data()));
    std::string_view name;
    if (rest.front() == '"') {
        const std::size_t close = rest.find('"', 1);
        if (close == std::string_view::npos)
            return fail("sensor name misses its closing quote");
        name = rest.substr(1, close - 1);
        rest.remove_prefix(close + 1);
        if (!rest.empty() && std::string_view(kBlanks).find(rest.front()) == std::string_view::npos)
            return fail("blank expected after the sensor name's closing quote");
    } else {
        const std::size_t end = std::min(rest.find_first_of(kBlanks), rest.size());
        name = rest.substr(0, end);
        rest.remove_prefix(end);
    }
    rest = skipBlanks(rest);
    const std::size_t statusEnd = rest.find_first_of(kBlanks);
    if (statusEnd == std::string_view::npos)
        return usage(kUsage);
    std::uint64_t status = 0;
    if (!numberIn(rest.substr(0, statusEnd), 0xFF, status))
        return false;
    std::string_view reading = skipBlanks(rest.substr(statusEnd));
    if (reading.front() == '"') {
        if (reading.size() < 2 || reading.back() != '"')
            return fail("sensor reading misses its closing quote");
        reading = reading.substr(1, reading.size() - 2);
    }
    if (name.size() > wire::kSensorNameMax)
        return fail(format("sensor name longer than %zu characters", wire::kSensorNameMax));
    if (reading.size() > wire::kSensorReadingMax)
        return fail(format("sensor reading longer than %zu characters", wire::kSensorReadingMax));
    if (sc_.sensors.size() == kMaxSensors)
        return fail(format("more than %zu sensors", kMaxSensors));
    sc_.sensors.push_back(
        {std::string(name), static_cast<std::uint8_t>(status), std::string(reading)});
    return true;
}

bool LineParser::shortAnswer() {
    ShortAnswer a;
    std::size_t bytesIndex = 3;
    if (words_.size() == 3 && words_[1] == "xpm") {
        a.xpm = true;
        bytesIndex = 2;
    } else if (words_.size() != 4) {
        return usage("short-answer <element> <method> <bytes> | short-answer xpm <bytes>");
    } else if (!byte(1, a.element) || !byte(2, a.method)) {
        return false;
    }
    if (!u16(bytesIndex, a.bytes))
        return false;
    sc_.shortAnswers.push_back(a);
    return true;
}

bool LineParser::overlongRead() {
    if (words_.size() != 1)
        return usage("overlong-read");
    sc_.snapshots.overlongRead = true;
    return true;
}

bool LineParser::psuFactors() {
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

bool LineParser::psuType() {
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

bool LineParser::redundancy() {
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

bool LineParser::redundancyShape(std::string_view word, RedundancyConfig &c) {
    const std::size_t plus = word.find('+');
    std::uint64_t n = 0;
    std::uint64_t m = 0;
    const bool good = plus != std::string_view::npos && numberIn(word.substr(0, plus), 0xFF, n) &&
                      numberIn(word.substr(plus + 1), 0xFF, m);
    if (!good) // replaces the number's message: the whole word is what is wrong
        return fail(format("bad N+M '%.*s' (e.g. 2+1, each 0-255)", static_cast<int>(word.size()),
                           word.data()));
    c.n = static_cast<std::uint8_t>(n);
    c.m = static_cast<std::uint8_t>(m);
    return true;
}

bool LineParser::typeList(std::string_view word, std::vector<std::uint8_t> &out) {
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

} // namespace zelo::sim::lines
