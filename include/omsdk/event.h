/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file omsdk/event.h
 * @brief Protocol events in memory: creation, TLV lists, packing, unpacking, freeing.
 *
 * An event owns its security header, event header, raw bytes and TLVs;
 * values given to cv_add_tlv() are deep-copied. The TLVs and values of an
 * event made here live in memory the event owns: pointers that the look-ups
 * return stay valid until the event (or its TLVs) is freed, and must not be
 * freed by the caller (om_free_tlv_ptr() leaves such a TLV alone). An event
 * made here is freed with corvane_try_gc().
 *
 * Threads: an event is not locked; one thread at a time uses it. Different
 * events may be used on different threads at once.
 */
#ifndef OMSDK_EVENT_H
#define OMSDK_EVENT_H

#include <stdint.h>

#include <omsdk/hmac.h>
#include <omsdk/wire_types.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @name Building an event to send
 * @{
 */

/** A new empty event ready for cv_add_tlv() (state 257), or NULL when memory
 *  runs out. The caller owns it and frees it with corvane_try_gc(). */
cv_event *corvane_create_my_packet(void);
/** Sets the fixed header bytes and the ready flag, drops any raw buffer.
 *  0, or -1 for a NULL event or one without header. */
int32_t cv_set_common_hdr(cv_event *ev);

/** Adds a TLV with qualifier 0; `length` is the wire length including the
 *  12-byte header (strings are added with their NUL). The value is
 *  deep-copied; the caller keeps its own. Returns 0, or a runtime error
 *  code (1 no memory, 3 too many TLVs, 4 no event or a missing value, 7
 *  length below 12). A length of exactly 12 adds a TLV without a value.
 *  Beware: when the TLV array cannot grow (1, no memory) every TLV the
 *  event held is freed and its count set to 0. Nothing is logged. */
int32_t cv_add_tlv(cv_event *ev, uint32_t type, uint32_t length, const void *value);
/** The same as cv_add_tlv(), for a value given as bytes. */
int32_t cv_add_tlv_bytes(cv_event *ev, uint32_t type, uint32_t length, const uint8_t *value);
/** The same as cv_add_tlv(), with the TLV's @p qualifier. */
int32_t cv_add_tlv_common(cv_event *ev, uint32_t type, uint32_t length, const void *value,
                          uint32_t qualifier);

/** @} */

/**
 * @name Looking TLVs up
 * Only a ready event (built here, or unpacked) is searched. What is
 * returned belongs to the event.
 * @{
 */

/** First TLV whose whole type word equals `type` (any qualifier), or NULL. */
cv_tlv *cv_get_next_tlv(const cv_event *ev, uint32_t type);
/** Searches from *index (0 .. TLV count - 1) for a TLV with this type word
 *  and qualifier: stores its position in *index and its value length in
 *  *length_out (may be NULL) and returns its value (still owned by the
 *  event); otherwise *index = -1 and NULL (also for a NULL @p index, which
 *  is left alone). To walk all matches, call again with *index + 1. A TLV
 *  without a value returns NULL with its position stored: tell it from the
 *  end by *index. */
void *cv_get_next_tlv_value_common(const cv_event *ev, int32_t *index, uint32_t type,
                                   uint32_t *length_out, uint32_t qualifier);
/** cv_get_next_tlv_value_common() with qualifier 0. */
void *cv_get_tlv_value(const cv_event *ev, int32_t *index, uint32_t type, uint32_t *length_out);
/** The same as cv_get_next_tlv_value_common(). */
void *cv_get_next_tlv_value(const cv_event *ev, int32_t *index, uint32_t type, uint32_t *length_out,
                            uint32_t qualifier);

/** Difference of the first differing bytes of two 32-byte ids, 0 if equal.
 *  NULL is not checked. */
int32_t corvane_id_cmp(const uint8_t *a, const uint8_t *b);
/** Sum of the encoded sizes of the event's TLVs; 0 for a NULL event or one
 *  without header or TLVs. */
uint32_t om_get_total_tlvs_data_size(const cv_event *ev);

/** @} */

/**
 * @name Packing and unpacking
 * @{
 */

/** Sending side: sets the header's TLV byte count and a zeroed security
 * header (0; 1 no memory or no header or raw already present; 3 more TLV
 * bytes than a header can state). */
int32_t cv_pack_event(cv_event *ev, uint32_t *tlv_bytes_out);
/** Writes the TLVs after the event header at the body pointer. 0, or 1 when
 *  the event has no body. The TLVs must not have changed since
 *  cv_pack_event(): if their sizes no longer add up to the header's count,
 *  the process is ABORTED rather than writing past the buffer. */
int32_t cv_pack_tlvs(cv_event *ev);

/** Receiving side: an event holding a copy of `length` received bytes, or
 *  NULL (fewer than 60 bytes, logged at DEBUG `Dropping truncated packet`;
 *  NULL bytes; or no memory). The caller keeps its bytes, owns the event and
 *  frees it with corvane_try_gc(). */
cv_event *cv_mkevent_from_rawbuffer(int32_t length, const uint8_t *bytes);
/** Decodes the headers and TLVs of a received event and checks its digest
 *  with `key`. Returns 0 after a completed unpack, whatever the digest;
 *  the verdict is left in ev->digest_ok (1 matched, 0 not; a mismatch is
 *  logged at WARN): receivers must drop events with 0. Also 0, doing
 *  nothing, for an event already unpacked or without raw bytes. Errors: 1
 *  no memory or bad TLVs, 3 size mismatch (logged at WARN), 5 unacceptable
 *  security header (state 263). After a successful unpack of an event with
 *  TLVs the raw bytes are released (ev->raw is NULL). */
int32_t cv_unpack_event(cv_event *ev, const hmac_sha_ctx *key);
/** Decodes the TLVs of an event whose headers cv_unpack_event() has read
 *  into its TLV array (sized by the caller). 0, or 1 for a missing header,
 *  body or array, or a TLV that does not decode (those decoded so far are
 *  freed). Applications call cv_unpack_event() instead. */
int32_t cv_unpack_tlvs(cv_event *ev);

/** @} */

/**
 * @name Freeing
 * cv_cleanup_event frees only reply events (state 260); corvane_try_gc frees
 * any event completely. All accept NULL. They log at TRACE.
 * @{
 */

/** Frees the event's TLVs and their array; the count becomes 0, the event
 *  itself stays. */
void cv_free_tlvs(cv_event *ev);
/** Frees the event's raw bytes and both headers (the event is no longer
 *  ready); the TLVs and the event stay. */
void cv_free_data(cv_event *ev);
/** Frees the event completely: TLVs, raw bytes, headers and the record.
 *  The pointer is invalid afterwards. */
void corvane_try_gc(cv_event *ev);
/** Frees the event completely when its state is CV_EVENT_STATE_REPLY (260);
 *  any other event is left alone (and stays the caller's to free). */
void corvane_free_rply(cv_event *ev);
/** The same as corvane_free_rply(). */
void cv_cleanup_event(cv_event *ev);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
