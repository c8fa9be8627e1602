// SPDX-License-Identifier: Apache-2.0
// Outgoing messages and the per-device records they carry.
#include "engine/message.h"

#include <errno.h>
#include <string.h>

#include <omsdk/aggregate.h>
#include <omsdk/event.h>
#include <omsdk/pdu.h>

#include "common/api.h"
#include "session/callbacks.h"
#include "session/io.h"

namespace {

// Stands in for an unset text: the usage common header's users read its
// texts and never free them.
char g_empty_text[1] = {'\0'};

char *text_or_empty(char *text) { return text != nullptr ? text : g_empty_text; }

// Entry id under which this endpoint reports its own values.
constexpr uint32_t kSelfEntry = 1;
// Comm code of the security header: mains powered or not.
constexpr uint8_t kCommMains = 4;
constexpr uint8_t kCommOther = 1;

}  // namespace

OMSDK_API void omr_fillDeviceHeader(cv_device_header *header, svc_session *session) {
    if (header == nullptr || session == nullptr) return;
    memcpy(header->id, session->sender_id, CV_CORVANE_ID_SIZE);
    header->blob_len = sizeof session->self_addr;
    header->blob = &session->self_addr;
}

OMSDK_API void omr_fillUsageCmnHeader(cv_usage_cmn_hdr *header, svc_session *session) {
    if (header == nullptr || session == nullptr) return;
    header->version = 1;
    uint32_t caliber = 0;
    (void)omsdk::app_get_usage_caliber(session, &caliber);
    header->caliber = static_cast<int32_t>(caliber);
    header->name = text_or_empty(session->name);
    header->role = text_or_empty(session->role);
    uint8_t units = 0, level = 0;
    (void)omsdk::app_get_units(session, &units);
    header->units = static_cast<int8_t>(units);
    (void)omsdk::app_get_level(session, &level);
    header->level = level;
    header->importance = static_cast<uint8_t>(session->importance);
    header->keywords = text_or_empty(session->keywords);
}

namespace omsdk {

message::message(svc_session *s) : s_(s), ev_(own_.get()), ok_(true) {}

message::message(svc_session *s, cv_event *borrowed) : s_(s), ev_(borrowed), ok_(ev_ != nullptr) {}

message &message::add_value(uint32_t type, const void *value, uint32_t size) {
    if (!ok_) return *this;
    return latch(cv_add_tlv(ev_, type, size + CV_TLV_HEADER_SIZE, value) == 0);
}

message &message::add_text(uint32_t type, const char *text) {
    if (text == nullptr) return *this;
    return add_value(type, text, static_cast<uint32_t>(strlen(text) + 1));
}

message &message::add_domain(bool empty_if_unset) {
    const char *domain = s_->domain;
    if (domain == nullptr && empty_if_unset) domain = "";
    return add_text(CV_CORVANE_TLV_TYPE_DOMAIN, domain);
}

message &message::add_reply_to() { return add(CV_CORVANE_TLV_TYPE_REPLY_TO, s_->self_addr); }

message &message::add_sender_id() {
    cv_sender_id me;
    memcpy(me.id, s_->sender_id, CV_CORVANE_ID_SIZE);
    me.value = 1;
    return add(CV_CORVANE_TLV_TYPE_OHMRZ_ID, me);
}

message &message::add_entry(uint32_t type, const void *value, const cv_device_header *dh,
                            const cv_usage_cmn_hdr *usage) {
    if (!ok_) return *this;
    return latch(cv_add_aggr_type_tlv(ev_, type, value, kSelfEntry, dh, usage) == 0);
}

message &message::add_ack_entry(const cv_device_header *dh) {
    if (!ok_) return *this;
    return latch(cv_aggr_ack(ev_, 0, dh) == 0);
}

bool message::sign(uint8_t pri, int32_t shipment, uint8_t cls, uint16_t action, uint32_t seq,
                   const hmac_sha_ctx *key) {
    const uint8_t comm = s_->power_source != 0 ? kCommMains : kCommOther;
    latch(ok_ &&
          omr_createPdu(ev_, pri, shipment, cls, action,
                        reinterpret_cast<const uint8_t *>(s_->sender_id), seq, key, comm) == 0);
    signed_ = ok_;
    return ok_;
}

ssize_t message::send_reply() {
    if (!signed_) {
        errno = EINVAL;
        return -1;
    }
    return omsdk::send_reply(s_, ev_->raw, ev_->raw_len);
}

ssize_t message::send_datagram(const struct sockaddr_in *to) {
    if (!signed_) {
        errno = EINVAL;
        return -1;
    }
    return omsdk::send_datagram(s_, ev_->raw, ev_->raw_len, to);
}

}  // namespace omsdk
