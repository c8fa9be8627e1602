// One TLV between its wire form and its in-memory cv_tlv.
//
// Received bytes are untrusted: every read is bounded by the bytes left in
// the payload and by the TLV's own length, and nothing is allocated before
// the bytes that justify it have been seen.
#include <stdlib.h>

#include <omsdk/codec.h>

#include "codec/codec_impl.h"
#include "codec/tlv_table.h"
#include "common/api.h"
#include "diag/log.h"

namespace {

using omsdk::codec::kNoMemory;
using omsdk::codec::kOk;
using omsdk::codec::kShort;
using omsdk::codec::reader;

// Decodes an aggregate body (device header, entry count, entries) from the
// TLV's value bytes.
int32_t read_aggregate(uint32_t type_word, reader &r, cv_aggr_block **out) {
    *out = nullptr;
    uint32_t type = type_word & CV_TLV_TYPE_MASK;
    bool combo = cv_is_combo_tlv(type_word) != 0;
    cv_aggr_block *block = static_cast<cv_aggr_block *>(calloc(1, sizeof *block));
    if (block == nullptr) return kNoMemory;
    uint32_t count = 0;
    int32_t st = omsdk::codec::read_deviceheader(r, &block->dh);
    if (st == kOk) st = omsdk::codec::read_int(r, &count);
    // Every entry takes at least its 4-byte id: a count beyond that cannot
    // be genuine, and must not size an allocation.
    if (st == kOk && count > r.left / 4) st = kShort;
    if (st == kOk && count != 0) {
        block->entries = static_cast<void **>(
            calloc(static_cast<size_t>(omsdk::entry_array_capacity(count)), sizeof(void *)));
        if (block->entries == nullptr) st = kNoMemory;
    }
    if (st == kOk) block->count = count;
    for (uint32_t i = 0; st == kOk && i < count; ++i) {
        uint32_t len = 0;
        if (combo) {
            cv_combo_entry *e = static_cast<cv_combo_entry *>(calloc(1, sizeof *e));
            if (e == nullptr) {
                st = kNoMemory;
                break;
            }
            block->entries[i] = e;
            st = omsdk::codec::read_int(r, &e->id);
            if (st == kOk) st = omsdk::codec::read_usage_cmn_hdr(r, &e->hdr);
            if (st == kOk) st = omsdk::read_value(type, r, 0, true, &e->value, &len);
        } else {
            cv_aggr_entry *e = static_cast<cv_aggr_entry *>(calloc(1, sizeof *e));
            if (e == nullptr) {
                st = kNoMemory;
                break;
            }
            block->entries[i] = e;
            st = omsdk::codec::read_int(r, &e->id);
            if (st == kOk) st = omsdk::read_value(type, r, 0, true, &e->value, &e->len);
        }
    }
    if (st != kOk) {
        omsdk::free_aggr_block(type_word, block);
        return st;
    }
    *out = block;
    return kOk;
}

}  // namespace

OMSDK_API int32_t cv_is_combo_tlv(uint32_t type_word) {
    uint32_t type = type_word & ~CV_TLV_AGGREGATE_FLAG;
    return (type == 43 || type == 44 || type == 45) ? 1 : 0;
}

OMSDK_API cv_tlv *cv_create_tlv_from_raw_buf(int32_t *remaining, uint8_t **cursor) {
    if (remaining == nullptr || cursor == nullptr || *cursor == nullptr) return nullptr;
    if (*remaining < CV_TLV_HEADER_SIZE) return nullptr;  // not even a header left
    const uint8_t *at = *cursor;
    uint32_t type_word = omsdk::codec::get_be<uint32_t>(at);
    uint32_t length = omsdk::codec::get_be<uint32_t>(at + 4);
    uint32_t qualifier = omsdk::codec::get_be<uint32_t>(at + 8);
    // A length below the header's own size is malformed; one beyond the
    // payload is a truncated message.
    if (length < CV_TLV_HEADER_SIZE || length > static_cast<uint32_t>(*remaining)) return nullptr;

    cv_tlv *tlv = static_cast<cv_tlv *>(malloc(sizeof *tlv));  // every field is set
    if (tlv == nullptr) return nullptr;
    tlv->type = type_word;
    tlv->length = length;
    tlv->qualifier = qualifier;
    tlv->value = nullptr;

    uint32_t value_len = length - CV_TLV_HEADER_SIZE;
    uint32_t type = type_word & CV_TLV_TYPE_MASK;
    if (value_len != 0) {
        if (omsdk::tlv_type(type).kind == omsdk::codec_kind::unknown) {
            OM_TRACE("Skipping unknown TLV, type = %d", static_cast<int>(type));
        } else {
            // The value is decoded from its own bytes only, never from the
            // TLV that follows.
            reader r(at + CV_TLV_HEADER_SIZE, value_len);
            int32_t st;
            if (type_word & CV_TLV_AGGREGATE_FLAG) {
                cv_aggr_block *block = nullptr;
                st = read_aggregate(type_word, r, &block);
                tlv->value = block;
            } else {
                uint32_t stored = 0;
                st = omsdk::read_value(type, r, value_len, false, &tlv->value, &stored);
                // A text gains its NUL in memory; the stored length says so.
                if (st == kOk && omsdk::tlv_type(type).cls == omsdk::value_class::string)
                    tlv->length = value_len + CV_TLV_HEADER_SIZE + 1;
            }
            if (st != kOk) {
                om_free_tlv_ptr(tlv);
                return nullptr;
            }
            if (r.left != 0) {
                OM_ERROR("Received mismatched TLV for type %d, dropping packet",
                         static_cast<int>(type));
                om_free_tlv_ptr(tlv);
                return nullptr;
            }
        }
    }
    *cursor += length;
    *remaining -= static_cast<int32_t>(length);
    return tlv;
}

OMSDK_API int32_t cv_update_raw_buf_from_tlv(const cv_tlv *tlv, uint8_t *dst) {
    if (tlv == nullptr || dst == nullptr) return 0;
    return omsdk::write_tlv(tlv, dst, om_get_tlv_size(tlv));
}

int32_t omsdk::write_tlv(const cv_tlv *tlv, uint8_t *dst, uint32_t size) {
    using omsdk::codec::put_be;
    uint32_t n = put_be(dst, tlv->type);
    n += put_be(dst + n, size);
    uint32_t last = put_be(dst + n, tlv->qualifier);
    n += last;
    uint32_t type = tlv->type & CV_TLV_TYPE_MASK;

    if ((tlv->type & CV_TLV_AGGREGATE_FLAG) == 0) {
        if (tlv->value == nullptr && tlv->length == CV_TLV_HEADER_SIZE) return static_cast<int32_t>(last);
        uint32_t len = tlv->length > CV_TLV_HEADER_SIZE ? tlv->length - CV_TLV_HEADER_SIZE : 0;
        uint32_t w = omsdk::pack_value(type, dst + n, tlv->value, len, false);
        return static_cast<int32_t>(w != 0 ? w : last);
    }

    const cv_aggr_block *block = static_cast<const cv_aggr_block *>(tlv->value);
    if (block == nullptr) return static_cast<int32_t>(last);
    bool combo = cv_is_combo_tlv(tlv->type) != 0;
    // The count written is the number of entries written, so that the
    // output always parses.
    uint32_t present = 0;
    for (uint32_t i = 0; block->entries != nullptr && i < block->count; ++i)
        if (block->entries[i] != nullptr) ++present;
    n += om_pack_deviceheader(dst + n, &block->dh);
    last = put_be(dst + n, present);
    n += last;
    for (uint32_t i = 0; present != 0 && i < block->count; ++i) {
        const void *e = block->entries[i];
        if (e == nullptr) continue;
        uint32_t w;
        if (combo) {
            const cv_combo_entry *ce = static_cast<const cv_combo_entry *>(e);
            n += put_be(dst + n, ce->id);
            last = om_pack_usage_cmn_hdr(dst + n, &ce->hdr);
            n += last;
            w = omsdk::pack_value(type, dst + n, ce->value, 0, true);
        } else {
            const cv_aggr_entry *pe = static_cast<const cv_aggr_entry *>(e);
            last = put_be(dst + n, pe->id);
            n += last;
            w = omsdk::pack_value(type, dst + n, pe->value, pe->len, true);
        }
        n += w;
        if (w != 0) last = w;
    }
    return static_cast<int32_t>(last);
}
