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

std::vector<std::string> commandLine(const std::string &program,
                                     const std::vector<std::string> &args) {
    std::vector<std::string> argv;
    std::istringstream emulator(ZELO_TEST_EMULATOR);
    for (std::string word; emulator >> word;)
        argv.push_back(word);
    argv.push_back(program);
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

// Starts argv with stdout on a pipe, and stderr on one when errFd is given;
// otherwise the child shares the test's stderr, so its reports stay visible.
pid_t spawn(const std::vector<std::string> &argv, int *outFd, int *errFd) {
    int out[2], err[2];
    if (::pipe(out) != 0 || ::pipe(err) != 0)
        return -1;
    std::vector<char *> cargv;
    for (const auto &a : argv)
        cargv.push_back(const_cast<char *>(a.c_str()));
    cargv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(out[1], STDOUT_FILENO);
        if (errFd != nullptr)
            ::dup2(err[1], STDERR_FILENO);
        ::close(out[0]);
        ::close(err[0]);
        ::execvp(cargv[0], cargv.data());
        ::_exit(127);
    }
    ::close(out[1]);
    ::close(err[1]);
    if (outFd != nullptr)
        *outFd = out[0];
    else
        ::close(out[0]);
    if (errFd != nullptr)
        *errFd = err[0];
    else
        ::close(err[0]);
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
    int outFd = -1;
    pid_ = spawn(commandLine(ZELO_FWSIM_PATH, args), &outFd, nullptr);
    if (pid_ < 0)
        throw std::runtime_error("cannot start zelo-fwsim");
    // The simulator announces itself once its socket accepts connections.
    std::string line;
    char c = 0;
    struct pollfd p = {outFd, POLLIN, 0};
    while (line.find('\n') == std::string::npos && ::poll(&p, 1, 20000) > 0 &&
           ::read(outFd, &c, 1) == 1)
        line += c;
    ::close(outFd);
    if (line.find("listening") == std::string::npos) {
        stop();
        throw std::runtime_error("zelo-fwsim did not start: " + line);
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
    int outFd = -1, errFd = -1;
    const pid_t pid = spawn(commandLine(program, args), &outFd, &errFd);
    RunResult result;
    if (pid < 0)
        return result;
    struct pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    int open = 2;
    while (open > 0 && ::poll(fds, 2, 30000) > 0) {
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
    int status = 0;
    ::waitpid(pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

} // namespace zelo::test
