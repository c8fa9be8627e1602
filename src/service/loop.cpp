// SPDX-License-Identifier: Apache-2.0
// The service loop: waits for the switch's connections, sends discovery
// updates when the timer runs out or a wake-up arrives, and drops back to UP
// when the switch goes quiet. Start-up runs it and frees the session after.
#include "service/loop.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <omsdk/reception.h>

#include "common/api.h"
#include "diag/log.h"
#include "engine/discovery.h"
#include "engine/intake.h"
#include "session/live.h"
#include "transport/reception.h"
#include "transport/sockets.h"
#include "transport/send.h"
#include "session/observe.h"
#include "util/clock.h"
#include "util/net_text.h"

namespace {

constexpr uint8_t kDiscoveryUpdate = CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE;  // 10
constexpr uint8_t kDiscoveryShutdown = CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE;          // 12
constexpr int kTcpProtocol = 6;

// After a pass: the discovery update when due or asked for, and the drop to
// UP of a switch that has gone quiet.
void end_of_pass(svc_session *s, bool out_of_band, time_t *last_discovery) {
    if (out_of_band || secondsToWait(s, *last_discovery) == 0) {
        OM_LOG_AS(omsdk::LOG_DEBUG, "omr_svc_loop", "sending discovery update event");
        sendDiscoveryEvent(s, kDiscoveryUpdate);
        *last_discovery = omsdk::clock_now();
    }
    if (ohmara_svc_getStatus(s) == OHMARA_STATUS_ACTIVE) {
        const double idle = difftime(omsdk::clock_now(), s->last_ack_time);
        OM_LOG_AS(omsdk::LOG_DEBUG, "omr_svc_loop", "time since last ACK %d",
                  static_cast<int>(idle));
        if (idle > omsdk::kIdleLimitSeconds) {
            OM_LOG_AS(omsdk::LOG_INFO, "omr_svc_loop",
                      "*Connected peer %s is IDLE, status changing from ACTIVE to UP.  "
                      "Restarting discovery...",
                      omsdk::ip_text(s->peer_addr).text);
            om_setStatusUp(s);
        }
    }
}

// One pass of the reference loop: one connection at a time, read to its end
// (or its time-out) before the next is looked at.
void reference_pass(svc_session *s, omsdk::Acceptor &acceptor, uint8_t *buf,
                    time_t *last_discovery) {
    struct timeval timeout;
    timeout.tv_sec = static_cast<time_t>(secondsToWait(s, *last_discovery));
    timeout.tv_usec = 0;

    uint32_t address = ohmara_svc_getStatus(s) == OHMARA_STATUS_ACTIVE ? s->peer_addr.s_addr : 0;
    const int32_t fd = omsdk::wait_for_connection(s, acceptor, &address, &timeout);
    bool out_of_band = false;
    if (address == s->self_addr.sin_addr.s_addr) {
        OM_LOG_AS(omsdk::LOG_DEBUG, "omr_svc_loop", "out of band");
        out_of_band = true;
    } else if (address != 0) {
        // Our own wake-ups must not displace the switch: only a foreign
        // caller becomes the peer (a refused one on its next attempt).
        s->peer_addr.s_addr = address;
    }

    if (fd != -1) {
        s->tcp_sock = fd;
        const int32_t n =
            omr_read_tcp_message(fd, buf, static_cast<int32_t>(omsdk::kLoopReceiveBuffer), nullptr);
        omsdk::note_read(s, n);
        OM_LOG_AS(omsdk::LOG_DEBUG, "omr_svc_loop", "bytes read %d for this event", n);
        if (n > 0) {
            OM_LOG_AS(omsdk::LOG_DEBUG, "omr_svc_loop", "process message");
            omr_processMsg(s, buf, n);
            (void)omsdk::flush_replies(s);  // the answer leaves in one send
        }
        close(fd);
        s->tcp_sock = -1;
    }
    end_of_pass(s, out_of_band, last_discovery);
}

// ---- the hardened loop: several connections read at once ----

constexpr int kMaxOpen = 64;  // connections beyond are closed at once
constexpr int64_t kPassMs = 1000;

struct Incoming {
    int32_t fd;  // -1: a free slot
    struct in_addr from;
    int64_t deadline_ms;  // 0: none
    int32_t have;
    uint8_t buf[omsdk::kLoopReceiveBuffer];
};

bool same(struct in_addr a, struct in_addr b) { return a.s_addr == b.s_addr; }

// Once ACTIVE only the parent switch, the allowed addresses and our own
// wake-ups may connect.
bool admitted(svc_session *s, struct in_addr from) {
    if (ohmara_svc_getStatus(s) != OHMARA_STATUS_ACTIVE) return true;
    if (same(from, s->peer_addr) || same(from, s->parent_addr.sin_addr) ||
        same(from, s->self_addr.sin_addr))
        return true;
    for (uint32_t i = 0; i < s->allowed_peer_count && i < OHMARA_MAX_ALLOWED_PEERS; ++i)
        if (same(from, s->allowed_peers[i])) return true;
    return false;
}

// Its table of open connections (some 90 kB) is allocated when the loop
// starts; each connection has its own deadline and a silent one costs only
// that, while the others are read and served.
class HardenedLoop {
public:
    void start(svc_session *s) {
        s_ = s;
        for (Incoming &c : open_) c.fd = -1;
    }
    void finish() {
        for (Incoming &c : open_) drop(c);
    }

    void pass(omsdk::Acceptor &acceptor, time_t *last_discovery) {
        const int64_t now = omsdk::monotonic_ms();
        int64_t wait_ms = static_cast<int64_t>(secondsToWait(s_, *last_discovery)) * 1000;
        if (wait_ms > kPassMs) wait_ms = kPassMs;
        struct pollfd fds[kMaxOpen + 1];
        fds[0] = {s_->listen_sock, POLLIN, 0};
        int n = 1;
        for (Incoming &c : open_) {
            if (c.fd < 0) continue;
            if (c.deadline_ms != 0 && c.deadline_ms - now < wait_ms)
                wait_ms = c.deadline_ms > now ? c.deadline_ms - now : 0;
            fds[n++] = {c.fd, POLLIN, 0};
        }
        bool out_of_band = false;
        if (poll(fds, static_cast<nfds_t>(n), static_cast<int>(wait_ms)) > 0) {
            for (int i = 1; i < n; ++i)
                if ((fds[i].revents & (POLLIN | POLLHUP | POLLERR)) != 0) read_from(fds[i].fd);
            if ((fds[0].revents & POLLIN) != 0) out_of_band = admit(acceptor);
        }
        const int64_t later = omsdk::monotonic_ms();
        for (Incoming &c : open_)
            if (c.fd >= 0 && c.deadline_ms != 0 && later >= c.deadline_ms)
                drop(c, OHMARA_REASON_RECEIVE_TIMEOUT);
        end_of_pass(s_, out_of_band, last_discovery);
    }

private:
    // A reason: the connection is let go because of its message.
    void drop(Incoming &c, ohmara_reason reason = OHMARA_REASON_NONE) {
        if (reason != OHMARA_REASON_NONE) omsdk::note_dropped(s_, reason, c.from);
        if (c.fd >= 0) close(c.fd);
        c.fd = -1;
    }

    // Accepts one caller; true when it is our own wake-up.
    bool admit(omsdk::Acceptor &acceptor) {
        struct sockaddr_in caller;
        memset(&caller, 0, sizeof caller);
        const int32_t fd = acceptor.accept_one(s_->listen_sock, &caller, &s_->accept_shed);
        if (fd < 0) return false;
        const bool own = same(caller.sin_addr, s_->self_addr.sin_addr);
        Incoming *slot = nullptr;
        for (Incoming &c : open_)
            if (c.fd < 0) slot = &c;
        if (!admitted(s_, caller.sin_addr) || slot == nullptr) {
            OM_DEBUG("closing %s: %s", omsdk::ip_text(caller.sin_addr).text,
                     slot == nullptr ? "too many connections" : "not the parent switch");
            close(fd);
            if (!own) omsdk::count(s_, omsdk::c_connections_refused);
            return own;  // a wake-up still asks for the update
        }
        const uint32_t limit = omsdk::receive_timeout_ms();
        slot->fd = fd;
        slot->from = caller.sin_addr;
        slot->deadline_ms = limit == 0 ? 0 : omsdk::monotonic_ms() + limit;
        slot->have = 0;
        if (own) OM_DEBUG("out of band");
        if (!own) omsdk::count(s_, omsdk::c_connections_accepted);
        return own;
    }

    // Reads what has arrived; serves the message once whole, and lets go of
    // a connection that ended, failed or announced too much.
    void read_from(int32_t fd) {
        Incoming *c = nullptr;
        for (Incoming &x : open_)
            if (x.fd == fd) c = &x;
        if (c == nullptr) return;
        const int32_t size = static_cast<int32_t>(sizeof c->buf);
        for (;;) {
            const int32_t need = omsdk::message_bytes_needed(c->buf, c->have, size);
            if (need < 0) return drop(*c, OHMARA_REASON_OVERSIZED);
            if (c->have == need) return serve(*c);  // needs no more: whole
            const ssize_t n =
                recv(c->fd, c->buf + c->have, static_cast<size_t>(need - c->have), MSG_DONTWAIT);
            if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) return drop(*c);
            if (n < 0) return;
            c->have += static_cast<int32_t>(n);
        }
    }

    void serve(Incoming &c) {
        // The switch becomes the peer by its messages, never once ACTIVE.
        if (!same(c.from, s_->self_addr.sin_addr) &&
            ohmara_svc_getStatus(s_) != OHMARA_STATUS_ACTIVE)
            s_->peer_addr = c.from;
        s_->tcp_sock = c.fd;
        OM_DEBUG("process message of %d bytes", c.have);
        omr_processMsg(s_, c.buf, c.have);
        (void)omsdk::flush_replies(s_);  // the answer leaves in one send
        s_->tcp_sock = -1;
        drop(c);
    }

    svc_session *s_;
    Incoming open_[kMaxOpen];
};

}  // namespace

OMSDK_API uint32_t secondsToWait(svc_session *s, time_t since) {
    if (s == nullptr) return 0;
    const uint32_t interval = ohmara_svc_getStatus(s) == OHMARA_STATUS_ACTIVE && s->pending_seq == 0
                                  ? s->discovery_interval
                                  : s->retry_interval;
    const double elapsed = difftime(omsdk::clock_now(), since);
    if (elapsed < 0) return 0;
    if (elapsed >= static_cast<double>(interval)) return 0;
    return interval - static_cast<uint32_t>(elapsed);
}

OMSDK_API int32_t omr_svc_loop(svc_session *s) {
    if (s == nullptr) return -1;
    om_setStatusUp(s);
    OM_INFO("*Ohmara status:  UP, starting discovery...");
    time_t last_discovery = 0;
    omsdk::Acceptor acceptor;

    HardenedLoop *hardened = nullptr;
    if (omsdk::hardened(s)) {
        hardened = static_cast<HardenedLoop *>(malloc(sizeof(HardenedLoop)));
        if (hardened == nullptr) OM_ERROR("out of memory: serving one connection at a time");
    }
    if (hardened != nullptr) {
        hardened->start(s);
        while (ohmara_svc_getStatus(s) != OHMARA_STATUS_SHUTDOWN)
            hardened->pass(acceptor, &last_discovery);
        hardened->finish();
        free(hardened);
    } else {
        uint8_t buf[omsdk::kLoopReceiveBuffer];
        while (ohmara_svc_getStatus(s) != OHMARA_STATUS_SHUTDOWN)
            reference_pass(s, acceptor, buf, &last_discovery);
    }

    OM_DEBUG("sending discovery shutdown event");
    sendDiscoveryEvent(s, kDiscoveryShutdown);
    om_setStatusDown(s);
    return 0;
}

OMSDK_API int32_t ohmara_svc_startup(svc_session *s) {
    if (s == nullptr) return -1;
    s->run_marker = OMSDK_RUN_MARKER;
    s->start_marker = s->run_marker;
    om_setStatusInitializing(s);

    const uint16_t listen_port = ntohs(s->self_addr.sin_port);
    OM_DEBUG("local socket address %s:%d id: %s", omsdk::ip_text(s->self_addr.sin_addr).text,
             listen_port, s->sender_id);
    if (s->registry != nullptr && s->registry->listen_port_notify != nullptr)
        s->registry->listen_port_notify(listen_port);

    omr_svc_loop(s);

    // No application thread reaches the session after this.
    omsdk::live_remove(s);
    omsdk::free_neighbor_tree(s->neighbor);
    s->neighbor = nullptr;
    free(s->pending_head);
    s->pending_head = nullptr;
    omr_svc_cleanup(s);
    OM_DEBUG("Everything is down.. returning");
    return 0;
}

OMSDK_API int32_t ohmara_svc_shutdown(svc_session *s) {
    // A session already freed (or never created) is not live: not touched.
    if (!omsdk::live_enter(s)) return -1;
    // Everything needed after the status change is taken first: once the
    // status reads SHUTDOWN the loop may end on its own.
    struct sockaddr_in self = s->self_addr;
    om_setStatusShutdown(s);

    const int fd = socket(AF_INET, SOCK_STREAM, kTcpProtocol);
    if (fd < 0) {
        OM_ERROR("= shut socket failed");
        omsdk::live_leave(s);
        return -1;
    }

    const uint16_t listen_port = self.sin_port;
    self.sin_family = AF_INET;
    self.sin_port = 0;
    if (bind(fd, reinterpret_cast<struct sockaddr *>(&self), sizeof self) != 0) {
        const int err = errno;
        OM_WARN("= Shut Bind failed fd = %d server:%s, port:%d error=%d", fd,
                omsdk::ip_text(self.sin_addr).text, ntohs(self.sin_port), err);
        close(fd);
        omsdk::live_leave(s);
        return -1;
    }

    // The wake-up only hastens the end: the loop also finds the status by
    // itself within a second, so a connection that cannot be made at once
    // (a full backlog drops it) is not waited for.
    self.sin_port = listen_port;
    const int rc = omsdk::connect_within(fd, &self, omsdk::kWakeUpConnectMs);
    if (rc != 0) {
        const int err = errno;
        OM_ERROR("= Connect shut failed fd=%d %s:%d error=%d<%d>", fd,
                 omsdk::ip_text(self.sin_addr).text, ntohs(self.sin_port), rc, err);
        close(fd);
        omsdk::live_leave(s);
        return -1;
    }

    (void)send(fd, "", 0, MSG_NOSIGNAL);  // the connection itself is the message
    close(fd);
    omsdk::live_leave(s);
    return 0;
}
