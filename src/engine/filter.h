// SPDX-License-Identifier: Apache-2.0
// Query filters: is this endpoint addressed by a query? 1 = yes, 0 = no.
// Selectors are the query's TLVs with qualifier 1.
#ifndef OMSDK_ENGINE_FILTER_H
#define OMSDK_ENGINE_FILTER_H

#include <stdint.h>

#include <omsdk/filter.h>
#include <omsdk/wire_types.h>

#include "session/session.h"

extern "C" {
// 0 when the query's priority is below `importance`, else the identity
// and selector filters.
int32_t cv_exec_filter(cv_event *event, svc_session *session, int32_t importance);
// An identity selector decides alone; without one, every other filter must pass.
int32_t cv_sender_id_or_wildcard_filter(cv_event *event, svc_session *session);
int32_t cv_role_filter(cv_event *event, svc_session *session);
int32_t cv_name_filter(cv_event *event, svc_session *session);
int32_t cv_keyword_filter(cv_event *event, svc_session *session);
int32_t cv_category_filter(cv_event *event, svc_session *session);
// 1 when `own` matches `pattern`: a trailing '*' matches any rest, anything
// else must be equal. An empty pattern matches only an empty value; a null
// argument matches nothing.
int32_t cv_wildcard_match(const char *own, const char *pattern);
}

#endif
