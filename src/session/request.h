// SPDX-License-Identifier: Apache-2.0
// The single pending client request and the operations on its slot.
#ifndef OMSDK_SESSION_REQUEST_H
#define OMSDK_SESSION_REQUEST_H

#include <stdint.h>

#include "session/session.h"

// Request kinds held in async_request.type.
constexpr uint32_t OMSDK_REQ_ALARM_SET = 0;
constexpr uint32_t OMSDK_REQ_ALARM_CLEAR_ALL = 1;
constexpr uint32_t OMSDK_REQ_DISCOVERY_REFRESH = 2;

// Allocated with malloc by the client-request calls, freed by
// om_dequeueLevelEvent.
struct async_request {
    uint32_t type;     // OMSDK_REQ_*
    int32_t id;        // request counter value; -1 for clear-all
    uint32_t seconds;  // alarm delay; 0 for clear-all
    uint8_t alarm_param1;
    uint8_t alarm_param2;
};

extern "C" {
// The pending request (left in its slot), or null.
async_request *om_getQueueRequest(svc_session *s);
// Removes and frees the pending request; returns its type (UINT32_MAX when
// the slot was already empty).
uint32_t om_dequeueLevelEvent(svc_session *s);
}

#endif
