// Query handling: filter, acknowledge, then apply a SET or answer a GET
// with one aggregate entry per requested attribute.
#include <arpa/inet.h>
#include <errno.h>
#include <string.h>

#include <omsdk/aggregate.h>
#include <omsdk/dump.h>
#include <omsdk/enums.h>
#include <omsdk/event.h>
#include <omsdk/pdu.h>

#include "common/api.h"
#include "diag/log.h"
#include "engine/intake.h"
#include "engine/query.h"
#include "session/session.h"
#include "session/io.h"

namespace {

// Entry id under which a GET reply reports this endpoint's own values.
constexpr uint32_t kSelfEntry = 1;

// Dotted form of the address in a reply-to TLV value (a socket address of
// up to 16 bytes); false when the TLV carries no value.
bool reply_to_text(const cv_tlv *tlv, char *out, size_t out_size) {
    if (tlv == nullptr || tlv->value == nullptr || tlv->length <= CV_TLV_HEADER_SIZE) return false;
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    size_t n = tlv->length - CV_TLV_HEADER_SIZE;
    memcpy(&addr, tlv->value, n < sizeof addr ? n : sizeof addr);
    if (inet_ntop(AF_INET, &addr.sin_addr, out, static_cast<socklen_t>(out_size)) == nullptr)
        out[0] = '\0';
    return true;
}

const char *text_or_empty(const char *text) { return text != nullptr ? text : ""; }

uint8_t comm_of(const svc_session *s) { return s->power_source != 0 ? 4 : 1; }

}  // namespace

OMSDK_API int32_t omr_createGetQueryResponseTlvs(svc_session *session, cv_event *query,
                                                  cv_event *reply) {
    if (session == nullptr || query == nullptr || query->pak == nullptr || reply == nullptr)
        return 0;
    const char *domain = text_or_empty(session->domain);
    const char *name = text_or_empty(session->name);
    const char *role = text_or_empty(session->role);
    const char *keywords = text_or_empty(session->keywords);
    const char *device_type = text_or_empty(session->device_type);
    uint8_t importance = static_cast<uint8_t>(session->importance);
    cv_sender_id me;
    memcpy(me.id, session->sender_id, CV_CORVANE_ID_SIZE);
    me.value = 1;

    cv_add_tlv(reply, CV_CORVANE_TLV_TYPE_DOMAIN,
               static_cast<uint32_t>(CV_TLV_HEADER_SIZE + strlen(domain) + 1), domain);
    cv_add_tlv(reply, CV_CORVANE_TLV_TYPE_NAME,
               static_cast<uint32_t>(CV_TLV_HEADER_SIZE + strlen(name) + 1), name);
    cv_add_tlv(reply, CV_CORVANE_TLV_TYPE_ROLE,
               static_cast<uint32_t>(CV_TLV_HEADER_SIZE + strlen(role) + 1), role);
    cv_add_tlv(reply, CV_CORVANE_TLV_TYPE_IMPORTANCE, CV_TLV_HEADER_SIZE + 1, &importance);
    cv_add_tlv(reply, CV_CORVANE_TLV_TYPE_OHMRZ_ID, CV_TLV_HEADER_SIZE + sizeof me, &me);
    cv_add_tlv(reply, CV_CORVANE_TLV_TYPE_REPLY_TO,
               CV_TLV_HEADER_SIZE + sizeof session->self_addr, &session->self_addr);

    cv_device_header dh;
    memset(&dh, 0, sizeof dh);
    omr_fillDeviceHeader(&dh, session);
    cv_usage_cmn_hdr common;
    memset(&common, 0, sizeof common);
    omr_fillUsageCmnHeader(&common, session);

    const svc_callback_registry *reg = session->registry;
    const bool metered = (session->nanny_bits & OMSDK_NANNY_NO_METERING) == 0;
    int32_t count = query->pak->tlv_count;
    if (query->tlvs == nullptr || count > query->tlv_capacity) count = 0;

    for (int32_t i = 0; i < count; ++i) {
        const cv_tlv *tlv = query->tlvs[i];
        if (tlv == nullptr) continue;
        OM_DEBUG("count %d, type %d", i, static_cast<int>(tlv->type));
        uint32_t type = tlv->type & ~CV_TLV_AGGREGATE_FLAG;
        // Callback values; only the row that reads one fills it.
        uint8_t u8 = 0;
        uint16_t u16 = 0;
        uint32_t u32 = 0;
        cv_usage_vector usage_vector;
        cv_delta_vector delta_vector;
        memset(usage_vector, 0, sizeof usage_vector);
        memset(delta_vector, 0, sizeof delta_vector);

        switch (type) {
        case CV_CORVANE_TLV_TYPE_ROLE:
            OM_DEBUG("role query reply");
            cv_add_aggr_type_tlv(reply, type, role, kSelfEntry, &dh, nullptr);
            break;
        case CV_CORVANE_TLV_TYPE_NAME:
            OM_DEBUG("name query reply");
            cv_add_aggr_type_tlv(reply, type, name, kSelfEntry, &dh, nullptr);
            break;
        case CV_CORVANE_TLV_TYPE_KEYWORDS:
            OM_DEBUG("keywords query reply");
            cv_add_aggr_type_tlv(reply, type, keywords, kSelfEntry, &dh, nullptr);
            break;
        case CV_CORVANE_TLV_TYPE_UNITS:
            if (!metered || reg == nullptr || reg->get_units == nullptr) break;
            u8 = reg->get_units();
            OM_DEBUG("units query reply");
            cv_add_aggr_type_tlv(reply, type, &u8, kSelfEntry, &dh, nullptr);
            break;
        case CV_CORVANE_TLV_TYPE_USAGE:
            if (!metered || reg == nullptr || reg->get_usage == nullptr) break;
            u16 = reg->get_usage();
            OM_DEBUG("usage query reply");
            cv_add_aggr_type_tlv(reply, type, &u16, kSelfEntry, &dh, nullptr);
            break;
        case CV_CORVANE_TLV_TYPE_LEVEL_CURRENT:
            if (reg == nullptr || reg->get_level == nullptr) break;
            u8 = reg->get_level();
            OM_DEBUG("level query reply");
            cv_add_aggr_type_tlv(reply, type, &u8, kSelfEntry, &dh, nullptr);
            break;
        case CV_CORVANE_TLV_TYPE_IMPORTANCE:
        case CV_CORVANE_TLV_TYPE_IMPORTANCE_I:
            u8 = importance;
            OM_DEBUG("importance query reply");
            cv_add_aggr_type_tlv(reply, CV_CORVANE_TLV_TYPE_IMPORTANCE_I, &u8, kSelfEntry, &dh,
                                 nullptr);
            break;
        case CV_CORVANE_TLV_TYPE_DELTA_VECTOR:
            if (!metered || reg == nullptr || reg->get_delta_vector == nullptr) break;
            reg->get_delta_vector(delta_vector);
            OM_DEBUG("delta vector query reply");
            cv_add_aggr_type_tlv(reply, type, delta_vector, kSelfEntry, &dh, nullptr);
            break;
        case CV_CORVANE_TLV_TYPE_USAGE_CALIBER:
            if (!metered || reg == nullptr || reg->get_usage_caliber == nullptr) break;
            u32 = reg->get_usage_caliber();
            OM_DEBUG("caliber query reply");
            cv_add_aggr_type_tlv(reply, type, &u32, kSelfEntry, &dh, nullptr);
            break;
        case CV_CORVANE_TLV_TYPE_USAGE_VECTOR:
            if (!metered || reg == nullptr || reg->get_usage_vector == nullptr) break;
            reg->get_usage_vector(usage_vector);
            OM_DEBUG("usage vector query reply");
            cv_add_aggr_type_tlv(reply, type, usage_vector, kSelfEntry, &dh, nullptr);
            break;
        case CV_CORVANE_TLV_TYPE_USAGE_REPORT:
            if (reg == nullptr || reg->get_usage == nullptr) break;
            u16 = reg->get_usage();
            OM_DEBUG("usage query reply");
            cv_add_aggr_type_tlv(reply, type, &u16, kSelfEntry, &dh, &common);
            break;
        case CV_CORVANE_TLV_TYPE_USAGE_VECTOR_REPORT:
            if (reg == nullptr || reg->get_usage_vector == nullptr) break;
            reg->get_usage_vector(usage_vector);
            OM_DEBUG("usage vector query reply");
            cv_add_aggr_type_tlv(reply, type, usage_vector, kSelfEntry, &dh, &common);
            break;
        case CV_CORVANE_TLV_TYPE_DELTA_VECTOR_REPORT:
            if (reg == nullptr || reg->get_delta_vector == nullptr) break;
            reg->get_delta_vector(delta_vector);
            OM_DEBUG("delta vector query reply");
            cv_add_aggr_type_tlv(reply, type, delta_vector, kSelfEntry, &dh, &common);
            break;
        case CV_CORVANE_TLV_TYPE_DEVICE_TYPE:
            OM_DEBUG("device type query reply");
            cv_add_aggr_type_tlv(reply, type, device_type, kSelfEntry, &dh, nullptr);
            break;
        case CV_CORVANE_TLV_TYPE_USAGE_CATEGORY:
            if (reg == nullptr || reg->get_usage_category == nullptr) break;
            u32 = reg->get_usage_category();
            OM_DEBUG("category query reply");
            cv_add_aggr_type_tlv(reply, type, &u32, kSelfEntry, &dh, nullptr);
            break;
        default:
            break;  // not answered: domain, reply-to, unknown types and the rest
        }
    }
    return 0;
}

OMSDK_API void omr_processQueryMsg(svc_session *session, cv_event *query) {
    if (session == nullptr || query == nullptr || query->pak == nullptr) return;
    char reply_to[INET_ADDRSTRLEN] = "";
    // A reply-to TLV without a value names no one to answer.
    if (!reply_to_text(cv_get_next_tlv(query, CV_CORVANE_TLV_TYPE_REPLY_TO), reply_to,
                       sizeof reply_to)) {
        OM_DEBUG("bad packet, does not contain replyto tlv");
        return;
    }
    OM_INFO("query request from %s", reply_to);
    if (omsdk::log_enabled(omsdk::LOG_DEBUG)) ohmara_dump_pdu(query);

    OM_DEBUG("running cv_exec_filter");
    if (cv_exec_filter(query, session, static_cast<int32_t>(session->importance)) == 0) {
        OM_DEBUG("skipping query ");
        return;
    }
    OM_DEBUG("passed filter criteria");

    const cv_event_hdr *hdr = query->pak;
    if (hdr->event_class != CV_CLASS_QUERY && hdr->event_class != CV_CLASS_AGGREGATE) {
        OM_DEBUG("dropping message with class=%d action=%d", hdr->event_class, hdr->action);
        return;
    }

    if (hdr->event_class == CV_CLASS_QUERY && hdr->action == CV_ACTION_KVQR_CORVANE_QUERY_SET) {
        if (omr_doSetQuery(session, query) >= 0) {
            OM_DEBUG("ack WILL (set)");
            omr_sendAcknowledgement(session, query, CV_SHIPMENT_ACK_WILL);
            // The switch learns the new values from a discovery update.
            sendDiscoveryEvent(session, CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE);
        } else {
            OM_DEBUG("nak WON'T (set)");
            omr_sendAcknowledgement(session, query, CV_SHIPMENT_ACK_WONT);
        }
        return;
    }

    OM_DEBUG("ack WILL");
    omr_sendAcknowledgement(session, query, CV_SHIPMENT_ACK_WILL);

    cv_event *reply = corvane_create_my_packet();
    if (reply == nullptr) {
        OM_ERROR("Error creating new reply packet, could not allocate sufficient memory.");
        return;
    }
    omr_createGetQueryResponseTlvs(session, query, reply);
    OM_DEBUG("host seq %u", hdr->seq);
    if (omr_createPdu(reply, hdr->pri, CV_SHIPMENT_REPLY_NO_ERROR, hdr->event_class, hdr->action,
                      reinterpret_cast<const uint8_t *>(session->sender_id), hdr->seq,
                      &session->nonce_ctx, comm_of(session)) != 0) {
        OM_ERROR("createPdu failed");
        omsdk::engine_release_event(reply);
        return;
    }
    if (omsdk::log_enabled(omsdk::LOG_DEBUG)) ohmara_dump_pdu(reply);
    ssize_t sent = omsdk::send_reply(session, reply->raw, reply->raw_len);
    if (sent >= 0) {
        OM_INFO("Sent %d bytes of packet with total size %d to %s", static_cast<int>(sent),
                static_cast<int>(reply->raw_len), reply_to);
    } else {
        int err = errno;
        OM_ERROR("Failed to send packet of size %d to %s (%s:%d)", static_cast<int>(reply->raw_len),
                 reply_to, strerror(err), err);
    }
    omsdk::engine_release_event(reply);
}
