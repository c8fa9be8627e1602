// SPDX-License-Identifier: Apache-2.0
// Discovery: the endpoint's announcements to its parent switch (carrying
// the one pending client request), and the switch's discovery messages.
#ifndef OMSDK_ENGINE_DISCOVERY_H
#define OMSDK_ENGINE_DISCOVERY_H

#include <stdint.h>

#include <omsdk/wire_types.h>

#include "session/session.h"

struct async_request;

namespace omsdk {
// Bytes of the largest discovery event the session could send with these
// identity texts (an update while ACTIVE with the nonce, a pending alarm
// and every metered value), computed by building it; 0 when out of memory.
uint32_t largest_discovery_size(svc_session *s, const char *domain, const char *name,
                                const char *role, const char *keywords);
}  // namespace omsdk

extern "C" {
// Builds and sends one discovery event (action 10 update, 11 keepalive,
// 12 delete). 0 when an event was built and sent, -1 otherwise.
int32_t sendDiscoveryEvent(svc_session *s, uint8_t action);
// Adds the request's alarm TLV to the event, for the kinds that have one.
void om_add_async_req(cv_event *ev, async_request *req);
// A discovery message from the switch: a delete sends the endpoint back to
// UP; anything else is only noted. Returns 0, or om_setStatusUp's result.
int32_t omr_processDiscoveryMsg(svc_session *s, cv_event *ev);
}

#endif
