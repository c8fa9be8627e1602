/* SPDX-License-Identifier: Apache-2.0 */
/* TLV value codecs and the TLV wire form.
 *
 * Decoders take (source, destination, consumed out, remaining in/out,
 * status out): status 0 ok, 1 out of memory, 8 too few bytes; on success
 * `remaining` shrinks by `consumed`. Encoders return the bytes written;
 * the caller sizes the buffer with the size functions. */
#ifndef OMSDK_CODEC_H
#define OMSDK_CODEC_H

#include <stdint.h>

#include <omsdk/wire_types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Dispatchers over a whole TLV, by its type. */
uint32_t om_get_tlv_size(const cv_tlv *tlv);
void *om_clone_tlv_ptr(uint32_t type_word, uint32_t value_length, const void *value,
                       int32_t *status);
void om_free_tlv_ptr(cv_tlv *tlv);

/* TLV wire form. */
int32_t cv_is_combo_tlv(uint32_t type_word);
cv_tlv *cv_create_tlv_from_raw_buf(int32_t *remaining, uint8_t **cursor);
int32_t cv_update_raw_buf_from_tlv(const cv_tlv *tlv, uint8_t *dst);

/* Records used by aggregates. */
uint32_t om_get_deviceheader_size(const cv_device_header *dh);
uint32_t om_get_usage_cmn_hdr_size(const cv_usage_cmn_hdr *hdr);
void om_clone_usage_cmn_hdr(cv_usage_cmn_hdr *dst, const cv_usage_cmn_hdr *src, int32_t *status);
void om_free_usage_cmn_hdr(cv_usage_cmn_hdr *hdr);
void om_free_deviceheader(cv_device_header *dh);

/* Fixed-width integers, big-endian on the wire. `long` carries a 32-bit
 * time or counter, `boolean` a 32-bit integer. om_pack_int8 writes the same
 * byte as om_pack_uint8. om_clone_<x> returns a heap copy (null with status
 * 1 when memory runs out). */
uint32_t om_pack_uint8(uint8_t *dst, uint8_t value);
uint32_t om_pack_int8(uint8_t *dst, int8_t value);
uint32_t om_pack_uint16(uint8_t *dst, uint16_t value);
uint32_t om_pack_uint32(uint8_t *dst, uint32_t value);
uint32_t om_pack_int32(uint8_t *dst, int32_t value);
uint32_t om_pack_long(uint8_t *dst, int32_t value);
uint32_t om_pack_boolean(uint8_t *dst, int32_t value);

void om_unpack_uint8(const uint8_t *src, uint8_t *dst, uint32_t *consumed, int32_t *remaining,
                     int32_t *status);
void om_unpack_int8(const uint8_t *src, int8_t *dst, uint32_t *consumed, int32_t *remaining,
                    int32_t *status);
void om_unpack_uint16(const uint8_t *src, uint16_t *dst, uint32_t *consumed, int32_t *remaining,
                      int32_t *status);
void om_unpack_uint32(const uint8_t *src, uint32_t *dst, uint32_t *consumed, int32_t *remaining,
                      int32_t *status);
void om_unpack_int32(const uint8_t *src, int32_t *dst, uint32_t *consumed, int32_t *remaining,
                     int32_t *status);
void om_unpack_long(const uint8_t *src, int32_t *dst, uint32_t *consumed, int32_t *remaining,
                    int32_t *status);
void om_unpack_boolean(const uint8_t *src, int32_t *dst, uint32_t *consumed, int32_t *remaining,
                       int32_t *status);

uint8_t *om_unpack_uint8_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                             int32_t *status);
int8_t *om_unpack_int8_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                           int32_t *status);
uint16_t *om_unpack_uint16_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                               int32_t *status);
uint32_t *om_unpack_uint32_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                               int32_t *status);
int32_t *om_unpack_int32_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                             int32_t *status);
int32_t *om_unpack_long_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                            int32_t *status);
int32_t *om_unpack_boolean_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                               int32_t *status);

uint8_t *om_clone_uint8(const uint8_t *value, int32_t *status);
int8_t *om_clone_int8(const int8_t *value, int32_t *status);
uint16_t *om_clone_uint16(const uint16_t *value, int32_t *status);
uint32_t *om_clone_uint32(const uint32_t *value, int32_t *status);
int32_t *om_clone_int32(const int32_t *value, int32_t *status);
int32_t *om_clone_long(const int32_t *value, int32_t *status);
int32_t *om_clone_boolean(const int32_t *value, int32_t *status);

/* 32-byte corvane id, copied raw. */
uint32_t om_pack_corvane_id(uint8_t *dst, const uint8_t *id);
void om_unpack_corvane_id(const uint8_t *src, uint8_t *dst, uint32_t *consumed, int32_t *remaining,
                          int32_t *status);
uint8_t *om_unpack_corvane_id_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                                  int32_t *status);
uint8_t *om_clone_corvane_id(const uint8_t *id, int32_t *status);

/* Texts. `string` is int32 length + bytes (inside records and aggregates);
 * `string_tlv` is the bytes alone, their count given by the TLV header.
 * Decoded texts are heap-allocated and NUL-terminated; a null text packs to
 * nothing at all. */
uint32_t om_pack_string(uint8_t *dst, const char *text);
uint32_t om_pack_string_tlv(uint8_t *dst, const char *text);
void om_unpack_string(const uint8_t *src, char **dst, uint32_t *consumed, int32_t *remaining,
                      int32_t *status);
char *om_unpack_string_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                           int32_t *status);
void om_unpack_string_tlv(const uint8_t *src, char **dst, uint32_t len, uint32_t *consumed,
                          int32_t *remaining, int32_t *status);
char *om_unpack_string_tlv_ptr(const uint8_t *src, uint32_t len, uint32_t *consumed,
                               int32_t *remaining, int32_t *status);
char *om_clone_string(const char *text, int32_t *status);

/* Opaque bytes. `void` is int32 length + bytes, `void_tlv` the bytes alone.
 * A zero length decodes to a null pointer. */
uint32_t om_pack_void(uint8_t *dst, const void *ptr, uint32_t len);
uint32_t om_pack_void_tlv(uint8_t *dst, const void *ptr, uint32_t len);
void om_unpack_void(const uint8_t *src, void **dst, uint32_t *len_out, uint32_t *consumed,
                    int32_t *remaining, int32_t *status);
void *om_unpack_void_ptr(const uint8_t *src, uint32_t *len_out, uint32_t *consumed,
                         int32_t *remaining, int32_t *status);
void om_unpack_void_tlv(const uint8_t *src, void **dst, uint32_t len, uint32_t *consumed,
                        int32_t *remaining, int32_t *status);
void *om_unpack_void_tlv_ptr(const uint8_t *src, uint32_t len, uint32_t *consumed,
                             int32_t *remaining, int32_t *status);
void *om_clone_void(const void *ptr, uint32_t len, int32_t *status);

/* Vectors of CV_VECTOR_LEN values: delta (int32, 44 wire bytes) and usage
 * (uint16, 22 wire bytes; the decoded block has room for twice as many). */
uint32_t om_pack_delta_vector(uint8_t *dst, const int32_t *vec);
void om_unpack_delta_vector(const uint8_t *src, int32_t *dst, uint32_t *consumed,
                            int32_t *remaining, int32_t *status);
int32_t *om_unpack_delta_vector_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                                    int32_t *status);
int32_t *om_clone_delta_vector(const int32_t *vec, int32_t *status);
uint32_t om_pack_usage_vector(uint8_t *dst, const uint16_t *vec);
void om_unpack_usage_vector(const uint8_t *src, uint16_t *dst, uint32_t *consumed,
                            int32_t *remaining, int32_t *status);
uint16_t *om_unpack_usage_vector_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                                     int32_t *status);
uint16_t *om_clone_usage_vector(const uint16_t *vec, int32_t *status);

/* Records. om_unpack_<record> decodes into caller storage (its owned
 * pointers allocated; none left behind on failure); the _ptr forms allocate
 * the record too. Sizes are wire sizes, 0 for null. */
uint32_t om_pack_alarm(uint8_t *dst, const cv_alarm *alarm);
void om_unpack_alarm(const uint8_t *src, cv_alarm *dst, uint32_t *consumed, int32_t *remaining,
                     int32_t *status);
cv_alarm *om_unpack_alarm_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                              int32_t *status);
uint32_t om_get_alarm_size(const cv_alarm *alarm);
cv_alarm *om_clone_alarm(const cv_alarm *alarm, int32_t *status);

uint32_t om_pack_recurrence(uint8_t *dst, const cv_recurrence *rec);
void om_unpack_recurrence(const uint8_t *src, cv_recurrence *dst, uint32_t *consumed,
                          int32_t *remaining, int32_t *status);
cv_recurrence *om_unpack_recurrence_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                                        int32_t *status);
uint32_t om_get_recurrence_size(const cv_recurrence *rec);
cv_recurrence *om_clone_recurrence(const cv_recurrence *rec, int32_t *status);

uint32_t om_pack_neighbor(uint8_t *dst, const cv_neighbor *nb);
void om_unpack_neighbor(const uint8_t *src, cv_neighbor *dst, uint32_t *consumed,
                        int32_t *remaining, int32_t *status);
cv_neighbor *om_unpack_neighbor_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                                    int32_t *status);
uint32_t om_get_neighbor_size(const cv_neighbor *nb);
cv_neighbor *om_clone_neighbor(const cv_neighbor *nb, int32_t *status);

uint32_t om_pack_deviceheader(uint8_t *dst, const cv_device_header *dh);
void om_unpack_deviceheader(const uint8_t *src, cv_device_header *dst, uint32_t *consumed,
                            int32_t *remaining, int32_t *status);
cv_device_header *om_unpack_deviceheader_ptr(const uint8_t *src, uint32_t *consumed,
                                             int32_t *remaining, int32_t *status);
/* Copies the id and the blob into caller storage; status 4 for a null
 * pointer, 1 when memory runs out. */
void om_clone_deviceheader(cv_device_header *dst, const cv_device_header *src, int32_t *status);

uint32_t om_pack_usage_cmn_hdr(uint8_t *dst, const cv_usage_cmn_hdr *hdr);
void om_unpack_usage_cmn_hdr(const uint8_t *src, cv_usage_cmn_hdr *dst, uint32_t *consumed,
                             int32_t *remaining, int32_t *status);
cv_usage_cmn_hdr *om_unpack_usage_cmn_hdr_ptr(const uint8_t *src, uint32_t *consumed,
                                              int32_t *remaining, int32_t *status);

uint32_t om_pack_sender_id(uint8_t *dst, const cv_sender_id *sid);
void om_unpack_sender_id(const uint8_t *src, cv_sender_id *dst, uint32_t *consumed,
                         int32_t *remaining, int32_t *status);
cv_sender_id *om_unpack_sender_id_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                                      int32_t *status);
uint32_t om_get_sender_id_size(const cv_sender_id *sid);
cv_sender_id *om_clone_sender_id(const cv_sender_id *sid, int32_t *status);

/* The decoder reads the id from the same byte as the number (the id's
 * first four bytes repeat the number) yet counts 36 bytes consumed. */
uint32_t om_pack_event_id(uint8_t *dst, const cv_event_id *eid);
void om_unpack_event_id(const uint8_t *src, cv_event_id *dst, uint32_t *consumed,
                        int32_t *remaining, int32_t *status);
cv_event_id *om_unpack_event_id_ptr(const uint8_t *src, uint32_t *consumed, int32_t *remaining,
                                    int32_t *status);
uint32_t om_get_event_id_size(const cv_event_id *eid);
cv_event_id *om_clone_event_id(const cv_event_id *eid, int32_t *status);

/* Freeing; all accept null. om_free_deviceheader and om_free_usage_cmn_hdr
 * free what the record owns, not the record. */
void om_free_ptr(void *ptr);
void om_free_recurrence_ptr(cv_recurrence *rec);
void om_free_neighbor_ptr(cv_neighbor *nb);

#ifdef __cplusplus
}
#endif

#endif
