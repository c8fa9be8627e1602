// SPDX-License-Identifier: Apache-2.0
// What a session keeps for its observers (session/observe.h): counters any
// thread may read, the event callback and the packet capture.
#ifndef OMSDK_SESSION_OBSERVE_STATE_H
#define OMSDK_SESSION_OBSERVE_STATE_H

#include <pthread.h>
#include <stdint.h>

#include <atomic>

#include <omsdk/observe.h>

namespace omsdk {

struct capture;

// The counters kept as they are, in the order of struct ohmara_counters;
// the fields after them are worked out when read.
enum counter : uint32_t {
    c_discovery_sent,
    c_connections_accepted,
    c_connections_refused,
    c_messages_received,
    c_messages_accepted,
    c_rejected_first,  // one per reason, OHMARA_REASON_BAD_SECURITY_HEADER first
    c_get_answered = c_rejected_first + OHMARA_REASON_COUNT - 1,
    c_set_accepted,
    c_set_refused,
    c_acks_sent,
    c_alarms_sent,
    c_alarms_answered,
    c_handshakes_completed,
    c_stored_count_
};

// Zeroed with the session record, which is all it needs to start.
struct observe_state {
    std::atomic<uint64_t> counters[c_stored_count_];
    std::atomic<int64_t> last_heard;    // clock seconds of the last authenticated message; 0 none
    std::atomic<uint32_t> parent_ip;    // network order; 0 none
    std::atomic<uint32_t> parent_port;  // network order
    std::atomic<bool> capturing;        // a capture is open: the hooks take the lock
    std::atomic<bool> has_callback;     // a callback is set: rejections take the lock
    uint32_t rejections;                // rejections so far (loop thread): one message's verdict
    pthread_mutex_t lock;               // guards what follows
    ohmara_event_callback callback;
    void *callback_ctx;
    capture *cap;
};

}  // namespace omsdk

#endif
