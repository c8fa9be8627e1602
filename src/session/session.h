// SPDX-License-Identifier: Apache-2.0
// The session record: what the engine works on and the service drives.
#ifndef OMSDK_SESSION_SESSION_H
#define OMSDK_SESSION_SESSION_H

#include <netinet/in.h>
#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include "omsdk.h"
#include "omsdk/hmac.h"
#include "session/observe_state.h"

struct neighbor_node;
struct async_request;
namespace omsdk {
struct session_io;
}
struct ohmara_svc_output;

constexpr uint16_t OMSDK_DEFAULT_PORT = 43440;
constexpr uint32_t OMSDK_RUN_MARKER = 0xAAAAAAAAu;
// Room for an acknowledgement and a large answer; anything longer is sent
// in parts.
constexpr uint32_t OMSDK_OUT_BUFFER_SIZE = 4096;

// Field order is part of the design: later additions go at the end.
struct svc_session {
    uint32_t start_marker;
    int32_t udp_sock;
    int32_t tcp_sock;
    int32_t listen_sock;
    struct sockaddr_in self_addr;  // family stored as htons(2), kept on purpose
    struct sockaddr_in bcast_addr;
    uint16_t port;  // host order
    hmac_sha_ctx key_ctx;
    uint32_t local_nonce;
    hmac_sha_ctx nonce_ctx;
    uint32_t retry_interval;
    uint32_t discovery_interval;
    svc_callback_registry *registry;
    int32_t status;  // under mutex
    char sender_id[33];
    char *domain;
    char *keywords;
    char *name;
    char *role;
    char *device_type;
    uint32_t importance;
    struct neighbor_node *neighbor;
    struct in_addr peer_addr;
    time_t last_ack_time;
    uint8_t *key;
    uint32_t key_len;
    int32_t key_owned;
    uint32_t pending_seq;
    int32_t pending_id;
    struct async_request *pending_head;  // under mutex
    uint32_t request_counter;            // under mutex
    pthread_mutex_t mutex;
    uint32_t nanny_bits;
    uint32_t power_source;
    uint32_t run_marker;
    // Added by the protocol engine.
    struct sockaddr_in parent_addr;  // the switch's reply-to address
    uint32_t remote_nonce;
    // Added by the service loop: application threads still inside a
    // shutdown or wake-up call; the session is freed only once none is left.
    // Under the lock of the live-session list (session/live.h).
    int32_t api_callers;
    // How the engine sends (see session/io.h); set once at creation.
    const omsdk::session_io *io;
    // Options set before start-up (service/options.cpp).
    uint32_t profile;        // ohmara_svc_profile
    int32_t listen_backlog;  // 0 = the profile's default
    uint32_t allowed_peer_count;
    struct in_addr allowed_peers[OHMARA_MAX_ALLOWED_PEERS];
    // Added by the service loop: connections closed at once because the
    // process was out of descriptors (loop thread).
    uint32_t accept_shed;
    // Added for the hardened acknowledgement checks (engine/acknowledge.cpp):
    // the sequence numbers of the last discovery events sent, a ring written
    // at sent_discovery_count % OMSDK_SENT_DISCOVERY_MEMORY, and the last
    // acknowledgement taken (ack_taken 0 until one is).
    uint32_t sent_discovery_seq[4];
    uint32_t sent_discovery_count;
    uint32_t last_ack_seq;
    int32_t ack_taken;
    // Added by the transport (transport/send.cpp): what the engine sent on
    // the connection `out_fd` while handling one message, written there as
    // one send once the message is handled. Loop thread only.
    int32_t out_fd;
    uint32_t out_len;  // 0: nothing held
    uint8_t out_buf[OMSDK_OUT_BUFFER_SIZE];
    // Added for observability (session/observe.cpp): counters, the event
    // callback and the packet capture.
    omsdk::observe_state observe;
    // Added for event-loop integration (service/loop.cpp, session/time.h):
    // the application's clock (null: the library's), set before start-up,
    // and what a turn of the loop carries to the next, from the start of the
    // loop (or ohmara_svc_open) to its end. Loop thread only.
    int64_t (*clock_ms)(void *ctx);
    void *clock_ctx;
    struct svc_turn *turn;
    // The callbacks with a context (session/callbacks.h), in place of
    // `registry` when set.
    const ohmara_svc_ctx_registry *ctx_registry;
    void *registry_ctx;
    // Added for the application's output table (service/output.cpp,
    // ohmara_svc_setOutput): null while the session sends on its sockets.
    const struct ohmara_svc_output *app_output;
    // Added for fleets of sessions (ohmara_svc_setDatagramOnDemand,
    // transport/send.cpp): set, the session holds no UDP socket and opens one
    // for each datagram it sends, with the broadcast mode last set by
    // omr_setBroadcastMode (kept here whether or not a socket is held;
    // under mutex).
    int32_t datagram_on_demand;
    int32_t datagram_broadcast;
};
constexpr uint32_t OMSDK_SENT_DISCOVERY_MEMORY = 4;

namespace omsdk {
inline bool hardened(const svc_session *s) { return s->profile == OHMARA_PROFILE_HARDENED; }
// Draws the local nonce from the operating system's random source; false
// (logged, nonce unchanged) when it cannot.
bool draw_local_nonce(svc_session *s);
}  // namespace omsdk

// Exported helpers of the session family that applications do not call.
extern "C" {
svc_session *new_svc_session(void);
int32_t omr_svc_cleanup(svc_session *s);
int32_t om_setStatusDown(svc_session *s);
int32_t om_setStatusUp(svc_session *s);
int32_t om_setStatusInitializing(svc_session *s);
int32_t om_setStatusActive(svc_session *s);
int32_t om_setStatusShutdown(svc_session *s);
void omr_setBroadcastMode(svc_session *s, int32_t on);
}

#endif
