// SPDX-License-Identifier: Apache-2.0
// Message intake: every message read from the listener is unpacked,
// authenticated, checked against its sender's last sequence number and
// dispatched by class.
#include "engine/intake.h"

#include <arpa/inet.h>
#include <string.h>

#include <omsdk/event.h>

#include "common/api.h"
#include "corvane_util/event_internal.h"
#include "diag/log.h"
#include "util/net_text.h"
#include "engine/acknowledge.h"
#include "engine/discovery.h"
#include "engine/query.h"
#include "session/observe.h"

namespace {

constexpr uint32_t kBodyOffset = 32;        // the event header follows security header and digest
constexpr uint32_t kClassOffset = 32 + 41;  // class byte of the event header
// Decoded TLVs of a usual message fit in this much; a larger one takes
// chunks from the heap.
constexpr size_t kIntakeInline = 1536;
}  // namespace

namespace omsdk {

bool event_reply_to(const cv_event *ev, struct sockaddr_in *out) {
    memset(out, 0, sizeof *out);
    int32_t idx = 0;
    uint32_t len = 0;
    const void *v = cv_get_tlv_value(ev, &idx, CV_CORVANE_TLV_TYPE_REPLY_TO, &len);
    if (v == nullptr || len < sizeof *out) return false;
    memcpy(out, v, sizeof *out);
    return true;
}

}  // namespace omsdk

OMSDK_API int32_t omr_validatePeer(svc_session *s, cv_event *ev) {
    if (checkNeighbor(s->neighbor, ev->pak->id, ev->pak->seq) == 0) return 1;
    omsdk::reject(s, OHMARA_REASON_STALE_SEQUENCE, "sequence number not newer than the last");
    struct sockaddr_in reply_to;
    omsdk::event_reply_to(ev, &reply_to);
    OM_DEBUG("dropping message from peer %s with duplicate seq number %d",
             omsdk::ip_text(reply_to.sin_addr).text, static_cast<int32_t>(ev->pak->seq));
    return 0;
}

OMSDK_API void omr_processMsg(svc_session *s, const uint8_t *buf, int32_t len) {
    if (s == nullptr) return;
    const omsdk::counted_message counted(s);
    // The event reads the bytes where they lie: the caller keeps them until
    // this returns, and decoded blobs may point into them.
    omsdk::local_event<kIntakeInline> ev(omsdk::kViews);
    if (!omsdk::store_receive(ev.store(), buf, len)) {
        OM_ERROR("Error creating new raw event, dropping event.");
        omsdk::reject(s, OHMARA_REASON_MALFORMED, "message not stored");
        return;
    }
    ev->body = ev->raw + kBodyOffset;

    // Discovery is signed with the shared secret, everything else with the
    // key agreed in the nonce exchange.
    const bool discovery =
        ev->raw_len > kClassOffset && ev->raw[kClassOffset] == CV_CLASS_DISCOVERY;
    int32_t rc = cv_unpack_event(ev.get(), discovery ? &s->key_ctx : &s->nonce_ctx);
    if (omsdk::capturing(s))
        omsdk::capture_received(s, buf, static_cast<size_t>(len),
                                rc != 0              ? "not decoded"
                                : ev->digest_ok != 0 ? "digest ok"
                                                     : "digest mismatch");
    if (rc != 0) {
        OM_DEBUG("Error while unpacking, err=%d", rc);
        if (rc == CV_RUNTIME_ERROR_CANT_DECRYPT)
            omsdk::reject(s, OHMARA_REASON_BAD_SECURITY_HEADER, "security header not HMAC-SHA1");
        else
            omsdk::reject(s, OHMARA_REASON_MALFORMED, "event or TLVs malformed");
        return;
    }
    // Nothing unauthenticated may change state, create a neighbour or be
    // answered.
    if (ev->digest_ok == 0 || ev->pak == nullptr) {
        OM_DEBUG("dropping message with bad digest");
        omsdk::reject(s, OHMARA_REASON_BAD_DIGEST, "digest mismatch");
        return;
    }
    omsdk::note_heard(s);

    const cv_event_hdr *hdr = ev->pak;
    if (hdr->shipment < 0) {
        // Acknowledgements bypass the duplicate test.
        omr_processAcknowledgementMsg(s, ev.get());
        return;
    }

    OM_DEBUG("msg with seq number %d", static_cast<int32_t>(hdr->seq));

    if (s->neighbor == nullptr) {
        neighbor_node *root = new_neighbor_node();
        if (root == nullptr) {
            OM_FATAL("out of memory");
            return;
        }
        memcpy(root->id, hdr->id, CV_CORVANE_ID_SIZE);
        root->last_seq = static_cast<int32_t>(hdr->seq);
        s->neighbor = root;
    } else if (omr_validatePeer(s, ev.get()) == 0) {
        return;
    }

    OM_TRACE("message is valid");
    OM_TRACE("process query class=%d action=%d shipment=%d", hdr->event_class, hdr->action,
             hdr->shipment);

    const uint8_t cls = hdr->event_class;
    if (cls == CV_CLASS_QUERY || cls == CV_CLASS_AGGREGATE) {
        omr_processQueryMsg(s, ev.get());
    } else if (cls == CV_CLASS_DISCOVERY) {
        omr_processDiscoveryMsg(s, ev.get());
    } else if (cls >= CV_CLASS_NOTIFY) {
        OM_WARN("unexpected event type %d", cls);
        omsdk::reject(s, OHMARA_REASON_UNEXPECTED_CLASS, "unexpected event class");
    } else {
        // Classes below QUERY are dropped without a word.
        omsdk::reject(s, OHMARA_REASON_UNEXPECTED_CLASS, "unexpected event class");
    }
}
