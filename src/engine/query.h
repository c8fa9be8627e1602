// Query handling: query filters, SET queries, GET replies and the
// acknowledgements that answer queries. Exported like every named function
// of the library, but not part of the application headers.
#ifndef OMSDK_ENGINE_QUERY_H
#define OMSDK_ENGINE_QUERY_H

#include <stdint.h>

#include <omsdk/filter.h>
#include <omsdk/wire_types.h>

#include "omsdk.h"

// Nanny function bit that withholds metered values (units, usage, caliber,
// usage and delta vectors) from plain GET replies.
constexpr uint32_t OMSDK_NANNY_NO_METERING = 0x20;

extern "C" {

// --- acknowledgements (shipment -1 WILL or -2 WONT) ---------------------
// Answers `request` on the session's TCP connection; any other shipment is
// refused with a warning and nothing is sent.
void omr_sendAcknowledgement(svc_session *session, cv_event *request, int32_t shipment);
// Device header of this endpoint: its identifier and a pointer (not a
// copy) to the session's reply-to address, so it lives as long as the
// session. No-op when either pointer is null.
void omr_fillDeviceHeader(cv_device_header *header, svc_session *session);
// Usage common header: callbacks caliber, units, level in that order; the
// texts point into the session (never copied; "" for an unset text).
void omr_fillUsageCmnHeader(cv_usage_cmn_hdr *header, svc_session *session);

// --- query handling ------------------------------------------------------
void omr_processQueryMsg(svc_session *session, cv_event *query);
// Fills the empty `reply` with the fixed TLVs and one aggregate entry per
// attribute the query names. Returns 0.
int32_t omr_createGetQueryResponseTlvs(svc_session *session, cv_event *query, cv_event *reply);
// Applies a SET query: 0 when every TLV was applied or skipped, -1 at the
// first one that failed (earlier ones stay applied).
int32_t omr_doSetQuery(svc_session *session, cv_event *query);

// --- query filters: 1 = this endpoint is addressed, 0 = not ---------------
int32_t cv_exec_filter(cv_event *event, svc_session *session, int32_t importance);
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

namespace omsdk {

// Releases an event the engine built: cv_cleanup_event, which frees only
// reply events (state 260), then everything else of any other event.
void engine_release_event(cv_event *ev);

}  // namespace omsdk

#endif
