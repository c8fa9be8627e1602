/* SPDX-License-Identifier: Apache-2.0 */
/* Protocol events in memory: creation, TLV lists, packing, unpacking and
 * freeing. An event owns its security header, event header, raw bytes and
 * TLVs; values given to cv_add_tlv are deep-copied. */
#ifndef OMSDK_EVENT_H
#define OMSDK_EVENT_H

#include <stdint.h>

#include <omsdk/hmac.h>
#include <omsdk/wire_types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A new empty event ready for cv_add_tlv (state 257), or NULL. */
cv_event *corvane_create_my_packet(void);
/* Sets the fixed header bytes and the ready flag, drops any raw buffer.
 * 0, or -1 for an event without header. */
int32_t cv_set_common_hdr(cv_event *ev);

/* Adds a TLV; `length` is the wire length including the 12-byte header
 * (strings are added with their NUL). The value is deep-copied. Returns 0,
 * or a runtime error code (1 no memory, 3 too many TLVs, 4 no event or a
 * missing value, 7 length below 12). */
int32_t cv_add_tlv(cv_event *ev, uint32_t type, uint32_t length, const void *value);
int32_t cv_add_tlv_bytes(cv_event *ev, uint32_t type, uint32_t length, const uint8_t *value);
int32_t cv_add_tlv_common(cv_event *ev, uint32_t type, uint32_t length, const void *value,
                          uint32_t qualifier);

/* First TLV whose whole type word equals `type`, or NULL. */
cv_tlv *cv_get_next_tlv(const cv_event *ev, uint32_t type);
/* Searches from *index (0 .. TLV count - 1) for a TLV with this type word
 * and qualifier: stores its position in *index and its value length in
 * *length_out (may be NULL) and returns its value (still owned by the
 * event); otherwise *index = -1 and NULL. */
void *cv_get_next_tlv_value_common(const cv_event *ev, int32_t *index, uint32_t type,
                                   uint32_t *length_out, uint32_t qualifier);
void *cv_get_tlv_value(const cv_event *ev, int32_t *index, uint32_t type, uint32_t *length_out);
void *cv_get_next_tlv_value(const cv_event *ev, int32_t *index, uint32_t type, uint32_t *length_out,
                            uint32_t qualifier);

/* Difference of the first differing bytes of two 32-byte ids, 0 if equal. */
int32_t corvane_id_cmp(const uint8_t *a, const uint8_t *b);
/* Sum of the encoded sizes of the event's TLVs. */
uint32_t om_get_total_tlvs_data_size(const cv_event *ev);

/* Sending side: sets the header's TLV byte count and a zeroed security
 * header (0; 1 no memory or no header or raw already present; 3 more TLV
 * bytes than a header can state). */
int32_t cv_pack_event(cv_event *ev, uint32_t *tlv_bytes_out);
/* Writes the TLVs after the event header at the body pointer. 0, or 1 when
 * the event has no body. */
int32_t cv_pack_tlvs(cv_event *ev);

/* Receiving side: an event holding a copy of `length` received bytes, or
 * NULL (fewer than 60 bytes, or no memory). */
cv_event *cv_mkevent_from_rawbuffer(int32_t length, const uint8_t *bytes);
/* Decodes the headers and TLVs of a received event and checks its digest
 * with `key`. Returns 0 after a completed unpack, whatever the digest;
 * the verdict is left in ev->digest_ok (1 matched, 0 not): receivers must
 * drop events with 0. Errors: 1 no memory or bad TLVs, 3 size mismatch,
 * 5 unacceptable security header (state 263). */
int32_t cv_unpack_event(cv_event *ev, const hmac_sha_ctx *key);
int32_t cv_unpack_tlvs(cv_event *ev);

/* Freeing. cv_cleanup_event frees only reply events (state 260);
 * corvane_try_gc frees any event completely. */
void cv_free_tlvs(cv_event *ev);
void cv_free_data(cv_event *ev);
void corvane_try_gc(cv_event *ev);
void corvane_free_rply(cv_event *ev);
void cv_cleanup_event(cv_event *ev);

#ifdef __cplusplus
}
#endif

#endif
