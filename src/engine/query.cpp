// SPDX-License-Identifier: Apache-2.0
// Query handling: filter, acknowledge, then apply a SET or answer a GET
// with one aggregate entry per requested attribute.
#include "engine/query.h"

#include <arpa/inet.h>
#include <errno.h>
#include <string.h>

#include <omsdk/dump.h>
#include <omsdk/enums.h>
#include <omsdk/event.h>

#include "common/api.h"
#include "diag/log.h"
#include "util/net_text.h"
#include "engine/acknowledge.h"
#include "engine/attribute_table.h"
#include "engine/discovery.h"
#include "engine/filter.h"
#include "engine/message.h"
#include "engine/set.h"
#include "session/observe.h"

namespace {

// Dotted form of the address in a reply-to TLV value (a socket address of
// up to 16 bytes), made only when `format` (a log line will show it); false
// when the TLV carries no value.
bool reply_to_text(const cv_tlv *tlv, char *out, size_t out_size, bool format = true) {
    if (tlv == nullptr || tlv->value == nullptr || tlv->length <= CV_TLV_HEADER_SIZE) return false;
    if (!format) return true;
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    size_t n = tlv->length - CV_TLV_HEADER_SIZE;
    memcpy(&addr, tlv->value, n < sizeof addr ? n : sizeof addr);
    if (inet_ntop(AF_INET, &addr.sin_addr, out, static_cast<socklen_t>(out_size)) == nullptr)
        out[0] = '\0';
    return true;
}

constexpr const char kGetReply[] = "omr_createGetQueryResponseTlvs";

// The GET reply's TLVs: the endpoint's identity, then one aggregate entry
// per attribute asked for (repeats answered again, unknown types skipped).
// Logs on behalf of omr_createGetQueryResponseTlvs.
void add_get_reply(omsdk::message &reply, svc_session *session, const cv_event *query) {
    uint8_t importance = static_cast<uint8_t>(session->importance);
    reply.add_domain(true)
        .add_text(CV_CORVANE_TLV_TYPE_NAME, session->name != nullptr ? session->name : "")
        .add_text(CV_CORVANE_TLV_TYPE_ROLE, session->role != nullptr ? session->role : "")
        .add(CV_CORVANE_TLV_TYPE_IMPORTANCE, importance)
        .add_sender_id()
        .add_reply_to();

    cv_device_header dh;
    memset(&dh, 0, sizeof dh);
    omr_fillDeviceHeader(&dh, session);
    cv_usage_cmn_hdr common;
    memset(&common, 0, sizeof common);
    omr_fillUsageCmnHeader(&common, session);

    const bool metering = (session->nanny_bits & OMSDK_NANNY_NO_METERING) == 0;
    int32_t count = query->pak->tlv_count;
    if (query->tlvs == nullptr || count > query->tlv_capacity) count = 0;

    for (int32_t i = 0; i < count; ++i) {
        const cv_tlv *tlv = query->tlvs[i];
        if (tlv == nullptr) continue;
        OM_LOG_AS(omsdk::LOG_DEBUG, kGetReply, "count %d, type %d", i, static_cast<int>(tlv->type));
        const omsdk::attribute *a = omsdk::find_attribute(tlv->type & ~CV_TLV_AGGREGATE_FLAG);
        // Not answered: domain, reply-to, unknown types and the rest.
        if (a == nullptr || (a->has(omsdk::ATTR_METERED) && !metering)) continue;
        omsdk::attribute_value v;
        if (!omsdk::read_attribute(session, a->from, &v)) continue;
        OM_LOG_AS(omsdk::LOG_DEBUG, kGetReply, "%s query reply", a->what);
        reply.add_entry(a->reply_type(), v.data(), &dh,
                        a->has(omsdk::ATTR_COMBO) ? &common : nullptr);
    }
}

}  // namespace

OMSDK_API int32_t omr_createGetQueryResponseTlvs(svc_session *session, cv_event *query,
                                                 cv_event *reply) {
    if (session == nullptr || query == nullptr || query->pak == nullptr || reply == nullptr)
        return 0;
    omsdk::message borrowed(session, reply);
    add_get_reply(borrowed, session, query);
    return 0;
}

OMSDK_API void omr_processQueryMsg(svc_session *session, cv_event *query) {
    if (session == nullptr || query == nullptr || query->pak == nullptr) return;
    char reply_to[INET_ADDRSTRLEN] = "";
    const cv_tlv *reply_tlv = cv_get_next_tlv(query, CV_CORVANE_TLV_TYPE_REPLY_TO);
    // A reply-to TLV without a value names no one to answer.
    if (!reply_to_text(reply_tlv, reply_to, sizeof reply_to, omsdk::log_enabled(omsdk::LOG_INFO))) {
        OM_DEBUG("bad packet, does not contain replyto tlv");
        omsdk::reject(session, OHMARA_REASON_MALFORMED, "query without reply-to");
        return;
    }
    OM_INFO("query request from %s", reply_to);
    if (omsdk::log_enabled(omsdk::LOG_DEBUG)) ohmara_dump_pdu(query);

    OM_DEBUG("running cv_exec_filter");
    if (cv_exec_filter(query, session, static_cast<int32_t>(session->importance)) == 0) {
        OM_DEBUG("skipping query ");
        omsdk::reject(session, OHMARA_REASON_FILTERED, "query not addressed to this endpoint");
        return;
    }
    OM_DEBUG("passed filter criteria");

    const cv_event_hdr *hdr = query->pak;
    if (hdr->event_class != CV_CLASS_QUERY && hdr->event_class != CV_CLASS_AGGREGATE) {
        OM_DEBUG("dropping message with class=%d action=%d", hdr->event_class, hdr->action);
        omsdk::reject(session, OHMARA_REASON_UNEXPECTED_CLASS, "not a query");
        return;
    }

    if (hdr->event_class == CV_CLASS_QUERY && hdr->action == CV_ACTION_KVQR_CORVANE_QUERY_SET) {
        if (omr_doSetQuery(session, query) >= 0) {
            OM_DEBUG("ack WILL (set)");
            omsdk::count(session, omsdk::c_set_accepted);
            omr_sendAcknowledgement(session, query, CV_SHIPMENT_ACK_WILL);
            // The switch learns the new values from a discovery update.
            sendDiscoveryEvent(session, CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE);
        } else {
            OM_DEBUG("nak WON'T (set)");
            omsdk::count(session, omsdk::c_set_refused);
            omr_sendAcknowledgement(session, query, CV_SHIPMENT_ACK_WONT);
        }
        return;
    }

    OM_DEBUG("ack WILL");
    omr_sendAcknowledgement(session, query, CV_SHIPMENT_ACK_WILL);

    omsdk::message reply(session);
    if (!reply.created()) {
        OM_ERROR("Error creating new reply packet, could not allocate sufficient memory.");
        return;
    }
    add_get_reply(reply, session, query);
    OM_DEBUG("host seq %u", hdr->seq);
    if (!reply.sign(hdr->pri, CV_SHIPMENT_REPLY_NO_ERROR, hdr->event_class, hdr->action, hdr->seq,
                    &session->nonce_ctx)) {
        OM_ERROR("createPdu failed");
        return;
    }
    if (omsdk::log_enabled(omsdk::LOG_DEBUG)) ohmara_dump_pdu(reply.event());
    ssize_t sent = reply.send_reply();
    if (sent >= 0) {
        omsdk::count(session, omsdk::c_get_answered);
        OM_INFO("Sent %d bytes of packet with total size %d to %s", static_cast<int>(sent),
                static_cast<int>(reply.size()), reply_to);
    } else {
        int err = errno;
        reply_to_text(reply_tlv, reply_to, sizeof reply_to);
        OM_ERROR("Failed to send packet of size %d to %s (%s:%d)", static_cast<int>(reply.size()),
                 reply_to, omsdk::errno_text(err).text, err);
    }
}
