// SPDX-License-Identifier: Apache-2.0
#include "net.h"

#include <errno.h>
#include <fcntl.h>
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

// Reads exactly n bytes into out+at. 1 done, 0 closed before the first
// byte of this read, -1 time-out/error/closed midway.
int read_exact(int fd, uint8_t *dst, size_t n, int64_t deadline, bool *any, std::string *why) {
    size_t got = 0;
    while (got < n) {
        pollfd p{fd, POLLIN, 0};
        int r = poll(&p, 1, remaining_ms(deadline));
        if (r < 0) {
            if (errno == EINTR) continue;
            *why = sys_error("poll");
            return -1;
        }
        if (r == 0) {
            *why = "timed out waiting for the answer";
            return -1;
        }
        ssize_t k = recv(fd, dst + got, n - got, 0);
        if (k < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            const bool reset = errno == ECONNRESET && !*any;
            *why = sys_error("recv");
            return reset ? -2 : -1;
        }
        if (k == 0) {
            if (!*any) return 0;
            *why = "connection closed in the middle of a message";
            return -1;
        }
        got += static_cast<size_t>(k);
        *any = true;
    }
    return 1;
}

}  // namespace

int64_t now_ms() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int open_udp(uint32_t addr, uint16_t port, std::string *why) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        *why = sys_error("socket");
        return -1;
    }
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
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

int connect_tcp(const sockaddr_in &to, uint32_t source, int timeout_ms, std::string *why) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        *why = sys_error("socket");
        return -1;
    }
    if (source != 0) {
        sockaddr_in s{};
        s.sin_family = AF_INET;
        s.sin_addr.s_addr = source;
        if (bind(fd, reinterpret_cast<sockaddr *>(&s), sizeof s) != 0) {
            *why = sys_error(("bind source " + ip_text(source)).c_str());
            close(fd);
            return -1;
        }
    }
    const int flags = fcntl(fd, F_GETFL, 0);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    sockaddr_in dst = to;
    dst.sin_family = AF_INET;
    int r = connect(fd, reinterpret_cast<sockaddr *>(&dst), sizeof dst);
    if (r != 0 && errno != EINPROGRESS) {
        *why = sys_error(("connect " + addr_text(dst)).c_str());
        close(fd);
        return -1;
    }
    if (r != 0) {
        const int64_t deadline = now_ms() + timeout_ms;
        for (;;) {
            pollfd p{fd, POLLOUT, 0};
            int k = poll(&p, 1, remaining_ms(deadline));
            if (k < 0 && errno == EINTR) continue;
            if (k <= 0) {
                *why = "connect " + addr_text(dst) + ": timed out";
                close(fd);
                return -1;
            }
            break;
        }
        int err = 0;
        socklen_t len = sizeof err;
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
        if (err != 0) {
            *why = "connect " + addr_text(dst) + ": " + strerror(err);
            close(fd);
            return -1;
        }
    }
    fcntl(fd, F_SETFL, flags);
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

int read_message(int fd, Bytes *out, int timeout_ms, std::string *why) {
    const int64_t deadline = now_ms() + timeout_ms;
    out->assign(kSecHdr, 0);
    bool any = false;
    int r = read_exact(fd, out->data(), kSecHdr, deadline, &any, why);
    if (r <= 0) return r;  // 0 closed, -1 failed, -2 reset
    const size_t digest_room =
        ((static_cast<size_t>((*out)[10]) << 8 | (*out)[11]) + 3u) & ~size_t{3};
    if (kSecHdr + digest_room + kEventHdr > kMaxMessage) {
        *why = "message header announces a digest of " + std::to_string(digest_room) + " bytes";
        return -1;
    }
    out->resize(kSecHdr + digest_room + kEventHdr);
    if (read_exact(fd, out->data() + kSecHdr, digest_room + kEventHdr, deadline, &any, why) <= 0)
        return -1;
    const uint8_t *h = out->data() + kSecHdr + digest_room;
    const size_t tlv_bytes = static_cast<size_t>(h[44]) << 8 | h[45];
    const size_t total = kSecHdr + digest_room + kEventHdr + tlv_bytes;
    if (total > kMaxMessage) {
        *why = "message of " + std::to_string(total) + " bytes exceeds 1400";
        return -1;
    }
    const size_t have = out->size();
    out->resize(total);
    if (tlv_bytes > 0 && read_exact(fd, out->data() + have, tlv_bytes, deadline, &any, why) <= 0)
        return -1;
    return 1;
}

void close_fd(int *fd) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
}

}  // namespace omsdk_tools
