// SPDX-License-Identifier: Apache-2.0
// Aggregate TLVs: per-device blocks of entries, one value per entity.
#include <omsdk/aggregate.h>

#include <stdlib.h>
#include <string.h>

#include <omsdk/codec.h>
#include <omsdk/enums.h>

#include "codec/tlv_table.h"
#include "common/api.h"
#include "corvane_util/event_internal.h"

namespace {

using omsdk::codec::arena;

constexpr uint32_t kEntryStep = 16;
constexpr uint32_t kNewAggrLength = 60;  // 12-byte header + the block as first sized
constexpr uint32_t kAckType = 42;

// Entries of an aggregate TLV carved from its event's arena come from
// there too; those of a heap TLV from the heap.
arena *entry_mem(const cv_event *ev, const cv_tlv *tlv) {
    if (!omsdk::codec::tlv_in_arena(tlv)) return nullptr;
    omsdk::event_store *st = omsdk::store_of(ev);
    return st != nullptr ? &st->mem : nullptr;
}

void *copy_bytes(const void *value, size_t n, arena *mem) {
    void *p = omsdk::codec::mem_alloc(mem, n, false);
    if (p != nullptr) memcpy(p, value, n);
    return p;
}

// Frees an entry that did not make it into its block, when on the heap.
void drop_entry(uint32_t type, void *entry, arena *mem) {
    if (mem == nullptr) omsdk::free_aggr_entry(type, entry);
}

// Appends an entry, growing the array in steps of 16; 0 or 1 (no memory).
int32_t append_entry(cv_tlv *tlv, void *entry, arena *mem) {
    auto *block = static_cast<cv_aggr_block *>(tlv->value);
    if (block->count % kEntryStep == 0) {
        size_t slots = static_cast<size_t>(block->count / kEntryStep + 1) * kEntryStep;
        void **grown;
        if (mem != nullptr) {
            grown = static_cast<void **>(mem->alloc(slots * sizeof(void *), false));
            if (grown != nullptr && block->count != 0)
                memcpy(grown, block->entries, block->count * sizeof(void *));
        } else {
            grown = static_cast<void **>(realloc(block->entries, slots * sizeof(void *)));
        }
        if (grown == nullptr) return CV_RUNTIME_ERROR_NO_MEMORY;
        block->entries = grown;
    }
    block->entries[block->count++] = entry;
    return 0;
}

// Fill an entry with a copy of the value from `mem`; 1 on success, 0 when
// the type is not supported or memory runs out (nothing left on the heap).
int32_t populate_aggr(cv_aggr_entry *entry, uint32_t type, const void *value, uint32_t entry_id,
                      arena *mem) {
    if (entry == nullptr) return 0;
    entry->id = entry_id;
    if (value == nullptr) return 0;
    size_t n;
    switch (type & ~CV_TLV_AGGREGATE_FLAG) {
    case CV_CORVANE_TLV_TYPE_ROLE:
    case CV_CORVANE_TLV_TYPE_NAME:
    case CV_CORVANE_TLV_TYPE_DEVICE_TYPE:
    case CV_CORVANE_TLV_TYPE_KEYWORDS: {
        const char *text = static_cast<const char *>(value);
        char *copy = nullptr;
        if (!omsdk::codec::dup_text(text, &copy, mem)) return 0;
        entry->value = copy;
        // Keyword lists travel with their terminator, the other texts without.
        size_t len =
            strlen(text) + ((type & ~CV_TLV_AGGREGATE_FLAG) == CV_CORVANE_TLV_TYPE_KEYWORDS);
        entry->len = static_cast<uint32_t>(len);
        return 1;
    }
    case CV_CORVANE_TLV_TYPE_UNITS:
    case CV_CORVANE_TLV_TYPE_LEVEL_CURRENT:
    case CV_CORVANE_TLV_TYPE_IMPORTANCE:
    case CV_CORVANE_TLV_TYPE_IMPORTANCE_I: n = 1; break;
    case CV_CORVANE_TLV_TYPE_USAGE: n = 2; break;
    case CV_CORVANE_TLV_TYPE_USAGE_CALIBER:
    case CV_CORVANE_TLV_TYPE_USAGE_CATEGORY: n = 4; break;
    case CV_CORVANE_TLV_TYPE_USAGE_VECTOR: n = sizeof(cv_usage_vector); break;
    case CV_CORVANE_TLV_TYPE_DELTA_VECTOR: n = sizeof(cv_delta_vector); break;
    default: return 0;
    }
    entry->value = copy_bytes(value, n, mem);
    if (entry->value == nullptr) return 0;
    entry->len = static_cast<uint32_t>(n);
    return 1;
}

OMSDK_COLD int32_t populate_combo(cv_combo_entry *entry, uint32_t type, const void *value,
                                  uint32_t entry_id, const cv_usage_cmn_hdr *usage, arena *mem) {
    if (entry == nullptr) return 0;
    entry->id = entry_id;
    if (usage == nullptr || !omsdk::codec::usage_cmn_hdr_codec::copy(&entry->hdr, *usage, mem))
        return 0;
    size_t n = 0;
    switch (type & ~CV_TLV_AGGREGATE_FLAG) {
    case CV_CORVANE_TLV_TYPE_USAGE_REPORT: n = 2; break;
    case CV_CORVANE_TLV_TYPE_USAGE_VECTOR_REPORT: n = sizeof(cv_usage_vector); break;
    case CV_CORVANE_TLV_TYPE_DELTA_VECTOR_REPORT: n = sizeof(cv_delta_vector); break;
    default: break;
    }
    entry->value = n != 0 && value != nullptr ? copy_bytes(value, n, mem) : nullptr;
    if (entry->value == nullptr) {
        if (mem == nullptr) om_free_usage_cmn_hdr(&entry->hdr);
        memset(&entry->hdr, 0, sizeof entry->hdr);
        return 0;
    }
    return 1;
}

}  // namespace

OMSDK_API cv_tlv *om_create_aggr_tlv(cv_event *ev, uint32_t type_word, const cv_device_header *dh) {
    if (ev == nullptr || ev->pak == nullptr || dh == nullptr) return nullptr;
    cv_aggr_block block;
    memset(&block, 0, sizeof block);
    block.dh = *dh;  // the clone below copies the blob
    if (cv_add_tlv_bytes(ev, type_word | CV_TLV_AGGREGATE_FLAG, kNewAggrLength,
                         reinterpret_cast<const uint8_t *>(&block)) != 0)
        return nullptr;
    return ev->tlvs[ev->pak->tlv_count - 1];
}

OMSDK_API cv_tlv *cv_get_next_tlv_by_dh(cv_event *ev, uint32_t type, const cv_device_header *dh,
                                        uint8_t create) {
    if (ev == nullptr || !ev->ready || ev->pak == nullptr) return nullptr;
    const uint32_t word = type | CV_TLV_AGGREGATE_FLAG;
    if (dh != nullptr && ev->tlvs != nullptr) {
        int32_t n = ev->pak->tlv_count < ev->tlv_capacity ? ev->pak->tlv_count : ev->tlv_capacity;
        for (int32_t i = 0; i < n; ++i) {
            cv_tlv *t = ev->tlvs[i];
            if (t == nullptr || t->type != word || t->value == nullptr) continue;
            if (corvane_id_cmp(static_cast<cv_aggr_block *>(t->value)->dh.id, dh->id) == 0)
                return t;
        }
    }
    if (create == 0 || dh == nullptr) return nullptr;
    return om_create_aggr_tlv(ev, type, dh);
}

OMSDK_API int32_t cv_add_aggr_type_tlv(cv_event *ev, uint32_t type, const void *value,
                                       uint32_t entry_id, const cv_device_header *dh,
                                       const cv_usage_cmn_hdr *usage) {
    cv_tlv *tlv = cv_get_next_tlv_by_dh(ev, type, dh, 1);
    if (tlv == nullptr) return 0;
    arena *mem = entry_mem(ev, tlv);

    if (cv_is_combo_tlv(type)) {
        auto *entry = static_cast<cv_combo_entry *>(
            omsdk::codec::mem_alloc(mem, sizeof(cv_combo_entry), true));
        if (entry == nullptr) return CV_RUNTIME_ERROR_NO_MEMORY;
        if (populate_combo(entry, type, value, entry_id, usage, mem) != 1) {
            omsdk::codec::mem_free(mem, entry);
            return CV_RUNTIME_ERROR_NO_MEMORY;
        }
        if (append_entry(tlv, entry, mem) != 0) {
            drop_entry(type, entry, mem);
            return CV_RUNTIME_ERROR_NO_MEMORY;
        }
        return 0;
    }
    auto *entry =
        static_cast<cv_aggr_entry *>(omsdk::codec::mem_alloc(mem, sizeof(cv_aggr_entry), true));
    if (entry == nullptr) return CV_RUNTIME_ERROR_NO_MEMORY;
    if (populate_aggr(entry, type, value, entry_id, mem) != 1 ||
        append_entry(tlv, entry, mem) != 0) {
        drop_entry(type, entry, mem);
        return CV_RUNTIME_ERROR_NO_MEMORY;
    }
    return 0;
}

OMSDK_API int32_t cv_aggr_ack(cv_event *ev, uint32_t entry_id, const cv_device_header *dh) {
    cv_tlv *tlv = cv_get_next_tlv_by_dh(ev, kAckType, dh, 1);
    if (tlv == nullptr) return 0;
    arena *mem = entry_mem(ev, tlv);
    auto *entry =
        static_cast<cv_aggr_entry *>(omsdk::codec::mem_alloc(mem, sizeof(cv_aggr_entry), true));
    if (entry == nullptr) return CV_RUNTIME_ERROR_NO_MEMORY;
    entry->id = entry_id;
    if (append_entry(tlv, entry, mem) != 0) {
        omsdk::codec::mem_free(mem, entry);
        return CV_RUNTIME_ERROR_NO_MEMORY;
    }
    return 0;
}

OMSDK_API int32_t cv_populate_aggr_tlv_data(cv_aggr_entry *entry, uint32_t type, const void *value,
                                            uint32_t entry_id) {
    return populate_aggr(entry, type, value, entry_id, nullptr);
}

OMSDK_API int32_t cv_populate_combo_tlv_data(cv_combo_entry *entry, uint32_t type,
                                             const void *value, uint32_t entry_id,
                                             const cv_usage_cmn_hdr *usage) {
    return populate_combo(entry, type, value, entry_id, usage, nullptr);
}
