/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file omsdk/codec.h
 * @brief TLV value codecs and the TLV wire form.
 *
 * Decoders take (source, destination, consumed out, remaining in/out,
 * status out): status 0 ok, 1 out of memory, 8 too few bytes; on success
 * `remaining` shrinks by `consumed`. Encoders return the bytes written;
 * the caller sizes the buffer with the size functions.
 *
 * The decoder contract in full:
 * - At most *remaining bytes are read from the source; a NULL source or
 *   @p remaining, or a negative *remaining, counts as no bytes (status 8).
 * - On success *consumed (when not NULL) receives the bytes read and
 *   *remaining shrinks by as many; on failure *consumed is 0, *remaining is
 *   unchanged and nothing allocated is left behind.
 * - @p consumed and @p status may be NULL.
 * - What a decoder allocates is the caller's: texts, blobs, vectors and
 *   the `_ptr` forms' blocks come from malloc() and are freed with free()
 *   or om_free_ptr(); records that own texts or blobs have their own free
 *   functions (see "Freeing").
 *
 * Encoders do not check the destination's size: size it with the size
 * functions (om_get_tlv_size(), om_get_alarm_size(), ...) first. Integers
 * travel big-endian.
 *
 * The clone functions return NULL with status 0 for a NULL input, and NULL
 * with status 1 when memory runs out.
 *
 * None of these keeps state or locks: any thread may call them, on data
 * that no other thread changes meanwhile. Only cv_create_tlv_from_raw_buf()
 * logs.
 */
#ifndef OMSDK_CODEC_H
#define OMSDK_CODEC_H

#include <stdint.h>

#include <omsdk/wire_types.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @name Whole TLVs
 * Dispatchers over a whole TLV, by its type, and the TLV wire form.
 * @{
 */

/** Wire size of the whole TLV, its 12-byte header included (an aggregate
 *  with its device header, count and entries); 0 for NULL. */
uint32_t om_get_tlv_size(const cv_tlv *tlv);
/** A heap deep copy of a TLV value of the type in @p type_word (an aggregate
 *  block when the word has the aggregate flag), @p value_length bytes for
 *  texts and blobs. NULL with status 0 for a NULL value, status 1 when
 *  memory runs out. Free it as the value of a heap TLV of the same type word
 *  with om_free_tlv_ptr(), which frees what it holds. */
void *om_clone_tlv_ptr(uint32_t type_word, uint32_t value_length, const void *value,
                       int32_t *status);
/** Frees a heap TLV (from cv_create_tlv_from_raw_buf()) with everything its
 *  value holds. NULL is ignored, and so is a TLV that belongs to an event
 *  (it goes with its event). */
void om_free_tlv_ptr(cv_tlv *tlv);

/** 1 when the type word (with or without the aggregate flag) is a combo
 *  type, 43 to 45, else 0. */
int32_t cv_is_combo_tlv(uint32_t type_word);
/** Decodes one TLV at *cursor, reading at most *remaining bytes, into a new
 *  heap TLV (free it with om_free_tlv_ptr()), and on success advances
 *  *cursor and shrinks *remaining by the TLV's length. A text value is
 *  stored with its NUL and the TLV's length counts it. A TLV of an unknown
 *  type is returned without a value (logged at TRACE). NULL, cursor and
 *  remaining unchanged, for NULL arguments, fewer than 12 bytes, a length
 *  below 12 or beyond *remaining, a value that does not decode or does not
 *  fill the length exactly (logged at ERROR), or lack of memory. */
cv_tlv *cv_create_tlv_from_raw_buf(int32_t *remaining, uint8_t **cursor);
/** Writes the whole TLV, om_get_tlv_size() bytes, to @p dst. Beware the
 *  result: it is the byte count of the LAST FIELD written (4 for a TLV
 *  without a value), not of the whole TLV; use om_get_tlv_size() for that.
 *  0 for a NULL TLV or destination. */
int32_t cv_update_raw_buf_from_tlv(const cv_tlv *tlv, uint8_t *dst);

/** @} */

/**
 * @name Records used by aggregates
 * The device header and usage common header live inside aggregate TLVs, in
 * storage their owner holds: these copy into and free from such storage.
 * @{
 */

/** Wire size of a device header (32-byte id, length-prefixed blob); 0 for
 *  NULL. */
uint32_t om_get_deviceheader_size(const cv_device_header *dh);
/** Wire size of a usage common header; 0 for NULL. */
uint32_t om_get_usage_cmn_hdr_size(const cv_usage_cmn_hdr *hdr);
/** Deep copy of @p src into the caller's @p dst, its texts on the heap
 *  (release them with om_free_usage_cmn_hdr()). Status 0; 4 for a NULL
 *  pointer, 1 when memory runs out (dst untouched). */
void om_clone_usage_cmn_hdr(cv_usage_cmn_hdr *dst, const cv_usage_cmn_hdr *src, int32_t *status);
/** Frees the texts the header owns, not the header; NULL is ignored. */
void om_free_usage_cmn_hdr(cv_usage_cmn_hdr *hdr);
/** Frees the blob the header owns, not the header; NULL is ignored. */
void om_free_deviceheader(cv_device_header *dh);

/** @} */

/**
 * @name Fixed-width integers
 * Big-endian on the wire. `long` carries a 32-bit time or counter,
 * `boolean` a 32-bit integer. om_pack_int8 writes the same byte as
 * om_pack_uint8. `om_pack_<x>` writes the value at @p dst and returns its
 * size (1, 2 or 4). `om_unpack_<x>` decodes one into *dst (a failed decode
 * leaves *dst untouched; a NULL dst only consumes). `om_unpack_<x>_ptr`
 * decodes one into a new heap block (free() it), NULL with the status on
 * failure. `om_clone_<x>` returns a heap copy (null with status 1 when memory
 * runs out).
 * @{
 */
/** Writes an unsigned byte at @p dst; returns the bytes written. */
uint32_t om_pack_uint8(uint8_t *dst, uint8_t value);
/** Writes a signed byte at @p dst; returns the bytes written. */
uint32_t om_pack_int8(uint8_t *dst, int8_t value);
/** Writes a 16-bit unsigned integer at @p dst; returns the bytes written. */
uint32_t om_pack_uint16(uint8_t *dst, uint16_t value);
/** Writes a 32-bit unsigned integer at @p dst; returns the bytes written. */
uint32_t om_pack_uint32(uint8_t *dst, uint32_t value);
/** Writes a 32-bit signed integer at @p dst; returns the bytes written. */
uint32_t om_pack_int32(uint8_t *dst, int32_t value);
/** Writes a `long` (32-bit signed) at @p dst; returns the bytes written. */
uint32_t om_pack_long(uint8_t *dst, int32_t value);
/** Writes a `boolean` (32-bit signed) at @p dst; returns the bytes written. */
uint32_t om_pack_boolean(uint8_t *dst, int32_t value);

/** Decodes an unsigned byte into *dst (the caller's storage for the values). */
void om_unpack_uint8(const uint8_t *src, uint8_t *dst, uint32_t *consumed, int32_t *remaining,
                     int32_t *status);
/** Decodes a signed byte into *dst (the caller's storage for the values). */
void om_unpack_int8(const uint8_t *src, int8_t *dst, uint32_t *consumed, int32_t *remaining,
                    int32_t *status);
/** Decodes a 16-bit unsigned integer into *dst (the caller's storage for the values). */
void om_unpack_uint16(const uint8_t *src, uint16_t *dst, uint32_t *consumed, int32_t *remaining,
                      int32_t *status);
/** Decodes a 32-bit unsigned integer into *dst (the caller's storage for the values). */
void om_unpack_uint32(const uint8_t *src, uint32_t *dst, uint32_t *consumed, int32_t *remaining,
                      int32_t *status);
/** Decodes a 32-bit signed integer into *dst (the caller's storage for the values). */
void om_unpack_int32(const uint8_t *src, int32_t *dst, uint32_t *consumed, int32_t *remaining,
                     int32_t *status);
/** Decodes a `long` (32-bit signed) into *dst (the caller's storage for the values). */
void om_unpack_long(const uint8_t *src, int32_t *dst, uint32_t *consumed, int32_t *remaining,
                    int32_t *status);
/** Decodes a `boolean` (32-bit signed) into *dst (the caller's storage for the values). */
void om_unpack_boolean(const uint8_t *src, int32_t *dst, uint32_t *consumed, int32_t *remaining,
                       int32_t *status);

/** Decodes an unsigned byte into a new heap block (free() it); NULL with the status on failure. */
uint8_t *om_unpack_uint8_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                             int32_t *status);
/** Decodes a signed byte into a new heap block (free() it); NULL with the status on failure. */
int8_t *om_unpack_int8_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                           int32_t *status);
/** Decodes a 16-bit unsigned integer into a new heap block (free() it); NULL with the status on
 * failure. */
uint16_t *om_unpack_uint16_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                               int32_t *status);
/** Decodes a 32-bit unsigned integer into a new heap block (free() it); NULL with the status on
 * failure. */
uint32_t *om_unpack_uint32_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                               int32_t *status);
/** Decodes a 32-bit signed integer into a new heap block (free() it); NULL with the status on
 * failure. */
int32_t *om_unpack_int32_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                             int32_t *status);
/** Decodes a `long` (32-bit signed) into a new heap block (free() it); NULL with the status on
 * failure. */
int32_t *om_unpack_long_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                            int32_t *status);
/** Decodes a `boolean` (32-bit signed) into a new heap block (free() it); NULL with the status on
 * failure. */
int32_t *om_unpack_boolean_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                               int32_t *status);

/** A heap copy of an unsigned byte (free() it). */
uint8_t *om_clone_uint8(const uint8_t *value, int32_t *status);
/** A heap copy of a signed byte (free() it). */
int8_t *om_clone_int8(const int8_t *value, int32_t *status);
/** A heap copy of a 16-bit unsigned integer (free() it). */
uint16_t *om_clone_uint16(const uint16_t *value, int32_t *status);
/** A heap copy of a 32-bit unsigned integer (free() it). */
uint32_t *om_clone_uint32(const uint32_t *value, int32_t *status);
/** A heap copy of a 32-bit signed integer (free() it). */
int32_t *om_clone_int32(const int32_t *value, int32_t *status);
/** A heap copy of a `long` (32-bit signed) (free() it). */
int32_t *om_clone_long(const int32_t *value, int32_t *status);
/** A heap copy of a `boolean` (32-bit signed) (free() it). */
int32_t *om_clone_boolean(const int32_t *value, int32_t *status);

/** @} */

/**
 * @name Identifiers
 * A 32-byte corvane id, copied raw. om_pack_corvane_id writes 32 bytes and
 * returns 32 (0, writing nothing, for a NULL id).
 * @{
 */
/** Writes a 32-byte id at @p dst; returns the bytes written. */
uint32_t om_pack_corvane_id(uint8_t *dst, const uint8_t *id);
/** Decodes a 32-byte id into *dst (the caller's storage for the values). */
void om_unpack_corvane_id(const uint8_t *src, uint8_t *dst, uint32_t *consumed, int32_t *remaining,
                          int32_t *status);
/** Decodes a 32-byte id into a new heap block (free() it); NULL with the status on failure. */
uint8_t *om_unpack_corvane_id_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                                  int32_t *status);
/** A heap copy of a 32-byte id (free() it). */
uint8_t *om_clone_corvane_id(const uint8_t *id, int32_t *status);

/** @} */

/**
 * @name Texts
 * `string` is int32 length + bytes (inside records and aggregates);
 * `string_tlv` is the bytes alone, their count given by the TLV header.
 * Decoded texts are heap-allocated and NUL-terminated; a null text packs to
 * nothing at all. A negative length prefix, or one
 * beyond the bytes left, is status 8 with nothing allocated.
 * @{
 */
/** Writes the text as int32 length + bytes (no NUL); returns 4 + its length, 0 for NULL. */
uint32_t om_pack_string(uint8_t *dst, const char *text);
/** Writes the text's bytes alone (no length, no NUL); returns their count, 0 for NULL. */
uint32_t om_pack_string_tlv(uint8_t *dst, const char *text);
/** As om_unpack_string_ptr(), storing the result in *dst (NULL on failure, so *dst is overwritten
 * then too); a NULL @p dst only consumes. */
void om_unpack_string(const uint8_t *src, char **dst, uint32_t *consumed, int32_t *remaining,
                      int32_t *status);
/** Decodes an int32-length-prefixed text into a new NUL-terminated heap text (free() it); NULL with
 * the status on failure. */
char *om_unpack_string_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                           int32_t *status);
/** As om_unpack_string_tlv_ptr(), storing the result in *dst (NULL on failure); a NULL @p dst only
 * consumes. */
void om_unpack_string_tlv(const uint8_t *src, char **dst, uint32_t len, uint32_t *consumed,
                          int32_t *remaining, int32_t *status);
/** Decodes exactly @p len bytes into a new NUL-terminated heap text (free() it); NULL with status 8
 * when fewer remain, 1 without memory. */
char *om_unpack_string_tlv_ptr(const uint8_t *src, uint32_t len, uint32_t *consumed,
                               int32_t *remaining, int32_t *status);
/** A heap copy of the text (free() it). */
char *om_clone_string(const char *text, int32_t *status);

/** @} */

/**
 * @name Opaque bytes
 * `void` is int32 length + bytes, `void_tlv` the bytes alone. A zero length
 * decodes to a null pointer (status 0). Decoded bytes are heap blocks the
 * caller frees.
 * @{
 */
/** Writes int32 @p len + @p len bytes (zeros for a NULL @p ptr); returns 4 + len. */
uint32_t om_pack_void(uint8_t *dst, const void *ptr, uint32_t len);
/** Writes @p len bytes of @p ptr alone; returns @p len, also for a NULL @p ptr, which writes
 * nothing. */
uint32_t om_pack_void_tlv(uint8_t *dst, const void *ptr, uint32_t len);
/** As om_unpack_void_ptr(), storing the result in *dst (NULL on failure or for a zero length); a
 * NULL @p dst only consumes. */
void om_unpack_void(const uint8_t *src, void **dst, uint32_t *len_out, uint32_t *consumed,
                    int32_t *remaining, int32_t *status);
/** Decodes an int32-length-prefixed blob into a new heap block (free() it), its length in *len_out
 * (may be NULL); NULL for a zero length or on failure. */
void *om_unpack_void_ptr(const uint8_t *src, uint32_t *len_out, uint32_t *consumed,
                         int32_t *remaining, int32_t *status);
/** As om_unpack_void_tlv_ptr(), storing the result in *dst (NULL on failure or for a zero length);
 * a NULL @p dst only consumes. */
void om_unpack_void_tlv(const uint8_t *src, void **dst, uint32_t len, uint32_t *consumed,
                        int32_t *remaining, int32_t *status);
/** Decodes exactly @p len bytes into a new heap block (free() it); NULL for a zero length or on
 * failure. */
void *om_unpack_void_tlv_ptr(const uint8_t *src, uint32_t len, uint32_t *consumed,
                             int32_t *remaining, int32_t *status);
/** A heap copy of @p len bytes (free() it); NULL with status 0 for a NULL pointer or a zero length.
 */
void *om_clone_void(const void *ptr, uint32_t len, int32_t *status);

/** @} */

/**
 * @name Vectors
 * Vectors of CV_VECTOR_LEN values: delta (int32, 44 wire bytes) and usage
 * (uint16, 22 wire bytes; the decoded block has room for twice as many).
 * Packing a NULL vector writes nothing and returns 0.
 * @{
 */
/** Writes a delta vector at @p dst; returns the bytes written. */
uint32_t om_pack_delta_vector(uint8_t *dst, const int32_t *vec);
/** Decodes a delta vector into *dst (the caller's storage for the values). */
void om_unpack_delta_vector(const uint8_t *src, int32_t *dst, uint32_t *consumed,
                            int32_t *remaining, int32_t *status);
/** Decodes a delta vector into a new heap block (free() it); NULL with the status on failure. */
int32_t *om_unpack_delta_vector_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                                    int32_t *status);
/** A heap copy of a delta vector (free() it). */
int32_t *om_clone_delta_vector(const int32_t *vec, int32_t *status);
/** Writes a usage vector at @p dst; returns the bytes written. */
uint32_t om_pack_usage_vector(uint8_t *dst, const uint16_t *vec);
/** Decodes a usage vector into *dst (the caller's storage for the values). */
void om_unpack_usage_vector(const uint8_t *src, uint16_t *dst, uint32_t *consumed,
                            int32_t *remaining, int32_t *status);
/** Decodes a usage vector into a new heap block of 2 * CV_VECTOR_LEN values, the first
 * CV_VECTOR_LEN decoded (free() it); NULL with the status on failure. */
uint16_t *om_unpack_usage_vector_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                                     int32_t *status);
/** A heap copy of a usage vector (free() it). */
uint16_t *om_clone_usage_vector(const uint16_t *vec, int32_t *status);

/** @} */

/**
 * @name Records
 * `om_unpack_<record>` decodes into caller storage (its owned pointers
 * allocated; none left behind on failure, *dst untouched); @p dst must not
 * be NULL. The _ptr forms allocate the record too. Sizes are wire sizes, 0
 * for null. `om_pack_<record>` returns the bytes written, 0 for a NULL record.
 * Members that do not travel decode as zero.
 * @{
 */
/** Writes an alarm record at @p dst; returns the bytes written. */
uint32_t om_pack_alarm(uint8_t *dst, const cv_alarm *alarm);
/** Decodes an alarm record into the caller's *dst. */
void om_unpack_alarm(const uint8_t *src, cv_alarm *dst, uint32_t *consumed, int32_t *remaining,
                     int32_t *status);
/** Decodes an alarm record into a new heap record (free() it); NULL with the status on failure. */
cv_alarm *om_unpack_alarm_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                              int32_t *status);
/** Wire size of an alarm record; 0 for NULL. */
uint32_t om_get_alarm_size(const cv_alarm *alarm);
/** A heap copy of an alarm record (free() it). */
cv_alarm *om_clone_alarm(const cv_alarm *alarm, int32_t *status);

/** Writes a recurrence record at @p dst; returns the bytes written. */
uint32_t om_pack_recurrence(uint8_t *dst, const cv_recurrence *rec);
/** Decodes a recurrence record into the caller's *dst; its text is allocated on the heap (release
 * with free(dst->text)). */
void om_unpack_recurrence(const uint8_t *src, cv_recurrence *dst, uint32_t *consumed,
                          int32_t *remaining, int32_t *status);
/** Decodes a recurrence record into a new heap record; free it with om_free_recurrence_ptr(). NULL
 * with the status on failure. */
cv_recurrence *om_unpack_recurrence_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                                        int32_t *status);
/** Wire size of a recurrence record; 0 for NULL. */
uint32_t om_get_recurrence_size(const cv_recurrence *rec);
/** A heap deep copy of a recurrence record; free it with om_free_recurrence_ptr(). */
cv_recurrence *om_clone_recurrence(const cv_recurrence *rec, int32_t *status);

/** Writes a neighbor record at @p dst; returns the bytes written. */
uint32_t om_pack_neighbor(uint8_t *dst, const cv_neighbor *nb);
/** Decodes a neighbor record into the caller's *dst; its name and blob are allocated on the
 * heap (release each with free()). */
void om_unpack_neighbor(const uint8_t *src, cv_neighbor *dst, uint32_t *consumed,
                        int32_t *remaining, int32_t *status);
/** Decodes a neighbor record into a new heap record; free it with om_free_neighbor_ptr(). NULL with
 * the status on failure. */
cv_neighbor *om_unpack_neighbor_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                                    int32_t *status);
/** Wire size of a neighbor record; 0 for NULL. */
uint32_t om_get_neighbor_size(const cv_neighbor *nb);
/** A heap deep copy of a neighbor record; free it with om_free_neighbor_ptr(). */
cv_neighbor *om_clone_neighbor(const cv_neighbor *nb, int32_t *status);

/** Writes a device header at @p dst; returns the bytes written. */
uint32_t om_pack_deviceheader(uint8_t *dst, const cv_device_header *dh);
/** Decodes a device header into the caller's *dst; its blob is allocated on the heap (release with
 * om_free_deviceheader()). */
void om_unpack_deviceheader(const uint8_t *src, cv_device_header *dst, uint32_t *consumed,
                            int32_t *remaining, int32_t *status);
/** Decodes a device header into a new heap record; free it with om_free_deviceheader() then
 * om_free_ptr(). NULL with the status on failure. */
cv_device_header *om_unpack_deviceheader_ptr(const uint8_t *src, uint32_t *consumed,
                                             int32_t *remaining, int32_t *status);
/** Copies the id and the blob into caller storage (free the blob with
 *  om_free_deviceheader()); status 4 for a null pointer, 1 when memory runs
 *  out: the copy then keeps the id with no blob (blob NULL, length 0). */
void om_clone_deviceheader(cv_device_header *dst, const cv_device_header *src, int32_t *status);

/** Writes a usage common header at @p dst; returns the bytes written. */
uint32_t om_pack_usage_cmn_hdr(uint8_t *dst, const cv_usage_cmn_hdr *hdr);
/** Decodes a usage common header into the caller's *dst; its texts are allocated on the heap
 * (release them with om_free_usage_cmn_hdr()). */
void om_unpack_usage_cmn_hdr(const uint8_t *src, cv_usage_cmn_hdr *dst, uint32_t *consumed,
                             int32_t *remaining, int32_t *status);
/** Decodes a usage common header into a new heap record; free it with om_free_usage_cmn_hdr() then
 * om_free_ptr(). NULL with the status on failure. */
cv_usage_cmn_hdr *om_unpack_usage_cmn_hdr_ptr(const uint8_t *src, uint32_t *consumed,
                                              int32_t *remaining, int32_t *status);

/** Writes a sender id record at @p dst; returns the bytes written. */
uint32_t om_pack_sender_id(uint8_t *dst, const cv_sender_id *sid);
/** Decodes a sender id record into the caller's *dst. */
void om_unpack_sender_id(const uint8_t *src, cv_sender_id *dst, uint32_t *consumed,
                         int32_t *remaining, int32_t *status);
/** Decodes a sender id record into a new heap record (free() it); NULL with the status on failure.
 */
cv_sender_id *om_unpack_sender_id_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                                      int32_t *status);
/** Wire size of a sender id record; 0 for NULL. */
uint32_t om_get_sender_id_size(const cv_sender_id *sid);
/** A heap copy of a sender id record (free() it). */
cv_sender_id *om_clone_sender_id(const cv_sender_id *sid, int32_t *status);

/** Writes an event id record at @p dst; returns the bytes written. */
uint32_t om_pack_event_id(uint8_t *dst, const cv_event_id *eid);
/** Decodes an event id record into the caller's *dst. The decoder reads the id from the same
 * byte as the number (the id's first four bytes repeat the number) yet counts 36 bytes consumed:
 * decoding what om_pack_event_id() wrote does not give the record back. */
void om_unpack_event_id(const uint8_t *src, cv_event_id *dst, uint32_t *consumed,
                        int32_t *remaining, int32_t *status);
/** Decodes an event id record into a new heap record (free() it), read as om_unpack_event_id()
 * reads it; NULL with the status on failure. */
cv_event_id *om_unpack_event_id_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                                    int32_t *status);
/** Wire size of an event id record; 0 for NULL. */
uint32_t om_get_event_id_size(const cv_event_id *eid);
/** A heap copy of an event id record (free() it). */
cv_event_id *om_clone_event_id(const cv_event_id *eid, int32_t *status);

/** @} */

/**
 * @name Freeing
 * All accept null. om_free_deviceheader and om_free_usage_cmn_hdr free what
 * the record owns, not the record. Records without owned pointers (alarm,
 * sender id, event id) and the _ptr forms of device and usage headers
 * (after om_free_deviceheader() or om_free_usage_cmn_hdr()) are freed with
 * om_free_ptr().
 * @{
 */
/** free(); for what the decoders and clones allocate. */
void om_free_ptr(void *ptr);
/** Frees a heap recurrence record and its text. */
void om_free_recurrence_ptr(cv_recurrence *rec);
/** Frees a heap neighbor record, its name and its blob. */
void om_free_neighbor_ptr(cv_neighbor *nb);

/** @} */

#ifdef __cplusplus
}
#endif

#endif
