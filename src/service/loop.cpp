// SPDX-License-Identifier: Apache-2.0
// The service loop, by turns: each turn accepts and reads what is ready,
// serves whole messages, sends the discovery update when it is due or asked
// for, and drops back to UP when the switch goes quiet. Start-up waits
// between turns on a thread of its own; an application with its own event
// loop makes the turns itself (ohmara_svc_open, _getWait, _turn, _close).
#include "service/loop.h"

#include <arpa/inet.h>
#include <errno.h>
#include <limits.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <new>

#include <omsdk/reception.h>

#include "common/api.h"
#include "diag/log.h"
#include "engine/discovery.h"
#include "engine/intake.h"
#include "session/callbacks.h"
#include "session/live.h"
#include "session/observe.h"
#include "session/time.h"
#include "transport/reception.h"
#include "transport/sockets.h"
#include "transport/send.h"
#include "util/net_text.h"

namespace {

constexpr uint8_t kDiscoveryUpdate = CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE;  // 10
constexpr uint8_t kDiscoveryShutdown = CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE;          // 12
constexpr int kTcpProtocol = 6;
// The loop looks at the status at least this often, so that a shutdown
// whose wake-up connection failed still ends it.
constexpr int64_t kStatusCheckMs = 500;
// Connections read at once under the hardened profile; more are closed at
// once. The reference profile reads one at a time.
constexpr uint32_t kMaxOpen = OHMARA_WAIT_MAX_FDS - 1;
constexpr int64_t kNoDeadline = INT32_MAX;

struct Connection {
    int32_t fd;
    struct in_addr from;
    int64_t deadline_ms;  // 0: none
    int32_t have;
    uint8_t buf[omsdk::kLoopReceiveBuffer];
};

}  // namespace

// What one turn leaves to the next. Small, so that many sessions fit one
// thread: a connection's buffer exists only while it is open.
struct svc_turn {
    omsdk::Acceptor acceptor;
    time_t last_discovery;
    Connection **open;  // `count` in use of `room`
    uint32_t count;
    uint32_t room;
    bool out_of_band;  // our own wake-up came in this pass
    bool stopped;      // shutdown event sent, status DOWN
};

namespace {

bool same(struct in_addr a, struct in_addr b) { return a.s_addr == b.s_addr; }

// Once ACTIVE only the parent switch, the allowed addresses and our own
// wake-ups may connect (hardened profile).
bool admitted(svc_session *s, struct in_addr from) {
    if (ohmara_svc_getStatus(s) != OHMARA_STATUS_ACTIVE) return true;
    if (same(from, s->peer_addr) || same(from, s->parent_addr.sin_addr) ||
        same(from, s->self_addr.sin_addr))
        return true;
    for (uint32_t i = 0; i < s->allowed_peer_count && i < OHMARA_MAX_ALLOWED_PEERS; ++i)
        if (same(from, s->allowed_peers[i])) return true;
    return false;
}

// After a pass: the discovery update when due or asked for, and the drop to
// UP of a switch that has gone quiet.
void end_of_pass(svc_session *s, svc_turn *t) {
    if (t->out_of_band || secondsToWait(s, t->last_discovery) == 0) {
        OM_LOG_AS(omsdk::LOG_DEBUG, "omr_svc_loop", "sending discovery update event");
        sendDiscoveryEvent(s, kDiscoveryUpdate);
        t->last_discovery = omsdk::session_seconds(s);
    }
    t->out_of_band = false;
    if (ohmara_svc_getStatus(s) == OHMARA_STATUS_ACTIVE) {
        const double idle = difftime(omsdk::session_seconds(s), s->last_ack_time);
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

void let_go(svc_turn *t, uint32_t i) {
    close(t->open[i]->fd);
    free(t->open[i]);
    t->open[i] = t->open[--t->count];
}

// Lets go of connection i unserved. The reference profile logs what its
// read of the connection came to: 0 at the end of the stream, -1 for a
// failure or a time-out.
void finish(svc_session *s, svc_turn *t, uint32_t i, int32_t result,
            ohmara_reason reason = OHMARA_REASON_NONE) {
    if (reason != OHMARA_REASON_NONE) omsdk::note_dropped(s, reason, t->open[i]->from);
    if (!omsdk::hardened(s))
        OM_LOG_AS(omsdk::LOG_DEBUG, "omr_svc_loop", "bytes read %d for this event", result);
    let_go(t, i);
}

void serve(svc_session *s, Connection &c) {
    if (omsdk::hardened(s)) {
        // The switch becomes the peer by its messages, never once ACTIVE.
        if (!same(c.from, s->self_addr.sin_addr) && ohmara_svc_getStatus(s) != OHMARA_STATUS_ACTIVE)
            s->peer_addr = c.from;
        OM_LOG_AS(omsdk::LOG_DEBUG, "serve", "process message of %d bytes", c.have);
    } else {
        OM_LOG_AS(omsdk::LOG_DEBUG, "omr_svc_loop", "bytes read %d for this event", c.have);
        OM_LOG_AS(omsdk::LOG_DEBUG, "omr_svc_loop", "process message");
    }
    s->tcp_sock = c.fd;
    omr_processMsg(s, c.buf, c.have);
    (void)omsdk::flush_replies(s);  // the answer leaves in one send
    s->tcp_sock = -1;
}

// Reads what has arrived on connection i without blocking; serves the
// message once whole. True when the connection is done with (served, ended,
// failed or announced too much) and let go.
bool read_from(svc_session *s, svc_turn *t, uint32_t i) {
    Connection &c = *t->open[i];
    const int32_t size = static_cast<int32_t>(sizeof c.buf);
    for (;;) {
        const int32_t need = omsdk::message_bytes_needed(c.buf, c.have, size);
        if (need < 0) {
            if (!omsdk::hardened(s))
                OM_LOG_AS(omsdk::LOG_DEBUG, "omr_read_tcp_message",
                          "Incoming packet exceeds Ohmara max packet size, dropping packet");
            return finish(s, t, i, -1, OHMARA_REASON_OVERSIZED), true;
        }
        if (c.have == need) {
            serve(s, c);
            return let_go(t, i), true;
        }
        const ssize_t n =
            recv(c.fd, c.buf + c.have, static_cast<size_t>(need - c.have), MSG_DONTWAIT);
        if (n == 0) return finish(s, t, i, 0), true;
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return false;
        if (n < 0) return finish(s, t, i, -1), true;
        c.have += static_cast<int32_t>(n);
    }
}

// Keeps an accepted connection; false (closed) without memory for it.
bool keep(svc_session *s, svc_turn *t, int32_t fd, struct in_addr from) {
    if (t->count == t->room) {
        const uint32_t room = t->room == 0 ? 1 : t->room * 2;
        // An array of pointers, as meant.
        void *grown = realloc(static_cast<void *>(t->open),
                              room * sizeof(Connection *));  // NOLINT(bugprone-sizeof-expression)
        if (grown == nullptr) {
            OM_ERROR("out of memory: closing fd %d", fd);
            close(fd);
            return false;
        }
        t->open = static_cast<Connection **>(grown);
        t->room = room;
    }
    Connection *c = static_cast<Connection *>(malloc(sizeof(Connection)));
    if (c == nullptr) {
        OM_ERROR("out of memory: closing fd %d", fd);
        close(fd);
        return false;
    }
    const uint32_t limit = omsdk::receive_timeout_ms();
    c->fd = fd;
    c->from = from;
    c->deadline_ms = limit == 0 ? 0 : omsdk::session_ms(s) + limit;
    c->have = 0;
    t->open[t->count++] = c;
    return true;
}

// The reference profile's accept: once ACTIVE, a caller other than the peer
// is closed and becomes the peer (a switch that moved is taken on at its
// second attempt); our own wake-ups never displace the switch.
void accept_reference(svc_session *s, svc_turn *t, int32_t fd, struct in_addr from) {
    static const char kFunc[] = "waitfor_tcp_connect";
    const uint32_t peer = ohmara_svc_getStatus(s) == OHMARA_STATUS_ACTIVE ? s->peer_addr.s_addr : 0;
    if (peer != 0 && peer != from.s_addr) {
        OM_LOG_AS(omsdk::LOG_DEBUG, kFunc, "closing peer %s (%x)", omsdk::ip_text(from).text, peer);
        close(fd);
        fd = -1;
    } else {
        OM_LOG_AS(omsdk::LOG_DEBUG, kFunc, "accept from %s on fd %d", omsdk::ip_text(from).text,
                  fd);
    }
    if (same(from, s->self_addr.sin_addr)) {
        OM_LOG_AS(omsdk::LOG_DEBUG, "omr_svc_loop", "out of band");
        t->out_of_band = true;
    } else {
        s->peer_addr = from;
    }
    if (!same(from, s->self_addr.sin_addr))  // our own wake-up is no caller
        omsdk::count(s, fd >= 0 ? omsdk::c_connections_accepted : omsdk::c_connections_refused);
    if (fd >= 0 && keep(s, t, fd, from)) (void)read_from(s, t, t->count - 1);
}

// The hardened profile's accept: once ACTIVE only admitted callers, and no
// more than kMaxOpen at once.
void accept_hardened(svc_session *s, svc_turn *t, int32_t fd, struct in_addr from) {
    const bool own = same(from, s->self_addr.sin_addr);
    t->out_of_band = t->out_of_band || own;  // a refused wake-up still asks for the update
    const bool room = t->count < kMaxOpen;
    if (!admitted(s, from) || !room) {
        OM_LOG_AS(omsdk::LOG_DEBUG, "admit", "closing %s: %s", omsdk::ip_text(from).text,
                  room ? "not the parent switch" : "too many connections");
        close(fd);
        if (!own) omsdk::count(s, omsdk::c_connections_refused);
        return;
    }
    if (!own) omsdk::count(s, omsdk::c_connections_accepted);
    if (own) OM_LOG_AS(omsdk::LOG_DEBUG, "admit", "out of band");
    if (keep(s, t, fd, from)) (void)read_from(s, t, t->count - 1);
}

// Whether the listener is watched: always under the hardened profile, and
// under the reference one while no connection is being read.
bool listening(const svc_session *s, const svc_turn *t) {
    return omsdk::hardened(s) || t->count == 0;
}

// Fills *w with the descriptors of the next turn; returns how long the turn
// may wait for them (ms): until the discovery update is due or a
// connection's deadline, whichever is first.
int64_t wait_spec(svc_session *s, const svc_turn *t, struct ohmara_wait *w) {
    w->count = 0;
    w->timeout_ms = 0;
    if (t->stopped) return 0;
    if (listening(s, t)) {
        w->fds[w->count] = s->listen_sock;
        w->events[w->count++] = POLLIN;
    }
    int64_t due = t->count == 0 || omsdk::hardened(s)
                      ? static_cast<int64_t>(secondsToWait(s, t->last_discovery)) * 1000
                      : kNoDeadline;  // the reference profile reads its connection first
    const int64_t now = omsdk::session_ms(s);
    for (uint32_t i = 0; i < t->count; ++i) {
        const Connection &c = *t->open[i];
        w->fds[w->count] = c.fd;
        w->events[w->count++] = POLLIN;
        if (c.deadline_ms != 0 && c.deadline_ms - now < due)
            due = c.deadline_ms > now ? c.deadline_ms - now : 0;
    }
    return due;
}

void stop(svc_session *s, svc_turn *t) {
    omsdk::note_status(s, OHMARA_STATUS_SHUTDOWN);  // its event, on the loop's thread
    while (t->count > 0) finish(s, t, t->count - 1, -1);
    OM_LOG_AS(omsdk::LOG_DEBUG, "omr_svc_loop", "sending discovery shutdown event");
    sendDiscoveryEvent(s, kDiscoveryShutdown);
    om_setStatusDown(s);
    t->stopped = true;
}

// The descriptors of a turn and what a poll of them found.
struct polled {
    struct pollfd fds[OHMARA_WAIT_MAX_FDS];
    int32_t count;
    int rc;
};

// Sets out the descriptors of the next turn, none found ready yet; returns
// how long the turn may wait for them (wait_spec).
int64_t prepare(svc_session *s, const svc_turn *t, polled *p) {
    struct ohmara_wait w;
    const int64_t due = wait_spec(s, t, &w);
    for (int32_t i = 0; i < w.count; ++i) p->fds[i] = {w.fds[i], w.events[i], 0};
    p->count = w.count;
    p->rc = 0;
    return due;
}

// One turn: 1 while the session runs, 0 once it has stopped. `ready` is
// the service loop's own wait, made over this turn's descriptors just
// before; without it the turn polls them itself, without waiting.
int32_t run_turn(svc_session *s, svc_turn *t, polled *ready = nullptr) {
    if (t->stopped) return 0;
    const bool ending = ohmara_svc_getStatus(s) == OHMARA_STATUS_SHUTDOWN;
    polled own;
    if (ready == nullptr) {
        (void)prepare(s, t, ready = &own);
        own.rc = poll(own.fds, static_cast<nfds_t>(own.count), 0);
    }
    const struct pollfd *fds = ready->fds;
    bool over = false;  // a connection came or went: the pass is over
    if (ready->rc > 0) {
        const bool listened = listening(s, t);
        for (int32_t i = listened ? 1 : 0; i < ready->count; ++i) {
            if ((fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
            for (uint32_t k = 0; k < t->count; ++k)
                if (t->open[k]->fd == fds[i].fd) {
                    over = read_from(s, t, k) || over;
                    break;
                }
        }
        if (listened && (fds[0].revents & POLLIN) != 0) {
            struct sockaddr_in caller;
            memset(&caller, 0, sizeof caller);
            const int32_t fd = t->acceptor.accept_one(s->listen_sock, &caller, &s->accept_shed);
            if (fd >= 0 && omsdk::hardened(s))
                accept_hardened(s, t, fd, caller.sin_addr);
            else if (fd >= 0)
                accept_reference(s, t, fd, caller.sin_addr);
            over = true;
        }
    }
    const int64_t now = omsdk::session_ms(s);
    for (uint32_t i = t->count; i-- > 0;)
        if (ending || (t->open[i]->deadline_ms != 0 && now >= t->open[i]->deadline_ms)) {
            finish(s, t, i, -1, ending ? OHMARA_REASON_NONE : OHMARA_REASON_RECEIVE_TIMEOUT);
            over = true;
        }
    // The reference profile ends its pass only once its connection is read.
    if ((over || ending || t->out_of_band || secondsToWait(s, t->last_discovery) == 0) &&
        (t->count == 0 || omsdk::hardened(s)))
        end_of_pass(s, t);
    if (ending) {
        stop(s, t);
        return 0;
    }
    return 1;
}

// The service loop's wait between turns: until a descriptor is ready, the
// turn is due, or the status reads SHUTDOWN. What the wait found is the
// turn's, which then polls no more. The reference profile logs it as its
// wait for a connection.
void wait_between_turns(svc_session *s, const svc_turn *t, polled *p) {
    static const char kFunc[] = "waitfor_tcp_connect";
    const int64_t due = prepare(s, t, p);
    const bool logged = !omsdk::hardened(s) && t->count == 0;
    if (logged)
        OM_LOG_AS(omsdk::LOG_DEBUG, kFunc, "wait for %ld seconds",
                  static_cast<long>(secondsToWait(s, t->last_discovery)));
    int rc = 0;
    for (int64_t left = due;;) {
        const int64_t slice = left > kStatusCheckMs ? kStatusCheckMs : left;
        rc = poll(p->fds, static_cast<nfds_t>(p->count), static_cast<int>(slice));
        if (rc != 0 || (left -= slice) <= 0) break;
        if (ohmara_svc_getStatus(s) == OHMARA_STATUS_SHUTDOWN) break;
    }
    p->rc = rc;
    const int err = errno;
    if (!logged) return;
    OM_LOG_AS(omsdk::LOG_DEBUG, kFunc, "select (accept) %d", rc);
    if (rc < 1)
        OM_LOG_AS(omsdk::LOG_DEBUG, kFunc, "select returned %d, error = %d (%s)", rc, err,
                  omsdk::errno_text(err).text);
}

// The start of the loop: its state, status UP. Null without memory.
svc_turn *begin(svc_session *s) {
    if (s->turn != nullptr) {
        OM_LOG_AS(omsdk::LOG_ERROR, "omr_svc_loop", "session already started");
        return nullptr;
    }
    void *room = malloc(sizeof(svc_turn));
    if (room == nullptr) {
        OM_LOG_AS(omsdk::LOG_ERROR, "omr_svc_loop", "out of memory");
        return nullptr;
    }
    svc_turn *t = new (room) svc_turn;
    t->last_discovery = 0;
    t->open = nullptr;
    t->count = t->room = 0;
    t->out_of_band = t->stopped = false;
    s->turn = t;
    om_setStatusUp(s);
    OM_LOG_AS(omsdk::LOG_INFO, "omr_svc_loop", "*Ohmara status:  UP, starting discovery...");
    return t;
}

void end(svc_session *s) {
    svc_turn *t = s->turn;
    while (t->count > 0) finish(s, t, t->count - 1, -1);
    free(static_cast<void *>(t->open));
    t->~svc_turn();
    free(t);
    s->turn = nullptr;
}

// What start-up does before its loop: INITIALIZING, and the listen port to
// the application.
void prelude(svc_session *s) {
    s->run_marker = OMSDK_RUN_MARKER;
    s->start_marker = s->run_marker;
    om_setStatusInitializing(s);
    const uint16_t listen_port = ntohs(s->self_addr.sin_port);
    OM_LOG_AS(omsdk::LOG_DEBUG, "ohmara_svc_startup", "local socket address %s:%d id: %s",
              omsdk::ip_text(s->self_addr.sin_addr).text, listen_port, s->sender_id);
    (void)omsdk::app_listen_port_notify(s, listen_port);
}

// What start-up does after its loop: frees the session.
void release(svc_session *s) {
    // No application thread reaches the session after this.
    omsdk::live_remove(s);
    omsdk::free_neighbor_tree(s->neighbor);
    s->neighbor = nullptr;
    free(s->pending_head);
    s->pending_head = nullptr;
    omr_svc_cleanup(s);
    OM_LOG_AS(omsdk::LOG_DEBUG, "ohmara_svc_startup", "Everything is down.. returning");
}

bool started(const svc_session *s) {
    return s->turn != nullptr || s->status != OHMARA_STATUS_DOWN ||
           s->run_marker == OMSDK_RUN_MARKER;
}

}  // namespace

OMSDK_API uint32_t secondsToWait(svc_session *s, time_t since) {
    if (s == nullptr) return 0;
    const uint32_t interval = ohmara_svc_getStatus(s) == OHMARA_STATUS_ACTIVE && s->pending_seq == 0
                                  ? s->discovery_interval
                                  : s->retry_interval;
    const double elapsed = difftime(omsdk::session_seconds(s), since);
    if (elapsed < 0) return 0;
    if (elapsed >= static_cast<double>(interval)) return 0;
    return interval - static_cast<uint32_t>(elapsed);
}

OMSDK_API int32_t omr_svc_loop(svc_session *s) {
    if (s == nullptr) return -1;
    svc_turn *t = begin(s);
    if (t == nullptr) return -1;
    polled ready;
    do wait_between_turns(s, t, &ready);
    while (run_turn(s, t, &ready) == 1);
    end(s);
    return 0;
}

OMSDK_API int32_t ohmara_svc_startup(svc_session *s) {
    if (s == nullptr) return -1;
    prelude(s);
    omr_svc_loop(s);
    release(s);
    return 0;
}

OMSDK_API int32_t ohmara_svc_open(svc_session *s) {
    if (s == nullptr) return -1;
    if (started(s)) {
        OM_ERROR("session already started");
        return -1;
    }
    prelude(s);
    return begin(s) != nullptr ? 0 : -1;
}

OMSDK_API int32_t ohmara_svc_getWait(svc_session *s, struct ohmara_wait *w) {
    if (s == nullptr || w == nullptr || s->turn == nullptr) return -1;
    const int64_t due = wait_spec(s, s->turn, w);
    w->timeout_ms = static_cast<int32_t>(due < kStatusCheckMs ? due : kStatusCheckMs);
    return 0;
}

OMSDK_API int32_t ohmara_svc_turn(svc_session *s) {
    if (s == nullptr || s->turn == nullptr) return -1;
    return run_turn(s, s->turn);
}

OMSDK_API int32_t ohmara_svc_close(svc_session *s) {
    if (s == nullptr || s->turn == nullptr) return -1;
    if (!s->turn->stopped) {
        if (ohmara_svc_getStatus(s) != OHMARA_STATUS_SHUTDOWN) om_setStatusShutdown(s);
        stop(s, s->turn);
    }
    end(s);
    release(s);
    return 0;
}

OMSDK_API int32_t ohmara_svc_setClock(svc_session *s, ohmara_clock_fn now_ms, void *ctx) {
    if (s == nullptr) return -1;
    if (started(s)) {
        OM_ERROR("session already started");
        return -1;
    }
    s->clock_ms = now_ms;
    s->clock_ctx = ctx;
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
