// Host secure_popen: runs a command without a shell (the command line is
// split on blanks and executed directly), for reading its output.
#include <zelo/platform.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

struct Child {
    FILE *stream;
    pid_t pid;
};

std::mutex gMutex;
std::vector<Child> gChildren;

constexpr std::size_t kMaxArgs = 64;

} // namespace

extern "C" FILE *secure_popen(const char *command, const char *mode) {
    if (command == nullptr || mode == nullptr || std::strcmp(mode, "r") != 0) {
        errno = EINVAL;
        return nullptr;
    }
    // Split before forking: the child may only call async-signal-safe functions.
    char *copy = ::strdup(command);
    if (copy == nullptr)
        return nullptr;
    char *argv[kMaxArgs + 1];
    std::size_t argc = 0;
    char *save = nullptr;
    for (char *tok = ::strtok_r(copy, " \t", &save); tok != nullptr;
         tok = ::strtok_r(nullptr, " \t", &save)) {
        if (argc == kMaxArgs) {
            std::free(copy);
            errno = E2BIG;
            return nullptr;
        }
        argv[argc++] = tok;
    }
    argv[argc] = nullptr;
    if (argc == 0 || argv[0][0] != '/') { // no PATH search: the caller names the program
        std::free(copy);
        errno = EINVAL;
        return nullptr;
    }

    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        std::free(copy);
        return nullptr;
    }
    const pid_t pid = ::fork();
    if (pid == 0) {
        // The command starts as from a clean shell: default SIGPIPE, nothing blocked.
        ::signal(SIGPIPE, SIG_DFL);
        sigset_t none;
        ::sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        if (fds[1] == STDOUT_FILENO)
            ::fcntl(STDOUT_FILENO, F_SETFD, 0); // keep it across exec
        else
            ::dup2(fds[1], STDOUT_FILENO); // the copy has no close-on-exec
        ::execv(argv[0], argv);
        ::_exit(127);
    }
    const int forkErrno = errno;
    std::free(copy);
    ::close(fds[1]);
    if (pid < 0) {
        ::close(fds[0]);
        errno = forkErrno;
        return nullptr;
    }
    FILE *stream = ::fdopen(fds[0], "r");
    if (stream == nullptr) {
        ::close(fds[0]);
        ::waitpid(pid, nullptr, 0);
        return nullptr;
    }
    try {
        const std::lock_guard lock(gMutex);
        gChildren.push_back({stream, pid});
    } catch (...) {
        std::fclose(stream);
        ::waitpid(pid, nullptr, 0);
        errno = ENOMEM;
        return nullptr;
    }
    return stream;
}

extern "C" int secure_pclose(FILE *stream) {
    pid_t pid = -1;
    {
        const std::lock_guard lock(gMutex);
        for (auto it = gChildren.begin(); it != gChildren.end(); ++it) {
            if (it->stream == stream) {
                pid = it->pid;
                gChildren.erase(it);
                break;
            }
        }
    }
    if (pid < 0) {
        errno = ECHILD;
        return -1;
    }
    std::fclose(stream);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return status;
}
