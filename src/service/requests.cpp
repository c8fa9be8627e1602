// SPDX-License-Identifier: Apache-2.0
// Client requests from application threads: one request waits in the
// session's single slot until the loop's next discovery update carries it;
// the caller wakes the loop so that this happens at once.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/api.h"
#include "diag/log.h"
#include "util/net_text.h"
#include "session/request.h"
#include "service/loop.h"
#include "session/live.h"
#include "transport/sockets.h"
#include "util/mutex_guard.h"

namespace {

enum class Queued { NotConnected, AlreadyPending, Done };

// Puts a request in the slot under the mutex. `fill` receives the record
// and the session, and runs only when the request is accepted; an
// allocation failure leaves the slot empty but still counts as accepted.
template <typename Fill>
Queued enqueue(svc_session *s, Fill fill) {
    omsdk::MutexGuard guard(&s->mutex);
    if (s->status != OHMARA_STATUS_ACTIVE) return Queued::NotConnected;
    if (s->pending_head != nullptr) return Queued::AlreadyPending;
    async_request *req = static_cast<async_request *>(calloc(1, sizeof(async_request)));
    if (req == nullptr) {
        perror("malloc");
    } else {
        fill(req, s);
        s->pending_head = req;
    }
    return Queued::Done;
}

// Queues the request and wakes the loop: 0 when queued, -1 when the session
// is not ACTIVE or a request is already pending. The wake-up's result is not
// the caller's concern: a request it failed to announce goes out with the
// next periodic update.
// Logs under the name of the exported call, `func`. A session that is not
// live (freed, or never created) is not touched.
template <typename Fill>
int32_t submit(const char *func, svc_session *s, Fill fill) {
    if (!omsdk::live_enter(s)) return -1;
    const Queued queued = enqueue(s, fill);
    if (queued == Queued::Done) omr_markReady(s);
    omsdk::live_leave(s);
    switch (queued) {
    case Queued::NotConnected: OM_LOG_AS(omsdk::LOG_INFO, func, "status is not connected"); break;
    case Queued::AlreadyPending: OM_LOG_AS(omsdk::LOG_INFO, func, "request already pending"); break;
    case Queued::Done: return 0;
    }
    return -1;
}

}  // namespace

OMSDK_API int32_t ohmara_svc_alarmAdd(svc_session *s, uint32_t seconds, uint8_t first,
                                      uint8_t second) {
    return submit(__func__, s, [&](async_request *req, svc_session *sess) {
        req->type = OMSDK_REQ_ALARM_SET;
        req->id = static_cast<int32_t>(++sess->request_counter);
        req->seconds = seconds;
        req->alarm_param1 = first;
        req->alarm_param2 = second;
    });
}

OMSDK_API int32_t ohmara_svc_alarmClearAll(svc_session *s) {
    // Clear-all carries no identifier of its own: the counter stays put.
    return submit(__func__, s, [](async_request *req, svc_session *) {
        req->type = OMSDK_REQ_ALARM_CLEAR_ALL;
        req->id = -1;
        req->seconds = 0;
        req->alarm_param2 = 0;
    });
}

OMSDK_API int32_t ohmara_svc_discoveryRefresh(svc_session *s) {
    return submit(__func__, s, [](async_request *req, svc_session *sess) {
        req->type = OMSDK_REQ_DISCOVERY_REFRESH;
        req->id = static_cast<int32_t>(++sess->request_counter);
    });
}

OMSDK_API int32_t omr_markReady(svc_session *s) {
    if (s == nullptr || ohmara_svc_getStatus(s) != OHMARA_STATUS_ACTIVE) return -1;

    struct sockaddr_in listener;
    memset(&listener, 0, sizeof listener);
    listener.sin_family = AF_INET;
    listener.sin_port = s->self_addr.sin_port;
    listener.sin_addr = s->self_addr.sin_addr;

    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        const int err = errno;
        OM_ERROR("Socket creation failed (%d:%s)", err, omsdk::errno_text(err).text);
        return -1;
    }
    // Connecting is the whole message: the loop knows our address. A
    // connection not made at once is given up: the request then goes out
    // with the next periodic update.
    const int rc = omsdk::connect_within(fd, &listener, omsdk::kWakeUpConnectMs);
    close(fd);
    OM_DEBUG("woke up select() triggered on %s:%d (err=%d)", omsdk::ip_text(listener.sin_addr).text,
             ntohs(listener.sin_port), rc);
    return rc == 0 ? 0 : -1;
}
