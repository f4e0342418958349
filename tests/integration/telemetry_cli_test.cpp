// zeloctl's telemetry commands on files laid out as the daemon leaves them,
// and the chart drawn by a real SVG renderer.
#include "sim_process.h"
#include "telemetry_files.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <unistd.h>

namespace zelo::test {
namespace {

using namespace files;
using Json = nlohmann::json;
constexpr uint16_t U = ZELO_POWER_HISTORY_UNKNOWN;
constexpr uint32_t kEnd = 1'700'000'100; // the newest sample; a multiple of 150

// Runs zeloctl with the arguments of line, apart by spaces.
RunResult zeloctl(const std::string &line) {
    std::istringstream in(line);
    return runProgram(ZELO_ZELOCTL_PATH, {std::istream_iterator<std::string>(in), {}});
}

// Parses one JSON object per line, as scripts read it; a parse error fails.
Json parsed(const RunResult &r) {
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1) << "one line: " << r.out;
    return Json::parse(r.out);
}

class TelemetryCliTest : public ::testing::Test {
  protected:
    // Four hours of samples ending at kEnd, slots 40-49 unknown, the interval
    // of item 60 never written: AC 380/400/420, DC 290/300/310, CPU 50 %,
    // memory 30 %, I/O 10 %.
    void writeHistories() {
        std::map<uint16_t, PowerHistorySample> power, perf;
        for (uint16_t i = 0; i < 96; ++i) {
            if (i == 60)
                continue;
            const auto t = static_cast<uint32_t>(kEnd - (95 - i) * 150);
            const bool unknown = i >= 40 && i < 50;
            power[i] = unknown ? PowerHistorySample{t, U, U, U, U, U, U}
                               : PowerHistorySample{t, 380, 400, 420, 290, 300, 310};
            perf[i] = unknown ? PowerHistorySample{t, 0, 0, 0, 0, 0, 0}
                              : PowerHistorySample{t, 20, 40, 60, 50, 30, 10};
        }
        writeFile(root.path() + "/pstorage/power/PowerHistoryFull", ringFile(96, power));
        writeFile(root.path() + "/pstorage/power/PowerPerformanceFull", ringFile(96, perf));
    }
    TempRoot root;
};

TEST_F(TelemetryCliTest, NothingRecordedYet) {
    for (const char *args : {"power", "history", "history --performance", "metrics", "chart"}) {
        const auto r = zeloctl(args);
        EXPECT_EQ(r.status, 1) << args;
        EXPECT_NE(r.err.find("' does not exist (has the zelo daemon run?)"), std::string::npos)
            << r.err;
        EXPECT_EQ(r.out, "");
    }
}

// Each cause of a failed read gets its own message, naming the path read.
TEST_F(TelemetryCliTest, EachFailureNamesItsCauseAndPath) {
    const std::string history = root.path() + "/pstorage/power/PowerHistoryFull";
    const std::string log = root.path() + "/tmp/zelo_log";
    const struct {
        std::function<void()> arrange;
        const char *command;
        std::string error;
    } causes[] = {
        {[] {}, "history",
         "no power history yet: '" + history + "' does not exist (has the zelo daemon run?)"},
        {[&] { std::filesystem::create_directories(log); }, "metrics",
         "no metric records yet: '" + log + "' is empty"},
        {[&] { writeFile(log + "/zelo_num.log", {0}); }, "power",
         "no power figures yet: '" + log + "' is empty"},
        {[&] { writeFile(history, ringFile(0, {})); }, "chart",
         "no power history yet: '" + history + "' holds no samples"},
        {[&] { writeFile(history, Bytes(100)); }, "history",
         "the power history cannot be used: '" + history +
             "' is damaged or not zelo's, result code 212"},
        {[&] {
             std::filesystem::remove(history);
             std::filesystem::create_directory(history);
         },
         "power --window 2h",
         "cannot read the power figures: '" + history + "' is not a regular file"},
        {[&] { ::setenv("ZELO_ROOT", (root.path() + "/typo").c_str(), 1); }, "power --window 2h",
         "cannot read the power figures: ZELO_ROOT names '" + root.path() +
             "/typo', which does not exist ('" + root.path() +
             "/typo/pstorage/power/PowerHistoryFull' and '" + root.path() +
             "/typo/tmp/zelo_log' looked for)"},
    };
    for (const auto &c : causes) {
        c.arrange();
        const auto r = zeloctl(c.command);
        EXPECT_EQ(r.status, 1) << c.command;
        EXPECT_EQ(r.err, "zeloctl: " + c.error + "\n");
    }
    EXPECT_FALSE(std::filesystem::exists(root.path() + "/typo"));
}

// A reader outside the daemon's group: a file it may not read, a directory it
// may not enter; --verbose adds who asked and what the path holds.
TEST_F(TelemetryCliTest, PermissionDeniedIsNamedForAnotherUser) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "running zeloctl as another user needs root";
    writeHistories();
    writeLog(root.path(), {recordFile({(kEnd + 30) * 1000ull, 410, 305})}, 0);
    const std::string history = root.path() + "/pstorage/power/PowerHistoryFull";
    const std::string log = root.path() + "/tmp/zelo_log";
    namespace fs = std::filesystem;
    for (const std::string dir : {"", "/tmp", "/pstorage", "/pstorage/power"})
        fs::permissions(root.path() + dir, fs::perms::owner_all | fs::perms::group_read |
                                               fs::perms::group_exec | fs::perms::others_read |
                                               fs::perms::others_exec);
    fs::permissions(history, fs::perms::owner_read | fs::perms::owner_write);
    fs::permissions(log, fs::perms::group_all); // as the daemon makes it

    const auto denied = runProgramAsNobody(ZELO_ZELOCTL_PATH, {"history"});
    EXPECT_EQ(denied.status, 1);
    EXPECT_EQ(denied.err,
              "zeloctl: cannot read the power history: '" + history + "': permission denied\n");
    const auto dir = runProgramAsNobody(ZELO_ZELOCTL_PATH, {"metrics"});
    EXPECT_EQ(dir.status, 1);
    EXPECT_EQ(dir.err, "zeloctl: cannot read the metric records: directory '" + log +
                           "' cannot be read: permission denied\n");
    const auto verbose = runProgramAsNobody(ZELO_ZELOCTL_PATH, {"--verbose", "history"});
    EXPECT_NE(verbose.err.find("details: result code 255; root '" + root.path() + "' (ZELO_ROOT)"),
              std::string::npos)
        << verbose.err;
    EXPECT_NE(verbose.err.find("'" + history + "': regular file, 9218 bytes, mode 0600, owner 0:0"),
              std::string::npos)
        << verbose.err;

    // A FIFO at the lock, which this reader may not remove, is no lock to wait for.
    fs::permissions(log, fs::perms::owner_all | fs::perms::group_all | fs::perms::others_read |
                             fs::perms::others_exec);
    ASSERT_EQ(::mkfifo((log + "/zelo.lock").c_str(), 0644), 0);
    for (const char *command : {"metrics", "power"}) {
        const auto fifo = runProgramAsNobody(ZELO_ZELOCTL_PATH, {command});
        EXPECT_EQ(fifo.status, 1);
        EXPECT_NE(fifo.err.find("'" + log + "/zelo.lock' is not a regular file\n"),
                  std::string::npos)
            << fifo.err;
    }
}

// A log or history directory someone else made (here nobody's) may hold
// forged figures: every reader refuses it, naming it, and shows nothing.
TEST_F(TelemetryCliTest, ForeignDirectoriesAreNotRead) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "a directory of another user needs root";
    writeHistories();
    writeLog(root.path(), {recordFile({(kEnd + 30) * 1000ull, 9999, 9999})}, 0);
    const std::string log = root.path() + "/tmp/zelo_log";
    const std::string power = root.path() + "/pstorage/power";
    for (const std::string &dir : {log, power}) {
        ASSERT_EQ(::chown(dir.c_str(), 65534, 65534), 0);
        ASSERT_EQ(::chmod(dir.c_str(), 0770), 0);
    }
    const std::string refused = "' is not used: it must be no link, root's or yours, and not "
                                "writable by others\n";
    for (const char *command : {"--json power", "metrics", "power --window 24h", "history"}) {
        const auto r = zeloctl(command);
        EXPECT_EQ(r.status, 1) << command;
        EXPECT_EQ(r.out.find("9999"), std::string::npos) << command;
        const std::string &dir = std::string(command) == "history" ? power : log;
        EXPECT_NE(r.err.find("directory '" + dir + refused), std::string::npos) << r.err;
    }
    const auto read = runProgram(ZELO_DAEMON_PATH, {"-r", log + "/zelo_0.log"});
    EXPECT_EQ(read.status, 1);
    EXPECT_EQ(read.out.find("9999"), std::string::npos);
}

// Reading takes the metric log lock and lets it go: the root is left as it was.
TEST_F(TelemetryCliTest, ReadingLeavesTheRootAsItWas) {
    writeHistories();
    writeLog(root.path(), {recordFile({(kEnd + 30) * 1000ull, 410, 305})}, 0);
    const auto before = treeOf(root.path());
    for (const char *command : {"power", "power --window 24h", "history", "metrics", "chart"})
        EXPECT_EQ(zeloctl(command).status, 0) << command;
    EXPECT_EQ(treeOf(root.path()), before);
}

TEST_F(TelemetryCliTest, HistoryItemsAreDatedAndUnknownIsExplicitInEveryFormat) {
    writeHistories();
    const Json history = parsed(zeloctl("--json history --hours 4"));
    ASSERT_EQ(history["Items"].size(), 96u);
    EXPECT_EQ(history["Items"][95]["Date"], "2023-11-14T22:15:00Z");
    EXPECT_EQ(history["Items"][95]["AvgACWatts"], 400);
    EXPECT_TRUE(history["Items"][40]["AvgDCWatts"].is_null());
    // The interval never written is listed, unknown, as power counts it.
    EXPECT_EQ(history["Items"][60]["Date"], "2023-11-14T20:47:30Z");
    EXPECT_TRUE(history["Items"][60]["AvgDCWatts"].is_null());
    EXPECT_EQ(parsed(zeloctl("--json history --hours 1"))["Items"].size(), 24u);
    const Json perf = parsed(zeloctl("history --performance --json"));
    EXPECT_EQ(perf["Items"][0]["CPUPercent"], 50);
    EXPECT_TRUE(perf["Items"][45]["CPUPercent"].is_null());
    EXPECT_TRUE(perf["Items"][60]["CPUPercent"].is_null());

    std::istringstream lines(zeloctl("history --csv --hours 4").out);
    std::vector<std::string> rows;
    for (std::string line; std::getline(lines, line);)
        rows.push_back(line);
    ASSERT_EQ(rows.size(), 97u);
    EXPECT_EQ(rows[41].substr(rows[41].find(',')), ",,,,,,");
    EXPECT_EQ(rows[96], "2023-11-14T22:15:00Z,380,400,420,290,300,310");
    EXPECT_NE(zeloctl("history --hours 4").out.find("unknown"), std::string::npos);
}

TEST_F(TelemetryCliTest, PowerAndMetricsParseWhateverTheFilesHold) {
    writeHistories();
    // Readings as a foreign sensor may name them: quotes, backslashes,
    // control bytes and bytes that are not UTF-8.
    const std::string hostile = "\"24\\\" C\x01\x1b[31m\xff\xfe";
    // The first record after a firmware restart has no figure: all zeros.
    std::vector<Bytes> records = {recordFile({(kEnd + 30) * 1000ull, 0, 0})};
    for (uint64_t i = 1; i < 4; ++i)
        records.push_back(recordFile({(kEnd + 30 * (i + 1)) * 1000ull, 410, 305}, i == 3, hostile));
    writeLog(root.path(), records, 3);

    const Json metrics = parsed(zeloctl("--json metrics --last 2"));
    ASSERT_EQ(metrics["Records"].size(), 2u);
    const Json &newest = metrics["Records"][1];
    EXPECT_EQ(newest["SystemDC"]["Avg"], 305);
    EXPECT_EQ(newest["PowerSupplyAC"][1]["Min"], 191);
    EXPECT_TRUE(newest["CPUPower"].is_null());
    EXPECT_EQ(newest["Performance"]["IO"]["Avg"], 70);
    EXPECT_TRUE(metrics["Records"][0]["Performance"].is_null());
    EXPECT_EQ(newest["InletReadings"][0]["Temperature"].get<std::string>().substr(0, 7),
              "\"24\\\" C");
    EXPECT_EQ(zeloctl("metrics").out.find('\x1b'), std::string::npos) << "no raw control bytes";
    const Json placeholder = parsed(zeloctl("--json metrics"))["Records"][0];
    EXPECT_TRUE(placeholder["SystemAC"]["Avg"].is_null());
    EXPECT_TRUE(placeholder["SystemDC"]["Max"].is_null());
    EXPECT_EQ(placeholder["PowerSupplyAC"][0]["Avg"], 200) << "read, not differenced";
    EXPECT_NE(zeloctl("metrics").out.find("SystemAC           unknown\n"), std::string::npos);
    // The daemon's printout of a file escapes them the same way.
    const auto read =
        runProgram(ZELO_DAEMON_PATH, {"-r", root.path() + "/tmp/zelo_log/zelo_1.log"});
    EXPECT_EQ(read.status, 0);
    EXPECT_NE(read.out.find("Temperature:\"24\\\" C\\x01\\x1B[31m"), std::string::npos) << read.out;
    EXPECT_EQ(read.out.find('\x1b'), std::string::npos);

    // A day: the history, then the records newer than it. Unknown: ten
    // samples, the interval never written, the record without a figure.
    const Json day = parsed(zeloctl("--json power --window 24h"));
    EXPECT_EQ(day["PowerConsumedWatts"], 410);
    EXPECT_EQ(day["MinConsumedWatts"], 380);
    EXPECT_EQ(day["MaxConsumedWatts"], 420);
    EXPECT_EQ(day["Intervals"], 85 + 3);
    EXPECT_EQ(day["UnknownIntervals"], 10 + 1 + 1);
    EXPECT_EQ(day["End"], "2023-11-14T22:17:00Z");
    EXPECT_EQ(day["IntervalInMin"], (96 * 150 + 120 + 30) / 60);
    EXPECT_EQ(day["DC"]["AverageConsumedWatts"], 300);
    const double acWh = (400.0 * 85 * 150 + 410.0 * 90) / 3600;
    const double dcWh = (300.0 * 85 * 150 + 305.0 * 90) / 3600;
    EXPECT_NEAR(day["EnergykWh"].get<double>(), acWh / 1000, 0.001);
    EXPECT_NEAR(day["DC"]["EnergykWh"].get<double>(), dcWh / 1000, 0.001);

    // Every form the help names; a window under a minute is told in seconds.
    for (const char *window : {"30s", "90m", "2h", "3600s", "3600", "24h", "86400"})
        EXPECT_EQ(zeloctl(std::string("power --window ") + window).status, 0) << window;
    EXPECT_NE(zeloctl("power --window 30s").out.find("2023-11-14T22:17:00Z (30 s)\n"),
              std::string::npos);
    EXPECT_NE(zeloctl("power --window 2m").out.find("2023-11-14T22:17:00Z (2 min)\n"),
              std::string::npos);
}

// The title and the time axis name the same zone, TZ's, and both of its
// names when summer time begins within the window.
TEST_F(TelemetryCliTest, TheChartsTitleAndTimeAxisNameOneZone) {
    writeHistories();
    const struct {
        const char *tz;
        const char *title; // from kEnd - 4 h to kEnd, 2023-11-14 22:15 UTC
        const char *axis;
    } zones[] = {
        {"UTC0", "2023-11-14 18:15 to 2023-11-14 22:15 UTC", "time (UTC)"},
        {"CET-1CEST,M3.5.0,M10.5.0/3", "2023-11-14 19:15 to 2023-11-14 23:15 CET", "time (CET)"},
        // Summer time from 19:00 on the second Tuesday of November, 2023-11-14.
        {"XST0XDT,M11.2.2/19,M12.1.0", "2023-11-14 18:15 XST to 2023-11-14 23:15 XDT",
         "time (XST, then XDT)"},
    };
    for (const auto &z : zones) {
        ::setenv("TZ", z.tz, 1);
        const auto r = zeloctl("chart --hours 4");
        ::unsetenv("TZ");
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_NE(r.out.find(std::string("utilisation, ") + z.title + "</text>"), std::string::npos)
            << z.tz;
        EXPECT_NE(r.out.find(std::string(">") + z.axis + "</text>"), std::string::npos) << z.tz;
    }
}

// Decoded picture: rsvg-convert draws the SVG, pngtopnm makes it raw RGB.
struct Picture {
    int width = 0, height = 0;
    std::vector<uint8_t> rgb;
    const uint8_t *at(int x, int y) const { return &rgb[3 * (y * width + x)]; }
};

Picture render(const std::string &svg, const std::string &dir) {
    const std::string ppm = dir + "/chart.ppm";
    Picture p;
    if (std::system(("rsvg-convert " + svg + " | pngtopnm > " + ppm).c_str()) != 0)
        return p;
    std::ifstream in(ppm, std::ios::binary);
    std::string magic;
    int max = 0;
    in >> magic >> p.width >> p.height >> max;
    in.get();
    p.rgb.resize(static_cast<std::size_t>(3 * p.width * p.height));
    in.read(reinterpret_cast<char *>(p.rgb.data()), static_cast<std::streamsize>(p.rgb.size()));
    return p;
}

// Whether a pixel near (x, y), within dy rows, matches the colour.
bool near(const Picture &p, int x, int y, int dy, bool (*matches)(const uint8_t *)) {
    for (int row = y - dy; row <= y + dy; ++row)
        if (matches(p.at(x, row)))
            return true;
    return false;
}

TEST_F(TelemetryCliTest, TheChartDrawsLinesWhereTheDataIsAndShadesTheUnknown) {
    writeHistories();
    const std::string svg = root.path() + "/chart.svg";
    const auto r = zeloctl("chart --hours 4 --out " + svg);
    ASSERT_EQ(r.status, 0) << r.err;
    const Picture p = render(svg, root.path());
    ASSERT_EQ(p.width, 1200) << "rsvg-convert and pngtopnm must be installed";
    ASSERT_EQ(p.height, 600);
    // Plot area x 80-1120 over kEnd - 4 h .. kEnd; power 0-500 W over y 330-60,
    // utilisation 0-100 % over y 530-380.
    const auto x = [](double secondsBeforeEnd) {
        return static_cast<int>(80 + (14400 - secondsBeforeEnd) / 14400 * 1040);
    };
    const auto red = [](const uint8_t *c) { return c[0] > 150 && c[1] < 110 && c[2] < 110; };
    const auto blue = [](const uint8_t *c) { return c[2] > 130 && c[0] < 90; };
    const auto orange = [](const uint8_t *c) { return c[0] > 200 && c[1] > 90 && c[2] < 90; };
    const auto grey = [](const uint8_t *c) {
        return c[0] == c[1] && c[1] == c[2] && c[0] > 200 && c[0] < 230;
    };
    const int known = x(3600), unknown = x(55 * 150 - 700); // inside slots 40-49
    const int unwritten = x(35 * 150 + 75);                 // the middle of item 60
    EXPECT_TRUE(near(p, known, 114, 3, red)) << "AC at 400 W";
    EXPECT_TRUE(near(p, known, 168, 3, blue)) << "DC at 300 W";
    EXPECT_TRUE(near(p, known, 455, 3, orange)) << "CPU at 50 %";
    EXPECT_TRUE(grey(p.at(unknown, 200))) << "power panel shaded where no reading came";
    EXPECT_TRUE(grey(p.at(unknown, 500))) << "utilisation panel shaded too";
    EXPECT_FALSE(near(p, unknown, 114, 3, red)) << "no line across the gap";
    EXPECT_TRUE(grey(p.at(unwritten, 200))) << "an interval never written is no reading either";
    EXPECT_FALSE(near(p, unwritten, 114, 3, red));
    EXPECT_FALSE(grey(p.at(known, 200))) << "no shade where readings came";
}

} // namespace
} // namespace zelo::test
