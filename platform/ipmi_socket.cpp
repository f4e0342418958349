// Host IPMI transport: each exchange is one connection to the firmware
// simulator's Unix-domain socket. Every step runs against one deadline, so a
// missing, dead or stuck simulator costs at most kDeadlineMs, never a hang.
#include "ipmi_wire.h"
#include "paths.h"
#include "socket_exchange.h"

#include <zelo/platform.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kDeadlineMs = 1500;
constexpr useconds_t kConnectRetryUs = 5000;

class Connection {
  public:
    explicit Connection(int fd) : fd_(fd) {}
    ~Connection() {
        if (fd_ >= 0)
            ::close(fd_);
    }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;
    int fd() const { return fd_; }

  private:
    int fd_;
};

int remainingMs(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

// Waits for the socket to become ready for `events`; -errno on time-out or error.
int waitFor(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        struct pollfd p = {fd, events, 0};
        const int n = ::poll(&p, 1, remainingMs(deadline));
        if (n > 0)
            return 0;
        if (n == 0)
            return -ETIMEDOUT;
        if (errno != EINTR)
            return -errno;
    }
}

bool socketPath(struct sockaddr_un &addr) {
    char path[PATH_MAX];
    if (!zelo::envOrRootPath(zelo::wire::kSocketEnv, zelo::wire::kDefaultSocket, path,
                             sizeof path) ||
        std::strlen(path) >= sizeof addr.sun_path)
        return false;
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, path);
    return true;
}

// Connects before the deadline. A full listen queue (EAGAIN) is not a
// connection in progress on a Unix socket: try again with a fresh socket.
int connectTo(const struct sockaddr_un &addr, Clock::time_point deadline, int *fdOut) {
    for (;;) {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd < 0)
            return -errno;
        if (::connect(fd, reinterpret_cast<const struct sockaddr *>(&addr), sizeof addr) == 0) {
            *fdOut = fd;
            return 0;
        }
        const int error = errno;
        ::close(fd);
        if (error != EAGAIN && error != EINTR)
            return -error;
        if (remainingMs(deadline) == 0)
            return -ETIMEDOUT;
        ::usleep(kConnectRetryUs);
    }
}

int sendAll(int fd, const uint8_t *data, std::size_t len, Clock::time_point deadline) {
    while (len > 0) {
        const ssize_t n = ::send(fd, data, len, MSG_NOSIGNAL);
        if (n > 0) {
            data += n;
            len -= static_cast<std::size_t>(n);
        } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            if (const int rc = waitFor(fd, POLLOUT, deadline); rc != 0)
                return rc;
        } else {
            return n < 0 ? -errno : -EPIPE;
        }
    }
    return 0;
}

// Reads exactly len bytes; when sink is null the bytes are consumed and dropped.
int receiveExactly(int fd, uint8_t *sink, std::size_t len, Clock::time_point deadline) {
    uint8_t scratch[256];
    while (len > 0) {
        uint8_t *into = sink != nullptr ? sink : scratch;
        const std::size_t want = sink != nullptr ? len : std::min(len, sizeof scratch);
        const ssize_t n = ::recv(fd, into, want, 0);
        if (n > 0) {
            len -= static_cast<std::size_t>(n);
            if (sink != nullptr)
                sink += n;
        } else if (n == 0) {
            return -EPROTO; // the peer closed before the announced length arrived
        } else if (errno == EAGAIN || errno == EINTR) {
            if (const int rc = waitFor(fd, POLLIN, deadline); rc != 0)
                return rc;
        } else {
            return -errno;
        }
    }
    return 0;
}

} // namespace

namespace zelo::platform {

int exchange(uint8_t netFn, uint8_t cmd, const uint8_t *request, uint32_t requestLen,
             uint8_t *response, uint32_t *responseLen) {
    using namespace zelo::wire;
    if (responseLen == nullptr || (response == nullptr && *responseLen > 0) ||
        (request == nullptr && requestLen > 0) || requestLen > kMaxDataLen)
        return -EINVAL;
    const uint32_t capacity = *responseLen;
    *responseLen = 0;

    struct sockaddr_un addr;
    if (!socketPath(addr))
        return -ENAMETOOLONG;
    const auto deadline = Clock::now() + std::chrono::milliseconds(kDeadlineMs);
    int fd = -1;
    if (const int rc = connectTo(addr, deadline, &fd); rc != 0)
        return rc;
    const Connection conn(fd);

    // One frame in one send, so a peer that answers after the head alone
    // cannot cut the request in two.
    uint8_t frame[kRequestHeadLen + kMaxDataLen];
    frame[0] = netFn;
    frame[1] = cmd;
    putLe16(frame + 2, static_cast<uint16_t>(requestLen));
    if (requestLen > 0)
        std::memcpy(frame + kRequestHeadLen, request, requestLen);
    if (const int rc = sendAll(conn.fd(), frame, kRequestHeadLen + requestLen, deadline); rc != 0)
        return rc;

    uint8_t lenBytes[kResponseHeadLen];
    if (const int rc = receiveExactly(conn.fd(), lenBytes, sizeof lenBytes, deadline); rc != 0)
        return rc;
    const uint32_t announced = getLe16(lenBytes);
    if (announced > kMaxDataLen)
        return -EPROTO;
    // Bytes beyond the caller's capacity are read off the socket and dropped.
    const uint32_t kept = std::min(announced, capacity);
    if (const int rc = receiveExactly(conn.fd(), response, kept, deadline); rc != 0)
        return rc;
    if (const int rc = receiveExactly(conn.fd(), nullptr, announced - kept, deadline); rc != 0)
        return rc;
    *responseLen = kept;
    return 0;
}

} // namespace zelo::platform

extern "C" int IPMI_DoIPMICmd(uint8_t netFn, uint8_t cmd, const uint8_t *request,
                              uint32_t requestLen, uint8_t *response, uint32_t *responseLen) {
    return zelo::platform::exchange(netFn, cmd, request, requestLen, response, responseLen);
}
