// Serves the simulated firmware on a Unix-domain stream socket, one exchange
// per connection (framing in platform/ipmi_wire.h). Single-threaded: a
// connection is served to the end before the next is accepted, and none may
// take longer than the read deadline to send its request.
#pragma once

#include "model.h"

#include <atomic>
#include <string>
#include <string_view>

namespace zelo::sim {

inline constexpr int kReadTimeoutMs = 1000;

// --socket's default: $ZELO_IPMI_SOCKET, else the default socket under
// $ZELO_ROOT. Empty when the path does not fit.
std::string defaultSocketPath();

// Sends one control line to the simulator listening at path (one exchange,
// sim/model.h). True when applied; otherwise error holds the simulator's
// reason or why it could not be asked.
bool sendControl(const std::string &path, std::string_view line, std::string &error);

class Server {
  public:
    // stop is polled between connections and while an answer is held back,
    // so a signal handler can end run().
    Server(Firmware &firmware, const std::atomic<bool> &stop, int readTimeoutMs = kReadTimeoutMs);
    ~Server(); // closes the socket and removes its file
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Creates the parent directory if missing and replaces a stale socket
    // file; refuses a path where another server answers or a non-socket lies.
    bool listen(const std::string &path, std::string &error);

    // Serves connections until stop is set.
    void run();

    // Waits up to waitMs for a connection and serves it. False on no
    // connection.
    bool serveOnce(int waitMs);

    // The listening socket, for a loop that polls it beside other things.
    int fd() const { return listenFd_; }

  private:
    void serve(int fd);
    bool answer(std::uint8_t netFn, std::uint8_t cmd, std::span<const std::uint8_t> request,
                std::vector<std::uint8_t> &response);
    void closeSocket();

    Firmware &firmware_;
    const std::atomic<bool> &stop_;
    int readTimeoutMs_;
    int listenFd_ = -1;
    std::string path_;
};

} // namespace zelo::sim
