// SPDX-License-Identifier: Apache-2.0
// Message intake: the entry of every message read from the listener.
#ifndef OMSDK_ENGINE_INTAKE_H
#define OMSDK_ENGINE_INTAKE_H

#include <netinet/in.h>
#include <stdint.h>

#include <omsdk/wire_types.h>

// Intake records senders in s->neighbor; its owner frees the tree with
// omsdk::free_neighbor_tree.
#include "engine/neighbors.h"
#include "session/session.h"

extern "C" {
// Decodes, authenticates, checks the sender's sequence number and
// dispatches by class; releases what it made.
void omr_processMsg(svc_session *s, const uint8_t *buf, int32_t len);
// 1 when the event's sequence number is new for its sender, 0 otherwise.
int32_t omr_validatePeer(svc_session *s, cv_event *ev);
}

namespace omsdk {

// Copies the event's reply-to address into *out: false when the event has
// no reply-to TLV of the full 16 bytes (*out is then zeroed).
bool event_reply_to(const cv_event *ev, struct sockaddr_in *out);

}  // namespace omsdk

#endif
