// SPDX-License-Identifier: Apache-2.0
// Query handling: filter, acknowledge, then apply a SET or answer a GET.
#ifndef OMSDK_ENGINE_QUERY_H
#define OMSDK_ENGINE_QUERY_H

#include <stdint.h>

#include <omsdk/wire_types.h>

#include "session/session.h"

extern "C" {
// An authenticated query (or aggregate) event; borrowed, not released.
void omr_processQueryMsg(svc_session *session, cv_event *query);
// Fills the empty `reply` with the fixed TLVs and one aggregate entry per
// attribute the query names. Returns 0.
int32_t omr_createGetQueryResponseTlvs(svc_session *session, cv_event *query, cv_event *reply);
}

#endif
