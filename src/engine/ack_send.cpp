// Acknowledgements of queries, and the per-device records that
// acknowledgements and GET replies share.
#include <string.h>

#include <omsdk/aggregate.h>
#include <omsdk/dump.h>
#include <omsdk/enums.h>
#include <omsdk/event.h>
#include <omsdk/pdu.h>

#include "common/api.h"
#include "corvane_util/event_internal.h"
#include "diag/log.h"
#include "engine/query.h"
#include "session/session.h"
#include "session/io.h"

namespace {

// Stands in for an unset text: the usage common header's users read its
// texts and never free them.
char g_empty_text[1] = {'\0'};

char *text_or_empty(char *text) { return text != nullptr ? text : g_empty_text; }

}  // namespace

OMSDK_API void omr_fillDeviceHeader(cv_device_header *header, svc_session *session) {
    if (header == nullptr || session == nullptr) return;
    memcpy(header->id, session->sender_id, CV_CORVANE_ID_SIZE);
    header->blob_len = sizeof session->self_addr;
    header->blob = &session->self_addr;
}

OMSDK_API void omr_fillUsageCmnHeader(cv_usage_cmn_hdr *header, svc_session *session) {
    if (header == nullptr || session == nullptr) return;
    const svc_callback_registry *reg = session->registry;
    header->version = 1;
    header->caliber = 0;
    if (reg != nullptr && reg->get_usage_caliber != nullptr)
        header->caliber = static_cast<int32_t>(reg->get_usage_caliber());
    header->name = text_or_empty(session->name);
    header->role = text_or_empty(session->role);
    header->units = 0;
    if (reg != nullptr && reg->get_units != nullptr)
        header->units = static_cast<int8_t>(reg->get_units());
    header->level = 0;
    if (reg != nullptr && reg->get_level != nullptr) header->level = reg->get_level();
    header->importance = static_cast<uint8_t>(session->importance);
    header->keywords = text_or_empty(session->keywords);
}

OMSDK_API void omr_sendAcknowledgement(svc_session *session, cv_event *request, int32_t shipment) {
    if (shipment != CV_SHIPMENT_ACK_WILL && shipment != CV_SHIPMENT_ACK_WONT) {
        OM_WARN("won't send unexpected acknowledgement type %d", shipment);
        return;
    }
    if (session == nullptr || request == nullptr || request->pak == nullptr) return;

    cv_event *ack = corvane_create_my_packet();
    if (ack == nullptr) {
        OM_ERROR("Error creating new acknowledgement packet, could not allocate sufficient memory.");
        return;
    }
    cv_device_header dh;
    memset(&dh, 0, sizeof dh);
    omr_fillDeviceHeader(&dh, session);

    const char *domain = session->domain != nullptr ? session->domain : "";
    cv_sender_id me;
    memcpy(me.id, session->sender_id, CV_CORVANE_ID_SIZE);
    me.value = 1;
    cv_add_tlv(ack, CV_CORVANE_TLV_TYPE_DOMAIN,
               static_cast<uint32_t>(CV_TLV_HEADER_SIZE + strlen(domain) + 1), domain);
    cv_add_tlv(ack, CV_CORVANE_TLV_TYPE_REPLY_TO, CV_TLV_HEADER_SIZE + sizeof session->self_addr,
               &session->self_addr);
    cv_add_tlv(ack, CV_CORVANE_TLV_TYPE_OHMRZ_ID, CV_TLV_HEADER_SIZE + sizeof me, &me);
    cv_aggr_ack(ack, 0, &dh);

    const cv_event_hdr *req = request->pak;
    uint8_t comm = session->power_source != 0 ? 4 : 1;
    if (omr_createPdu(ack, req->pri, shipment, req->event_class, req->action,
                      reinterpret_cast<const uint8_t *>(session->sender_id), req->seq,
                      &session->nonce_ctx, comm) != 0) {
        OM_ERROR("error creating ack pdu");
        omsdk::engine_release_event(ack);
        return;
    }
    if (omsdk::log_enabled(omsdk::LOG_DEBUG)) ohmara_dump_pdu(ack);
    omsdk::send_reply(session, ack->raw, ack->raw_len);
    OM_DEBUG("sent acknowledgement %s", shipment == CV_SHIPMENT_ACK_WILL ? "WILL" : "WONT");
    omsdk::engine_release_event(ack);
}

namespace omsdk {

void engine_release_event(cv_event *ev) {
    if (ev == nullptr) return;
    bool reply = ev->state == CV_EVENT_STATE_REPLY;
    cv_cleanup_event(ev);
    if (!reply) event_release(ev);
}

}  // namespace omsdk
