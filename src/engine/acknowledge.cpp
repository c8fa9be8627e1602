// SPDX-License-Identifier: Apache-2.0
// Acknowledgements both ways. From the parent switch: the handshake that
// attaches the endpoint, the nonce exchange that keys the per-connection
// HMAC context, and the answers to the pending request. To the switch: the
// WILL or WONT that answers a query.
#include "engine/acknowledge.h"

#include <arpa/inet.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <omsdk/dump.h>
#include <omsdk/event.h>
#include <omsdk/hmac.h>

#include "common/api.h"
#include "crypto/hmac_internal.h"
#include "diag/log.h"
#include "util/net_text.h"
#include "engine/discovery.h"
#include "engine/intake.h"
#include "engine/message.h"
#include "engine/neighbors.h"
#include "session/request.h"
#include "session/time.h"

namespace {

constexpr uint16_t kSecretLenOwned = 20;  // an application key is read as 20 bytes
constexpr uint16_t kSecretLenId = 32;     // the sender identifier as the key
constexpr uint16_t kSeedLen = 4;

// Alarm status groups of an answer.
enum class AlarmVerdict { Ok, Failed, Unexpected };

AlarmVerdict alarm_verdict(int32_t status) {
    switch (status) {
    case 2:
    case 5: return AlarmVerdict::Ok;
    case 3:
    case 6:
    case 7: return AlarmVerdict::Failed;
    default: return AlarmVerdict::Unexpected;
    }
}

// The remote nonce carried by the event, if any.
bool event_nonce(const cv_event *ev, uint32_t *out) {
    int32_t idx = 0;
    uint32_t len = 0;
    const void *v = cv_get_tlv_value(ev, &idx, CV_CORVANE_TLV_TYPE_NONCE, &len);
    if (v == nullptr || len < sizeof(uint32_t)) return false;
    memcpy(out, v, sizeof *out);
    return true;
}

// The secret as the nonce derivation reads it: exactly `len` bytes, a
// shorter key zero-padded so that nothing past its end is read.
void secret_bytes(const svc_session *s, uint8_t *out, uint16_t len) {
    memset(out, 0, len);
    if (s->key == nullptr) return;
    uint32_t have = s->key_owned != 0 ? s->key_len : kSecretLenId;
    memcpy(out, s->key, have < len ? have : len);
}

void seed_bytes(uint32_t local, uint32_t remote, uint8_t seed[4]) {
    uint32_t x = htonl(local ^ remote);
    memcpy(seed, &x, sizeof x);
}

constexpr char kProcessAck[] = "omr_processAcknowledgementMsg";

// Hardened: an acknowledgement is taken only when it answers one of the
// last discovery events sent (it echoes their sequence number) and is newer
// than the last one taken. One recorded and replayed later answers nothing
// and cannot re-key the session under the live switch.
bool takes_acknowledgement(svc_session *s, uint32_t seq) {
    if (s->ack_taken != 0 && !omsdk::seq_newer(seq, s->last_ack_seq)) {
        OM_LOG_AS(omsdk::LOG_DEBUG, kProcessAck,
                  "dropping acknowledgement %u: not newer than the last one taken (%u)", seq,
                  s->last_ack_seq);
        return false;
    }
    const uint32_t sent = s->sent_discovery_count < OMSDK_SENT_DISCOVERY_MEMORY
                              ? s->sent_discovery_count
                              : OMSDK_SENT_DISCOVERY_MEMORY;
    bool answers = false;
    for (uint32_t i = 0; i < sent; ++i) answers = answers || s->sent_discovery_seq[i] == seq;
    if (!answers) {
        OM_LOG_AS(omsdk::LOG_DEBUG, kProcessAck,
                  "dropping acknowledgement %u: it answers no discovery event sent", seq);
        return false;
    }
    s->last_ack_seq = seq;
    s->ack_taken = 1;
    return true;
}

}  // namespace

OMSDK_API void omr_processAcknowledgementMsg(svc_session *s, cv_event *ev) {
    if (s == nullptr || ev == nullptr || ev->pak == nullptr) return;
    struct sockaddr_in reply_to;
    if (!omsdk::event_reply_to(ev, &reply_to)) {
        OM_DEBUG("bad packet; reply_to tlv is missing");
        return;
    }
    const cv_event_hdr *hdr = ev->pak;
    OM_DEBUG("class %d action %d", hdr->event_class, hdr->action);

    if (hdr->shipment == CV_SHIPMENT_ACK_WONT) {
        if (hdr->event_class != CV_CLASS_DISCOVERY)
            OM_DEBUG("%s NAK", omsdk::ip_text(reply_to.sin_addr).text);
        else
            OM_DEBUG("%s NAK discovery", omsdk::ip_text(reply_to.sin_addr).text);
        return;
    }
    if (hdr->shipment != CV_SHIPMENT_ACK_WILL) return;
    if (hdr->event_class != CV_CLASS_DISCOVERY) return;
    OM_DEBUG("%s ACK discovery", omsdk::ip_text(reply_to.sin_addr).text);
    if (omsdk::hardened(s) && !takes_acknowledgement(s, hdr->seq)) return;

    int32_t status = ohmara_svc_getStatus(s);
    if (status == OHMARA_STATUS_UP || status == OHMARA_STATUS_ACTIVE) {
        if (status == OHMARA_STATUS_UP)
            OM_INFO("*Successfully CONNECTED to %s, changing status from UP to ACTIVE.",
                    omsdk::ip_text(reply_to.sin_addr).text);
        om_setStatusActive(s);
        s->parent_addr = reply_to;

        uint32_t remote = 0;
        if (event_nonce(ev, &remote)) {
            uint8_t seed[kSeedLen];
            seed_bytes(s->local_nonce, remote, seed);
            OM_DEBUG("NONCE (local=%x, remote=%x)[%02x%02x%02x%02x]\n", s->local_nonce, remote,
                     seed[0], seed[1], seed[2], seed[3]);
            if (remote != s->remote_nonce) {
                s->remote_nonce = remote;
                OM_DEBUG("NONCE (local=%x, remote=%x)\n", s->local_nonce, s->remote_nonce);
                seed_bytes(s->local_nonce, s->remote_nonce, seed);
                OM_DEBUG("NONCE (local=%x, remote=%x)[%02x%02x%02x%02x]\n", s->local_nonce,
                         s->remote_nonce, seed[0], seed[1], seed[2], seed[3]);

                const uint16_t secret_len = s->key_owned != 0 ? kSecretLenOwned : kSecretLenId;
                uint8_t secret[kSecretLenId];
                secret_bytes(s, secret, secret_len);
                uint8_t nonce_key[OHMARA_SHA1_DIGEST_SIZE];
                ohmara_utl_composeNonce(seed, kSeedLen, secret, secret_len, nonce_key);

                printf(
                    "@@@@@@@@@@@@@@@ omr_processAcknowledgementMsg hmac_shainit nonce_context=%x",
                    static_cast<unsigned>(reinterpret_cast<uintptr_t>(&s->nonce_ctx)));
                // Release the old key store before keying it afresh: a keyed
                // context keeps its first key copy.
                omsdk::hmac_release(&s->nonce_ctx);
                hmac_shainit(&s->nonce_ctx, nonce_key, OHMARA_SHA1_DIGEST_SIZE);
                memset(secret, 0, sizeof secret);
                memset(nonce_key, 0, sizeof nonce_key);

                // Being ACTIVE now, the update carries our nonce to the switch.
                sendDiscoveryEvent(s, CV_ACTION_KVQR_CORVANE_DISCOVERY_DISCOVERY_UPDATE);
            }
        }
        OM_INFO("status: ACTIVE");
    }

    // Answers to the pending request, whatever the status.
    const cv_alarm *answer = nullptr;
    for (int32_t idx = 0; idx >= 0 && idx < static_cast<int32_t>(hdr->tlv_count); ++idx) {
        uint32_t len = 0;
        const void *v = cv_get_tlv_value(ev, &idx, CV_CORVANE_TLV_TYPE_ALARM, &len);
        if (v == nullptr) break;
        const cv_alarm *a = static_cast<const cv_alarm *>(v);
        if (a->id == s->pending_id) {
            OM_DEBUG("got alarm answer %d", a->id);
            answer = a;
            break;
        }
        OM_DEBUG("deleted request %d", a->id);
    }
    if (answer == nullptr) {
        s->last_ack_time = omsdk::session_seconds(s);
        return;
    }

    OM_DEBUG("got alarm reply with id=%d, status=%d", answer->id, answer->operation);
    OM_DEBUG("host seq %u; handshake seq %u", hdr->seq, s->pending_seq);
    if (hdr->seq != s->pending_seq) {
        // Not the answer to the event that carried the request.
        s->last_ack_time = omsdk::session_seconds(s);
        return;
    }

    uint32_t type = om_dequeueLevelEvent(s);
    const svc_callback_registry *reg = s->registry;
    switch (alarm_verdict(answer->operation)) {
    case AlarmVerdict::Ok:
        OM_DEBUG("alarm_status 'Ok' (%d)", answer->operation);
        if (type != UINT32_MAX && reg != nullptr && reg->alarm_reply != nullptr)
            reg->alarm_reply(s->pending_id, type, 1);
        break;
    case AlarmVerdict::Failed:
        OM_DEBUG("alarm_status 'Failed' (%d)", answer->operation);
        if (type != UINT32_MAX && reg != nullptr && reg->alarm_reply != nullptr)
            reg->alarm_reply(s->pending_id, type, 0);
        break;
    case AlarmVerdict::Unexpected:
        OM_WARN("unexpected alarm_status (%d)", answer->operation);
        break;
    }
    s->pending_seq = 0;
    s->last_ack_time = omsdk::session_seconds(s);
}

OMSDK_API void omr_sendAcknowledgement(svc_session *session, cv_event *request, int32_t shipment) {
    if (shipment != CV_SHIPMENT_ACK_WILL && shipment != CV_SHIPMENT_ACK_WONT) {
        OM_WARN("won't send unexpected acknowledgement type %d", shipment);
        return;
    }
    if (session == nullptr || request == nullptr || request->pak == nullptr) return;

    omsdk::message ack(session);
    if (!ack.created()) {
        OM_ERROR(
            "Error creating new acknowledgement packet, could not allocate sufficient memory.");
        return;
    }
    cv_device_header dh;
    memset(&dh, 0, sizeof dh);
    omr_fillDeviceHeader(&dh, session);
    ack.add_domain(true).add_reply_to().add_sender_id().add_ack_entry(&dh);

    // The header is the request's, the shipment says WILL or WONT.
    const cv_event_hdr *req = request->pak;
    if (!ack.sign(req->pri, shipment, req->event_class, req->action, req->seq,
                  &session->nonce_ctx)) {
        OM_ERROR("error creating ack pdu");
        return;
    }
    if (omsdk::log_enabled(omsdk::LOG_DEBUG)) ohmara_dump_pdu(ack.event());
    ack.send_reply();
    OM_DEBUG("sent acknowledgement %s", shipment == CV_SHIPMENT_ACK_WILL ? "WILL" : "WONT");
}
