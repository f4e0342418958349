// The trace log's line format and its two files taking turns.
#include "fake_platform.h"

#include "tracelog/state.h"

#include <zelo/tracelog.h>

#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace zelo::test {
namespace {

class TraceLogTest : public PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        trace::u32TraceLogIndex = 0;
        trace::s32PowerHistoryLogLevel = 0;
        dir = root + "/tmp/zelo_trace/";
        std::filesystem::create_directories(dir);
    }
    std::string file(int index) const {
        return dir + "zelo_trace_log_" + std::to_string(index) + ".txt";
    }
    std::string contents(int index) const {
        std::ifstream in(file(index));
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    void fill(int index, std::size_t bytes) const {
        std::ofstream(file(index)) << std::string(bytes, 'x');
    }
    std::string dir;
};

// The local time stamp of t, as the trace writes it.
std::string stamp(std::time_t t) {
    struct tm local {};
    localtime_r(&t, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &local);
    return text;
}

TEST_F(TraceLogTest, FirstLineCreatesFileZeroInTheLineFormat) {
    ::setenv("TZ", "UTC", 1);
    const std::time_t before = std::time(nullptr);
    EXPECT_EQ(WriteToLog("main", "INFO", "started"), 0);
    const std::time_t after = std::time(nullptr);
    const auto text = contents(0);
    EXPECT_TRUE(text == stamp(before) + " [INFO] \"main\": started\n" ||
                text == stamp(after) + " [INFO] \"main\": started\n")
        << text;
    EXPECT_FALSE(std::filesystem::exists(file(1)));
    ::unsetenv("TZ");
}

TEST_F(TraceLogTest, MissingNameOrMessageWritesEmptyMsg) {
    WriteToLog("main", "ERROR", nullptr);
    WriteToLog(nullptr, "WARN", "lost");
    EXPECT_TRUE(std::regex_match(
        contents(0),
        std::regex("[0-9-]{15} \\[ERROR\\] Empty msg\n[0-9-]{15} \\[WARN\\] Empty msg\n")))
        << contents(0);
}

TEST_F(TraceLogTest, RotatesOnlyAboveTheLimitAndTruncatesTheOtherFile) {
    fill(0, 524288);
    fill(1, 100);
    WriteToLog("f", "Log", "still file 0");
    EXPECT_EQ(trace::u32TraceLogIndex, 0u);
    EXPECT_GT(contents(0).size(), 524288u);

    WriteToLog("f", "Log", "now file 1");
    EXPECT_EQ(trace::u32TraceLogIndex, 1u);
    EXPECT_NE(contents(1).find("\"f\": now file 1\n"), std::string::npos);
    EXPECT_EQ(contents(1).find('x'), std::string::npos) << "file 1 was truncated first";

    // The size is counted as lines go in: one long line takes file 1 past it.
    WriteToLog("f", "Log", std::string(524288, 'y').c_str());
    WriteToLog("f", "Log", "back to 0");
    EXPECT_EQ(trace::u32TraceLogIndex, 0u);
    EXPECT_EQ(contents(0).find('x'), std::string::npos);
    EXPECT_NE(contents(0).find("back to 0"), std::string::npos);
}

TEST_F(TraceLogTest, MessagesAreWrittenUnchanged) {
    WriteToLog("f", "DBG", "two\nlines\n");
    EXPECT_NE(contents(0).find("\"f\": two\nlines\n\n"), std::string::npos);
}

TEST_F(TraceLogTest, HistoryLinesAreFilteredByVerbosity) {
    WriteToPowerHistoryLog(1, "f", "Log", "detail");
    EXPECT_FALSE(std::filesystem::exists(file(0)));
    WriteToPowerHistoryLog(0, "f", "Log", "always");
    trace::s32PowerHistoryLogLevel = -1;
    WriteToPowerHistoryLog(0, "f", "Log", "quiet");
    trace::s32PowerHistoryLogLevel = 2;
    WriteToPowerHistoryLog(2, "f", "Log", "verbose");
    const auto text = contents(0);
    EXPECT_NE(text.find("always"), std::string::npos);
    EXPECT_EQ(text.find("quiet"), std::string::npos);
    EXPECT_NE(text.find("verbose"), std::string::npos);
}

TEST_F(TraceLogTest, WithoutTheDirectoryNothingIsWritten) {
    std::filesystem::remove_all(dir);
    EXPECT_EQ(WriteToLog("f", "Log", "lost"), 0);
    EXPECT_EQ(GetCurrentLogSize(), 0u);
    EXPECT_EQ(OpenCurrentLog(0), nullptr);
}

// Escapes whole or not at all when room runs out; the result's length comes
// back whatever the room.
TEST_F(TraceLogTest, ControlBytesAreEscapedWholeWithinTheRoomGiven) {
    const std::string text("a\x1b[1\x7f\xff\0z", 8);
    const struct {
        uint32_t capacity;
        const char *written;
    } cases[] = {{0, ""},  {1, ""},       {2, "a"},
                 {5, "a"}, {6, "a\\x1B"}, {32, "a\\x1B[1\\x7F\xff\\x00z"}};
    for (const auto &c : cases) {
        char out[32];
        std::memset(out, '#', sizeof out);
        EXPECT_EQ(EscapeControlBytes(text.data(), 8, out, c.capacity), 17u) << c.capacity;
        if (c.capacity == 0)
            EXPECT_EQ(out[0], '#') << "no room, nothing written";
        else
            EXPECT_STREQ(out, c.written) << c.capacity;
    }
}

} // namespace
} // namespace zelo::test
