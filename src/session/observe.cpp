// SPDX-License-Identifier: Apache-2.0
// Observing a session: counters, events and the packet capture.
#include "session/observe.h"
#include "session/time.h"

#include <arpa/inet.h>
#include <errno.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <new>

#include "common/api.h"
#include "diag/capture.h"
#include "diag/log.h"
#include "session/live.h"
#include "util/clock.h"
#include "util/mutex_guard.h"
#include "util/net_text.h"

namespace {

constexpr const char *kReasonNames[OHMARA_REASON_COUNT] = {
    "none",         "bad security header", "bad digest",       "malformed",       "stale sequence",
    "filtered out", "oversized",           "receive time-out", "unexpected class"};

static_assert(sizeof(ohmara_counters) == (omsdk::c_stored_count_ + 3) * sizeof(uint64_t),
              "every stored counter has its field, in order, then the three worked out");
static_assert(offsetof(ohmara_counters, rejected_bad_security_header) ==
                  omsdk::c_rejected_first * sizeof(uint64_t),
              "rejection counters in reason order");
static_assert(offsetof(ohmara_counters, get_answered) == omsdk::c_get_answered * sizeof(uint64_t),
              "one rejection counter per reason");

// The address at one end of a connected socket, zeroed when unknown.
sockaddr_in socket_end(int32_t fd, bool peer) {
    sockaddr_in a;
    memset(&a, 0, sizeof a);
    socklen_t len = sizeof a;
    if (fd < 0) return a;
    if ((peer ? getpeername(fd, reinterpret_cast<sockaddr *>(&a), &len)
              : getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len)) != 0)
        memset(&a, 0, sizeof a);
    return a;
}

void deliver(svc_session *s, const ohmara_event &ev) {
    ohmara_event_callback cb;
    void *ctx;
    {
        omsdk::MutexGuard guard(&s->observe.lock);
        cb = s->observe.callback;
        ctx = s->observe.callback_ctx;
    }
    if (cb != nullptr) cb(ctx, &ev);
}

constexpr char kCapture[] = "ohmara_svc_startCapture";  // the call that started it

void close_capture(svc_session *s) {
    omsdk::capture *c = s->observe.cap;
    s->observe.cap = nullptr;
    s->observe.capturing.store(false, std::memory_order_relaxed);
    if (c == nullptr) return;
    omsdk::capture_close(*c);
    c->~capture();
    free(c);
}

// Writes one packet under the lock; a capture that reached its size limit
// or failed to write is closed with one line in the log.
void write_packet(svc_session *s, bool tcp, const sockaddr_in &from, const sockaddr_in &to,
                  const uint8_t *buf, size_t n, const char *comment) {
    omsdk::MutexGuard guard(&s->observe.lock);
    omsdk::capture *c = s->observe.cap;
    if (c == nullptr) return;
    if (tcp)
        omsdk::capture_tcp(*c, from, to, buf, n, comment);
    else
        omsdk::capture_udp(*c, from, to, buf, n, comment);
    if (!c->stopped) return;
    if (c->write_failed)
        OM_LOG_AS(omsdk::LOG_WARN, kCapture,
                  "capture stopped after %u packets: the file could not be written", c->packets);
    else
        OM_LOG_AS(omsdk::LOG_WARN, kCapture,
                  "capture stopped after %u packets: its size limit of %zu bytes is reached",
                  c->packets, c->size_limit);
    close_capture(s);
}

}  // namespace

namespace omsdk {

void reject(svc_session *s, ohmara_reason reason, const char *text, uint32_t peer) {
    ++s->observe.rejections;
    count(s,
          static_cast<counter>(static_cast<int>(c_rejected_first) + static_cast<int>(reason) - 1));
    if (!s->observe.has_callback.load(std::memory_order_acquire)) return;
    if (peer == 0) peer = socket_end(s->tcp_sock, true).sin_addr.s_addr;
    deliver(s, {OHMARA_EVENT_REJECTED, reason, -1, peer, text});
}

void note_dropped(svc_session *s, ohmara_reason reason, struct in_addr from) {
    count(s, c_messages_received);
    reject(s, reason,
           reason == OHMARA_REASON_OVERSIZED ? "message larger than the limit"
                                             : "message not whole in time",
           from.s_addr);
}

void note_heard(svc_session *s) {
    s->observe.last_heard.store(static_cast<int64_t>(session_seconds(s)),
                                std::memory_order_relaxed);
}

void note_parent(svc_session *s, const struct sockaddr_in &parent) {
    s->observe.parent_port.store(parent.sin_port, std::memory_order_relaxed);
    s->observe.parent_ip.store(parent.sin_addr.s_addr, std::memory_order_relaxed);
}

void note_status(svc_session *s, int32_t status) {
    if (!s->observe.has_callback.load(std::memory_order_acquire)) return;
    deliver(s, {OHMARA_EVENT_STATUS_CHANGED, OHMARA_REASON_NONE, status, 0, "status changed"});
}

void capture_received(svc_session *s, const uint8_t *buf, size_t n, const char *comment) {
    if (!capturing(s)) return;
    write_packet(s, true, socket_end(s->tcp_sock, true), socket_end(s->tcp_sock, false), buf, n,
                 comment);
}

void capture_sent(svc_session *s, int32_t fd, const uint8_t *buf, size_t n) {
    if (!capturing(s)) return;
    write_packet(s, true, socket_end(fd, false), socket_end(fd, true), buf, n, nullptr);
}

void capture_datagram(svc_session *s, int32_t fd, const struct sockaddr_in &to, const uint8_t *buf,
                      size_t n) {
    if (!capturing(s)) return;
    sockaddr_in from = socket_end(fd, false);
    if (from.sin_addr.s_addr == 0) from.sin_addr = s->self_addr.sin_addr;
    write_packet(s, false, from, to, buf, n, nullptr);
}

void observe_release(svc_session *s) {
    MutexGuard guard(&s->observe.lock);
    close_capture(s);
}

}  // namespace omsdk

OMSDK_API int32_t ohmara_svc_getCounters(svc_session *s, struct ohmara_counters *out, size_t size) {
    if (out == nullptr || !omsdk::live_enter(s)) return -1;
    const omsdk::observe_state &o = s->observe;
    uint64_t all[omsdk::c_stored_count_ + 3];
    for (uint32_t i = 0; i < omsdk::c_stored_count_; ++i)
        all[i] = o.counters[i].load(std::memory_order_relaxed);
    const int64_t heard = o.last_heard.load(std::memory_order_relaxed);
    const int64_t now = static_cast<int64_t>(omsdk::session_seconds(s));
    all[omsdk::c_stored_count_] =
        heard == 0 ? UINT64_MAX : static_cast<uint64_t>(now > heard ? now - heard : 0);
    all[omsdk::c_stored_count_ + 1] = ntohl(o.parent_ip.load(std::memory_order_relaxed));
    all[omsdk::c_stored_count_ + 2] =
        ntohs(static_cast<uint16_t>(o.parent_port.load(std::memory_order_relaxed)));
    omsdk::live_leave(s);
    memcpy(out, all, size < sizeof all ? size : sizeof all);
    return 0;
}

OMSDK_API int32_t ohmara_svc_setEventCallback(svc_session *s, ohmara_event_callback cb, void *ctx) {
    if (!omsdk::live_enter(s)) return -1;
    {
        omsdk::MutexGuard guard(&s->observe.lock);
        s->observe.callback = cb;
        s->observe.callback_ctx = ctx;
        s->observe.has_callback.store(cb != nullptr, std::memory_order_release);
    }
    omsdk::live_leave(s);
    return 0;
}

OMSDK_API const char *ohmara_utl_reasonName(int32_t reason) {
    return reason >= 0 && reason < OHMARA_REASON_COUNT ? kReasonNames[reason] : "unknown";
}

OMSDK_API int32_t ohmara_svc_startCapture(svc_session *s, const char *path, size_t size_limit) {
    if (path == nullptr || !omsdk::live_enter(s)) return -1;
    int32_t rc = -1;
    {
        omsdk::MutexGuard guard(&s->observe.lock);
        void *mem = s->observe.cap == nullptr ? malloc(sizeof(omsdk::capture)) : nullptr;
        omsdk::capture *c = mem != nullptr ? new (mem) omsdk::capture : nullptr;
        if (s->observe.cap != nullptr) {
            OM_ERROR("a capture is already running");
        } else if (c == nullptr) {
            OM_ERROR("out of memory for a capture");
        } else if (!omsdk::capture_open(*c, path, size_limit)) {
            const int err = errno;
            OM_ERROR("cannot capture to %s (%s)", path, omsdk::errno_text(err).text);
            c->~capture();
            free(c);
        } else {
            s->observe.cap = c;
            s->observe.capturing.store(true, std::memory_order_relaxed);
            OM_INFO("capturing to %s", path);
            rc = 0;
        }
    }
    omsdk::live_leave(s);
    return rc;
}

OMSDK_API int32_t ohmara_svc_stopCapture(svc_session *s) {
    if (!omsdk::live_enter(s)) return -1;
    int32_t rc = -1;
    {
        omsdk::MutexGuard guard(&s->observe.lock);
        if (s->observe.cap != nullptr) {
            OM_INFO("capture stopped after %u packets", s->observe.cap->packets);
            close_capture(s);
            rc = 0;
        }
    }
    omsdk::live_leave(s);
    return rc;
}
