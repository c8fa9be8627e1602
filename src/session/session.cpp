// SPDX-License-Identifier: Apache-2.0
// The session record: allocation, clean-up and the status state machine.
#include "session/session.h"

#include <arpa/inet.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/api.h"
#include "crypto/hmac_internal.h"
#include "diag/log.h"
#include "session/callbacks.h"
#include "session/live.h"
#include "session/observe.h"
#include "util/net_text.h"
#include "util/mutex_guard.h"

namespace {

constexpr uint32_t bit(int32_t status) { return 1u << status; }

// Which statuses each status may be entered from, and the broadcast mode
// (0/1, or -1 to leave it) that entering it sets.
struct StatusRule {
    uint32_t accepted;
    int32_t broadcast;
};

constexpr StatusRule kStatusRules[] = {
    /* DOWN */ {bit(OHMARA_STATUS_DOWN) | bit(OHMARA_STATUS_SHUTDOWN), -1},
    /* UP */ {bit(OHMARA_STATUS_INITIALIZING) | bit(OHMARA_STATUS_ACTIVE), 1},
    /* INITIALIZING */ {bit(OHMARA_STATUS_DOWN), -1},
    /* ACTIVE */ {bit(OHMARA_STATUS_UP), 0},
    /* SHUTDOWN */ {bit(OHMARA_STATUS_UP) | bit(OHMARA_STATUS_ACTIVE), -1},
};

// Only creation is expected to run without a registry, but a missing one must
// never crash a status change.
void notify_status(svc_session *s, int32_t status) {
    (void)omsdk::app_status_changed(s, status);
    // The event of a shutdown comes from the loop, which sees the status
    // change at its next turn: every event is on the loop's thread.
    if (status != OHMARA_STATUS_SHUTDOWN) omsdk::note_status(s, status);
}

// Moves the status to `next` under the mutex when the current one is
// accepted (the broadcast mode changes under the same lock), then tells the
// application. Logs a refusal under the name of the calling setter.
int32_t set_status(const char *func, svc_session *s, int32_t next) {
    if (s == nullptr) return -1;
    const StatusRule &rule = kStatusRules[next];
    int32_t prior;
    bool taken;
    {
        omsdk::MutexGuard guard(&s->mutex);
        prior = s->status;
        taken = prior >= 0 && prior <= OHMARA_STATUS_SHUTDOWN && (rule.accepted & bit(prior)) != 0;
        if (taken) {
            s->status = next;
            if (rule.broadcast >= 0) omr_setBroadcastMode(s, rule.broadcast);
        }
    }
    if (!taken) {
        OM_LOG_AS(omsdk::LOG_ERROR, func, "bad status state transition from state %d", prior);
        return -1;
    }
    notify_status(s, next);
    return 0;
}

}  // namespace

namespace omsdk {

bool draw_local_nonce(svc_session *s) {
    uint32_t nonce = 0;
    ssize_t got = -1;
    for (int attempt = 0; attempt < 3 && got < 0; ++attempt) {
        got = getrandom(&nonce, sizeof nonce, 0);
        if (got < 0 && errno != EINTR) break;
    }
    if (got != static_cast<ssize_t>(sizeof nonce)) {
        const int err = errno;
        OM_ERROR("no random local nonce (%d:%s)", err, errno_text(err).text);
        return false;
    }
    s->local_nonce = nonce;
    return true;
}

}  // namespace omsdk

OMSDK_API svc_session *new_svc_session(void) {
    svc_session *s = static_cast<svc_session *>(calloc(1, sizeof(svc_session)));
    if (s == nullptr) return nullptr;
    s->udp_sock = -1;
    s->tcp_sock = -1;
    s->listen_sock = -1;
    OM_TRACE("allocated %u bytes for svc session", static_cast<unsigned>(sizeof(svc_session)));
    return s;
}

OMSDK_API int32_t omr_svc_cleanup(svc_session *s) {
    if (s == nullptr) return -1;
    omsdk::live_remove(s);
    omsdk::observe_release(s);
    if (s->udp_sock != -1) close(s->udp_sock);
    if (s->tcp_sock != -1) close(s->tcp_sock);
    if (s->listen_sock != -1) close(s->listen_sock);
    if (s->key_owned) free(s->key);
    free(s->domain);
    free(s->name);
    free(s->role);
    free(s->keywords);
    free(s->device_type);
    // The contexts are key stores that are never finalised.
    omsdk::hmac_release(&s->key_ctx);
    omsdk::hmac_release(&s->nonce_ctx);
    free(s);
    return 0;
}

OMSDK_API int32_t ohmara_svc_getStatus(svc_session *s) {
    if (s == nullptr) return -1;
    omsdk::MutexGuard guard(&s->mutex);
    return s->status;
}

OMSDK_API int32_t om_setStatusDown(svc_session *s) {
    return set_status(__func__, s, OHMARA_STATUS_DOWN);
}

OMSDK_API int32_t om_setStatusInitializing(svc_session *s) {
    return set_status(__func__, s, OHMARA_STATUS_INITIALIZING);
}

OMSDK_API int32_t om_setStatusUp(svc_session *s) {
    return set_status(__func__, s, OHMARA_STATUS_UP);
}

OMSDK_API int32_t om_setStatusActive(svc_session *s) {
    return set_status(__func__, s, OHMARA_STATUS_ACTIVE);
}

OMSDK_API int32_t om_setStatusShutdown(svc_session *s) {
    return set_status(__func__, s, OHMARA_STATUS_SHUTDOWN);
}

OMSDK_API void omr_setBroadcastMode(svc_session *s, int32_t on) {
    if (s == nullptr) return;
    s->datagram_broadcast = on;  // for a socket opened later, one per datagram
    if (s->udp_sock < 0) return;
    int value = on;
    if (setsockopt(s->udp_sock, SOL_SOCKET, SO_BROADCAST, &value, sizeof value) == 0) {
        OM_DEBUG("Write socket set broadcast mode to %d", on);
    } else {
        int err = errno;
        OM_ERROR("Could not set socket to broadcast %d (%d:%s)", on, err,
                 omsdk::errno_text(err).text);
    }
}
