// The trace log's line format and its two files taking turns.
#include "fake_platform.h"

#include "report.h"
#include "tracelog/state.h"

#include <zelo/tracelog.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zelo::test {
namespace {

class TraceLogTest : public PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        dir = root + "/tmp/zelo_trace/";
        std::filesystem::create_directories(dir);
    }
    std::string file(int index) const {
        return dir + "zelo_trace_log_" + std::to_string(index) + ".txt";
    }
    std::string contents(int index) const {
        const Bytes b = fileBytes(file(index));
        return std::string(b.begin(), b.end());
    }
    std::string dir;
};

TEST_F(TraceLogTest, LinesAreStampedLevelledAndWrittenUnchanged) {
    WriteToLog("main", "INFO", "two\nlines");
    WriteToLog("main", "ERROR", nullptr);
    WriteToLog(nullptr, "WARN", "lost");
    // Verbosity filters the history's lines only.
    WriteToPowerHistoryLog(1, "f", "Log", "detail");
    trace::s32PowerHistoryLogLevel = -1;
    WriteToPowerHistoryLog(0, "f", "Log", "quiet");
    trace::s32PowerHistoryLogLevel = 2;
    WriteToPowerHistoryLog(2, "f", "Log", "verbose");
    const std::string stamp = "20[0-9]{6}-[0-9]{6} ";
    EXPECT_TRUE(std::regex_match(
        contents(0),
        std::regex(stamp + "\\[INFO\\] \"main\": two\nlines\n" + stamp + "\\[ERROR\\] Empty msg\n" +
                   stamp + "\\[WARN\\] Empty msg\n" + stamp + "\\[Log\\] \"f\": verbose\n")))
        << contents(0);
    EXPECT_FALSE(std::filesystem::exists(file(1)));

    std::filesystem::remove_all(dir);
    EXPECT_EQ(WriteToLog("f", "Log", "no directory"), 0);

    // Nothing goes through a FIFO at the file's name, nor into a directory
    // anyone may write in; the directory of a daemon's own user, who need
    // not be root, is used.
    std::filesystem::create_directories(dir);
    ASSERT_EQ(::mkfifo(file(0).c_str(), 0600), 0);
    const int fifo = ::open(file(0).c_str(), O_RDONLY | O_NONBLOCK);
    WriteToLog("f", "Log", "into a FIFO");
    char byte = 0;
    EXPECT_EQ(::read(fifo, &byte, 1), 0) << "nothing written into it";
    ::close(fifo);
    std::filesystem::remove(file(0));
    std::filesystem::permissions(dir, std::filesystem::perms::all);
    WriteToLog("f", "Log", "in a shared directory");
    EXPECT_FALSE(std::filesystem::exists(file(0)));
    if (::geteuid() == 0) {
        ASSERT_EQ(::chmod(root.c_str(), 0755), 0);
        ASSERT_EQ(::chmod(dir.c_str(), 0755), 0);
        ASSERT_EQ(::chown(dir.c_str(), 65534, 65534), 0);
        const pid_t child = ::fork();
        if (child == 0)
            ::_exit(::setegid(65534) == 0 && ::seteuid(65534) == 0 &&
                            WriteToLog("f", "Log", "as its owner") == 0 &&
                            std::filesystem::exists(file(0))
                        ? 0
                        : 1);
        int status = -1;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << "written by the directory's owner";
    }
}

TEST_F(TraceLogTest, RotatesOnlyAboveTheLimitAndTruncatesTheOtherFile) {
    std::ofstream(file(0)) << std::string(524288, 'x');
    std::ofstream(file(1)) << "old";
    WriteToLog("f", "Log", "still file 0");
    EXPECT_EQ(trace::u32TraceLogIndex, 0u);

    WriteToLog("f", "Log", "now file 1");
    EXPECT_EQ(trace::u32TraceLogIndex, 1u);
    EXPECT_TRUE(
        std::regex_match(contents(1), std::regex("[0-9-]{15} \\[Log\\] \"f\": now file 1\n")))
        << "file 1 was truncated first";

    // Another process fills file 1 past the limit: the next line sees it.
    std::ofstream(file(1), std::ios::app) << std::string(524288, 'y');
    WriteToLog("f", "Log", "back to 0");
    EXPECT_EQ(trace::u32TraceLogIndex, 0u);
    EXPECT_TRUE(
        std::regex_match(contents(0), std::regex("[0-9-]{15} \\[Log\\] \"f\": back to 0\n")));

    // So does a file emptied through OpenCurrentLog and refilled by another.
    std::fclose(OpenCurrentLog(1));
    std::ofstream(file(0), std::ios::app) << std::string(524289, 'z');
    WriteToLog("f", "Log", "file 1 again");
    EXPECT_EQ(trace::u32TraceLogIndex, 1u);
    EXPECT_TRUE(
        std::regex_match(contents(1), std::regex("[0-9-]{15} \\[Log\\] \"f\": file 1 again\n")));
}

// Each message goes where its notice says and nowhere else: a trace line
// (whole when handed over as "%s", else cut to the message buffer; one with a
// verbosity only while the configured one reaches it), a report line on the
// console and in the system log, console text as formatted, the journal.
TEST_F(TraceLogTest, TheChannelSendsEachMessageWhereItsNoticeSays) {
    const std::string path(1500, 'p');
    const struct {
        Notice notice;
        bool console;
        const char *format;
        const char *argument;
        std::string traced, out, syslog, err;
    } cases[] = {
        {zelo::traced("f", "ERROR"), true, "%s", path.c_str(), "[ERROR] \"f\": " + path, "", "",
         ""},
        {zelo::traced("f", "Log"), true, "%s.", path.c_str(),
         "[Log] \"f\": " + path.substr(0, ZELO_MSG_BUF_SIZE - 1), "", "", ""},
        {zelo::traced("f", "Log", 1), true, "%s", "too detailed", "", "", "", ""},
        {zelo::traced("f", "Log", 0), false, "%s", "kept", "[Log] \"f\": kept", "", "", ""},
        {kPrinted, true, "[%s] no line feed", "op", "", "[op] no line feed\n", "", ""},
        {kPrinted, false, "[%s] off", "op", "", "", "", ""},
        {kReportedWarning, false, "[%s] logged\n", "op", "", "", "4:[op] logged\n", ""},
        {kReportedError, true, "%s", "both", "", "both\n", "3:both", ""},
        {kConsole, true, "%5s|", "ab", "", "   ab|", "", ""},
        {kConsole, false, "%s", "off", "", "", "", ""},
        {kJournal, false, "zelo: %s\n", "told", "", "", "", "zelo: told\n"},
    };
    for (const auto &c : cases) {
        std::filesystem::remove(file(0));
        fake().syslog.clear();
        setConsole(c.console);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        report(c.notice, c.format, c.argument);
        std::fflush(stdout);
        const std::string out = testing::internal::GetCapturedStdout();
        const std::string err = testing::internal::GetCapturedStderr();
        setConsole(true);
        const std::string line = contents(0);
        EXPECT_EQ(line.empty() ? "" : line.substr(16, line.size() - 17), c.traced) << c.format;
        EXPECT_EQ(out, c.out) << c.format;
        EXPECT_EQ(fake().syslog.empty()
                      ? ""
                      : std::to_string(fake().syslog[0].first) + ":" + fake().syslog[0].second,
                  c.syslog)
            << c.format;
        EXPECT_EQ(err, c.err) << c.format;
    }
}

// Escapes whole or not at all when room runs out; the result's length comes
// back whatever the room.
TEST_F(TraceLogTest, ControlBytesAreEscapedWholeWithinTheRoomGiven) {
    const std::string text("a\x1b[1\x7f\xff\0z", 8);
    const struct {
        uint32_t capacity;
        const char *written;
    } cases[] = {{0, "#"}, {1, ""},       {2, "a"},
                 {5, "a"}, {6, "a\\x1B"}, {32, "a\\x1B[1\\x7F\xff\\x00z"}};
    for (const auto &c : cases) {
        char out[32];
        std::memset(out, '#', sizeof out);
        EXPECT_EQ(EscapeControlBytes(text.data(), 8, out, c.capacity), 17u) << c.capacity;
        // No room: nothing written, not even the terminator.
        EXPECT_EQ(c.capacity == 0 ? std::string(out, 1) : std::string(out), c.written);
    }
}

} // namespace
} // namespace zelo::test
