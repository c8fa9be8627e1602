// SPDX-License-Identifier: Apache-2.0
// The TLV type table and the value operations its rows point at.
#include "codec/tlv_table.h"

#include <stdlib.h>
#include <string.h>

#include <array>

#include <omsdk/codec.h>

namespace omsdk {

namespace {

using codec::reader;

// Types without a value, known or not: nothing to size, pack or read.
uint64_t no_size(const void *, uint32_t, bool) { return 0; }
uint32_t no_pack(uint8_t *, const void *, uint32_t, bool) { return 0; }
int32_t no_read(reader &, uint32_t, bool, void **, uint32_t *) { return codec::kOk; }
void *no_clone(const void *, uint32_t, int32_t *, codec::arena *) { return nullptr; }

// Blobs: bare in a plain TLV, length-prefixed in an aggregate.
uint64_t blob_size(const void *, uint32_t len, bool agg) {
    return (agg ? 4u : 0u) + static_cast<uint64_t>(len);
}
uint32_t blob_pack(uint8_t *dst, const void *value, uint32_t len, bool agg) {
    if (agg) return codec::pack_blob(dst, value, len);
    if (value == nullptr) memset(dst, 0, len);  // the size still counts these bytes
    return om_pack_void_tlv(dst, value, len);
}
int32_t blob_read(reader &r, uint32_t plain_len, bool agg, void **value, uint32_t *len_out) {
    if (agg) return codec::read_blob(r, value, len_out);
    int32_t st = codec::read_bytes(r, plain_len, value);
    if (st == codec::kOk) *len_out = plain_len;
    return st;
}
void *blob_clone(const void *value, uint32_t len, int32_t *status, codec::arena *mem) {
    return codec::copy_block(value, len, 0, status, mem);
}

// Texts: bare in a plain TLV, length-prefixed in an aggregate.
uint64_t text_size(const void *value, uint32_t, bool agg) {
    if (value == nullptr) return 0;  // a null text packs to nothing
    return (agg ? 4u : 0u) + static_cast<uint64_t>(strlen(static_cast<const char *>(value)));
}
uint32_t text_pack(uint8_t *dst, const void *value, uint32_t, bool agg) {
    const char *text = static_cast<const char *>(value);
    return agg ? codec::pack_string(dst, text) : om_pack_string_tlv(dst, text);
}
int32_t text_read(reader &r, uint32_t plain_len, bool agg, void **value, uint32_t *len_out) {
    const uint32_t before = r.used;
    char *text = nullptr;
    int32_t st = agg ? codec::read_string(r, &text) : codec::read_text(r, plain_len, &text);
    if (st != codec::kOk) return st;
    *value = text;
    *len_out = r.used - before - (agg ? 4u : 0u) + 1;
    return codec::kOk;
}
void *text_clone(const void *value, uint32_t len, int32_t *status, codec::arena *mem) {
    // Never read past the stated value length, terminated or not.
    const char *text = static_cast<const char *>(value);
    const size_t n = strnlen(text, len);
    char *copy = static_cast<char *>(codec::mem_alloc(mem, n + 1, false));
    if (copy == nullptr) {
        *status = codec::kNoMemory;
        return nullptr;
    }
    memcpy(copy, text, n);
    copy[n] = '\0';
    return copy;
}

// Decodes a flat value or a record into a zeroed block of `alloc` bytes of
// its own; one copy for every codec, which passes its own decoder.
int32_t read_block(reader &r, uint32_t min_wire, size_t alloc, int32_t (*decode)(reader &, void *),
                   void **value, uint32_t *len_out) {
    if (r.left < min_wire) return codec::kShort;  // before allocating
    const uint32_t before = r.used;
    // Zeroed: padding, members that do not travel, spare room.
    void *v = codec::mem_alloc(r.mem, alloc, true);
    if (v == nullptr) return codec::kNoMemory;
    const int32_t st = decode(r, v);
    if (st != codec::kOk) {
        codec::mem_free(r.mem, v);  // the record readers released what they owned
        return st;
    }
    *value = v;
    *len_out = r.used - before;
    return codec::kOk;
}

// A flat value or a record, decoded into a block of its own. `ByLength`
// clones copy the stated value length (at least the value's size) rather
// than the value's size.
template <typename C, bool ByLength = false>
struct block {
    using T = typename C::value_type;
    static int32_t decode(reader &r, void *v) { return C::read(r, static_cast<T *>(v)); }
    static uint64_t size(const void *value, uint32_t, bool) {
        return value != nullptr ? C::wire_size(static_cast<const T *>(value)) : 0;
    }
    static uint32_t pack(uint8_t *dst, const void *value, uint32_t, bool) {
        return C::pack(dst, static_cast<const T *>(value));
    }
    static int32_t read(reader &r, uint32_t, bool, void **value, uint32_t *len_out) {
        return read_block(r, C::min_wire, C::alloc, decode, value, len_out);
    }
    static void *clone(const void *value, uint32_t len, int32_t *status, codec::arena *mem) {
        if (ByLength) return codec::copy_block(value, len, C::min_wire, status, mem);
        return C::clone(static_cast<const T *>(value), status, mem);
    }
    static void release(void *value) { C::free_ptr(static_cast<T *>(value)); }
};

// The value codecs, in the order of the `op` numbers below. Only a block's
// clone depends on ByLength: one copy of the rest serves both.
template <typename C, bool ByLength = false>
constexpr value_ops block_ops() {
    return {value_class::fixed,        block<C>::size,   block<C>::pack, block<C>::read,
            block<C, ByLength>::clone, block<C>::release};
}

enum op : uint8_t {
    op_unknown = kUnknownOps,
    op_none,
    op_blob,
    op_text,
    op_u8,
    op_i8,
    op_u16,
    op_u32,
    op_i32,
    op_id,  // clones by length
    op_sender_id,
    op_neighbor,
    op_event_id,
    op_delta_vector_by_length,
    op_usage_vector_by_length,
    op_usage_vector,
    op_delta_vector,
    op_recurrence,
    op_alarm,
    op_count
};

constexpr tlv_type_info row(op ops, int8_t figure) { return {ops, figure}; }
constexpr tlv_type_info text() { return row(op_text, 0); }
constexpr tlv_type_info blob(int8_t figure) { return row(op_blob, figure); }
constexpr tlv_type_info u8() { return row(op_u8, 1); }
constexpr tlv_type_info u16(int8_t figure = 2) { return row(op_u16, figure); }
constexpr tlv_type_info u32(int8_t figure = 4) { return row(op_u32, figure); }
constexpr tlv_type_info i32() { return row(op_i32, 4); }
constexpr tlv_type_info cid() { return row(op_id, 32); }

}  // namespace

const value_ops kValueOps[op_count] = {
    /* op_unknown */ {value_class::unknown, no_size, no_pack, no_read, no_clone, free},
    /* op_none */ {value_class::none, no_size, no_pack, no_read, no_clone, free},
    /* op_blob */ {value_class::opaque, blob_size, blob_pack, blob_read, blob_clone, free},
    /* op_text */ {value_class::string, text_size, text_pack, text_read, text_clone, free},
    /* op_u8 */ block_ops<codec::u8_codec>(),
    /* op_i8 */ block_ops<codec::i8_codec>(),
    /* op_u16 */ block_ops<codec::u16_codec>(),
    /* op_u32 */ block_ops<codec::u32_codec>(),
    /* op_i32 */ block_ops<codec::i32_codec>(),
    /* op_id */ block_ops<codec::id_codec, true>(),
    /* op_sender_id */ block_ops<codec::sender_id_codec>(),
    /* op_neighbor */ block_ops<codec::neighbor_codec>(),
    /* op_event_id */ block_ops<codec::event_id_codec>(),
    /* op_delta_vector_by_length */ block_ops<codec::delta_vector_codec, true>(),
    /* op_usage_vector_by_length */ block_ops<codec::usage_vector_codec, true>(),
    /* op_usage_vector */ block_ops<codec::usage_vector_codec>(),
    /* op_delta_vector */ block_ops<codec::delta_vector_codec>(),
    /* op_recurrence */ block_ops<codec::recurrence_codec>(),
    /* op_alarm */ block_ops<codec::alarm_codec>(),
};

// Vectors and ids in plain TLVs clone by their stated length; inside combo
// entries (43 to 45), where no length is kept, by their size.
const tlv_type_info kTlvTypes[kTlvTypeCount] = {
    /*  0 */ blob(0),
    /*  1 */ row(op_sender_id, 36),
    /*  2 */ cid(),
    /*  3 */ u32(),
    /*  4 */ blob(0),
    /*  5 */ text(),
    /*  6 */ text(),
    /*  7 */ text(),
    /*  8 */ text(),
    /*  9 */ text(),
    /* 10 */ blob(0),
    /* 11 */ text(),
    /* 12 */ row(op_i8, 1),
    /* 13 */ u16(),
    /* 14 */ u8(),
    /* 15 */ u8(),
    /* 16 */ u8(),
    /* 17 */ u8(),
    /* 18 */ u8(),
    /* 19 */ u16(),
    /* 20 */ cid(),
    /* 21 */ cid(),
    /* 22 */ i32(),
    /* 23 */ blob(16),  // an IPv4 socket address
    /* 24 */ blob(16),
    /* 25 */ u32(),
    /* 26 */ i32(),
    /* 27 */ text(),
    /* 28 */ row(op_neighbor, 84),
    /* 29 */ u16(),
    /* 30 */ cid(),
    /* 31 */ i32(),  // the three clocks are 32-bit "long" values
    /* 32 */ i32(),
    /* 33 */ i32(),
    /* 34 */ u32(),
    /* 35 */ row(op_event_id, 36),
    /* 36 */ row(op_delta_vector_by_length, 44),
    /* 37 */ row(op_none, -1),
    /* 38 */ i32(),
    /* 39 */ row(op_usage_vector_by_length, 22),
    /* 40 */ text(),
    /* 41 */ u8(),
    /* 42 */ row(op_none, 4),
    /* 43 */ u16(26),
    /* 44 */ row(op_usage_vector, 46),
    /* 45 */ row(op_delta_vector, 68),
    /* 46 */ row(op_recurrence, 12),
    /* 47 */ u32(-1),
    /* 48 */ text(),
    /* 49 */ u16(-1),
    /* 50 */ row(op_alarm, -1),
    /* 51 */ i32(),
};

}  // namespace omsdk
