#include "server.h"

#include "ipmi_wire.h"
#include "paths.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace zelo::sim {

namespace {

using Clock = std::chrono::steady_clock;

// Bounds how late a stop request is noticed while idle or holding an answer.
constexpr int kStopPollMs = 50;
constexpr int kIdleWaitMs = 200;

int msLeft(Clock::time_point deadline) {
    // Rounded up: a wait must not end before its deadline.
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left <= 0 ? 0 : static_cast<int>(std::min<decltype(left)>(left, INT_MAX));
}

bool waitFor(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        const int left = msLeft(deadline);
        if (left == 0)
            return false;
        pollfd p{fd, events, 0};
        const int r = ::poll(&p, 1, left);
        if (r > 0)
            return true;
        if (r < 0 && errno != EINTR)
            return false;
    }
}

bool readFull(int fd, std::uint8_t *buf, std::size_t len, Clock::time_point deadline) {
    std::size_t got = 0;
    while (got < len) {
        const ssize_t n = ::recv(fd, buf + got, len - got, 0);
        if (n > 0)
            got += static_cast<std::size_t>(n);
        else if (n == 0)
            return false;
        else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (!waitFor(fd, POLLIN, deadline))
                return false;
        } else if (errno != EINTR)
            return false;
    }
    return true;
}

bool writeFull(int fd, const std::uint8_t *buf, std::size_t len, Clock::time_point deadline) {
    std::size_t sent = 0;
    while (sent < len) {
        // A client that gave up must not kill the server with SIGPIPE.
        const ssize_t n = ::send(fd, buf + sent, len - sent, MSG_NOSIGNAL);
        if (n >= 0)
            sent += static_cast<std::size_t>(n);
        else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (!waitFor(fd, POLLOUT, deadline))
                return false;
        } else if (errno != EINTR)
            return false;
    }
    return true;
}

bool makeParents(const std::string &path, std::string &error) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        const std::string dir = path.substr(0, slash);
        if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
            error = dir + ": " + std::strerror(errno);
            return false;
        }
    }
    return true;
}

bool someoneListening(const sockaddr_un &addr) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    const int r = ::connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr);
    // EAGAIN: a live server with a full backlog.
    const bool live = r == 0 || errno == EAGAIN;
    ::close(fd);
    return live;
}

} // namespace

std::string defaultSocketPath() {
    const char *env = std::getenv(wire::kSocketEnv);
    if (env != nullptr && env[0] != '\0')
        return env;
    char buf[4096];
    return resolvePath(wire::kDefaultSocket, buf, sizeof buf) ? buf : "";
}

bool sendControl(const std::string &path, std::string_view line, std::string &error) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof addr.sun_path) {
        error = "socket path empty or too long: " + path;
        return false;
    }
    if (line.size() > wire::kMaxDataLen) {
        error = "control line longer than " + std::to_string(wire::kMaxDataLen) + " bytes";
        return false;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    // The server answers control at once; the deadline only bounds a stuck one.
    const auto deadline = Clock::now() + std::chrono::milliseconds(5 * kReadTimeoutMs);
    std::vector<std::uint8_t> frame(wire::kRequestHeadLen + line.size());
    frame[0] = wire::kControlNetFn;
    frame[1] = wire::kControlCmd;
    wire::putLe16(frame.data() + 2, static_cast<std::uint16_t>(line.size()));
    std::copy(line.begin(), line.end(), frame.begin() + wire::kRequestHeadLen);
    std::uint8_t head[wire::kResponseHeadLen];
    std::vector<std::uint8_t> answer;
    // A full listen queue answers EAGAIN on a Unix socket: the server is busy, not gone.
    bool ok = false;
    while (!(ok = ::connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) == 0) &&
           (errno == EAGAIN || errno == EINTR) && msLeft(deadline) > 0)
        ::poll(nullptr, 0, kStopPollMs / 10);
    if (!ok)
        error = path + ": " + std::strerror(errno);
    else if (!(ok = writeFull(fd, frame.data(), frame.size(), deadline) &&
                    readFull(fd, head, sizeof head, deadline)))
        error = path + ": no answer from the simulator";
    if (ok) {
        answer.resize(wire::getLe16(head));
        if (answer.empty() || !readFull(fd, answer.data(), answer.size(), deadline)) {
            error = path + ": short answer from the simulator";
            ok = false;
        }
    }
    ::close(fd);
    if (!ok)
        return false;
    if (answer[0] == kCcOk)
        return true;
    error.assign(answer.begin() + 1, answer.end());
    if (error.empty())
        error = "refused with completion code " + std::to_string(answer[0]);
    return false;
}

Server::Server(Firmware &firmware, const std::atomic<bool> &stop, int readTimeoutMs)
    : firmware_(firmware), stop_(stop), readTimeoutMs_(readTimeoutMs) {}

Server::~Server() {
    closeSocket();
}

void Server::closeSocket() {
    if (listenFd_ < 0)
        return;
    ::close(listenFd_);
    listenFd_ = -1;
    ::unlink(path_.c_str());
}

bool Server::listen(const std::string &path, std::string &error) {
    closeSocket();
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof addr.sun_path) {
        error = "socket path empty or longer than " + std::to_string(sizeof addr.sun_path - 1) +
                " bytes: " + path;
        return false;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    if (!makeParents(path, error))
        return false;

    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            error = path + ": exists and is not a socket";
            return false;
        }
        if (someoneListening(addr)) {
            error = path + ": another server is listening there";
            return false;
        }
        ::unlink(path.c_str());
    }

    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    if (::bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0 ||
        ::listen(fd, 16) != 0) {
        error = path + ": " + std::strerror(errno);
        ::close(fd);
        return false;
    }
    listenFd_ = fd;
    path_ = path;
    return true;
}

void Server::run() {
    while (!stop_.load())
        serveOnce(kIdleWaitMs);
}

bool Server::serveOnce(int waitMs) {
    if (listenFd_ < 0)
        return false;
    pollfd p{listenFd_, POLLIN, 0};
    if (::poll(&p, 1, waitMs) <= 0)
        return false;
    const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0)
        return false;
    serve(fd);
    ::close(fd);
    return true;
}

void Server::serve(int fd) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(readTimeoutMs_);
    std::uint8_t head[wire::kRequestHeadLen];
    if (!readFull(fd, head, sizeof head, deadline))
        return;
    const std::size_t len = wire::getLe16(head + 2);
    if (len > wire::kMaxDataLen)
        return;
    std::vector<std::uint8_t> request(len);
    if (!readFull(fd, request.data(), len, deadline))
        return;

    std::vector<std::uint8_t> frame(wire::kResponseHeadLen);
    if (!answer(head[0], head[1], request, frame))
        return;
    wire::putLe16(frame.data(), static_cast<std::uint16_t>(frame.size() - wire::kResponseHeadLen));
    writeFull(fd, frame.data(), frame.size(),
              Clock::now() + std::chrono::milliseconds(readTimeoutMs_));
}

// Appends the answer to response; false when a stop cut the wait short.
// Control requests are answered without the firmware's delay: a test must be
// able to lift a delay it staged.
bool Server::answer(std::uint8_t netFn, std::uint8_t cmd, std::span<const std::uint8_t> request,
                    std::vector<std::uint8_t> &response) {
    const std::vector<std::uint8_t> data = firmware_.handle(netFn, cmd, request);
    const std::uint32_t delayMs = netFn == wire::kControlNetFn ? 0 : firmware_.responseDelayMs();
    const auto until = Clock::now() + std::chrono::milliseconds(delayMs);
    for (int left = msLeft(until); left > 0 && !stop_.load(); left = msLeft(until))
        ::poll(nullptr, 0, std::min(left, kStopPollMs));
    if (stop_.load())
        return false;
    response.insert(response.end(), data.begin(), data.end());
    return true;
}

} // namespace zelo::sim
