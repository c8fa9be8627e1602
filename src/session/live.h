// SPDX-License-Identifier: Apache-2.0
// The sessions that calls from application threads may still reach: from
// creation until start-up has ended or clean-up frees them. Such a call looks
// its session up here and is counted inside it, so a session that is freed
// meanwhile, or a pointer to one already freed, is never touched.
#ifndef OMSDK_SESSION_LIVE_H
#define OMSDK_SESSION_LIVE_H

#include "session/session.h"

namespace omsdk {

// Makes a newly created session reachable; false when memory ran out.
bool live_add(svc_session *s);
// False when `s` is not live; otherwise the caller is counted inside `s`
// (api_callers) until its live_leave.
bool live_enter(svc_session *s);
void live_leave(svc_session *s);
// Waits until no caller is inside `s`, then makes it unreachable; nothing
// when it is not live. Afterwards `s` may be freed.
void live_remove(svc_session *s);

}  // namespace omsdk

#endif
