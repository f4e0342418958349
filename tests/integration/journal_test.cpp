// The host event service: one journal line per event under the root, also
// from several processes at once (the daemon run reads the library's events there).
#include "sim_process.h"

#include <zelo.h>
#include <zelo/platform.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace zelo::test {
namespace {

std::vector<std::string> lines(const std::string &path) {
    std::ifstream in(path);
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

const std::string kStamp = R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2})";

class JournalTest : public ::testing::Test {
  protected:
    void SetUp() override { ::unsetenv("ZELO_EVENT_JOURNAL"); }
    void TearDown() override { ::unsetenv("ZELO_EVENT_JOURNAL"); }
    std::string journal() const { return root.path() + "/var/log/zelo/events.log"; }
    TempRoot root;
};

TEST_F(JournalTest, OneLinePerEventWithTheCapValues) {
    PowerCapsEventParams caps{};
    std::strcpy(caps.szPreviousValue, "3000");
    std::strcpy(caps.szNewValue, "3500");
    EXPECT_EQ(sw_msg_dispatcher(115, &caps), 0);
    EXPECT_EQ(sw_msg_dispatcher(117, nullptr), 0);
    // Texts that fill their field without a NUL, or hold a line end, stay
    // within their field and on one line.
    std::memset(caps.szPreviousValue, '9', sizeof caps.szPreviousValue);
    std::strcpy(caps.szNewValue, "1\n2");
    std::memset(caps.szReserved, 'x', sizeof caps.szReserved);
    EXPECT_EQ(sw_msg_dispatcher(116, &caps), 0);

    const auto got = lines(journal());
    ASSERT_EQ(got.size(), 3u);
    EXPECT_TRUE(std::regex_match(got[0], std::regex(kStamp + " event 115 old 3000 new 3500")))
        << got[0];
    EXPECT_TRUE(std::regex_match(got[1], std::regex(kStamp + " event 117"))) << got[1];
    EXPECT_TRUE(std::regex_match(got[2], std::regex(kStamp + " event 116 old 9{64} new 1\\?2")))
        << got[2];
}

TEST_F(JournalTest, PathFromTheEnvironmentAndUnwritableJournal) {
    const std::string elsewhere = root.path() + "/a/b/journal.txt";
    ::setenv("ZELO_EVENT_JOURNAL", elsewhere.c_str(), 1);
    EXPECT_EQ(sw_msg_dispatcher(130, nullptr), 0);
    EXPECT_EQ(lines(elsewhere).size(), 1u);
    EXPECT_FALSE(std::filesystem::exists(journal()));

    ::setenv("ZELO_EVENT_JOURNAL", root.path().c_str(), 1); // a directory
    EXPECT_NE(sw_msg_dispatcher(130, nullptr), 0);
}

TEST_F(JournalTest, LinesOfSeveralProcessesStayWhole) {
    for (int w = 0; w < 4; ++w)
        if (::fork() == 0) {
            PowerCapsEventParams caps{};
            std::snprintf(caps.szPreviousValue, sizeof caps.szPreviousValue, "%d", w);
            std::snprintf(caps.szNewValue, sizeof caps.szNewValue, "%d", 1000 + w);
            int failed = 0;
            for (int i = 0; i < 1000; ++i)
                failed |= sw_msg_dispatcher(114, &caps);
            ::_exit(failed != 0);
        }
    for (int w = 0, status = 0; w < 4; ++w) {
        ::wait(&status);
        EXPECT_EQ(status, 0);
    }
    const auto got = lines(journal());
    ASSERT_EQ(got.size(), 4000u);
    const std::regex whole(kStamp + " event 114 old ([0-3]) new 100\\1");
    for (const auto &line : got)
        ASSERT_TRUE(std::regex_match(line, whole)) << line;
}

} // namespace
} // namespace zelo::test
