#include "sim_process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace zelo::test {

namespace {

struct User {
    uid_t uid;
    gid_t gid;
};

// Starts program (under the cross build's emulator) with its standard output
// on fd out and its standard error on fd err, or the test's when err < 0, so
// its reports stay visible; as another user when one is given. Returns the
// child's pid.
pid_t spawn(const std::string &program, const std::vector<std::string> &args, int out, int err,
            const User *as = nullptr) {
    std::vector<std::string> argv;
    std::istringstream emulator(ZELO_TEST_EMULATOR);
    for (std::string word; emulator >> word;)
        argv.push_back(word);
    argv.push_back(program);
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char *> cargv;
    for (auto &a : argv)
        cargv.push_back(a.data());
    cargv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(out, STDOUT_FILENO);
        if (err >= 0)
            ::dup2(err, STDERR_FILENO);
        if (as != nullptr &&
            (::setgroups(0, nullptr) != 0 || ::setresgid(as->gid, as->gid, as->gid) != 0 ||
             ::setresuid(as->uid, as->uid, as->uid) != 0))
            ::_exit(126);
        // The simulator, a stand-in, is spared the leak check at its exit:
        // under load its stop-the-world step hung now and then in parallel
        // runs. Its memory errors still end it.
        if (program == ZELO_FWSIM_PATH) {
            const char *options = std::getenv("ASAN_OPTIONS");
            const std::string spared =
                std::string(options != nullptr ? options : "") + ":detect_leaks=0";
            ::setenv("ASAN_OPTIONS", spared.c_str(), 1);
        }
        ::execvp(cargv[0], cargv.data());
        ::_exit(127);
    }
    return pid;
}

std::string readAll(std::FILE *file) {
    std::string text;
    std::rewind(file);
    for (int c; (c = std::fgetc(file)) != EOF;)
        text += static_cast<char>(c);
    std::fclose(file);
    return text;
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
    int out[2];
    if (::pipe(out) != 0 || (pid_ = spawn(ZELO_FWSIM_PATH, args, out[1], -1)) < 0)
        throw std::runtime_error("cannot start zelo-fwsim");
    ::close(out[1]);
    // The simulator announces itself once its socket accepts connections.
    std::string started;
    struct pollfd ready = {out[0], POLLIN, 0};
    char c = 0;
    while (c != '\n' && ::poll(&ready, 1, 30000) > 0 && ::read(out[0], &c, 1) == 1)
        started += c;
    ::close(out[0]);
    if (started.find("listening") == std::string::npos) {
        stop();
        throw std::runtime_error("zelo-fwsim did not start: " + started);
    }
}

SimProcess::~SimProcess() {
    stop();
}

void SimProcess::stop() {
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGTERM);
    ::kill(pid_, SIGCONT); // a test may have stopped it
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    // A sanitizer report or a crash in the simulator fails the test too.
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "zelo-fwsim status " << status;
}

namespace {

RunResult run(const std::string &program, const std::vector<std::string> &args, const User *as) {
    RunResult result;
    std::FILE *out = std::tmpfile(), *err = std::tmpfile();
    const pid_t pid = spawn(program, args, ::fileno(out), ::fileno(err), as);
    int status = 0;
    if (pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status))
        result.status = WEXITSTATUS(status);
    result.out = readAll(out);
    result.err = readAll(err);
    return result;
}

} // namespace

RunResult runProgram(const std::string &program, const std::vector<std::string> &args) {
    return run(program, args, nullptr);
}

RunResult runProgramAsNobody(const std::string &program, const std::vector<std::string> &args) {
    const struct passwd *nobody = ::getpwnam("nobody");
    if (nobody == nullptr)
        throw std::runtime_error("no user nobody");
    const User as{nobody->pw_uid, nobody->pw_gid};
    return run(program, args, &as);
}

std::vector<std::string> treeOf(const std::string &dir) {
    std::vector<std::string> paths;
    std::error_code ec;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(dir, ec))
        paths.push_back(entry.path().string());
    std::sort(paths.begin(), paths.end());
    return paths;
}

std::string scenarioFile(const std::string &name) {
    std::stringstream s;
    s << std::ifstream(ZELO_SCENARIO_DIR "/" + name).rdbuf();
    return s.str();
}

} // namespace zelo::test
