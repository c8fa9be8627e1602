// SPDX-License-Identifier: Apache-2.0
// Protocol events in memory: TLV lists, packing, unpacking, freeing.
#include <omsdk/event.h>

#include <stdlib.h>
#include <string.h>

#include <omsdk/codec.h>
#include <omsdk/enums.h>
#include <omsdk/pdu.h>

#include "codec/tlv_table.h"
#include "common/api.h"
#include "corvane_util/event_internal.h"
#include "diag/log.h"
#include "codec/byte_order.h"

namespace {

constexpr int32_t kGrowStep = 16;
constexpr uint32_t kMinPacket = 60;  // security and event headers; the digest comes on top
// Arena bytes inside a store made by the exported calls: room for a typical
// message's TLVs, so that most need no chunk of their own.
constexpr size_t kHeapInline = 1024;

// A store is recognised by a mark in the 4 bytes the record's layout leaves
// unused after raw_len; it depends on the record's address, so a copy of the
// record elsewhere is not taken for a store.
static_assert(offsetof(cv_event, raw_len) + sizeof(uint32_t) + 4 == offsetof(cv_event, body),
              "the event record has 4 spare bytes after raw_len");
constexpr size_t kMarkAt = offsetof(cv_event, raw_len) + sizeof(uint32_t);

uint32_t mark_for(const cv_event *ev) {
    const auto at = reinterpret_cast<uintptr_t>(ev);
    return static_cast<uint32_t>((at >> 3) ^ (at >> 35)) ^ 0xE7E5702Eu;
}

void set_mark(cv_event *ev, uint32_t mark) {
    memcpy(reinterpret_cast<uint8_t *>(ev) + kMarkAt, &mark, sizeof mark);
}

// Memory for the event's TLVs and values: its arena, or the heap.
omsdk::codec::arena *mem_of(const cv_event *ev) {
    omsdk::event_store *st = omsdk::store_of(ev);
    return st != nullptr ? &st->mem : nullptr;
}

bool heap_headers(const omsdk::event_store *st) {
    return st == nullptr || (st->own & omsdk::kHeapHeaders) != 0;
}

cv_event_hdr *new_pak(cv_event *ev) {
    omsdk::event_store *st = omsdk::store_of(ev);
    if (heap_headers(st)) return static_cast<cv_event_hdr *>(malloc(sizeof(cv_event_hdr)));
    return &st->pak_slot;
}

cv_sec_hdr *new_sec(cv_event *ev) {
    omsdk::event_store *st = omsdk::store_of(ev);
    if (heap_headers(st)) return static_cast<cv_sec_hdr *>(malloc(sizeof(cv_sec_hdr)));
    return &st->sec_slot;
}

// Frees a header unless it is the store's slot.
void free_header(const cv_event *ev, void *hdr) {
    const omsdk::event_store *st = omsdk::store_of(ev);
    if (st == nullptr || (hdr != &st->pak_slot && hdr != &st->sec_slot)) free(hdr);
}

// Entries of the TLV array that may hold TLVs.
int32_t used_slots(const cv_event *ev) {
    int32_t n = ev->pak->tlv_count;
    return n < ev->tlv_capacity ? n : ev->tlv_capacity;
}

// An array of `n` TLV pointers, zeroed.
cv_tlv **new_tlv_array(cv_event *ev, size_t n) {
    return static_cast<cv_tlv **>(omsdk::codec::mem_alloc(mem_of(ev), n * sizeof(cv_tlv *), true));
}

void free_tlv_array(cv_event *ev) {
    for (int32_t i = 0; ev->tlvs != nullptr && i < ev->tlv_capacity; ++i)
        if (ev->tlvs[i] != nullptr) om_free_tlv_ptr(ev->tlvs[i]);
    omsdk::event_store *st = omsdk::store_of(ev);
    omsdk::codec::mem_free(st != nullptr ? &st->mem : nullptr, ev->tlvs);
    ev->tlvs = nullptr;
    ev->tlv_capacity = 0;
    if (ev->pak != nullptr) ev->pak->tlv_count = 0;
    // With the TLVs gone the arena holds nothing but, perhaps, raw bytes.
    if (st != nullptr && (ev->raw == nullptr || !st->raw_in_arena)) st->mem.release();
}

void drop_raw(cv_event *ev) {
    omsdk::event_store *st = omsdk::store_of(ev);
    if (st == nullptr || (st->own & omsdk::kHeapRaw) != 0) free(ev->raw);
    if (st != nullptr) st->raw_in_arena = false;
    ev->raw = nullptr;
    ev->body = nullptr;
    ev->raw_len = 0;
    ev->raw_present = 0;
}

// Frees the raw bytes and both headers; the TLVs stay.
void drop_data(cv_event *ev) {
    drop_raw(ev);
    free_header(ev, ev->pak);
    ev->pak = nullptr;
    free_header(ev, ev->sec);
    ev->sec = nullptr;
    ev->ready = 0;
}

// The one way an event is emptied before the record itself is freed.
// `trace_raw` keeps the trace line of cv_free_data for the callers whose
// release has always written it.
void release_contents(cv_event *ev, bool trace_raw) {
    free_tlv_array(ev);
    if (trace_raw)
        cv_free_data(ev);
    else
        drop_data(ev);
}

// Frees the record, with its store's chunks; a store that lives elsewhere
// (the engine's) is only emptied.
void free_record(cv_event *ev) {
    omsdk::event_store *st = omsdk::store_of(ev);
    if (st == nullptr) {
        free(ev);
        return;
    }
    st->mem.release();
    if ((st->own & omsdk::kHeapRecord) != 0) {
        set_mark(ev, ~mark_for(ev));
        free(st);
    }
}

// Undoes a failed unpack so that only the raw bytes remain.
int32_t unpack_failed(cv_event *ev) {
    omsdk::codec::mem_free(mem_of(ev), ev->tlvs);
    ev->tlvs = nullptr;
    ev->tlv_capacity = 0;
    free_header(ev, ev->pak);
    ev->pak = nullptr;
    free_header(ev, ev->sec);
    ev->sec = nullptr;
    ev->ready = 0;
    ev->state = CV_EVENT_STATE_ERROR;
    return CV_RUNTIME_ERROR_NO_MEMORY;
}

// A store on the heap with the arena bytes behind it; a received event
// gets its header from the unpack.
omsdk::event_store *new_heap_store(bool with_header) {
    auto *st = static_cast<omsdk::event_store *>(malloc(sizeof(omsdk::event_store) + kHeapInline));
    if (st == nullptr) return nullptr;
    if (omsdk::store_init(st, reinterpret_cast<uint8_t *>(st + 1), kHeapInline,
                          omsdk::kHeapRecord | omsdk::kHeapHeaders | omsdk::kHeapRaw, with_header))
        return st;
    free(st);
    return nullptr;
}

}  // namespace

namespace omsdk {

static_assert(offsetof(event_store, ev) == 0, "the record starts its store");
static_assert(sizeof(event_store) % 8 == 0, "arena bytes behind a store stay aligned");

event_store *store_of(const cv_event *ev) {
    if (ev == nullptr) return nullptr;
    uint32_t mark;
    memcpy(&mark, reinterpret_cast<const uint8_t *>(ev) + kMarkAt, sizeof mark);
    if (mark != mark_for(ev)) return nullptr;
    return reinterpret_cast<event_store *>(const_cast<cv_event *>(ev));
}

bool store_init(event_store *st, uint8_t *first, size_t size, uint8_t own, bool with_header) {
    memset(&st->ev, 0, sizeof st->ev);
    st->mem.init(first, size);
    st->own = own;
    st->raw_in_arena = false;
    memset(&st->pak_slot, 0, sizeof st->pak_slot);
    memset(&st->sec_slot, 0, sizeof st->sec_slot);
    cv_event *ev = &st->ev;
    set_mark(ev, mark_for(ev));
    ev->state = CV_EVENT_STATE_OK;
    if (!with_header) return true;
    ev->pak = (own & kHeapHeaders) != 0
                  ? static_cast<cv_event_hdr *>(calloc(1, sizeof(cv_event_hdr)))
                  : &st->pak_slot;
    if (ev->pak == nullptr) return false;
    cv_set_common_hdr(ev);
    return true;
}

uint8_t *event_alloc_raw(cv_event *ev, size_t n) {
    event_store *st = store_of(ev);
    if (st == nullptr || (st->own & kHeapRaw) != 0) return static_cast<uint8_t *>(calloc(1, n));
    auto *raw = static_cast<uint8_t *>(st->mem.alloc(n, true));
    st->raw_in_arena = raw != nullptr;
    return raw;
}

void event_release_packet(cv_event *ev) {
    if (ev == nullptr) return;
    drop_raw(ev);
    free_record(ev);
}

void event_release(cv_event *ev) {
    if (ev == nullptr) return;
    release_contents(ev, true);
    free_record(ev);
}

}  // namespace omsdk

OMSDK_API cv_event *corvane_create_my_packet(void) {
    omsdk::event_store *st = new_heap_store(true);
    return st != nullptr ? &st->ev : nullptr;
}

OMSDK_API int32_t cv_set_common_hdr(cv_event *ev) {
    if (ev == nullptr || ev->pak == nullptr) return -1;
    ev->pak->type = CV_TYPE_KVQR;
    ev->pak->app = CV_APPLICATION_CORVANE;
    ev->pak->ver = 1;
    ev->ready = 1;
    drop_raw(ev);
    return 0;
}

OMSDK_API int32_t cv_add_tlv(cv_event *ev, uint32_t type, uint32_t length, const void *value) {
    return cv_add_tlv_common(ev, type, length, value, 0);
}

OMSDK_API int32_t cv_add_tlv_bytes(cv_event *ev, uint32_t type, uint32_t length,
                                   const uint8_t *value) {
    return cv_add_tlv_common(ev, type, length, value, 0);
}

OMSDK_API int32_t cv_add_tlv_common(cv_event *ev, uint32_t type, uint32_t length, const void *value,
                                    uint32_t qualifier) {
    if (ev == nullptr || ev->pak == nullptr) return CV_RUNTIME_ERROR_NO_SUCH_DATA;
    if (length < CV_TLV_HEADER_SIZE) return CV_RUNTIME_ERROR_NOT_IN_RANGE;
    if (length > CV_TLV_HEADER_SIZE && value == nullptr) return CV_RUNTIME_ERROR_NO_SUCH_DATA;
    cv_event_hdr *pak = ev->pak;
    if (pak->tlv_count == UINT16_MAX) return CV_RUNTIME_ERROR_OVERFLOW;

    omsdk::codec::arena *mem = mem_of(ev);
    if (pak->tlv_count >= ev->tlv_capacity) {
        int32_t grown_cap = pak->tlv_count + kGrowStep;
        cv_tlv **grown = new_tlv_array(ev, static_cast<size_t>(grown_cap));
        if (grown == nullptr) {
            free_tlv_array(ev);
            return CV_RUNTIME_ERROR_NO_MEMORY;
        }
        if (ev->tlvs != nullptr)
            memcpy(grown, ev->tlvs, static_cast<size_t>(ev->tlv_capacity) * sizeof(cv_tlv *));
        omsdk::codec::mem_free(mem, ev->tlvs);
        ev->tlvs = grown;
        ev->tlv_capacity = grown_cap;
    }

    cv_tlv *tlv = omsdk::codec::new_tlv(mem);
    if (tlv == nullptr) return CV_RUNTIME_ERROR_NO_MEMORY;
    tlv->type = type;
    tlv->length = length;
    tlv->qualifier = qualifier;
    if (length != CV_TLV_HEADER_SIZE) {
        int32_t status = 0;
        tlv->value = omsdk::clone_tlv_value(type, length - CV_TLV_HEADER_SIZE, value, &status, mem);
        if (tlv->value == nullptr && status != 0) {
            omsdk::codec::mem_free(mem, tlv);
            return status;
        }
    }
    ev->tlvs[pak->tlv_count++] = tlv;
    return 0;
}

OMSDK_API cv_tlv *cv_get_next_tlv(const cv_event *ev, uint32_t type) {
    if (ev == nullptr || !ev->ready || ev->pak == nullptr || ev->tlvs == nullptr) return nullptr;
    for (int32_t i = 0, n = used_slots(ev); i < n; ++i)
        if (ev->tlvs[i] != nullptr && ev->tlvs[i]->type == type) return ev->tlvs[i];
    return nullptr;
}

OMSDK_API void *cv_get_next_tlv_value_common(const cv_event *ev, int32_t *index, uint32_t type,
                                             uint32_t *length_out, uint32_t qualifier) {
    if (index == nullptr) return nullptr;
    if (ev != nullptr && ev->ready && ev->pak != nullptr && ev->tlvs != nullptr && *index >= 0) {
        for (int32_t i = *index, n = used_slots(ev); i < n; ++i) {
            const cv_tlv *t = ev->tlvs[i];
            if (t == nullptr || t->type != type || t->qualifier != qualifier) continue;
            *index = i;
            if (length_out != nullptr)
                *length_out = t->length > CV_TLV_HEADER_SIZE ? t->length - CV_TLV_HEADER_SIZE : 0;
            return t->value;
        }
    }
    *index = -1;
    return nullptr;
}

OMSDK_API void *cv_get_tlv_value(const cv_event *ev, int32_t *index, uint32_t type,
                                 uint32_t *length_out) {
    return cv_get_next_tlv_value_common(ev, index, type, length_out, 0);
}

OMSDK_API void *cv_get_next_tlv_value(const cv_event *ev, int32_t *index, uint32_t type,
                                      uint32_t *length_out, uint32_t qualifier) {
    return cv_get_next_tlv_value_common(ev, index, type, length_out, qualifier);
}

OMSDK_API int32_t corvane_id_cmp(const uint8_t *a, const uint8_t *b) {
    for (int i = 0; i < CV_CORVANE_ID_SIZE; ++i)
        if (a[i] != b[i]) return a[i] - b[i];
    return 0;
}

OMSDK_API uint32_t om_get_total_tlvs_data_size(const cv_event *ev) {
    if (ev == nullptr || ev->pak == nullptr || ev->tlvs == nullptr) return 0;
    uint32_t total = 0;
    for (int32_t i = 0, n = used_slots(ev); i < n; ++i)
        if (ev->tlvs[i] != nullptr) total += om_get_tlv_size(ev->tlvs[i]);
    return total;
}

OMSDK_API int32_t cv_pack_event(cv_event *ev, uint32_t *tlv_bytes_out) {
    if (ev == nullptr || ev->pak == nullptr || ev->raw != nullptr)
        return CV_RUNTIME_ERROR_NO_MEMORY;
    uint32_t total = om_get_total_tlvs_data_size(ev);
    if (total > UINT16_MAX) {
        ev->state = CV_EVENT_STATE_ERROR;
        return CV_RUNTIME_ERROR_OVERFLOW;
    }
    ev->pak->tlv_bytes = static_cast<uint16_t>(total);
    if (tlv_bytes_out != nullptr) *tlv_bytes_out = total;
    if (ev->sec == nullptr) {
        ev->sec = new_sec(ev);
        if (ev->sec == nullptr) {
            ev->state = CV_EVENT_STATE_ERROR;
            return CV_RUNTIME_ERROR_NO_MEMORY;
        }
    }
    memset(ev->sec, 0, sizeof(cv_sec_hdr));
    return 0;
}

OMSDK_API int32_t cv_pack_tlvs(cv_event *ev) {
    if (ev == nullptr || ev->pak == nullptr || ev->body == nullptr)
        return CV_RUNTIME_ERROR_NO_MEMORY;
    uint8_t *out = ev->body + CV_EVENT_HEADER_SIZE;
    const uint32_t budget = ev->pak->tlv_bytes;
    uint32_t used = 0;
    for (int32_t i = 0, n = ev->tlvs != nullptr ? used_slots(ev) : 0; i < n; ++i) {
        const cv_tlv *t = ev->tlvs[i];
        if (t == nullptr) continue;
        uint32_t size = om_get_tlv_size(t);
        if (size > budget - used) abort();  // sizes changed since cv_pack_event
        omsdk::write_tlv(t, out + used, size);
        used += size;
    }
    if (used != budget) abort();
    return 0;
}

OMSDK_API cv_event *cv_mkevent_from_rawbuffer(int32_t length, const uint8_t *bytes) {
    if (length < static_cast<int32_t>(kMinPacket)) {
        OM_DEBUG("Dropping truncated packet");
        return nullptr;
    }
    if (bytes == nullptr) return nullptr;
    omsdk::event_store *st = new_heap_store(false);
    if (st == nullptr) return nullptr;
    cv_event *ev = &st->ev;
    ev->raw = static_cast<uint8_t *>(malloc(static_cast<size_t>(length)));
    if (ev->raw == nullptr) {
        free(st);
        return nullptr;
    }
    memcpy(ev->raw, bytes, static_cast<size_t>(length));
    ev->raw_len = static_cast<uint32_t>(length);
    ev->raw_present = 1;
    ev->state = CV_EVENT_STATE_OK;
    return ev;
}

namespace omsdk {

bool store_receive(event_store *st, const uint8_t *bytes, int32_t length) {
    if (length < static_cast<int32_t>(kMinPacket)) {
        OM_DEBUG("Dropping truncated packet");
        return false;
    }
    if (bytes == nullptr) return false;
    cv_event *ev = &st->ev;
    ev->pak = nullptr;
    ev->ready = 0;
    ev->raw = const_cast<uint8_t *>(bytes);  // read, never written
    ev->raw_len = static_cast<uint32_t>(length);
    ev->raw_present = 1;
    ev->state = CV_EVENT_STATE_OK;
    return true;
}

}  // namespace omsdk

OMSDK_API int32_t cv_unpack_event(cv_event *ev, const hmac_sha_ctx *key) {
    if (ev == nullptr) return CV_RUNTIME_ERROR_NO_MEMORY;
    if (ev->ready || ev->raw_present != 1) return 0;
    ev->digest_ok = 0;
    if (ev->raw == nullptr || ev->pak != nullptr) {
        ev->state = CV_EVENT_STATE_ERROR;
        return CV_RUNTIME_ERROR_NO_MEMORY;
    }

    // Security header: HMAC-SHA1 (auth 1) with a 20-byte digest, enc 2.
    cv_sec_hdr sh;
    if (ev->raw_len < CV_SEC_HEADER_SIZE) {
        ev->state = CV_EVENT_STATE_ERROR;
        return CV_RUNTIME_ERROR_CANT_DECRYPT;
    }
    cv_corvane_secure_nw_to_host(ev->raw, &sh);
    const unsigned comm = sh.auth_comm >> 4, auth = sh.auth_comm & 0x0Fu, enc = sh.enc_byte >> 4;
    if (comm > 4 || sh.digest_len != OHMARA_SHA1_DIGEST_SIZE || enc != 2 || auth != 1) {
        ev->state = CV_EVENT_STATE_ERROR;
        return CV_RUNTIME_ERROR_CANT_DECRYPT;
    }
    free_header(ev, ev->sec);  // left by an earlier failed attempt
    ev->sec = new_sec(ev);
    if (ev->sec == nullptr) {
        ev->state = CV_EVENT_STATE_ERROR;
        return CV_RUNTIME_ERROR_NO_MEMORY;
    }
    *ev->sec = sh;
    const uint32_t digest_room = (sh.digest_len + 3u) & ~3u;
    const uint32_t header_end = CV_SEC_HEADER_SIZE + digest_room + CV_EVENT_HEADER_SIZE;
    ev->body = ev->raw + CV_SEC_HEADER_SIZE + digest_room;

    // The TLV byte count is only read when the event header is all there.
    uint32_t expected = digest_room + kMinPacket;
    if (ev->raw_len >= header_end)
        expected += omsdk::get_be<uint16_t>(ev->body + omsdk::kHdrTlvBytes);
    if (ev->raw_len != expected) {
        ev->state = CV_EVENT_STATE_ERROR;
        OM_WARN("Cant unpack size mismatch: got %d, expecting: %d", static_cast<int>(ev->raw_len),
                static_cast<int>(expected));
        return CV_RUNTIME_ERROR_OVERFLOW;
    }

    ev->pak = new_pak(ev);
    if (ev->pak == nullptr) {
        ev->state = CV_EVENT_STATE_ERROR;
        return CV_RUNTIME_ERROR_NO_MEMORY;
    }
    cv_corvane_event_nw_to_host(ev->body, ev->pak);
    const uint32_t count = ev->pak->tlv_count;
    if (count == 0) {
        ev->ready = 1;
        ev->state = CV_EVENT_STATE_OK;
        ev->digest_ok = omr_validateMessageHeader(ev, key) == 1 ? 1 : 0;
        return 0;
    }

    // Every TLV takes at least its header: refuse a count the bytes cannot hold.
    if (count * CV_TLV_HEADER_SIZE > ev->pak->tlv_bytes) return unpack_failed(ev);
    ev->tlvs = new_tlv_array(ev, count);
    if (ev->tlvs == nullptr) {
        ev->pak->tlv_count = 0;
        ev->state = CV_EVENT_STATE_ERROR;
        return CV_RUNTIME_ERROR_NO_MEMORY;
    }
    ev->tlv_capacity = static_cast<int32_t>(count);
    if (cv_unpack_tlvs(ev) != 0) return unpack_failed(ev);

    ev->ready = 1;
    ev->state = CV_EVENT_STATE_OK;
    ev->digest_ok = omr_validateMessageHeader(ev, key) == 1 ? 1 : 0;
    if ((ev->raw[9] >> 4) != 0) drop_raw(ev);  // wire auth nibble
    return 0;
}

OMSDK_API int32_t cv_unpack_tlvs(cv_event *ev) {
    if (ev == nullptr || ev->pak == nullptr || ev->raw == nullptr || ev->body == nullptr)
        return CV_RUNTIME_ERROR_NO_MEMORY;
    const int32_t count = ev->pak->tlv_count;
    const uint32_t budget = ev->pak->tlv_bytes;
    const size_t start = static_cast<size_t>(ev->body - ev->raw) + CV_EVENT_HEADER_SIZE;
    if (ev->body < ev->raw || start + budget > ev->raw_len || ev->tlv_capacity < count ||
        (count > 0 && ev->tlvs == nullptr))
        return CV_RUNTIME_ERROR_NO_MEMORY;

    uint8_t *cursor = ev->raw + start;
    int32_t remaining = static_cast<int32_t>(budget);
    omsdk::event_store *st = omsdk::store_of(ev);
    omsdk::codec::arena *mem = st != nullptr ? &st->mem : nullptr;
    const bool views = st != nullptr && (st->own & omsdk::kViews) != 0;
    for (int32_t i = 0; i < count; ++i) {
        cv_tlv *t = remaining >= static_cast<int32_t>(CV_TLV_HEADER_SIZE)
                        ? omsdk::decode_tlv(&remaining, &cursor, mem, views)
                        : nullptr;
        if (t == nullptr) {
            for (int32_t j = 0; j < i; ++j) {
                om_free_tlv_ptr(ev->tlvs[j]);
                ev->tlvs[j] = nullptr;
            }
            return CV_RUNTIME_ERROR_NO_MEMORY;
        }
        ev->tlvs[i] = t;
    }
    return 0;
}

OMSDK_API void cv_free_tlvs(cv_event *ev) {
    if (ev == nullptr) return;
    free_tlv_array(ev);
}

OMSDK_API void cv_free_data(cv_event *ev) {
    if (ev == nullptr) return;
    OM_TRACE("free raw (%c %d) %p", ev->raw_present == 1 ? 'T' : 'F', static_cast<int>(ev->raw_len),
             static_cast<void *>(ev->raw));
    drop_data(ev);
}

// The exported releases all go through release_contents(); each keeps the
// trace lines it has always written, in their order.
OMSDK_API void corvane_try_gc(cv_event *ev) {
    if (ev == nullptr) return;
    release_contents(ev, true);
    OM_TRACE("\n[OHMRZ]:released event %p", static_cast<void *>(ev));
    free_record(ev);
}

// Replies only: anything else is left alone.
OMSDK_API void corvane_free_rply(cv_event *ev) {
    if (ev == nullptr || ev->state != CV_EVENT_STATE_REPLY) return;
    release_contents(ev, false);
    OM_TRACE("Rply freed (%p)", static_cast<void *>(ev));
    free_record(ev);
}

OMSDK_API void cv_cleanup_event(cv_event *ev) { corvane_free_rply(ev); }
