// SPDX-License-Identifier: Apache-2.0
// The session's single request slot: application threads fill it (see the
// client requests), the loop's thread reads and empties it.
#include "session/request.h"

#include <stdlib.h>

#include "common/api.h"
#include "diag/log.h"
#include "util/mutex_guard.h"

OMSDK_API async_request *om_getQueueRequest(svc_session *s) {
    if (s == nullptr) return nullptr;
    async_request *req;
    {
        // A client may be filling the slot at this moment.
        omsdk::MutexGuard guard(&s->mutex);
        req = s->pending_head;
    }
    // Only the loop's thread empties the slot, so the record stays valid.
    if (req != nullptr) OM_DEBUG("Client has requested an alarm in %u seconds", req->seconds);
    return req;
}

OMSDK_API uint32_t om_dequeueLevelEvent(svc_session *s) {
    if (s == nullptr) return UINT32_MAX;
    omsdk::MutexGuard guard(&s->mutex);
    async_request *req = s->pending_head;
    if (req == nullptr) return UINT32_MAX;
    uint32_t type = req->type;
    free(req);
    s->pending_head = nullptr;
    return type;
}
