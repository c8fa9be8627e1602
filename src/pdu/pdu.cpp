// SPDX-License-Identifier: Apache-2.0
// Messages: building and signing an event's PDU, digest checks.
#include <omsdk/pdu.h>

#include <stdlib.h>
#include <string.h>

#include <omsdk/enums.h>
#include <omsdk/event.h>

#include "codec/tlv_table.h"
#include "common/api.h"
#include "corvane_util/event_internal.h"
#include "diag/log.h"
#include "codec/byte_order.h"

namespace {

constexpr uint8_t kEncHmac = 2;  // enc value of every message we make
constexpr uint8_t kAuthHmacSha1 = 1;
constexpr size_t kDigestAt = CV_SEC_HEADER_SIZE;
constexpr size_t kBodyAt = CV_SEC_HEADER_SIZE + OHMARA_SHA1_DIGEST_SIZE;

}  // namespace

OMSDK_API int32_t omr_createPdu(cv_event *ev, uint8_t pri, int32_t shipment, uint8_t cls,
                                uint16_t action, const uint8_t *id, uint32_t seq,
                                const hmac_sha_ctx *key, uint8_t comm) {
    if (ev == nullptr || ev->pak == nullptr) return CV_RUNTIME_ERROR_NO_MEMORY;
    cv_event_hdr *pak = ev->pak;
    pak->seq = seq;
    if (id != nullptr) memcpy(pak->id, id, CV_CORVANE_ID_SIZE);
    pak->ver = 1;
    pak->event_class = cls;
    pak->action = action;
    pak->shipment = static_cast<int8_t>(shipment);
    pak->pri = pri;
    pak->type = CV_TYPE_KVQR;
    pak->app = CV_APPLICATION_CORVANE;

    uint32_t tlv_bytes = 0;
    if (cv_pack_event(ev, &tlv_bytes) != 0) return CV_RUNTIME_ERROR_NO_MEMORY;
    const uint32_t raw_len = tlv_bytes + CV_PDU_FIXED_SIZE;
    uint8_t *raw = omsdk::event_alloc_raw(ev, raw_len);  // zeroed
    if (raw == nullptr) return CV_RUNTIME_ERROR_NO_MEMORY;
    OM_TRACE("allocated raw size %d @ %p", static_cast<int>(raw_len), static_cast<void *>(raw));
    ev->raw = raw;
    ev->raw_len = raw_len;
    ev->raw_present = 1;

    cv_sec_hdr *sec = ev->sec;  // zeroed by cv_pack_event
    sec->auth_comm = static_cast<uint8_t>(((comm & 0x0Fu) << 4) | kAuthHmacSha1);
    sec->digest_len = OHMARA_SHA1_DIGEST_SIZE;
    sec->enc_byte = static_cast<uint8_t>(kEncHmac << 4);
    sec->hmac_tag = 0;
    cv_corvane_secure_host_to_nw(sec, raw);
    ev->body = raw + kBodyAt;
    cv_corvane_event_host_to_nw(pak, ev->body);
    cv_pack_tlvs(ev);

    if (key != nullptr)
        hmac_sha_msg(key, ev->body, static_cast<uint16_t>(raw_len - kBodyAt), raw + kDigestAt);
    return 0;
}

OMSDK_API int32_t omr_validateMessageHeader(const cv_event *ev, const hmac_sha_ctx *key) {
    if (ev == nullptr || ev->raw == nullptr || ev->raw_len < kBodyAt) return 0;
    const uint8_t *received = ev->raw + kDigestAt;
    // Start from the complement of the received digest, so a context that
    // yields no digest (no key) can never match.
    uint8_t computed[OHMARA_SHA1_DIGEST_SIZE];
    for (size_t i = 0; i < sizeof computed; ++i) computed[i] = static_cast<uint8_t>(~received[i]);
    if (key != nullptr)
        hmac_sha_msg(key, ev->raw + kBodyAt, static_cast<uint16_t>(ev->raw_len - kBodyAt),
                     computed);

    int diff = memcmp(computed, received, OHMARA_SHA1_DIGEST_SIZE);
    if (diff != 0) {
        OM_WARN("HMAC_SHA1 header mismatch %d", diff);
        if (omsdk::log_enabled(omsdk::LOG_DEBUG)) {
            ohmara_dump_digest(received);
            ohmara_dump_digest(computed);
        }
        return 0;
    }
    uint32_t tag = omsdk::get_be<uint32_t>(ev->raw + 4);
    if (tag != 0) OM_WARN("Unexpected HMAC tag value %d", static_cast<int>(tag));
    return 1;
}

OMSDK_API void omr_releasePacket(cv_event *ev) {
    if (ev == nullptr) return;
    OM_TRACE("free pdu %p", static_cast<void *>(ev->raw));
    OM_TRACE("free pkt %p", static_cast<void *>(ev));
    omsdk::event_release_packet(ev);
}

OMSDK_API uint32_t omr_getPduSize(const uint8_t *wire_event_header) {
    return CV_EVENT_HEADER_SIZE + omsdk::get_be<uint16_t>(wire_event_header + omsdk::kHdrTlvBytes);
}

OMSDK_API int32_t omr_isValidPduAddress(const uint8_t *wire_event_header, const uint8_t *addr) {
    auto start = reinterpret_cast<uintptr_t>(wire_event_header);
    auto at = reinterpret_cast<uintptr_t>(addr);
    return at >= start && at - start < omr_getPduSize(wire_event_header) ? 1 : 0;
}

OMSDK_API uint32_t omr_getTypeLength(int32_t tlv_type) {
    int32_t figure =
        tlv_type >= 0 ? omsdk::type_length_figure(static_cast<uint32_t>(tlv_type)) : -1;
    if (figure < 0) {
        OM_WARN("unexpected type %d", tlv_type);
        return 255;
    }
    return static_cast<uint32_t>(figure);
}
