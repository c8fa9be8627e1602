// SPDX-License-Identifier: Apache-2.0
// Acknowledgements both ways: those the switch sends (handshake, nonce
// re-keying, answers to the pending request) and those answering queries.
#ifndef OMSDK_ENGINE_ACKNOWLEDGE_H
#define OMSDK_ENGINE_ACKNOWLEDGE_H

#include <stdint.h>

#include <omsdk/wire_types.h>

#include "session/session.h"

extern "C" {
// An authenticated acknowledgement from the switch.
void omr_processAcknowledgementMsg(svc_session *s, cv_event *ev);
// Answers `request` (shipment -1 WILL or -2 WONT) on the session's TCP
// connection; any other shipment is refused with a warning, nothing sent.
void omr_sendAcknowledgement(svc_session *session, cv_event *request, int32_t shipment);
}

#endif
