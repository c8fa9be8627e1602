// SPDX-License-Identifier: Apache-2.0
#include "net.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

namespace omsdk_tools {

namespace {

constexpr size_t kSecHdr = 12;
constexpr size_t kEventHdr = 48;
constexpr size_t kMaxMessage = 1400;

std::string sys_error(const char *what) { return std::string(what) + ": " + strerror(errno); }

int remaining_ms(int64_t deadline) {
    int64_t left = deadline - now_ms();
    return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

int64_t now_ms() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int64_t now_us() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

int open_udp(uint32_t addr, uint16_t port, std::string *why) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        *why = sys_error("socket");
        return -1;
    }
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    // Room for a burst of discovery: thousands of endpoints starting at once
    // overflow the default buffer, and a datagram dropped here costs its
    // endpoint a 30 s retry. The system caps SO_RCVBUF at
    // net.core.rmem_max; a privileged process may go past it.
    int room = 32 << 20;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room) != 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = addr;
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
        *why = sys_error(("bind " + addr_text(a)).c_str());
        close(fd);
        return -1;
    }
    return fd;
}

uint16_t local_port(int fd) {
    sockaddr_in a{};
    socklen_t len = sizeof a;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) != 0) return 0;
    return ntohs(a.sin_port);
}

uint32_t local_addr(int fd) {
    sockaddr_in a{};
    socklen_t len = sizeof a;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) != 0) return 0;
    return a.sin_addr.s_addr;
}

int start_connect(const sockaddr_in &to, uint32_t source, bool *pending, std::string *why) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        *why = sys_error("socket");
        return -1;
    }
    if (source != 0) {
        // The port is chosen at connect() for the whole address pair, not
        // at bind() for the source alone: thousands of connections from one
        // source address (most in TIME_WAIT) would use up the ports.
        int on = 1;
        setsockopt(fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
        sockaddr_in s{};
        s.sin_family = AF_INET;
        s.sin_addr.s_addr = source;
        if (bind(fd, reinterpret_cast<sockaddr *>(&s), sizeof s) != 0) {
            *why = sys_error(("bind source " + ip_text(source)).c_str());
            close(fd);
            return -1;
        }
    }
    sockaddr_in dst = to;
    dst.sin_family = AF_INET;
    const int r = connect(fd, reinterpret_cast<sockaddr *>(&dst), sizeof dst);
    if (r != 0 && errno != EINPROGRESS) {
        *why = sys_error(("connect " + addr_text(dst)).c_str());
        close(fd);
        return -1;
    }
    *pending = r != 0;
    return fd;
}

bool finish_connect(int fd, const sockaddr_in &to, std::string *why) {
    int err = 0;
    socklen_t len = sizeof err;
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
    if (err == 0) return true;
    sockaddr_in dst = to;
    dst.sin_family = AF_INET;
    *why = "connect " + addr_text(dst) + ": " + strerror(err);
    return false;
}

int connect_tcp(const sockaddr_in &to, uint32_t source, int timeout_ms, std::string *why) {
    bool pending = false;
    int fd = start_connect(to, source, &pending, why);
    if (fd < 0) return -1;
    if (pending) {
        const int64_t deadline = now_ms() + timeout_ms;
        for (;;) {
            pollfd p{fd, POLLOUT, 0};
            int k = poll(&p, 1, remaining_ms(deadline));
            if (k < 0 && errno == EINTR) continue;
            if (k <= 0) {
                sockaddr_in dst = to;
                dst.sin_family = AF_INET;
                *why = "connect " + addr_text(dst) + ": timed out";
                close(fd);
                return -1;
            }
            break;
        }
        if (!finish_connect(fd, to, why)) {
            close(fd);
            return -1;
        }
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL, 0) & ~O_NONBLOCK);
    return fd;
}

bool send_all(int fd, const Bytes &data, int timeout_ms, std::string *why) {
    const int64_t deadline = now_ms() + timeout_ms;
    size_t sent = 0;
    while (sent < data.size()) {
        pollfd p{fd, POLLOUT, 0};
        int r = poll(&p, 1, remaining_ms(deadline));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) {
            *why = r == 0 ? "send: timed out" : sys_error("poll");
            return false;
        }
        ssize_t k = send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (k < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            *why = sys_error("send");
            return false;
        }
        sent += static_cast<size_t>(k);
    }
    return true;
}

void MessageReader::reset() {
    buf_.clear();
    got_ = 0;
    stage_ = 0;
}

int MessageReader::feed(int fd, std::string *why) {
    if (stage_ == 0 && buf_.empty()) buf_.assign(kSecHdr, 0);
    for (;;) {
        while (got_ < buf_.size()) {
            const ssize_t k = recv(fd, buf_.data() + got_, buf_.size() - got_, MSG_DONTWAIT);
            if (k < 0) {
                if (errno == EINTR) continue;
                if (errno == EAGAIN || errno == EWOULDBLOCK) return 2;
                const bool reset = errno == ECONNRESET && got_ == 0;
                *why = sys_error("recv");
                return reset ? -2 : -1;
            }
            if (k == 0) {
                if (got_ == 0) return 0;
                *why = "connection closed in the middle of a message";
                return -1;
            }
            got_ += static_cast<size_t>(k);
        }
        if (stage_ == 0) {
            // The security header says how much room the digest takes.
            const size_t digest_room =
                ((static_cast<size_t>(buf_[10]) << 8 | buf_[11]) + 3u) & ~size_t{3};
            if (kSecHdr + digest_room + kEventHdr > kMaxMessage) {
                *why = "message header announces a digest of " + std::to_string(digest_room) +
                       " bytes";
                return -1;
            }
            buf_.resize(kSecHdr + digest_room + kEventHdr);
            stage_ = 1;
        } else if (stage_ == 1) {
            // The event header ends with the length of the TLVs.
            const uint8_t *h = buf_.data() + buf_.size() - kEventHdr;
            const size_t total = buf_.size() + (static_cast<size_t>(h[44]) << 8 | h[45]);
            if (total > kMaxMessage) {
                *why = "message of " + std::to_string(total) + " bytes exceeds 1400";
                return -1;
            }
            buf_.resize(total);
            stage_ = 2;
        } else {
            return 1;
        }
    }
}

int read_message(int fd, Bytes *out, int timeout_ms, std::string *why) {
    const int64_t deadline = now_ms() + timeout_ms;
    MessageReader reader;
    for (;;) {
        const int r = reader.feed(fd, why);
        if (r != 2) {
            if (r == 1) *out = reader.message();
            return r;
        }
        pollfd p{fd, POLLIN, 0};
        const int k = poll(&p, 1, remaining_ms(deadline));
        if (k < 0 && errno != EINTR) {
            *why = sys_error("poll");
            return -1;
        }
        if (k == 0) {
            *why = "timed out waiting for the answer";
            return -1;
        }
    }
}

void close_fd(int *fd) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
}

}  // namespace omsdk_tools
