// Helpers for tests that run the service loop on a thread: a movable clock
// source, bounded waiting, and one connection to the endpoint's listener.
#ifndef OMSDK_TEST_LOOP_NET_H
#define OMSDK_TEST_LOOP_NET_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdint.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

namespace loop_net {

using Bytes = std::vector<uint8_t>;

// The time the library reads once clock_set_source(test_clock) is set.
inline std::atomic<time_t> &now_ref() {
    static std::atomic<time_t> t{0};
    return t;
}
inline time_t test_clock() { return now_ref().load(); }
inline void set_now(time_t t) { now_ref().store(t); }
inline void advance(time_t seconds) { now_ref() += seconds; }

inline bool wait_until(const std::function<bool()> &pred, int timeout_ms = 3000) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Connects from `src` (any port) to 127.0.0.1:port, sends `msg`, half-closes
// and reads until the endpoint closes its side, within the time-out. The
// loop handles one connection at a time, so once this returns true it is
// done with this connection and with every one before it. What the
// endpoint sent back is appended to *answer.
inline bool exchange(const char *src, uint16_t port, const Bytes &msg, Bytes *answer = nullptr,
                     int timeout_ms = 3000) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return false;
    sockaddr_in from{};
    from.sin_family = AF_INET;
    from.sin_addr.s_addr = inet_addr(src);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = inet_addr("127.0.0.1");
    if (bind(fd, reinterpret_cast<sockaddr *>(&from), sizeof from) != 0 ||
        connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0) {
        close(fd);
        return false;
    }
    if (!msg.empty() &&
        send(fd, msg.data(), msg.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(msg.size())) {
        close(fd);
        return false;
    }
    shutdown(fd, SHUT_WR);
    bool closed = false;
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (std::chrono::steady_clock::now() < end) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 50) != 1) continue;
        uint8_t buf[2048];
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0) {
            closed = true;
            break;
        }
        if (answer != nullptr) answer->insert(answer->end(), buf, buf + n);
    }
    close(fd);
    return closed;
}

}  // namespace loop_net

#endif
