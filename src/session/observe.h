// SPDX-License-Identifier: Apache-2.0
// Observing a session: counting, the events of rejected messages and status
// changes, and the packet capture hooks. Each hook costs one relaxed load
// while nothing observes.
#ifndef OMSDK_SESSION_OBSERVE_H
#define OMSDK_SESSION_OBSERVE_H

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>

#include "session/session.h"

namespace omsdk {

inline void count(svc_session *s, counter c) {
    s->observe.counters[c].fetch_add(1, std::memory_order_relaxed);
}

// The one way a message is rejected: counts it under `reason` and tells the
// event callback. `peer` (network order) names the sender; 0 asks the
// session's current connection. Loop thread.
void reject(svc_session *s, ohmara_reason reason, const char *text, uint32_t peer = 0);

// The rejections so far: a message whose handling left it unchanged was
// accepted. Loop thread.
inline uint32_t rejections(const svc_session *s) { return s->observe.rejections; }

// Counts one message received for as long as it lives, and accepted when
// nothing rejected it meanwhile. Loop thread.
class counted_message {
public:
    explicit counted_message(svc_session *s) : s_(s), before_(rejections(s)) {
        count(s, c_messages_received);
    }
    ~counted_message() {
        if (rejections(s_) == before_) count(s_, c_messages_accepted);
    }
    counted_message(const counted_message &) = delete;
    counted_message &operator=(const counted_message &) = delete;

private:
    svc_session *s_;
    uint32_t before_;
};

// A connection from `from` let go for its message's fault (OVERSIZED or
// RECEIVE_TIMEOUT): counted as a message received and rejected.
void note_dropped(svc_session *s, ohmara_reason reason, struct in_addr from);

// The switch was heard (an authenticated message), and where it listens.
void note_heard(svc_session *s);
void note_parent(svc_session *s, const struct sockaddr_in &parent);

// Tells the event callback of a status change (any thread).
void note_status(svc_session *s, int32_t status);

// Capture hooks: bytes received on or sent to the current connection, a
// datagram sent. Each does nothing unless a capture is open.
inline bool capturing(const svc_session *s) {
    return s->observe.capturing.load(std::memory_order_relaxed);
}
void capture_received(svc_session *s, const uint8_t *buf, size_t n, const char *comment);
void capture_sent(svc_session *s, int32_t fd, const uint8_t *buf, size_t n);
void capture_datagram(svc_session *s, int32_t fd, const struct sockaddr_in &to, const uint8_t *buf,
                      size_t n);

// Closes an open capture; the session is about to be freed.
void observe_release(svc_session *s);

}  // namespace omsdk

#endif
