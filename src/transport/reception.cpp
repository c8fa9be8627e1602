// SPDX-License-Identifier: Apache-2.0
// Reception: waiting for the switch's connection and reading one framed
// message off it.
#include "transport/reception.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include <omsdk/pdu.h>
#include <omsdk/socket.h>
#include <omsdk/wire_types.h>

#include "common/api.h"
#include "diag/log.h"
#include "util/mutex_guard.h"
#include "util/net_text.h"

namespace {

constexpr int32_t kSecBlock = CV_SEC_HEADER_SIZE;                             // 12
constexpr int32_t kEventHeader = CV_EVENT_HEADER_SIZE;                        // 48
constexpr int32_t kFixedFraming = CV_SEC_HEADER_SIZE + CV_EVENT_HEADER_SIZE;  // 60
constexpr int32_t kMaxMessage = CV_PDU_MAX_SIZE;                              // 1400

std::atomic<uint32_t> g_receive_timeout_ms{5000};
// A failing accept() is logged at most once in this time.
constexpr int64_t kAcceptLogMs = 10000;
// Rest after an accept() that found no descriptor even with the spare given up.
constexpr long kNoRoomPauseNs = 50000000;

using omsdk::monotonic_ms;

// Milliseconds for poll(): -1 waits without limit; partial milliseconds
// round up so a short time-out never turns into no wait at all.
int poll_timeout(const struct timeval *tv) {
    if (tv == nullptr) return -1;
    if (tv->tv_sec < 0 || tv->tv_usec < 0) return 0;
    long long ms = static_cast<long long>(tv->tv_sec) * 1000 + (tv->tv_usec + 999) / 1000;
    return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

// Readable in the sense of select(): data, end of stream or an error.
bool readable(const struct pollfd &p) { return (p.revents & (POLLIN | POLLHUP | POLLERR)) != 0; }

// False when the socket refused the time-out: its reads could then block
// the loop without limit.
bool set_receive_timeout(int fd, int64_t ms) {
    struct timeval tv;
    tv.tv_sec = static_cast<time_t>(ms / 1000);
    tv.tv_usec = static_cast<suseconds_t>((ms % 1000) * 1000);
    return setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0;
}

// One whole message must arrive within the receive time-out, not each of its
// reads: a peer that trickles bytes cannot hold the loop any longer than one
// that stays silent. Fast messages cost no extra system call.
class MessageDeadline {
public:
    MessageDeadline()
        : limit_ms_(g_receive_timeout_ms.load(std::memory_order_relaxed)),
          start_ms_(monotonic_ms()) {}

    // False when the time is up; otherwise tightens the socket's receive
    // time-out to what is left once the peer has proved slow.
    bool before_receive(int32_t sock) {
        if (limit_ms_ == 0) return true;
        const int64_t elapsed = monotonic_ms() - start_ms_;
        if (elapsed < kSlowPeerMs) return true;
        const int64_t left = static_cast<int64_t>(limit_ms_) - elapsed;
        if (left <= 0) {
            errno = ETIMEDOUT;
            return false;
        }
        return set_receive_timeout(sock, left);
    }

private:
    static constexpr int64_t kSlowPeerMs = 50;
    uint32_t limit_ms_;
    int64_t start_ms_;
};

int32_t receive(int32_t sock, uint8_t *dst, int32_t want, MessageDeadline &deadline) {
    if (!deadline.before_receive(sock)) return -1;
    return static_cast<int32_t>(recv(sock, dst, static_cast<size_t>(want), MSG_WAITALL));
}

int32_t at_most(int32_t want, int32_t room) { return want < room ? want : room; }

}  // namespace

namespace omsdk {

void set_receive_timeout_ms(uint32_t ms) {
    g_receive_timeout_ms.store(ms, std::memory_order_relaxed);
}

uint32_t receive_timeout_ms() { return g_receive_timeout_ms.load(std::memory_order_relaxed); }

}  // namespace omsdk

namespace {

// waitfor_tcp_connect. Logs under the exported name.
int32_t wait_connect(int32_t listener, uint32_t *peer, struct timeval *timeout) {
    static const char kFunc[] = "waitfor_tcp_connect";
    OM_LOG_AS(omsdk::LOG_DEBUG, kFunc, "wait for %ld seconds",
              timeout != nullptr ? static_cast<long>(timeout->tv_sec) : -1L);

    struct pollfd p;
    p.fd = listener;
    p.events = POLLIN;
    p.revents = 0;
    int rc = poll(&p, 1, poll_timeout(timeout));
    int err = errno;
    OM_LOG_AS(omsdk::LOG_DEBUG, kFunc, "select (accept) %d", rc);
    if (rc < 1) {
        OM_LOG_AS(omsdk::LOG_DEBUG, kFunc, "select returned %d, error = %d (%s)", rc, err,
                  omsdk::errno_text(err).text);
        return -1;
    }
    if (!readable(p)) return -1;

    struct sockaddr_in caller;
    memset(&caller, 0, sizeof caller);
    socklen_t len = sizeof caller;
    const int fd = accept(listener, reinterpret_cast<struct sockaddr *>(&caller), &len);
    if (fd < 0) {
        err = errno;
        perror("accept()");
        OM_LOG_AS(omsdk::LOG_ERROR, kFunc, "errno = %d", err);
        return -1;
    }

    if (peer != nullptr && *peer != 0 && *peer != caller.sin_addr.s_addr) {
        OM_LOG_AS(omsdk::LOG_DEBUG, kFunc, "closing peer %s (%x)",
                  omsdk::ip_text(caller.sin_addr).text, *peer);
        // A switch that moved is taken on at its second attempt.
        *peer = caller.sin_addr.s_addr;
        close(fd);
        return -1;
    }
    if (peer != nullptr) *peer = caller.sin_addr.s_addr;
    OM_LOG_AS(omsdk::LOG_DEBUG, kFunc, "accept from %s on fd %d",
              omsdk::ip_text(caller.sin_addr).text, fd);
    if (!set_receive_timeout(fd, g_receive_timeout_ms.load(std::memory_order_relaxed))) {
        OM_LOG_AS(omsdk::LOG_ERROR, kFunc, "could not bound the receive time, closing fd %d", fd);
        close(fd);
        return -1;
    }
    return fd;
}

// The process's spare descriptor (-1 while given up) and how many acceptors
// share it. It is taken with an exchange, so that two sessions out of
// descriptors at once never close it twice: the one that finds it gone rests.
std::atomic<int> g_spare{-1};
pthread_mutex_t g_spare_lock = PTHREAD_MUTEX_INITIALIZER;
uint32_t g_acceptors = 0;  // under g_spare_lock

void refill_spare() {
    if (g_spare.load(std::memory_order_acquire) >= 0) return;
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    int none = -1;
    if (fd >= 0 && !g_spare.compare_exchange_strong(none, fd)) close(fd);
}

}  // namespace

namespace omsdk {

Acceptor::Acceptor() : logged_ms_(INT64_MIN) {
    MutexGuard guard(&g_spare_lock);
    ++g_acceptors;
    refill_spare();
}

Acceptor::~Acceptor() {
    MutexGuard guard(&g_spare_lock);
    if (--g_acceptors > 0) return;
    const int fd = g_spare.exchange(-1);
    if (fd >= 0) close(fd);
}

int32_t Acceptor::accept_one(int32_t listener, struct sockaddr_in *caller, uint32_t *shed) {
    socklen_t len = sizeof *caller;
    int fd = accept(listener, reinterpret_cast<struct sockaddr *>(caller), &len);
    if (fd >= 0) return fd;
    const int err = errno;
    const int64_t now = monotonic_ms();
    if (logged_ms_ == INT64_MIN || now - logged_ms_ >= kAcceptLogMs) {
        logged_ms_ = now;
        perror("accept()");
        OM_LOG_AS(LOG_ERROR, "waitfor_tcp_connect", "errno = %d", err);
    }
    if (err != EMFILE && err != ENFILE) return -1;
    // The pending connection is taken with the spare's descriptor and
    // closed: the listener is quiet again and the caller learns at once.
    const int spare = g_spare.exchange(-1);
    if (spare >= 0) close(spare);
    len = sizeof *caller;
    fd = accept(listener, reinterpret_cast<struct sockaddr *>(caller), &len);
    if (fd >= 0) {
        close(fd);
        ++*shed;
    }
    refill_spare();
    if (fd < 0) {  // not even the spare's room (another thread took it): rest
        struct timespec pause = {0, kNoRoomPauseNs};
        nanosleep(&pause, nullptr);
    }
    return -1;
}

int32_t message_bytes_needed(const uint8_t *buf, int32_t have, int32_t size) {
    if (have < kSecBlock) return kSecBlock;
    cv_sec_hdr sec;
    cv_corvane_secure_nw_to_host(buf, &sec);
    const int32_t digest_room = (static_cast<int32_t>(sec.digest_len) + 3) & ~3;
    if (digest_room + kFixedFraming > size) return -1;
    if (have < digest_room + kFixedFraming) return digest_room + kFixedFraming;
    cv_event_hdr hdr;
    cv_corvane_event_nw_to_host(buf + kSecBlock + digest_room, &hdr);
    const int32_t whole = hdr.tlv_bytes + digest_room + kFixedFraming;
    return whole > kMaxMessage || whole > size ? -1 : whole;
}

}  // namespace omsdk

OMSDK_API int32_t waitfor_tcp_connect(int32_t listener, uint32_t *peer, struct timeval *timeout) {
    return wait_connect(listener, peer, timeout);
}

OMSDK_API int32_t omr_read_tcp_message(int32_t sock, uint8_t *buf, int32_t size,
                                       struct sockaddr_in * /*from*/) {
    if (buf == nullptr || size <= 0) return -1;
    MessageDeadline deadline;
    int32_t total = 0;

    // Security block.
    int32_t step = 0;
    while (total <= kSecBlock - 1 && total < size) {
        int32_t n = receive(sock, buf + total, at_most(kSecBlock - step, size - total), deadline);
        OM_TRACE("Read %d bytes for hdr of mgmt port", n);
        if (n <= 0) return n;
        step += n;
        total += n;
    }
    if (total < kSecBlock) return total;  // the buffer is full

    cv_sec_hdr sec;
    cv_corvane_secure_nw_to_host(buf, &sec);
    const int32_t digest_room = (static_cast<int32_t>(sec.digest_len) + 3) & ~3;

    // Padded digest and event header.
    step = 0;
    while (total < digest_room + kFixedFraming && total < size) {
        int32_t n = receive(sock, buf + total,
                            at_most(digest_room + kEventHeader - step, size - total), deadline);
        OM_TRACE("Read %d bytes for header of mgmt port", n);
        OM_TRACE("Read %d bytes total mgmt", n > 0 ? total + n : total);
        if (n <= 0) return n;
        step += n;
        total += n;
    }
    if (total < digest_room + kFixedFraming) return total;  // the buffer is full

    cv_event_hdr hdr;
    cv_corvane_event_nw_to_host(buf + kSecBlock + digest_room, &hdr);
    const int32_t tlv_bytes = hdr.tlv_bytes;
    const int32_t whole = tlv_bytes + digest_room + kFixedFraming;
    if (whole > kMaxMessage) {
        OM_DEBUG("Incoming packet exceeds Ohmara max packet size, dropping packet");
        return -1;
    }

    // Payload.
    step = 0;
    while (total < whole && total < size) {
        int32_t n = receive(sock, buf + total, at_most(tlv_bytes - step, size - total), deadline);
        OM_TRACE("Read %d bytes for payload of mgmt port", n);
        OM_TRACE("Read %d bytes total mgmt", n > 0 ? total + n : total);
        if (n <= 0) return n;
        step += n;
        total += n;
    }
    return total;
}

OMSDK_API int32_t waitfor_tcp_message(int32_t sock, uint8_t *buf, int32_t size,
                                      struct timeval *timeout) {
    struct pollfd p;
    p.fd = sock;
    p.events = POLLIN;
    p.revents = 0;
    int rc = poll(&p, 1, poll_timeout(timeout));
    OM_DEBUG("select (read) status %d on fd %d", rc, sock);
    if (rc <= 0) return 0;
    OM_DEBUG("checking sock mask");
    if (!readable(p)) return 0;
    OM_DEBUG("attempting read w/max len %d", size);
    struct sockaddr_in from;
    memset(&from, 0, sizeof from);
    int32_t n = omr_read_tcp_message(sock, buf, size, &from);
    // The sender is the connection's own peer.
    socklen_t len = sizeof from;
    getpeername(sock, reinterpret_cast<struct sockaddr *>(&from), &len);
    OM_DEBUG("read %d bytes from %s", n, omsdk::ip_text(from.sin_addr).text);
    return n;
}

OMSDK_API int32_t omr_read_udp_message(int32_t sock, uint8_t *buf, int32_t size,
                                       struct sockaddr_in * /*from*/) {
    if (buf == nullptr || size < 0) return -1;
    struct sockaddr_in sender;
    socklen_t len = sizeof sender;
    int32_t n = static_cast<int32_t>(recvfrom(sock, buf, static_cast<size_t>(size), 0,
                                              reinterpret_cast<struct sockaddr *>(&sender), &len));
    if (n < 1) {
        OM_TRACE("read failed with %d bytes, errno %d", n, omr_getErrorCode());
        return n;
    }
    OM_TRACE("read of %d bytes", n);
    return n;
}
