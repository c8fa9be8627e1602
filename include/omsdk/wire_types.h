/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file omsdk/wire_types.h
 * @brief In-memory forms of protocol messages: events, TLVs, headers, records.
 *
 * The codecs (omsdk/codec.h) convert them to and from their wire form; the
 * event calls (omsdk/event.h) build and free them.
 */
#ifndef OMSDK_WIRE_TYPES_H
#define OMSDK_WIRE_TYPES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CV_CORVANE_ID_SIZE 32
#define CV_TLV_HEADER_SIZE 12
#define CV_SEC_HEADER_SIZE 12
#define CV_EVENT_HEADER_SIZE 48
#define CV_PDU_FIXED_SIZE 80 /* security header + digest + event header */
#define CV_PDU_MAX_SIZE 1400
#define CV_TLV_AGGREGATE_FLAG 0x80000000u
#define CV_TLV_TYPE_MASK 0x3FFFFFFFu
#define CV_VECTOR_LEN 11

/* Event states (cv_event.state). */
#define CV_EVENT_STATE_OK 257
#define CV_EVENT_STATE_REPLY 260
#define CV_EVENT_STATE_ERROR 263

/* Security header in host form (12 bytes). The host form swaps the two
 * nibbles of bytes 0, 1 and 9 against the wire: enc is the high nibble of
 * enc_byte, comm the high and auth the low nibble of auth_comm. */
/* clang-format off: the records are aligned by hand, field by field */
typedef struct cv_sec_hdr {
    uint8_t nibbles0; /* two reserved 4-bit fields */
    uint8_t enc_byte; /* reserved nibble and enc */
    uint16_t reserved16;
    uint32_t hmac_tag;
    uint8_t reserved8;
    uint8_t auth_comm;
    uint16_t digest_len;
} cv_sec_hdr;

/* Event header (48 bytes); seq, action, tlv_bytes and tlv_count in host
 * order in memory, big-endian on the wire. */
typedef struct cv_event_hdr {
    uint32_t seq;
    uint8_t id[CV_CORVANE_ID_SIZE];
    uint8_t ver;
    int8_t shipment;
    uint8_t pri;
    uint8_t type;
    uint8_t app;
    uint8_t event_class;
    uint16_t action;
    uint16_t tlv_bytes;
    uint16_t tlv_count;
} cv_event_hdr;

/* One TLV: the type word (bit 31 aggregate flag, low 30 bits the type), the
 * wire length including the 12-byte header, the third header word, and the
 * owned value (null when the length is 12). */
typedef struct cv_tlv {
    uint32_t type;
    uint32_t length;
    uint32_t qualifier;
    void *value;
} cv_tlv;

/* A protocol event in memory. */
typedef struct cv_event {
    uint32_t reserved0;
    uint32_t raw_present; /* 1 while raw holds a buffer owned here */
    uint32_t ready;       /* 1 when pak and tlvs may be read or added to */
    uint32_t state;       /* CV_EVENT_STATE_* */
    uint8_t *raw;         /* PDU bytes, owned */
    uint32_t raw_len;
    uint8_t *body;     /* into raw: start of the event header */
    cv_sec_hdr *sec;   /* owned */
    cv_event_hdr *pak; /* owned */
    cv_tlv **tlvs;     /* owned array of owned TLVs */
    int32_t tlv_capacity;
    /* Digest verdict of the last cv_unpack_event: 1 when the digest matched,
     * 0 otherwise (the zeroed default). Receivers must drop events with 0. */
    uint32_t digest_ok;
} cv_event;

/* Device header of an aggregate TLV. */
typedef struct cv_device_header {
    uint8_t id[CV_CORVANE_ID_SIZE];
    uint32_t blob_len;
    void *blob;
} cv_device_header;

/* Usage common header carried by combo entries. */
typedef struct cv_usage_cmn_hdr {
    uint32_t version;
    int32_t caliber;
    char *name;
    char *role;
    int8_t units;
    uint8_t level;
    uint8_t importance;
    char *keywords;
} cv_usage_cmn_hdr;

/* Aggregate entries. */
typedef struct cv_aggr_entry {
    uint32_t id;
    uint32_t len;
    void *value;
} cv_aggr_entry;

typedef struct cv_combo_entry {
    uint32_t id;
    cv_usage_cmn_hdr hdr;
    void *value;
} cv_combo_entry;

/* Value of an aggregate TLV; entries are cv_aggr_entry or, for the combo
 * types 43 to 45, cv_combo_entry. */
typedef struct cv_aggr_block {
    cv_device_header dh;
    uint32_t count;
    void **entries;
} cv_aggr_block;

/* Record values. */
typedef struct cv_alarm {
    uint32_t seconds;
    uint8_t param2; /* the request's second byte travels first */
    uint8_t param1;
    uint8_t reserved[2]; /* not on the wire */
    int32_t id;          /* request id; -1 for clear-all */
    int32_t operation;   /* 1 set, 4 clear-all; the alarm status in answers */
} cv_alarm;

typedef struct cv_recurrence {
    char *text;
    uint8_t first;
    uint8_t second;
    int32_t flag;
} cv_recurrence;

typedef struct cv_neighbor {
    uint16_t reserved; /* not encoded */
    uint8_t id[CV_CORVANE_ID_SIZE];
    char *name;
    void *blob;
    uint32_t blob_len;
    uint32_t unused[4]; /* not encoded */
    int32_t flag;
} cv_neighbor;

typedef struct cv_sender_id {
    uint8_t id[CV_CORVANE_ID_SIZE];
    uint32_t value;
} cv_sender_id;

typedef struct cv_event_id {
    uint32_t number;
    uint8_t id[CV_CORVANE_ID_SIZE];
} cv_event_id;
/* clang-format on */

typedef int32_t cv_delta_vector[CV_VECTOR_LEN];
typedef uint16_t cv_usage_vector[CV_VECTOR_LEN];

#ifdef __cplusplus
}
#endif

#endif
