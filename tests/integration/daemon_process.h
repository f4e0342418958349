// The real zelo daemon beside the real simulator, its time accelerated by
// libfaketime: the process, and the fixture of the tests that run it.
#pragma once

#include "sim_process.h"

#include <zelo/platform.h>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace zelo::test {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

inline std::string readFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// How often text occurs in a daemon's trace or journal.
inline int occurrences(const std::string &in, const std::string &text) {
    int n = 0;
    for (auto at = in.find(text); at != std::string::npos; at = in.find(text, at + 1))
        ++n;
    return n;
}

// A running daemon; its output goes to files under the root.
class DaemonProcess {
  public:
    // program: the daemon linked with one platform library or another.
    DaemonProcess(const std::string &root, const std::vector<std::string> &args = {},
                  const char *rate = "+0 x20", const char *program = ZELO_DAEMON_PATH)
        : root_(root) {
        pid_ = ::fork();
        if (pid_ == 0) {
            const std::string out = root + "/daemon.out";
            const std::string err = root + "/daemon.err";
            if (std::freopen(out.c_str(), "w", stdout) == nullptr ||
                std::freopen(err.c_str(), "w", stderr) == nullptr)
                ::_exit(126);
            // The library preloaded into the daemon itself (the faketime
            // wrapper would stand between the test and the daemon's signals).
            ::setenv("LD_PRELOAD", ZELO_LIBFAKETIME, 1);
            ::setenv("FAKETIME", rate, 1);
            // A sanitizer runtime must not insist on coming first.
            ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=1", 1);
            std::vector<std::string> argv = {program};
            argv.insert(argv.end(), args.begin(), args.end());
            std::vector<char *> cargv;
            for (auto &a : argv)
                cargv.push_back(a.data());
            cargv.push_back(nullptr);
            ::execv(program, cargv.data());
            ::_exit(127);
        }
    }
    ~DaemonProcess() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    int terminate() {
        ::kill(pid_, SIGTERM);
        return wait();
    }
    int wait() {
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string trace() const { return readFile(root_ + "/tmp/zelo_trace/zelo_trace_log_0.txt"); }
    pid_t pid() const { return pid_; }
    std::string output() const { return readFile(root_ + "/daemon.out"); }
    // Standard error, which systemd puts in the journal.
    std::string journal() const { return readFile(root_ + "/daemon.err"); }
    // Waits (real time, bounded) until the trace holds `text` `times` times.
    bool awaitTrace(const std::string &text, int times = 1) const {
        return await([this] { return trace(); }, text, times);
    }
    bool awaitJournal(const std::string &text, int times = 1) const {
        return await([this] { return journal(); }, text, times);
    }

  private:
    template <typename Read>
    static bool await(Read read, const std::string &text, int times) {
        const auto deadline = Clock::now() + std::chrono::seconds(30);
        while (Clock::now() < deadline) {
            if (occurrences(read(), text) >= times)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

    std::string root_;
    pid_t pid_ = -1;
};

// The metric log lock taken as another reader takes it, held until the end
// of the scope: the daemon's cycles wait meanwhile.
class LockHeld {
  public:
    explicit LockHeld(const std::string &root) : path_(root + "/tmp/zelo_log/zelo.lock") {
        const auto deadline = Clock::now() + std::chrono::seconds(10);
        int fd = -1;
        while ((fd = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644)) < 0 &&
               Clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_GE(fd, 0) << "the daemon kept the lock";
        const std::string pid = std::to_string(::getpid()) + "\n";
        EXPECT_EQ(::write(fd, pid.data(), pid.size()), static_cast<ssize_t>(pid.size()));
        ::close(fd);
    }
    ~LockHeld() { ::unlink(path_.c_str()); }

  private:
    std::string path_;
};

class DaemonTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (std::string(ZELO_TEST_EMULATOR).size() > 0 || std::string(ZELO_LIBFAKETIME).empty())
            GTEST_SKIP() << "libfaketime is a library of the build host";
        // Traces the cycle's tag line, and the history's routine lines.
        ASSERT_NE(kiv_config_set_int("ZELO_power_history_log_level", 1, 1), 0);
        // The controller's persistent storage; the histories live below it.
        fs::create_directories(root.path() + "/pstorage");
        // The power-cap checks read the limits only while capping is enabled.
        scenarioHead = "reg 0 0 9 2\n";
    }
    void control(const std::string &line) {
        const auto r = runProgram(ZELO_FWSIM_PATH, {"--control", line});
        ASSERT_EQ(r.status, 0) << line << ": " << r.err;
    }
    static std::string tagLine(int tag, int last) {
        return "psBuffer->u16Tag is " + std::to_string(tag) + " & u16LastTag is " +
               std::to_string(last);
    }
    std::string logFile(int n) const {
        return root.path() + "/tmp/zelo_log/zelo_" + std::to_string(n) + ".log";
    }
    TempRoot root;
    std::string scenarioHead;
};

} // namespace zelo::test
