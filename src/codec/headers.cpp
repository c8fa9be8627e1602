// SPDX-License-Identifier: Apache-2.0
// The two fixed headers of a message (security header, event header)
// between their host records and their wire form.
#include <omsdk/pdu.h>

#include <string.h>

#include "codec/byte_order.h"
#include "common/api.h"

namespace {

// Host form keeps the first 4-bit field of a byte in the low nibble.
uint8_t swap_nibbles(uint8_t b) { return static_cast<uint8_t>((b << 4) | (b >> 4)); }

}  // namespace

OMSDK_API int32_t cv_corvane_secure_host_to_nw(const cv_sec_hdr *src, uint8_t *dst) {
    dst[0] = swap_nibbles(src->nibbles0);
    dst[1] = swap_nibbles(src->enc_byte);
    omsdk::put_be<uint16_t>(dst + 2, src->reserved16);
    omsdk::put_be<uint32_t>(dst + 4, src->hmac_tag);
    dst[8] = src->reserved8;
    dst[9] = swap_nibbles(src->auth_comm);
    omsdk::put_be<uint16_t>(dst + 10, src->digest_len);
    return 0;
}

OMSDK_API int32_t cv_corvane_secure_nw_to_host(const uint8_t *src, cv_sec_hdr *dst) {
    dst->nibbles0 = swap_nibbles(src[0]);
    dst->enc_byte = swap_nibbles(src[1]);
    dst->reserved16 = omsdk::get_be<uint16_t>(src + 2);
    dst->hmac_tag = omsdk::get_be<uint32_t>(src + 4);
    dst->reserved8 = src[8];
    dst->auth_comm = swap_nibbles(src[9]);
    dst->digest_len = omsdk::get_be<uint16_t>(src + 10);
    return 0;
}

OMSDK_API int32_t cv_corvane_event_host_to_nw(const cv_event_hdr *src, uint8_t *dst) {
    omsdk::put_be<uint32_t>(dst, src->seq);
    memcpy(dst + 4, src->id, CV_CORVANE_ID_SIZE);
    dst[36] = src->ver;
    dst[37] = static_cast<uint8_t>(src->shipment);
    dst[38] = src->pri;
    dst[39] = src->type;
    dst[40] = src->app;
    dst[41] = src->event_class;
    omsdk::put_be<uint16_t>(dst + 42, src->action);
    omsdk::put_be<uint16_t>(dst + omsdk::kHdrTlvBytes, src->tlv_bytes);
    omsdk::put_be<uint16_t>(dst + omsdk::kHdrTlvCount, src->tlv_count);
    return 0;
}

OMSDK_API int32_t cv_corvane_event_nw_to_host(const uint8_t *src, cv_event_hdr *dst) {
    dst->seq = omsdk::get_be<uint32_t>(src);
    memcpy(dst->id, src + 4, CV_CORVANE_ID_SIZE);
    dst->ver = src[36];
    dst->shipment = static_cast<int8_t>(src[37]);
    dst->pri = src[38];
    dst->type = src[39];
    dst->app = src[40];
    dst->event_class = src[41];
    dst->action = omsdk::get_be<uint16_t>(src + 42);
    dst->tlv_bytes = omsdk::get_be<uint16_t>(src + omsdk::kHdrTlvBytes);
    dst->tlv_count = omsdk::get_be<uint16_t>(src + omsdk::kHdrTlvCount);
    return 0;
}
