// SPDX-License-Identifier: Apache-2.0
// Discovery events: the endpoint's announcement to its parent switch, and
// the carrier of the one pending client request; and the switch's own
// discovery messages.
#include "engine/discovery.h"

#include <arpa/inet.h>
#include <stdint.h>
#include <string.h>

#include <omsdk/dump.h>
#include <omsdk/event.h>

#include "common/api.h"
#include "diag/log.h"
#include "util/net_text.h"
#include "engine/attribute_table.h"
#include "engine/intake.h"
#include "engine/message.h"
#include "session/callbacks.h"
#include "session/identity.h"
#include "session/observe.h"
#include "session/request.h"

namespace {

constexpr uint8_t kDiscoveryPri = 100;  // copied back by acknowledgements
constexpr int32_t kAlarmOpSet = 1;
constexpr int32_t kAlarmOpClearAll = 4;

using omsdk::attribute_source;

// The alarm a request kind carries; false for kinds without one.
bool request_alarm(const async_request *req, cv_alarm *alarm) {
    memset(alarm, 0, sizeof *alarm);
    alarm->seconds = req->seconds;
    alarm->param2 = req->alarm_param2;
    alarm->param1 = req->alarm_param1;
    switch (req->type) {
    case OMSDK_REQ_ALARM_CLEAR_ALL:
        OM_LOG_AS(omsdk::LOG_TRACE, "om_add_async_req", "TLV for AlarmClearAll added");
        alarm->id = -1;
        alarm->operation = kAlarmOpClearAll;
        return true;
    case OMSDK_REQ_ALARM_SET:
        OM_LOG_AS(omsdk::LOG_TRACE, "om_add_async_req", "TLV for AlarmSet added");
        alarm->id = req->id;
        alarm->operation = kAlarmOpSet;
        return true;
    case OMSDK_REQ_DISCOVERY_REFRESH:
        // Counts as the outstanding request all the same.
        OM_LOG_AS(omsdk::LOG_TRACE, "om_add_async_req", "DiscoveryRefresh requested");
        return false;
    default: return false;
    }
}

constexpr size_t index_of(attribute_source from) { return static_cast<size_t>(from); }

// The application is asked every time, whatever the action, in this order;
// the sequence number comes between the numbers and the vectors.
constexpr attribute_source kReadBeforeSeq[] = {attribute_source::level, attribute_source::usage,
                                               attribute_source::units, attribute_source::caliber,
                                               attribute_source::category};
constexpr attribute_source kReadAfterSeq[] = {
    attribute_source::usage_vector, attribute_source::delta_vector, attribute_source::importance};

// Everything a discovery event carries, in order. The nonce and the alarm
// are left out when null; the update block when `values` is null.
struct discovery_body {
    const char *domain, *name, *role, *keywords;
    const uint32_t *nonce;
    const cv_alarm *alarm;
    const omsdk::attribute_value *values;  // by attribute_source
    bool metering;
};

void add_body(omsdk::message &ev, const svc_session *s, const discovery_body &b) {
    ev.add_text(CV_CORVANE_TLV_TYPE_DOMAIN, b.domain).add_reply_to();
    if (b.nonce != nullptr) ev.add(CV_CORVANE_TLV_TYPE_NONCE, *b.nonce);
    if (b.alarm != nullptr) ev.add(CV_CORVANE_TLV_TYPE_ALARM, *b.alarm);
    ev.add_text(CV_CORVANE_TLV_TYPE_NAME, b.name)
        .add_text(CV_CORVANE_TLV_TYPE_ROLE, b.role)
        .add_text(CV_CORVANE_TLV_TYPE_KEYWORDS, b.keywords)
        .add(CV_CORVANE_TLV_TYPE_NANNY_VECTOR, s->nanny_bits);
    if (b.values != nullptr) {
        for (const omsdk::attribute &a : omsdk::kAttributes) {
            if (!a.has(omsdk::ATTR_IN_UPDATE) || (a.has(omsdk::ATTR_METERED) && !b.metering))
                continue;
            const omsdk::attribute_value &v = b.values[index_of(a.from)];
            ev.add_value(a.type, v.data(), v.size);
        }
    }
    ev.add_sender_id();
}

// The identity texts by the name a log line gives them.
struct named_text {
    const char *what;
    const char *text;
};

}  // namespace

namespace omsdk {

uint32_t largest_discovery_size(svc_session *s, const char *domain, const char *name,
                                const char *role, const char *keywords) {
    // An update while ACTIVE, with the nonce, a pending alarm and every
    // metered value: the most a discovery event ever carries.
    attribute_value values[index_of(attribute_source::count_)] = {};
    for (size_t i = 0; i < index_of(attribute_source::count_); ++i)
        values[i].size = value_size(static_cast<attribute_source>(i));
    const uint32_t nonce = 0;
    const cv_alarm alarm = {};
    message ev(s);
    if (!ev.created()) return 0;
    add_body(ev, s, {domain, name, role, keywords, &nonce, &alarm, values, true});
    if (!ev.ok()) return 0;
    return CV_PDU_FIXED_SIZE + om_get_total_tlvs_data_size(ev.event());
}

}  // namespace omsdk

// Lives with discovery: an identity is refused when no discovery event
// could carry it.
OMSDK_API int32_t ohmara_svc_configIdentity(svc_session *session, const char *domain,
                                            const char *name, const char *role,
                                            const char *keywords, const char *device_type,
                                            uint8_t importance) {
    if (session == nullptr) return -1;
    omsdk::identity_texts staged;
    if (!omsdk::stage_identity(session, domain, name, role, keywords, device_type, importance,
                               &staged))
        return -1;
    const uint32_t size = omsdk::largest_discovery_size(session, staged.domain, staged.name,
                                                        staged.role, staged.keywords);
    if (size == 0) {
        OM_ERROR("Error configuring identity, no memory available");
        return -1;
    }
    if (size > CV_PDU_MAX_SIZE) {
        const named_text texts[] = {{"domain", staged.domain},
                                    {"name", staged.name},
                                    {"role", staged.role},
                                    {"keywords", staged.keywords}};
        const named_text *longest = &texts[0];
        for (const named_text &t : texts)
            if (t.text != nullptr && strlen(t.text) > strlen(longest->text)) longest = &t;
        OM_ERROR("identity too large to announce: %s (%u characters) makes the discovery "
                 "message %u bytes, %u over the %u-byte limit",
                 longest->what, static_cast<unsigned>(strlen(longest->text)), size,
                 size - CV_PDU_MAX_SIZE, CV_PDU_MAX_SIZE);
        return -1;
    }
    omsdk::commit_identity(session, &staged);
    return 0;
}

OMSDK_API void om_add_async_req(cv_event *ev, async_request *req) {
    if (ev == nullptr || req == nullptr) return;
    cv_alarm alarm;
    if (request_alarm(req, &alarm))
        cv_add_tlv(ev, CV_CORVANE_TLV_TYPE_ALARM, CV_TLV_HEADER_SIZE + sizeof alarm, &alarm);
}

OMSDK_API int32_t sendDiscoveryEvent(svc_session *s, uint8_t action) {
    if (s == nullptr || !omsdk::has_callbacks(s)) return -1;

    omsdk::attribute_value values[index_of(attribute_source::count_)];
    for (attribute_source from : kReadBeforeSeq)
        omsdk::read_attribute(s, from, &values[index_of(from)]);
    uint32_t seq = 0;
    (void)omsdk::app_next_sequence(s, &seq);
    for (attribute_source from : kReadAfterSeq)
        omsdk::read_attribute(s, from, &values[index_of(from)]);

    OM_DEBUG("sequence number %d", static_cast<int>(seq));

    omsdk::message ev(s);
    if (!ev.created()) {
        OM_ERROR("Error creating new discovery packet, could not allocate sufficient memory.");
        return -1;
    }

    const bool active = ohmara_svc_getStatus(s) == OHMARA_STATUS_ACTIVE;
    cv_alarm alarm;
    bool carries_alarm = false;
    if (active) {
        if (s->pending_seq == 0) {
            async_request *req = om_getQueueRequest(s);
            if (req != nullptr) {
                s->pending_seq = seq;
                s->pending_id = req->id;
                carries_alarm = request_alarm(req, &alarm);
                if (carries_alarm) omsdk::count(s, omsdk::c_alarms_sent);
            }
        } else if (s->pending_seq + 2u <= seq) {
            // Two further events went unanswered: give the request up.
            OM_WARN("no response to Wake Up request.  Dropping request");
            uint32_t type = om_dequeueLevelEvent(s);
            if (type != UINT32_MAX) (void)omsdk::app_alarm_reply(s, s->pending_id, type, 0);
            s->pending_seq = 0;
        }
    }
    const bool update = action == CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE;
    add_body(ev, s,
             {s->domain, s->name, s->role, s->keywords, active ? &s->local_nonce : nullptr,
              carries_alarm ? &alarm : nullptr, update ? values : nullptr,
              (s->nanny_bits & OMSDK_NANNY_NO_METERING) == 0});

    if (!ev.sign(kDiscoveryPri, CV_SHIPMENT_SEND, CV_CLASS_DISCOVERY, action, seq, &s->key_ctx)) {
        OM_ERROR("error creating discovery pdu");
        return -1;
    }
    // What an acknowledgement may answer (checked under the hardened profile).
    s->sent_discovery_seq[s->sent_discovery_count++ % OMSDK_SENT_DISCOVERY_MEMORY] = seq;

    if (omsdk::log_enabled(omsdk::LOG_DEBUG)) {
        ohmara_dump_digest(ev.event()->raw + CV_SEC_HEADER_SIZE);
        ohmara_dump_pdu(ev.event());
    }

    int32_t status = ohmara_svc_getStatus(s);
    if (status == OHMARA_STATUS_ACTIVE || status == OHMARA_STATUS_SHUTDOWN) {
        struct sockaddr_in to;
        memset(&to, 0, sizeof to);
        to.sin_family = AF_INET;
        to.sin_port = s->parent_addr.sin_port;
        to.sin_addr = s->parent_addr.sin_addr;
        ssize_t sent = ev.send_datagram(&to);
        if (sent >= 0) omsdk::count(s, omsdk::c_discovery_sent);
        OM_INFO("unicast %d bytes to %s:%d", static_cast<int>(sent),
                omsdk::ip_text(to.sin_addr).text, ntohs(to.sin_port));
    } else {
        ssize_t sent = ev.send_datagram(&s->bcast_addr);
        if (sent >= 0) omsdk::count(s, omsdk::c_discovery_sent);
        OM_INFO("broadcast %d bytes to %s:%d", static_cast<int>(sent),
                omsdk::ip_text(s->bcast_addr.sin_addr).text, ntohs(s->bcast_addr.sin_port));
    }
    return 0;
}

OMSDK_API int32_t omr_processDiscoveryMsg(svc_session *s, cv_event *ev) {
    if (s == nullptr || ev == nullptr || ev->pak == nullptr) return 0;
    struct sockaddr_in reply_to;
    omsdk::event_reply_to(ev, &reply_to);  // zeroed when absent
    OM_DEBUG("%s discovery event", omsdk::ip_text(reply_to.sin_addr).text);

    const uint16_t action = ev->pak->action;
    if (action == CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE ||
        action == CV_ACTION_KVQR_CORVANE_DISCOVERY_KEEPALIVE) {
        OM_TRACE("Discovery message received from parent switch.");
        return 0;
    }
    if (action == CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE) {
        OM_DEBUG("*Received discovery delete, restarting discovery process...");
        return om_setStatusUp(s);
    }
    return 0;
}
