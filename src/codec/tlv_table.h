// One table of TLV types (0..51): which codec carries each type's value,
// its in-memory size and the per-type length figure reported by the PDU
// layer. Dispatchers and the TLV wire form go through it.
#ifndef OMSDK_CODEC_TLV_TABLE_H
#define OMSDK_CODEC_TLV_TABLE_H

#include <stdint.h>

#include <omsdk/wire_types.h>

#include "codec/codec_impl.h"

namespace omsdk {

enum class value_class : uint8_t { none, string, opaque, fixed, record };

enum class codec_kind : uint8_t {
    unknown,  // no codec: the type is not handled
    none,     // known type without a value
    opaque,
    string,
    u8,
    i8,
    u16,
    u32,
    i32,
    lng,
    corvane_id,
    delta_vector,
    usage_vector,
    sender_id,
    event_id,
    alarm,
    neighbor,
    recurrence,
};

struct tlv_type_info {
    codec_kind kind;
    value_class cls;
    uint8_t wire_size;        // fixed wire size of the value; 0 when variable
    uint16_t mem_size;        // in-memory size of the value; 0 when variable
    bool clone_by_length;     // deep copies take the stated length in bytes
    int16_t length_figure;    // per-type length figure; -1 when the type has none
};

constexpr uint32_t kTlvTypeCount = 52;

// Row for a type number (the type word's low 30 bits); an "unknown" row for
// 52 and above.
const tlv_type_info &tlv_type(uint32_t type);

// Per-type length figure of the PDU layer: the in-memory value size, 0 for
// variable-size types, -1 for types without a figure (37, 47, 49, 50 and
// every type above 51).
int32_t type_length_figure(uint32_t type);

// Value-level operations by TLV type. `in_aggregate` selects the
// length-prefixed forms of texts and blobs; `len` is the blob length (a
// plain TLV's value length, an aggregate entry's stored length).
uint64_t value_wire_size(uint32_t type, const void *value, uint32_t len, bool in_aggregate);
uint32_t pack_value(uint32_t type, uint8_t *dst, const void *value, uint32_t len,
                    bool in_aggregate);
// Decodes one value. A plain text or blob takes exactly `plain_len` bytes.
// `len_out` receives the length an aggregate entry stores: text length + 1
// for texts, the blob length for blobs, the bytes taken otherwise.
int32_t read_value(uint32_t type, codec::reader &r, uint32_t plain_len, bool in_aggregate,
                   void **value, uint32_t *len_out);
void *clone_value(uint32_t type, const void *value, uint32_t len, int32_t *status);
void free_value(uint32_t type, void *value);

// Writes a whole TLV whose encoded size (om_get_tlv_size) the caller
// already knows; the result is that of cv_update_raw_buf_from_tlv.
int32_t write_tlv(const cv_tlv *tlv, uint8_t *dst, uint32_t size);

// Frees an aggregate block with its device header blob and every entry.
void free_aggr_block(uint32_t type_word, cv_aggr_block *block);

// Entry arrays are kept in steps of 16 pointers, the step appends grow by.
inline uint64_t entry_array_capacity(uint32_t count) {
    return (static_cast<uint64_t>(count) + 15) / 16 * 16;
}

}  // namespace omsdk

#endif
