// SPDX-License-Identifier: Apache-2.0
// Whole TLVs: wire size, encoding, decoding, deep copies and freeing, for
// plain TLVs and aggregates alike; the values go through the type table.
//
// Received bytes are untrusted: every read is bounded by the bytes left in
// the payload and by the TLV's own length, and nothing is allocated before
// the bytes that justify it have been seen.
#include <stdlib.h>
#include <string.h>

#include <omsdk/codec.h>

#include "codec/codec_impl.h"
#include "codec/tlv_table.h"
#include "common/api.h"
#include "diag/log.h"

namespace omsdk {
namespace {

using codec::kNoMemory;
using codec::kOk;
using codec::kShort;
using codec::reader;

bool is_aggregate(uint32_t type_word) { return (type_word & CV_TLV_AGGREGATE_FLAG) != 0; }
uint32_t type_of(uint32_t type_word) { return type_word & CV_TLV_TYPE_MASK; }

// Value length of a plain TLV as its header states it.
uint32_t plain_len(const cv_tlv *tlv) {
    return tlv->length > CV_TLV_HEADER_SIZE ? tlv->length - CV_TLV_HEADER_SIZE : 0;
}

// An aggregate entry seen through its fields: combo entries (types 43 to
// 45) carry a usage header and keep no length, plain ones the reverse.
struct entry_view {
    uint32_t *id;
    cv_usage_cmn_hdr *hdr;  // null for plain entries
    void **value;
    uint32_t *len;  // null for combo entries
    uint32_t stored_len() const { return len != nullptr ? *len : 0; }
};

entry_view view(bool combo, const void *entry) {
    void *e = const_cast<void *>(entry);
    if (combo) {
        auto *c = static_cast<cv_combo_entry *>(e);
        return {&c->id, &c->hdr, &c->value, nullptr};
    }
    auto *p = static_cast<cv_aggr_entry *>(e);
    return {&p->id, nullptr, &p->value, &p->len};
}

size_t entry_size(bool combo) { return combo ? sizeof(cv_combo_entry) : sizeof(cv_aggr_entry); }

void free_block(uint32_t type_word, cv_aggr_block *block) {
    if (block == nullptr) return;
    om_free_deviceheader(&block->dh);
    for (uint32_t i = 0; block->entries != nullptr && i < block->count; ++i)
        free_aggr_entry(type_word, block->entries[i]);
    free(block->entries);
    free(block);
}

// A zeroed block with room for `count` entries in the 16-pointer steps
// appends rely on; the count is set by the caller as entries arrive.
cv_aggr_block *new_block(uint32_t count, codec::arena *mem) {
    auto *block = static_cast<cv_aggr_block *>(codec::mem_alloc(mem, sizeof(cv_aggr_block), true));
    if (block == nullptr || count == 0) return block;
    block->entries = static_cast<void **>(codec::mem_alloc(
        mem, static_cast<size_t>(entry_array_capacity(count)) * sizeof(void *), true));
    if (block->entries != nullptr) return block;
    codec::mem_free(mem, block);
    return nullptr;
}

// Frees what a failed decode or copy made, when it came from the heap.
void drop_block(uint32_t type_word, cv_aggr_block *block, codec::arena *mem) {
    if (mem == nullptr) free_block(type_word, block);
}

// Decodes an aggregate body (device header, entry count, entries) from the
// TLV's value bytes.
int32_t read_aggregate(uint32_t type_word, reader &r, cv_aggr_block **out) {
    *out = nullptr;
    const uint32_t type = type_of(type_word);
    const bool combo = cv_is_combo_tlv(type_word) != 0;
    cv_device_header dh;
    uint32_t count = 0;
    int32_t st = codec::deviceheader_codec::read(r, &dh);
    if (st != kOk) return st;
    st = codec::read_int(r, &count);
    // Every entry takes at least its 4-byte id: a count beyond that cannot
    // be genuine, and must not size an allocation.
    if (st == kOk && count > r.left / 4) st = kShort;
    cv_aggr_block *block = st == kOk ? new_block(count, r.mem) : nullptr;
    if (block == nullptr) {
        if (r.mem == nullptr) om_free_deviceheader(&dh);
        return st != kOk ? st : kNoMemory;
    }
    block->dh = dh;
    for (uint32_t i = 0; st == kOk && i < count; ++i) {
        void *e = codec::mem_alloc(r.mem, entry_size(combo), true);
        if (e == nullptr) {
            st = kNoMemory;
            break;
        }
        block->entries[i] = e;
        block->count = i + 1;
        entry_view v = view(combo, e);
        uint32_t unused = 0;
        st = codec::read_int(r, v.id);
        if (st == kOk && v.hdr != nullptr) st = codec::usage_cmn_hdr_codec::read(r, v.hdr);
        if (st == kOk)
            st = read_value(type, r, 0, true, v.value, v.len != nullptr ? v.len : &unused);
    }
    if (st != kOk) {
        drop_block(type_word, block, r.mem);
        return st;
    }
    *out = block;
    return kOk;
}

void *clone_entry(uint32_t type_word, const void *entry, int32_t *status, codec::arena *mem) {
    *status = kOk;
    if (entry == nullptr) return nullptr;
    const bool combo = cv_is_combo_tlv(type_word) != 0;
    void *copy = codec::mem_alloc(mem, entry_size(combo), true);
    if (copy == nullptr) {
        *status = kNoMemory;
        return nullptr;
    }
    const entry_view s = view(combo, entry), c = view(combo, copy);
    *c.id = *s.id;
    if (c.len != nullptr) *c.len = *s.len;
    if (c.hdr != nullptr && !codec::usage_cmn_hdr_codec::copy(c.hdr, *s.hdr, mem))
        *status = kNoMemory;
    if (*status == kOk)
        *c.value = clone_value(type_of(type_word), *s.value, s.stored_len(), status, mem);
    if (*status != kOk) {
        if (c.hdr != nullptr && mem == nullptr) om_free_usage_cmn_hdr(c.hdr);
        codec::mem_free(mem, copy);
        *status = kNoMemory;
        return nullptr;
    }
    return copy;
}

cv_aggr_block *clone_block(uint32_t type_word, const cv_aggr_block *src, int32_t *status,
                           codec::arena *mem) {
    *status = kOk;
    if (src == nullptr) return nullptr;
    const uint32_t count = src->entries != nullptr ? src->count : 0;
    cv_aggr_block *copy = new_block(count, mem);
    if (copy != nullptr) {
        memcpy(copy->dh.id, src->dh.id, CV_CORVANE_ID_SIZE);
        if (src->dh.blob != nullptr)
            copy->dh.blob = codec::copy_block(src->dh.blob, src->dh.blob_len, 0, status, mem);
        copy->dh.blob_len = *status == kOk ? src->dh.blob_len : 0;
    }
    if (copy == nullptr || *status != kOk) {
        drop_block(type_word, copy, mem);
        *status = kNoMemory;
        return nullptr;
    }
    for (uint32_t i = 0; i < count; ++i) {
        copy->entries[i] = clone_entry(type_word, src->entries[i], status, mem);
        copy->count = i + 1;
        if (*status != kOk) {
            drop_block(type_word, copy, mem);
            *status = kNoMemory;
            return nullptr;
        }
    }
    copy->count = src->count;
    return copy;
}

}  // namespace

void free_aggr_entry(uint32_t type_word, void *entry) {
    if (entry == nullptr) return;
    const entry_view v = view(cv_is_combo_tlv(type_word) != 0, entry);
    if (v.hdr != nullptr) om_free_usage_cmn_hdr(v.hdr);
    free_value(type_of(type_word), *v.value);
    free(entry);
}

int32_t write_tlv(const cv_tlv *tlv, uint8_t *dst, uint32_t size) {
    uint32_t n = put_be(dst, tlv->type);
    n += put_be(dst + n, size);
    // The result is the byte count of the last field written.
    uint32_t last = put_be(dst + n, tlv->qualifier);
    n += last;
    const uint32_t type = type_of(tlv->type);

    if (!is_aggregate(tlv->type)) {
        if (tlv->value == nullptr && tlv->length == CV_TLV_HEADER_SIZE)
            return static_cast<int32_t>(last);
        uint32_t w = pack_value(type, dst + n, tlv->value, plain_len(tlv), false);
        return static_cast<int32_t>(w != 0 ? w : last);
    }

    const cv_aggr_block *block = static_cast<const cv_aggr_block *>(tlv->value);
    if (block == nullptr) return static_cast<int32_t>(last);
    const bool combo = cv_is_combo_tlv(tlv->type) != 0;
    // The count written is the number of entries written, so that the
    // output always parses.
    uint32_t present = 0;
    for (uint32_t i = 0; block->entries != nullptr && i < block->count; ++i)
        if (block->entries[i] != nullptr) ++present;
    n += om_pack_deviceheader(dst + n, &block->dh);
    last = put_be(dst + n, present);
    n += last;
    for (uint32_t i = 0; present != 0 && i < block->count; ++i) {
        if (block->entries[i] == nullptr) continue;
        const entry_view e = view(combo, block->entries[i]);
        last = put_be(dst + n, *e.id);
        n += last;
        if (e.hdr != nullptr) {
            last = om_pack_usage_cmn_hdr(dst + n, e.hdr);
            n += last;
        }
        uint32_t w = pack_value(type, dst + n, *e.value, e.stored_len(), true);
        n += w;
        if (w != 0) last = w;
    }
    return static_cast<int32_t>(last);
}

}  // namespace omsdk

using omsdk::codec::clamp32;

OMSDK_API int32_t cv_is_combo_tlv(uint32_t type_word) {
    uint32_t type = type_word & ~CV_TLV_AGGREGATE_FLAG;
    return (type == 43 || type == 44 || type == 45) ? 1 : 0;
}

OMSDK_API uint32_t om_get_tlv_size(const cv_tlv *tlv) {
    if (tlv == nullptr) return 0;
    const uint32_t type = omsdk::type_of(tlv->type);
    if (!omsdk::is_aggregate(tlv->type)) {
        if (tlv->value == nullptr && tlv->length == CV_TLV_HEADER_SIZE) return CV_TLV_HEADER_SIZE;
        return clamp32(CV_TLV_HEADER_SIZE +
                       omsdk::value_wire_size(type, tlv->value, omsdk::plain_len(tlv), false));
    }
    const cv_aggr_block *block = static_cast<const cv_aggr_block *>(tlv->value);
    if (block == nullptr) return CV_TLV_HEADER_SIZE;
    uint64_t size = CV_TLV_HEADER_SIZE + 4u + om_get_deviceheader_size(&block->dh);
    const bool combo = cv_is_combo_tlv(tlv->type) != 0;
    for (uint32_t i = 0; block->entries != nullptr && i < block->count; ++i) {
        if (block->entries[i] == nullptr) continue;
        const omsdk::entry_view e = omsdk::view(combo, block->entries[i]);
        size += 4u + (e.hdr != nullptr ? om_get_usage_cmn_hdr_size(e.hdr) : 0u);
        size += omsdk::value_wire_size(type, *e.value, e.stored_len(), true);
        if (size > UINT32_MAX) break;
    }
    return clamp32(size);
}

namespace omsdk {

void *clone_tlv_value(uint32_t type_word, uint32_t value_length, const void *value, int32_t *status,
                      codec::arena *mem) {
    int32_t st = codec::kOk;
    void *copy = is_aggregate(type_word)
                     ? clone_block(type_word, static_cast<const cv_aggr_block *>(value), &st, mem)
                     : clone_value(type_of(type_word), value, value_length, &st, mem);
    codec::set_status(status, st);
    return copy;
}

cv_tlv *decode_tlv(int32_t *remaining, uint8_t **cursor, codec::arena *mem, bool views) {
    if (remaining == nullptr || cursor == nullptr || *cursor == nullptr) return nullptr;
    if (*remaining < CV_TLV_HEADER_SIZE) return nullptr;  // not even a header left
    const uint8_t *at = *cursor;
    const uint32_t type_word = get_be<uint32_t>(at);
    const uint32_t length = get_be<uint32_t>(at + 4);
    // A length below the header's own size is malformed; one beyond the
    // payload is a truncated message.
    if (length < CV_TLV_HEADER_SIZE || length > static_cast<uint32_t>(*remaining)) return nullptr;

    cv_tlv *tlv = codec::new_tlv(mem);
    if (tlv == nullptr) return nullptr;
    tlv->type = type_word;
    tlv->length = length;
    tlv->qualifier = get_be<uint32_t>(at + 8);

    const uint32_t value_len = length - CV_TLV_HEADER_SIZE;
    const uint32_t type = type_of(type_word);
    if (value_len != 0) {
        if (!is_known_type(type)) {
            OM_TRACE("Skipping unknown TLV, type = %d", static_cast<int>(type));
        } else {
            // The value is decoded from its own bytes only, never from the
            // TLV that follows.
            codec::reader r(at + CV_TLV_HEADER_SIZE, value_len);
            r.mem = mem;
            r.views = views;
            int32_t st;
            if (is_aggregate(type_word)) {
                cv_aggr_block *block = nullptr;
                st = read_aggregate(type_word, r, &block);
                tlv->value = block;
            } else {
                uint32_t stored = 0;
                st = read_value(type, r, value_len, false, &tlv->value, &stored);
                // A text gains its NUL in memory; the stored length says so.
                if (st == codec::kOk && type_ops(type).cls == value_class::string)
                    tlv->length = value_len + CV_TLV_HEADER_SIZE + 1;
            }
            if (st == codec::kOk && r.left != 0) {
                OM_ERROR("Received mismatched TLV for type %d, dropping packet",
                         static_cast<int>(type));
                st = codec::kShort;
            }
            if (st != codec::kOk) {
                om_free_tlv_ptr(tlv);  // nothing to do for one from an arena
                return nullptr;
            }
        }
    }
    *cursor += length;
    *remaining -= static_cast<int32_t>(length);
    return tlv;
}

}  // namespace omsdk

OMSDK_API void *om_clone_tlv_ptr(uint32_t type_word, uint32_t value_length, const void *value,
                                 int32_t *status) {
    return omsdk::clone_tlv_value(type_word, value_length, value, status, nullptr);
}

OMSDK_API void om_free_tlv_ptr(cv_tlv *tlv) {
    // A TLV from an event's arena goes with its event.
    if (tlv == nullptr || omsdk::codec::tlv_in_arena(tlv)) return;
    if (omsdk::is_aggregate(tlv->type))
        omsdk::free_block(tlv->type, static_cast<cv_aggr_block *>(tlv->value));
    else
        omsdk::free_value(omsdk::type_of(tlv->type), tlv->value);
    free(tlv);
}

OMSDK_API cv_tlv *cv_create_tlv_from_raw_buf(int32_t *remaining, uint8_t **cursor) {
    return omsdk::decode_tlv(remaining, cursor, nullptr, false);
}

OMSDK_API int32_t cv_update_raw_buf_from_tlv(const cv_tlv *tlv, uint8_t *dst) {
    if (tlv == nullptr || dst == nullptr) return 0;
    return omsdk::write_tlv(tlv, dst, om_get_tlv_size(tlv));
}
