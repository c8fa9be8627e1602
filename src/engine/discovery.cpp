// Discovery events: the endpoint's announcement to its parent switch, and
// the carrier of the one pending client request.
#include <arpa/inet.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <omsdk/dump.h>
#include <omsdk/event.h>
#include <omsdk/hmac.h>
#include <omsdk/pdu.h>

#include "common/api.h"
#include "util/mutex_guard.h"
#include "diag/log.h"
#include "engine/intake.h"
#include "engine/query.h"
#include "session/request.h"
#include "session/io.h"

namespace {

constexpr uint8_t kDiscoveryPri = 100;  // copied back by acknowledgements
constexpr uint32_t kNannyNoUsage = 0x20u;
constexpr int32_t kAlarmOpSet = 1;
constexpr int32_t kAlarmOpClearAll = 4;
constexpr uint8_t kCommMains = 4;
constexpr uint8_t kCommOther = 1;

// Adds a fixed-size value; the TLV length counts the 12-byte header.
void add_value(cv_event *ev, uint32_t type, const void *value, uint32_t size) {
    cv_add_tlv(ev, type, size + CV_TLV_HEADER_SIZE, value);
}

// Adds a text with its terminating NUL; an unset text is left out.
void add_text(cv_event *ev, uint32_t type, const char *text) {
    if (text == nullptr) return;
    add_value(ev, type, text, static_cast<uint32_t>(strlen(text) + 1));
}

void add_alarm(cv_event *ev, const async_request *req, int32_t id, int32_t operation) {
    cv_alarm alarm;
    memset(&alarm, 0, sizeof alarm);
    alarm.seconds = req->seconds;
    alarm.param2 = req->alarm_param2;
    alarm.param1 = req->alarm_param1;
    alarm.id = id;
    alarm.operation = operation;
    add_value(ev, CV_CORVANE_TLV_TYPE_ALARM, &alarm, sizeof alarm);
}

}  // namespace

OMSDK_API void om_add_async_req(cv_event *ev, async_request *req) {
    if (ev == nullptr || req == nullptr) return;
    switch (req->type) {
    case OMSDK_REQ_ALARM_CLEAR_ALL:
        OM_TRACE("TLV for AlarmClearAll added");
        add_alarm(ev, req, -1, kAlarmOpClearAll);
        break;
    case OMSDK_REQ_ALARM_SET:
        OM_TRACE("TLV for AlarmSet added");
        add_alarm(ev, req, req->id, kAlarmOpSet);
        break;
    case OMSDK_REQ_DISCOVERY_REFRESH:
        // Counts as the outstanding request all the same.
        OM_TRACE("DiscoveryRefresh requested");
        break;
    default:
        break;
    }
}

OMSDK_API int32_t sendDiscoveryEvent(svc_session *s, uint8_t action) {
    if (s == nullptr || s->registry == nullptr) return -1;
    const svc_callback_registry *reg = s->registry;

    // The application is asked every time, whatever the action.
    uint8_t level = reg->get_level();
    uint16_t usage = reg->get_usage();
    uint8_t units = reg->get_units();
    uint32_t caliber = reg->get_usage_caliber();
    uint32_t category = reg->get_usage_category();
    uint32_t seq = reg->next_sequence();
    uint16_t usage_vector[CV_VECTOR_LEN];
    int32_t delta_vector[CV_VECTOR_LEN];
    memset(usage_vector, 0, sizeof usage_vector);
    memset(delta_vector, 0, sizeof delta_vector);
    reg->get_usage_vector(usage_vector);
    reg->get_delta_vector(delta_vector);
    uint8_t importance = static_cast<uint8_t>(s->importance);

    OM_DEBUG("sequence number %d", static_cast<int>(seq));

    cv_event *ev = corvane_create_my_packet();
    if (ev == nullptr) {
        OM_ERROR("Error creating new discovery packet, could not allocate sufficient memory.");
        return -1;
    }

    add_text(ev, CV_CORVANE_TLV_TYPE_DOMAIN, s->domain);
    add_value(ev, CV_CORVANE_TLV_TYPE_REPLY_TO, &s->self_addr, sizeof s->self_addr);

    if (ohmara_svc_getStatus(s) == OHMARA_STATUS_ACTIVE) {
        add_value(ev, CV_CORVANE_TLV_TYPE_NONCE, &s->local_nonce, sizeof s->local_nonce);

        if (s->pending_seq == 0) {
            async_request *req = om_getQueueRequest(s);
            if (req != nullptr) {
                s->pending_seq = seq;
                s->pending_id = req->id;
                om_add_async_req(ev, req);
            }
        } else if (s->pending_seq + 2u <= seq) {
            // Two further events went unanswered: give the request up.
            OM_WARN("no response to Wake Up request.  Dropping request");
            uint32_t type = om_dequeueLevelEvent(s);
            if (type != UINT32_MAX && reg->alarm_reply != nullptr)
                reg->alarm_reply(s->pending_id, type, 0);
            s->pending_seq = 0;
        }
    }

    add_text(ev, CV_CORVANE_TLV_TYPE_NAME, s->name);
    add_text(ev, CV_CORVANE_TLV_TYPE_ROLE, s->role);
    add_text(ev, CV_CORVANE_TLV_TYPE_KEYWORDS, s->keywords);
    add_value(ev, CV_CORVANE_TLV_TYPE_NANNY_VECTOR, &s->nanny_bits, sizeof s->nanny_bits);

    if (action == CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE) {
        if ((s->nanny_bits & kNannyNoUsage) == 0) {
            add_value(ev, CV_CORVANE_TLV_TYPE_USAGE, &usage, sizeof usage);
            add_value(ev, CV_CORVANE_TLV_TYPE_UNITS, &units, sizeof units);
            add_value(ev, CV_CORVANE_TLV_TYPE_USAGE_CALIBER, &caliber, sizeof caliber);
            add_value(ev, CV_CORVANE_TLV_TYPE_USAGE_VECTOR, usage_vector, sizeof usage_vector);
            add_value(ev, CV_CORVANE_TLV_TYPE_DELTA_VECTOR, delta_vector, sizeof delta_vector);
        }
        add_value(ev, CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, &level, sizeof level);
        add_value(ev, CV_CORVANE_TLV_TYPE_IMPORTANCE, &importance, sizeof importance);
        add_value(ev, CV_CORVANE_TLV_TYPE_USAGE_CATEGORY, &category, sizeof category);
    }

    cv_sender_id own;
    memcpy(own.id, s->sender_id, CV_CORVANE_ID_SIZE);
    own.value = 1;
    add_value(ev, CV_CORVANE_TLV_TYPE_OHMRZ_ID, &own, sizeof own);

    const uint8_t comm = s->power_source != 0 ? kCommMains : kCommOther;
    if (omr_createPdu(ev, kDiscoveryPri, CV_SHIPMENT_SEND, CV_CLASS_DISCOVERY, action,
                      reinterpret_cast<const uint8_t *>(s->sender_id), seq, &s->key_ctx,
                      comm) != 0) {
        OM_ERROR("error creating discovery pdu");
        omsdk::engine_release_event(ev);
        return -1;
    }

    if (omsdk::log_enabled(omsdk::LOG_DEBUG)) {
        ohmara_dump_digest(ev->raw + CV_SEC_HEADER_SIZE);
        ohmara_dump_pdu(ev);
    }

    int32_t status = ohmara_svc_getStatus(s);
    if (status == OHMARA_STATUS_ACTIVE || status == OHMARA_STATUS_SHUTDOWN) {
        struct sockaddr_in to;
        memset(&to, 0, sizeof to);
        to.sin_family = AF_INET;
        to.sin_port = s->parent_addr.sin_port;
        to.sin_addr = s->parent_addr.sin_addr;
        ssize_t sent = omsdk::send_datagram(s, ev->raw, ev->raw_len, &to);
        OM_INFO("unicast %d bytes to %s:%d", static_cast<int>(sent), inet_ntoa(to.sin_addr),
                ntohs(to.sin_port));
    } else {
        ssize_t sent = omsdk::send_datagram(s, ev->raw, ev->raw_len, &s->bcast_addr);
        OM_INFO("broadcast %d bytes to %s:%d", static_cast<int>(sent),
                inet_ntoa(s->bcast_addr.sin_addr), ntohs(s->bcast_addr.sin_port));
    }

    omsdk::engine_release_event(ev);
    return 0;
}
