// SPDX-License-Identifier: Apache-2.0
// The socket-backed output table of a session.
#include "transport/send.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "diag/log.h"
#include "session/observe.h"
#include "util/mutex_guard.h"
#include "util/net_text.h"

namespace omsdk {

namespace {

// The session whose out buffer this thread has filled and not yet flushed:
// a datagram sent on another thread (an application's own discovery call)
// must not touch the loop's buffer. Initial-exec: a static TLS slot, so the
// library needs no TLS resolver from the dynamic loader.
__attribute__((tls_model("initial-exec"))) thread_local svc_session *t_holding = nullptr;

ssize_t send_all(int fd, const uint8_t *buf, size_t len) {
    size_t done = 0;
    while (done < len) {
        ssize_t n = send(fd, buf + done, len - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return done > 0 ? static_cast<ssize_t>(done) : n;
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

ssize_t reply_on_connection(svc_session *s, const uint8_t *buf, size_t len) {
    if (s->out_len > 0 && (s->out_fd != s->tcp_sock || s->out_len + len > sizeof s->out_buf))
        (void)flush_replies(s);
    if (len > sizeof s->out_buf || s->tcp_sock < 0) {
        const ssize_t sent = send(s->tcp_sock, buf, len, MSG_NOSIGNAL);
        if (sent > 0 && capturing(s)) capture_sent(s, s->tcp_sock, buf, static_cast<size_t>(sent));
        return sent;
    }
    memcpy(s->out_buf + s->out_len, buf, len);
    s->out_fd = s->tcp_sock;
    s->out_len += static_cast<uint32_t>(len);
    t_holding = s;
    return static_cast<ssize_t>(len);
}

ssize_t datagram_to(svc_session *s, const uint8_t *buf, size_t len, const struct sockaddr_in *to) {
    if (t_holding == s) (void)flush_replies(s);
    int32_t fd = s->udp_sock;
    bool own = false;
    if (s->datagram_on_demand != 0) {
        int32_t broadcast;
        {
            MutexGuard guard(&s->mutex);
            broadcast = s->datagram_broadcast;
        }
        fd = open_datagram_socket(s, broadcast);
        if (fd < 0) {
            const int err = errno;
            OM_WARN("no socket for a datagram on %s (%d:%s)", ip_text(s->self_addr.sin_addr).text,
                    err, errno_text(err).text);
            errno = err;
            return -1;
        }
        own = true;
    }
    const ssize_t sent =
        sendto(fd, buf, len, 0, reinterpret_cast<const struct sockaddr *>(to), sizeof *to);
    const int err = errno;
    if (sent >= 0 && capturing(s)) capture_datagram(s, fd, *to, buf, static_cast<size_t>(sent));
    if (own) close(fd);
    errno = err;
    return sent;
}

}  // namespace

const session_io socket_io = {reply_on_connection, datagram_to};

int32_t open_datagram_socket(const svc_session *s, int32_t broadcast) {
    const int fd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (fd < 0) return -1;
    int one = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (broadcast != 0)
        (void)setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &broadcast, sizeof broadcast);
    struct sockaddr_in at;
    memset(&at, 0, sizeof at);
    at.sin_family = AF_INET;
    at.sin_addr = s->self_addr.sin_addr;
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&at), sizeof at) != 0) {
        const int err = errno;
        close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

ssize_t flush_replies(svc_session *s) {
    if (t_holding == s) t_holding = nullptr;
    if (s->out_len == 0) return 0;
    const size_t len = s->out_len;
    s->out_len = 0;
    const ssize_t sent = send_all(s->out_fd, s->out_buf, len);
    if (sent > 0 && capturing(s)) capture_sent(s, s->out_fd, s->out_buf, static_cast<size_t>(sent));
    return sent;
}

}  // namespace omsdk
