// The host platform library: configuration store and secure_popen.
#include "sim_process.h"

#include <zelo/platform.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

// Every sync of this process counted, the store's included; each goes on
// to the kernel as before.
static int gSyncs = 0;
extern "C" int fsync(int fd) {
    ++gSyncs;
    return static_cast<int>(::syscall(SYS_fsync, fd));
}

namespace zelo::test {
namespace {

class StoreTest : public ::testing::Test {
  protected:
    std::string keyFile(const std::string &key) const {
        return root.path() + "/var/lib/zelo/kiv/" + key;
    }
    TempRoot root;
};

TEST_F(StoreTest, ValuesRoundTripAsDecimalFiles) {
    uint8_t b = 7;
    int i = 7;
    EXPECT_EQ(kiv_config_get_bool("flag", &b), 0) << "missing key";
    EXPECT_EQ(b, 7) << "untouched on failure";
    ASSERT_NE(kiv_config_set_bool("flag", 1, 1), 0);
    EXPECT_NE(kiv_config_get_bool("flag", &b), 0);
    EXPECT_EQ(b, 1);

    ASSERT_NE(kiv_config_set_int("n", -42, 1), 0);
    EXPECT_NE(kiv_config_get_int("n", &i), 0);
    EXPECT_EQ(i, -42);
    std::string text;
    EXPECT_EQ(std::getline(std::ifstream(keyFile("n")), text) ? text : "", "-42");

    ASSERT_NE(kiv_config_set_int64("big", 5000000000LL, 1), 0);
    EXPECT_EQ(kiv_config_get_int("big", &i), 0) << "does not fit an int";
    ASSERT_NE(kiv_config_set_int64("big", INT_MAX, 1), 0);
    EXPECT_NE(kiv_config_get_int("big", &i), 0);
    EXPECT_EQ(i, INT_MAX);

    EXPECT_NE(kiv_config_clear("n"), 0);
    EXPECT_EQ(kiv_config_get_int("n", &i), 0);
    EXPECT_NE(kiv_config_clear("n"), 0) << "clearing an absent key leaves it absent";

    for (int v = 0; v < 20; ++v)
        ASSERT_NE(kiv_config_set_int("k", v, 1), 0);
    const std::filesystem::directory_iterator dir(root.path() + "/var/lib/zelo/kiv");
    EXPECT_EQ(std::distance(begin(dir), end(dir)), 3) << "flag, big, k; no temporary files";
}

// A figure republished every cycle (flag 0) is replaced without a sync; a
// key that must survive a power loss (flag 1) is synced before its rename.
TEST_F(StoreTest, OnlyDurableKeysAreSynced) {
    for (const int flag : {0, 1}) {
        const int before = gSyncs;
        ASSERT_NE(kiv_config_set_bool("b", 1, flag), 0);
        ASSERT_NE(kiv_config_set_int("i", flag + 7, flag), 0);
        ASSERT_NE(kiv_config_set_int64("l", 5000000000LL + flag, flag), 0);
        EXPECT_EQ(gSyncs - before, 3 * flag) << "flag " << flag;
        int i = 0;
        EXPECT_NE(kiv_config_get_int("i", &i), 0);
        EXPECT_EQ(i, flag + 7);
    }
}

TEST_F(StoreTest, UnparsableValuesAndBadKeysFail) {
    ASSERT_NE(kiv_config_set_int("n", 1, 1), 0);
    int i = 0;
    for (const char *text : {"", "abc", "12abc", "1 2", "99999999999999999999999"}) {
        std::ofstream(keyFile("n")) << text;
        EXPECT_EQ(kiv_config_get_int("n", &i), 0) << '"' << text << '"';
    }
    std::ofstream(keyFile("n")) << std::string(4096, '1');
    EXPECT_EQ(kiv_config_get_int("n", &i), 0) << "oversized value";

    for (const char *key : {"", "a/b", "../escape", ".hidden"}) {
        EXPECT_EQ(kiv_config_set_int(key, 1, 1), 0) << key;
        EXPECT_EQ(kiv_config_get_int(key, &i), 0) << key;
        EXPECT_EQ(kiv_config_clear(key), 0) << key;
    }
    EXPECT_EQ(kiv_config_set_int(nullptr, 1, 1), 0);
    EXPECT_EQ(kiv_config_get_int("n", nullptr), 0);
}

TEST(SecurePopen, RunsWithoutAShellAndReapsTheChild) {
    FILE *out = secure_popen("/bin/echo a  $HOME;b", "r");
    ASSERT_NE(out, nullptr);
    char line[64] = {};
    ASSERT_NE(std::fgets(line, sizeof line, out), nullptr);
    EXPECT_STREQ(line, "a $HOME;b\n") << "no shell expansion, split on blanks";
    EXPECT_EQ(secure_pclose(out), 0);
    for (const auto &[command, status] :
         {std::pair{"/bin/false", 1}, {"/nonexistent/program", 127}}) {
        out = secure_popen(command, "r");
        ASSERT_NE(out, nullptr) << command;
        EXPECT_EQ(WEXITSTATUS(secure_pclose(out)), status) << command;
    }
    EXPECT_EQ(secure_popen("/bin/echo x", "w"), nullptr);
    EXPECT_EQ(secure_popen("echo x", "r"), nullptr) << "no search path";
    EXPECT_EQ(secure_popen("   ", "r"), nullptr);
    EXPECT_EQ(secure_popen(nullptr, "r"), nullptr);
}

} // namespace
} // namespace zelo::test
