#include "sim_process.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace zelo::test {

namespace {

// Runs program (under the cross build's emulator) with stdout, and stderr when
// wanted, on pipes read into the result until they close or, with firstLine,
// until stdout has given one line; a child whose stderr is not wanted shares
// the test's, so its reports stay visible. Returns the child's pid.
pid_t spawnAndRead(const std::string &program, const std::vector<std::string> &args, bool wantErr,
                   bool firstLine, RunResult &result) {
    std::vector<std::string> argv;
    std::istringstream emulator(ZELO_TEST_EMULATOR);
    for (std::string word; emulator >> word;)
        argv.push_back(word);
    argv.push_back(program);
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char *> cargv;
    for (const auto &a : argv)
        cargv.push_back(const_cast<char *>(a.c_str()));
    cargv.push_back(nullptr);
    int out[2], err[2];
    if (::pipe(out) != 0 || ::pipe(err) != 0)
        return -1;
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(out[1], STDOUT_FILENO);
        if (wantErr)
            ::dup2(err[1], STDERR_FILENO);
        ::close(out[0]);
        ::close(err[0]);
        ::execvp(cargv[0], cargv.data());
        ::_exit(127);
    }
    ::close(out[1]);
    ::close(err[1]);
    if (!wantErr)
        ::close(err[0]);
    struct pollfd fds[2] = {{out[0], POLLIN, 0}, {wantErr ? err[0] : -1, POLLIN, 0}};
    int open = wantErr ? 2 : 1;
    while (open > 0 && !(firstLine && result.out.find('\n') != std::string::npos) &&
           ::poll(fds, 2, 30000) > 0) {
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0)
                continue;
            char buf[512];
            const ssize_t n = ::read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                (i == 0 ? result.out : result.err).append(buf, static_cast<std::size_t>(n));
            } else {
                ::close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    for (const auto &f : fds)
        if (f.fd >= 0)
            ::close(f.fd);
    return pid;
}

} // namespace

TempRoot::TempRoot() {
    char tmpl[] = "/tmp/zelo-it-XXXXXX";
    if (::mkdtemp(tmpl) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
    ::setenv("ZELO_ROOT", path_.c_str(), 1);
    ::unsetenv("ZELO_IPMI_SOCKET");
    ::unsetenv("ZELO_KIV_DIR");
}

TempRoot::~TempRoot() {
    ::unsetenv("ZELO_ROOT");
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

SimProcess::SimProcess(const std::string &root, const std::string &scenario,
                       const std::vector<std::string> &arguments) {
    const std::string file = root + "/scenario.scn";
    std::ofstream(file) << scenario;
    std::vector<std::string> args = {"--scenario", file};
    args.insert(args.end(), arguments.begin(), arguments.end());
    RunResult started;
    pid_ = spawnAndRead(ZELO_FWSIM_PATH, args, false, true, started);
    if (pid_ < 0)
        throw std::runtime_error("cannot start zelo-fwsim");
    // The simulator announces itself once its socket accepts connections.
    if (started.out.find("listening") == std::string::npos) {
        stop();
        throw std::runtime_error("zelo-fwsim did not start: " + started.out);
    }
}

SimProcess::~SimProcess() {
    stop();
}

void SimProcess::stop() {
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    // A sanitizer report or a crash in the simulator fails the test too.
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "zelo-fwsim status " << status;
}

RunResult runProgram(const std::string &program, const std::vector<std::string> &args) {
    RunResult result;
    const pid_t pid = spawnAndRead(program, args, true, false, result);
    int status = 0;
    if (pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status))
        result.status = WEXITSTATUS(status);
    return result;
}

} // namespace zelo::test
