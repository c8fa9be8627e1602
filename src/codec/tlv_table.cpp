// The TLV type table and the dispatchers driven by it.
#include "codec/tlv_table.h"

#include <stdlib.h>
#include <string.h>

#include <array>

#include <omsdk/codec.h>

#include "common/api.h"

namespace omsdk {

namespace {

using K = codec_kind;
using C = value_class;

constexpr tlv_type_info row(K kind, C cls, uint8_t wire, uint16_t mem, bool by_len,
                            int16_t figure) {
    return tlv_type_info{kind, cls, wire, mem, by_len, figure};
}
constexpr tlv_type_info text(int16_t figure = 0) { return row(K::string, C::string, 0, 0, false, figure); }
constexpr tlv_type_info blob(int16_t figure) { return row(K::opaque, C::opaque, 0, 0, true, figure); }
constexpr tlv_type_info u8() { return row(K::u8, C::fixed, 1, 1, false, 1); }
constexpr tlv_type_info u16(int16_t figure = 2) { return row(K::u16, C::fixed, 2, 2, false, figure); }
constexpr tlv_type_info u32(int16_t figure = 4) { return row(K::u32, C::fixed, 4, 4, false, figure); }
constexpr tlv_type_info i32() { return row(K::i32, C::fixed, 4, 4, false, 4); }
constexpr tlv_type_info lng() { return row(K::lng, C::fixed, 4, 4, false, 4); }
constexpr tlv_type_info cid() { return row(K::corvane_id, C::fixed, 32, 32, true, 32); }

constexpr std::array<tlv_type_info, kTlvTypeCount> kTable{{
    /*  0 */ blob(0),
    /*  1 */ row(K::sender_id, C::record, 36, sizeof(cv_sender_id), false, 36),
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
    /* 12 */ row(K::i8, C::fixed, 1, 1, false, 1),
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
    /* 28 */ row(K::neighbor, C::record, 0, sizeof(cv_neighbor), false, 84),
    /* 29 */ u16(),
    /* 30 */ cid(),
    /* 31 */ lng(),
    /* 32 */ lng(),
    /* 33 */ lng(),
    /* 34 */ u32(),
    /* 35 */ row(K::event_id, C::record, 36, sizeof(cv_event_id), false, 36),
    /* 36 */ row(K::delta_vector, C::fixed, 44, sizeof(cv_delta_vector), true, 44),
    /* 37 */ row(K::none, C::none, 0, 0, false, -1),
    /* 38 */ i32(),
    /* 39 */ row(K::usage_vector, C::fixed, 22, sizeof(cv_usage_vector), true, 22),
    /* 40 */ text(),
    /* 41 */ u8(),
    /* 42 */ row(K::none, C::none, 0, 0, false, 4),
    /* 43 */ u16(26),
    /* 44 */ row(K::usage_vector, C::fixed, 22, sizeof(cv_usage_vector), false, 46),
    /* 45 */ row(K::delta_vector, C::fixed, 44, sizeof(cv_delta_vector), false, 68),
    /* 46 */ row(K::recurrence, C::record, 0, sizeof(cv_recurrence), false, 12),
    /* 47 */ u32(-1),
    /* 48 */ text(),
    /* 49 */ u16(-1),
    /* 50 */ row(K::alarm, C::record, 14, sizeof(cv_alarm), false, -1),
    /* 51 */ i32(),
}};

constexpr tlv_type_info kUnknown = row(K::unknown, C::none, 0, 0, false, -1);

using codec::reader;

// Decodes a fixed-size or record value into a freshly allocated block.
int32_t read_block(const tlv_type_info &info, reader &r, void **value) {
    size_t alloc = info.mem_size;
    // A decoded usage vector gets twice its size: room for 22 values.
    if (info.kind == K::usage_vector) alloc = 2 * sizeof(cv_usage_vector);
    if (info.wire_size != 0 && r.left < info.wire_size) return codec::kShort;
    // Records with padding or unencoded fields, and the usage vector's spare
    // room, start zeroed; the other values are wholly written by their reader.
    const bool zeroed = info.kind == K::usage_vector || info.kind == K::alarm ||
                        info.kind == K::neighbor || info.kind == K::recurrence;
    void *block = zeroed ? calloc(1, alloc) : malloc(alloc);
    if (block == nullptr) return codec::kNoMemory;
    int32_t st = codec::kShort;
    switch (info.kind) {
    case K::u8: st = codec::read_int(r, static_cast<uint8_t *>(block)); break;
    case K::i8: st = codec::read_int(r, static_cast<int8_t *>(block)); break;
    case K::u16: st = codec::read_int(r, static_cast<uint16_t *>(block)); break;
    case K::u32: st = codec::read_int(r, static_cast<uint32_t *>(block)); break;
    case K::i32:
    case K::lng: st = codec::read_int(r, static_cast<int32_t *>(block)); break;
    case K::corvane_id: st = codec::read_id(r, static_cast<uint8_t *>(block)); break;
    case K::delta_vector: st = codec::read_delta_vector(r, static_cast<int32_t *>(block)); break;
    case K::usage_vector: st = codec::read_usage_vector(r, static_cast<uint16_t *>(block)); break;
    case K::sender_id: st = codec::read_sender_id(r, static_cast<cv_sender_id *>(block)); break;
    case K::event_id: st = codec::read_event_id(r, static_cast<cv_event_id *>(block)); break;
    case K::alarm: st = codec::read_alarm(r, static_cast<cv_alarm *>(block)); break;
    case K::neighbor: st = codec::read_neighbor(r, static_cast<cv_neighbor *>(block)); break;
    case K::recurrence:
        st = codec::read_recurrence(r, static_cast<cv_recurrence *>(block));
        break;
    case K::unknown:
    case K::none:
    case K::opaque:
    case K::string: break;
    }
    if (st != codec::kOk) {
        free(block);  // the record readers released what they owned
        return st;
    }
    *value = block;
    return codec::kOk;
}

template <typename T>
T load(const void *value) {
    T v;
    memcpy(&v, value, sizeof v);  // values need not be aligned for T
    return v;
}

}  // namespace

const tlv_type_info &tlv_type(uint32_t type) {
    return type < kTlvTypeCount ? kTable[type] : kUnknown;
}

int32_t type_length_figure(uint32_t type) { return tlv_type(type).length_figure; }

uint64_t value_wire_size(uint32_t type, const void *value, uint32_t len, bool in_aggregate) {
    const tlv_type_info &info = tlv_type(type);
    switch (info.cls) {
    case C::none: return 0;
    case C::opaque: return (in_aggregate ? 4u : 0u) + static_cast<uint64_t>(len);
    case C::string:
        if (value == nullptr) return 0;  // a null text packs to nothing
        return (in_aggregate ? 4u : 0u) + static_cast<uint64_t>(strlen(static_cast<const char *>(value)));
    case C::fixed:
    case C::record:
        if (value == nullptr) return 0;
        if (info.kind == K::neighbor) return om_get_neighbor_size(static_cast<const cv_neighbor *>(value));
        if (info.kind == K::recurrence)
            return om_get_recurrence_size(static_cast<const cv_recurrence *>(value));
        return info.wire_size;
    }
    return 0;
}

uint32_t pack_value(uint32_t type, uint8_t *dst, const void *value, uint32_t len,
                    bool in_aggregate) {
    const tlv_type_info &info = tlv_type(type);
    switch (info.cls) {
    case C::none: return 0;
    case C::opaque:
        if (in_aggregate) return om_pack_void(dst, value, len);
        if (value == nullptr) memset(dst, 0, len);  // the size still counts these bytes
        return om_pack_void_tlv(dst, value, len);
    case C::string: {
        const char *text = static_cast<const char *>(value);
        return in_aggregate ? om_pack_string(dst, text) : om_pack_string_tlv(dst, text);
    }
    case C::fixed:
    case C::record: break;
    }
    if (value == nullptr) return 0;
    switch (info.kind) {
    case K::u8: return codec::put_be(dst, load<uint8_t>(value));
    case K::i8: return codec::put_be(dst, load<int8_t>(value));
    case K::u16: return codec::put_be(dst, load<uint16_t>(value));
    case K::u32: return codec::put_be(dst, load<uint32_t>(value));
    case K::i32:
    case K::lng: return codec::put_be(dst, load<int32_t>(value));
    case K::corvane_id: return om_pack_corvane_id(dst, static_cast<const uint8_t *>(value));
    case K::delta_vector: {
        cv_delta_vector v;
        memcpy(v, value, sizeof v);
        return om_pack_delta_vector(dst, v);
    }
    case K::usage_vector: {
        cv_usage_vector v;
        memcpy(v, value, sizeof v);
        return om_pack_usage_vector(dst, v);
    }
    case K::sender_id: return om_pack_sender_id(dst, static_cast<const cv_sender_id *>(value));
    case K::event_id: return om_pack_event_id(dst, static_cast<const cv_event_id *>(value));
    case K::alarm: return om_pack_alarm(dst, static_cast<const cv_alarm *>(value));
    case K::neighbor: return om_pack_neighbor(dst, static_cast<const cv_neighbor *>(value));
    case K::recurrence: return om_pack_recurrence(dst, static_cast<const cv_recurrence *>(value));
    case K::unknown:
    case K::none:
    case K::opaque:
    case K::string: break;
    }
    return 0;
}

int32_t read_value(uint32_t type, reader &r, uint32_t plain_len, bool in_aggregate, void **value,
                   uint32_t *len_out) {
    const tlv_type_info &info = tlv_type(type);
    *value = nullptr;
    *len_out = 0;
    uint32_t before = r.used;
    int32_t st = codec::kOk;
    switch (info.cls) {
    case C::none: return codec::kOk;
    case C::opaque:
        if (in_aggregate) return codec::read_blob(r, value, len_out);
        st = codec::read_bytes(r, plain_len, value);
        if (st == codec::kOk) *len_out = plain_len;
        return st;
    case C::string: {
        char *text = nullptr;
        st = in_aggregate ? codec::read_string(r, &text) : codec::read_text(r, plain_len, &text);
        if (st != codec::kOk) return st;
        uint32_t text_len = r.used - before - (in_aggregate ? 4u : 0u);
        *value = text;
        *len_out = text_len + 1;
        return codec::kOk;
    }
    case C::fixed:
    case C::record: break;
    }
    st = read_block(info, r, value);
    if (st == codec::kOk) *len_out = r.used - before;
    return st;
}

void *clone_value(uint32_t type, const void *value, uint32_t len, int32_t *status) {
    const tlv_type_info &info = tlv_type(type);
    *status = codec::kOk;
    if (value == nullptr) return nullptr;
    if (info.clone_by_length) return codec::copy_block(value, len, info.mem_size, status);
    switch (info.kind) {
    case K::unknown:
    case K::none: return nullptr;
    case K::string: {
        // Never read past the stated value length, terminated or not.
        const char *text = static_cast<const char *>(value);
        const size_t n = strnlen(text, len);
        char *copy = static_cast<char *>(malloc(n + 1));
        if (copy == nullptr) {
            *status = codec::kNoMemory;
            return nullptr;
        }
        memcpy(copy, text, n);
        copy[n] = '\0';
        return copy;
    }
    case K::neighbor: return om_clone_neighbor(static_cast<const cv_neighbor *>(value), status);
    case K::recurrence:
        return om_clone_recurrence(static_cast<const cv_recurrence *>(value), status);
    case K::opaque: return codec::copy_block(value, len, 0, status);
    case K::u8:
    case K::i8:
    case K::u16:
    case K::u32:
    case K::i32:
    case K::lng:
    case K::corvane_id:
    case K::delta_vector:
    case K::usage_vector:
    case K::sender_id:
    case K::event_id:
    case K::alarm: break;
    }
    return codec::copy_block(value, info.mem_size, info.mem_size, status);
}

void free_value(uint32_t type, void *value) {
    if (value == nullptr) return;
    switch (tlv_type(type).kind) {
    case K::neighbor: om_free_neighbor_ptr(static_cast<cv_neighbor *>(value)); return;
    case K::recurrence: om_free_recurrence_ptr(static_cast<cv_recurrence *>(value)); return;
    default: free(value); return;
    }
}

void free_aggr_block(uint32_t type_word, cv_aggr_block *block) {
    if (block == nullptr) return;
    uint32_t type = type_word & CV_TLV_TYPE_MASK;
    bool combo = cv_is_combo_tlv(type_word) != 0;
    om_free_deviceheader(&block->dh);
    if (block->entries != nullptr) {
        for (uint32_t i = 0; i < block->count; ++i) {
            void *e = block->entries[i];
            if (e == nullptr) continue;
            if (combo) {
                cv_combo_entry *ce = static_cast<cv_combo_entry *>(e);
                om_free_usage_cmn_hdr(&ce->hdr);
                free_value(type, ce->value);
            } else {
                free_value(type, static_cast<cv_aggr_entry *>(e)->value);
            }
            free(e);
        }
    }
    free(block->entries);
    free(block);
}

namespace {

void *clone_entry(uint32_t type_word, const void *entry, int32_t *status) {
    uint32_t type = type_word & CV_TLV_TYPE_MASK;
    *status = codec::kOk;
    if (entry == nullptr) return nullptr;
    if (cv_is_combo_tlv(type_word)) {
        const cv_combo_entry *src = static_cast<const cv_combo_entry *>(entry);
        cv_combo_entry *copy = static_cast<cv_combo_entry *>(calloc(1, sizeof *copy));
        if (copy == nullptr) {
            *status = codec::kNoMemory;
            return nullptr;
        }
        copy->id = src->id;
        om_clone_usage_cmn_hdr(&copy->hdr, &src->hdr, status);
        if (*status == codec::kOk) copy->value = clone_value(type, src->value, 0, status);
        if (*status != codec::kOk) {
            om_free_usage_cmn_hdr(&copy->hdr);
            free(copy);
            *status = codec::kNoMemory;
            return nullptr;
        }
        return copy;
    }
    const cv_aggr_entry *src = static_cast<const cv_aggr_entry *>(entry);
    cv_aggr_entry *copy = static_cast<cv_aggr_entry *>(calloc(1, sizeof *copy));
    if (copy == nullptr) {
        *status = codec::kNoMemory;
        return nullptr;
    }
    copy->id = src->id;
    copy->len = src->len;
    copy->value = clone_value(type, src->value, src->len, status);
    if (*status != codec::kOk) {
        free(copy);
        return nullptr;
    }
    return copy;
}

cv_aggr_block *clone_block(uint32_t type_word, const cv_aggr_block *src, int32_t *status) {
    *status = codec::kOk;
    if (src == nullptr) return nullptr;
    cv_aggr_block *copy = static_cast<cv_aggr_block *>(calloc(1, sizeof *copy));
    if (copy == nullptr) {
        *status = codec::kNoMemory;
        return nullptr;
    }
    om_clone_deviceheader(&copy->dh, &src->dh, status);
    if (*status != codec::kOk) {
        free(copy);
        *status = codec::kNoMemory;
        return nullptr;
    }
    if (src->entries != nullptr && src->count != 0) {
        // Keep the array in the 16-pointer steps that appends rely on.
        copy->entries = static_cast<void **>(
            calloc(static_cast<size_t>(entry_array_capacity(src->count)), sizeof(void *)));
        if (copy->entries == nullptr) {
            free_aggr_block(type_word, copy);
            *status = codec::kNoMemory;
            return nullptr;
        }
        for (uint32_t i = 0; i < src->count; ++i) {
            copy->entries[i] = clone_entry(type_word, src->entries[i], status);
            copy->count = i + 1;
            if (*status != codec::kOk) {
                free_aggr_block(type_word, copy);
                *status = codec::kNoMemory;
                return nullptr;
            }
        }
    }
    copy->count = src->count;
    return copy;
}

}  // namespace
}  // namespace omsdk

using omsdk::codec::clamp32;

OMSDK_API uint32_t om_get_tlv_size(const cv_tlv *tlv) {
    if (tlv == nullptr) return 0;
    uint32_t type = tlv->type & CV_TLV_TYPE_MASK;
    if ((tlv->type & CV_TLV_AGGREGATE_FLAG) == 0) {
        if (tlv->value == nullptr && tlv->length == CV_TLV_HEADER_SIZE) return CV_TLV_HEADER_SIZE;
        uint32_t len = tlv->length > CV_TLV_HEADER_SIZE ? tlv->length - CV_TLV_HEADER_SIZE : 0;
        return clamp32(CV_TLV_HEADER_SIZE + omsdk::value_wire_size(type, tlv->value, len, false));
    }
    const cv_aggr_block *block = static_cast<const cv_aggr_block *>(tlv->value);
    if (block == nullptr) return CV_TLV_HEADER_SIZE;
    uint64_t size = CV_TLV_HEADER_SIZE + 4u + om_get_deviceheader_size(&block->dh);
    bool combo = cv_is_combo_tlv(tlv->type) != 0;
    for (uint32_t i = 0; block->entries != nullptr && i < block->count; ++i) {
        const void *e = block->entries[i];
        if (e == nullptr) continue;
        size += 4;
        if (combo) {
            const cv_combo_entry *ce = static_cast<const cv_combo_entry *>(e);
            size += om_get_usage_cmn_hdr_size(&ce->hdr);
            size += omsdk::value_wire_size(type, ce->value, 0, true);
        } else {
            const cv_aggr_entry *pe = static_cast<const cv_aggr_entry *>(e);
            size += omsdk::value_wire_size(type, pe->value, pe->len, true);
        }
        if (size > UINT32_MAX) break;
    }
    return clamp32(size);
}

OMSDK_API void *om_clone_tlv_ptr(uint32_t type_word, uint32_t value_length, const void *value,
                                 int32_t *status) {
    int32_t st = omsdk::codec::kOk;
    void *copy;
    if (type_word & CV_TLV_AGGREGATE_FLAG)
        copy = omsdk::clone_block(type_word, static_cast<const cv_aggr_block *>(value), &st);
    else
        copy = omsdk::clone_value(type_word & CV_TLV_TYPE_MASK, value, value_length, &st);
    if (status != nullptr) *status = st;
    return copy;
}

OMSDK_API void om_free_tlv_ptr(cv_tlv *tlv) {
    if (tlv == nullptr) return;
    if (tlv->type & CV_TLV_AGGREGATE_FLAG)
        omsdk::free_aggr_block(tlv->type, static_cast<cv_aggr_block *>(tlv->value));
    else
        omsdk::free_value(tlv->type & CV_TLV_TYPE_MASK, tlv->value);
    free(tlv);
}
