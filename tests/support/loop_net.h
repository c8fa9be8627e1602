// Tests that run the service loop on a thread: a movable clock source,
// bounded waiting, and connections to the endpoint's listener.
#ifndef OMSDK_TEST_LOOP_NET_H
#define OMSDK_TEST_LOOP_NET_H

#include <arpa/inet.h>
#include <errno.h>
#include <sys/time.h>
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
inline std::atomic<time_t> now{0};
inline time_t test_clock() { return now.load(); }
inline void set_now(time_t t) { now.store(t); }
inline void advance(time_t seconds) { now += seconds; }

inline bool wait_until(const std::function<bool()> &pred, int timeout_ms = 3000) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// A TCP connection from `src` (any port) to 127.0.0.1:port; -1 on failure.
inline int connect_from(const char *src, uint16_t port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in from{}, to{};
    from.sin_family = to.sin_family = AF_INET;
    from.sin_addr.s_addr = inet_addr(src);
    to.sin_port = htons(port);
    to.sin_addr.s_addr = inet_addr("127.0.0.1");
    if (fd >= 0 && (bind(fd, reinterpret_cast<sockaddr *>(&from), sizeof from) != 0 ||
                    connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0)) {
        close(fd);
        return -1;
    }
    return fd;
}

// Sends `msg`, half-closes and reads until the endpoint closes its side,
// each read within the time-out. The loop handles one connection at a time, so once
// this returns true it is done with this connection and every one before
// it. What came back is appended to *answer.
inline bool exchange(const char *src, uint16_t port, const Bytes &msg, Bytes *answer = nullptr,
                     int timeout_ms = 3000) {
    int fd = connect_from(src, port);
    if (fd < 0) return false;
    bool sent = msg.empty() ||
                send(fd, msg.data(), msg.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(msg.size());
    shutdown(fd, SHUT_WR);
    timeval tv{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    uint8_t buf[2048];
    ssize_t n = -1;
    while (sent && (n = recv(fd, buf, sizeof buf, 0)) > 0)
        if (answer != nullptr) answer->insert(answer->end(), buf, buf + n);
    close(fd);
    return sent && (n == 0 || errno != EAGAIN);  // closed or reset, not timed out
}

}  // namespace loop_net

#endif
