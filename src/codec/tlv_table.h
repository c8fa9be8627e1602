// SPDX-License-Identifier: Apache-2.0
// One table of TLV types (0..51): each row points at the operations of the
// codec that carries the type's value, and holds the per-type length figure
// reported by the PDU layer. The whole-TLV code goes through it.
#ifndef OMSDK_CODEC_TLV_TABLE_H
#define OMSDK_CODEC_TLV_TABLE_H

#include <stdint.h>

#include <omsdk/wire_types.h>

#include "codec/codec_impl.h"

namespace omsdk {

enum class value_class : uint8_t {
    unknown,  // no codec: the type is not handled
    none,     // known type without a value
    string,
    opaque,
    fixed,  // a flat value or a record
};

// Value-level operations of one codec. `in_aggregate` selects the
// length-prefixed forms of texts and blobs; `len` is the blob length (a
// plain TLV's value length, an aggregate entry's stored length).
struct value_ops {
    value_class cls;
    uint64_t (*size)(const void *value, uint32_t len, bool in_aggregate);
    uint32_t (*pack)(uint8_t *dst, const void *value, uint32_t len, bool in_aggregate);
    // Decodes one value. A plain text or blob takes exactly `plain_len`
    // bytes. `len_out` receives the length an aggregate entry stores: text
    // length + 1 for texts, the blob length for blobs, the bytes taken
    // otherwise.
    int32_t (*read)(codec::reader &r, uint32_t plain_len, bool in_aggregate, void **value,
                    uint32_t *len_out);
    void *(*clone)(const void *value, uint32_t len, int32_t *status, codec::arena *mem);
    // Frees a heap value (never one from an arena).
    void (*release)(void *value);
};

// A row of the type table: which of the value codecs (kValueOps) carries
// the type's value, and its length figure. Indices rather than pointers:
// the table needs no relocation when the library is loaded.
struct tlv_type_info {
    uint8_t ops;
    int8_t length_figure;  // per-type length figure; -1 when the type has none
};

constexpr uint32_t kTlvTypeCount = 52;
constexpr uint8_t kUnknownOps = 0;  // the row of types 52 and above

extern const value_ops kValueOps[];
extern const tlv_type_info kTlvTypes[kTlvTypeCount];

// Row for a type number (the type word's low 30 bits); an "unknown" row for
// 52 and above.
inline tlv_type_info tlv_type(uint32_t type) {
    return type < kTlvTypeCount ? kTlvTypes[type] : tlv_type_info{kUnknownOps, -1};
}
// The value codec of a type.
inline const value_ops &type_ops(uint32_t type) {
    return kValueOps[type < kTlvTypeCount ? kTlvTypes[type].ops : kUnknownOps];
}

inline bool is_known_type(uint32_t type) { return type_ops(type).cls != value_class::unknown; }

// Per-type length figure of the PDU layer: the in-memory value size, 0 for
// variable-size types, -1 for types without a figure (37, 47, 49, 50 and
// every type above 51).
inline int32_t type_length_figure(uint32_t type) { return tlv_type(type).length_figure; }

inline uint64_t value_wire_size(uint32_t type, const void *value, uint32_t len, bool in_aggregate) {
    return type_ops(type).size(value, len, in_aggregate);
}
inline uint32_t pack_value(uint32_t type, uint8_t *dst, const void *value, uint32_t len,
                           bool in_aggregate) {
    return type_ops(type).pack(dst, value, len, in_aggregate);
}
inline int32_t read_value(uint32_t type, codec::reader &r, uint32_t plain_len, bool in_aggregate,
                          void **value, uint32_t *len_out) {
    *value = nullptr;
    *len_out = 0;
    return type_ops(type).read(r, plain_len, in_aggregate, value, len_out);
}
inline void *clone_value(uint32_t type, const void *value, uint32_t len, int32_t *status,
                         codec::arena *mem = nullptr) {
    *status = codec::kOk;
    return value != nullptr ? type_ops(type).clone(value, len, status, mem) : nullptr;
}
inline void free_value(uint32_t type, void *value) {
    if (value != nullptr) type_ops(type).release(value);
}

// Writes a whole TLV whose encoded size (om_get_tlv_size) the caller
// already knows; the result is that of cv_update_raw_buf_from_tlv.
int32_t write_tlv(const cv_tlv *tlv, uint8_t *dst, uint32_t size);

// A TLV decoded from the wire (cv_create_tlv_from_raw_buf), its record and
// value from `mem` (the heap when null); with `views`, bare blobs point into
// the bytes decoded.
cv_tlv *decode_tlv(int32_t *remaining, uint8_t **cursor, codec::arena *mem, bool views);
// Deep copy of a TLV value (om_clone_tlv_ptr) into `mem` (the heap when null).
void *clone_tlv_value(uint32_t type_word, uint32_t value_length, const void *value, int32_t *status,
                      codec::arena *mem);

// Frees one aggregate entry (plain or combo, by the type word) with what it
// owns; null-safe.
void free_aggr_entry(uint32_t type_word, void *entry);

// Entry arrays are kept in steps of 16 pointers, the step appends grow by.
inline uint64_t entry_array_capacity(uint32_t count) {
    return (static_cast<uint64_t>(count) + 15) / 16 * 16;
}

}  // namespace omsdk

#endif
