// Message intake: every message read from the listener is unpacked,
// authenticated, checked against its sender's last sequence number and
// dispatched by class.
#include "engine/intake.h"

#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>

#include <omsdk/dump.h>
#include <omsdk/event.h>

#include "common/api.h"
#include "diag/log.h"

#include "engine/query.h"

namespace {

constexpr uint32_t kBodyOffset = 32;        // the event header follows security header and digest
constexpr uint32_t kClassOffset = 32 + 41;  // class byte of the event header

}  // namespace

namespace omsdk {

void free_neighbor_tree(neighbor_node *root) {
    // Rotate left subtrees up so that no recursion or stack is needed.
    neighbor_node *n = root;
    while (n != nullptr) {
        if (n->lesser != nullptr) {
            neighbor_node *l = n->lesser;
            n->lesser = l->greater;
            l->greater = n;
            n = l;
        } else {
            neighbor_node *next = n->greater;
            free(n);
            n = next;
        }
    }
}

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

OMSDK_API neighbor_node *new_neighbor_node(void) {
    return static_cast<neighbor_node *>(calloc(1, sizeof(neighbor_node)));
}

OMSDK_API void printNeighborNode(neighbor_node *node) {
    // In-order walk by threading (no recursion): a degenerate tree of many
    // senders must not exhaust the stack. Every thread is undone on the way.
    neighbor_node *cur = node;
    char text[CV_CORVANE_ID_SIZE + 2];
    while (cur != nullptr) {
        if (cur->lesser == nullptr) {
            ohmara_idtos(text, cur->id, CV_CORVANE_ID_SIZE + 1);
            OM_DEBUG("%s last seq %d", text, cur->last_seq);
            cur = cur->greater;
            continue;
        }
        neighbor_node *pred = cur->lesser;
        while (pred->greater != nullptr && pred->greater != cur) pred = pred->greater;
        if (pred->greater == nullptr) {
            pred->greater = cur;
            cur = cur->lesser;
        } else {
            pred->greater = nullptr;
            ohmara_idtos(text, cur->id, CV_CORVANE_ID_SIZE + 1);
            OM_DEBUG("%s last seq %d", text, cur->last_seq);
            cur = cur->greater;
        }
    }
}

OMSDK_API int32_t checkNeighbor(neighbor_node *root, const uint8_t *id, uint32_t seq) {
    if (root == nullptr || id == nullptr) return -1;
    if (omsdk::log_enabled(omsdk::LOG_DEBUG)) printNeighborNode(root);

    neighbor_node *n = root;
    neighbor_node *parent = nullptr;
    int cmp = 0;
    while (n != nullptr) {
        cmp = memcmp(n->id, id, CV_CORVANE_ID_SIZE);
        if (cmp == 0) break;
        parent = n;
        n = cmp < 0 ? n->greater : n->lesser;
    }

    if (n == nullptr) {
        OM_DEBUG("adding %.32s, sequence number %d", reinterpret_cast<const char *>(id),
                 static_cast<int32_t>(seq));
        neighbor_node *added = new_neighbor_node();
        if (added == nullptr) {
            OM_FATAL("out of memory");
            return -1;
        }
        memcpy(added->id, id, CV_CORVANE_ID_SIZE);
        added->last_seq = static_cast<int32_t>(seq);
        if (cmp < 0)
            parent->greater = added;
        else
            parent->lesser = added;
        return 0;
    }

    char text[CV_CORVANE_ID_SIZE + 2];
    ohmara_idtos(text, id, CV_CORVANE_ID_SIZE + 1);
    OM_DEBUG("lookup last sequence number %u and new sequence number %u for %s",
             static_cast<uint32_t>(n->last_seq), seq, text);
    // The difference in 32-bit arithmetic survives wrap-around.
    const int32_t diff = static_cast<int32_t>(seq - static_cast<uint32_t>(n->last_seq));
    if (diff > 0) {
        n->last_seq = static_cast<int32_t>(seq);
        return 0;
    }
    return -1;
}

OMSDK_API int32_t omr_validatePeer(svc_session *s, cv_event *ev) {
    if (checkNeighbor(s->neighbor, ev->pak->id, ev->pak->seq) == 0) return 1;
    struct sockaddr_in reply_to;
    omsdk::event_reply_to(ev, &reply_to);
    OM_DEBUG("dropping message from peer %s with duplicate seq number %d",
             inet_ntoa(reply_to.sin_addr), static_cast<int32_t>(ev->pak->seq));
    return 0;
}

OMSDK_API void omr_processMsg(svc_session *s, const uint8_t *buf, int32_t len) {
    if (s == nullptr) return;
    cv_event *ev = cv_mkevent_from_rawbuffer(len, buf);
    if (ev == nullptr) {
        OM_ERROR("Error creating new raw event, dropping event.");
        return;
    }
    ev->body = ev->raw + kBodyOffset;

    // Discovery is signed with the shared secret, everything else with the
    // key agreed in the nonce exchange.
    const bool discovery =
        ev->raw_len > kClassOffset && ev->raw[kClassOffset] == CV_CLASS_DISCOVERY;
    int32_t rc = cv_unpack_event(ev, discovery ? &s->key_ctx : &s->nonce_ctx);
    if (rc != 0) {
        OM_DEBUG("Error while unpacking, err=%d", rc);
        omsdk::engine_release_event(ev);
        return;
    }
    // Nothing unauthenticated may change state, create a neighbour or be
    // answered.
    if (ev->digest_ok == 0 || ev->pak == nullptr) {
        OM_DEBUG("dropping message with bad digest");
        omsdk::engine_release_event(ev);
        return;
    }

    const cv_event_hdr *hdr = ev->pak;
    if (hdr->shipment < 0) {
        // Acknowledgements bypass the duplicate test.
        omr_processAcknowledgementMsg(s, ev);
        omsdk::engine_release_event(ev);
        return;
    }

    OM_DEBUG("msg with seq number %d", static_cast<int32_t>(hdr->seq));

    if (s->neighbor == nullptr) {
        neighbor_node *root = new_neighbor_node();
        if (root == nullptr) {
            OM_FATAL("out of memory");
            omsdk::engine_release_event(ev);
            return;
        }
        memcpy(root->id, hdr->id, CV_CORVANE_ID_SIZE);
        root->last_seq = static_cast<int32_t>(hdr->seq);
        s->neighbor = root;
    } else if (omr_validatePeer(s, ev) == 0) {
        omsdk::engine_release_event(ev);
        return;
    }

    OM_TRACE("message is valid");
    OM_TRACE("process query class=%d action=%d shipment=%d", hdr->event_class, hdr->action,
             hdr->shipment);

    const uint8_t cls = hdr->event_class;
    if (cls == CV_CLASS_QUERY || cls == CV_CLASS_AGGREGATE) {
        omr_processQueryMsg(s, ev);
    } else if (cls == CV_CLASS_DISCOVERY) {
        omr_processDiscoveryMsg(s, ev);
    } else if (cls >= CV_CLASS_NOTIFY) {
        OM_WARN("unexpected event type %d", cls);
    }
    // Classes below QUERY are dropped without a word.

    omsdk::engine_release_event(ev);
}
