// SPDX-License-Identifier: Apache-2.0
// SET queries: the switch changes the endpoint's role, name, keywords,
// level or importance.
#ifndef OMSDK_ENGINE_SET_H
#define OMSDK_ENGINE_SET_H

#include <stdint.h>

#include <omsdk/wire_types.h>

#include "session/session.h"

extern "C" {
// Applies a SET query: 0 when every TLV was applied or skipped, -1 at the
// first one that failed (earlier ones stay applied).
int32_t omr_doSetQuery(svc_session *session, cv_event *query);
}

#endif
