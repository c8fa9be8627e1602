// SPDX-License-Identifier: Apache-2.0
// Memory of one event's records: TLVs, their values and the TLV array are
// carved from a block the event carries and, once that is used up, from
// chained heap chunks; all of it is given back at once with the event.
// A null arena everywhere below means the heap, record by record, as the
// stand-alone exported decoders and copies have always handed it out.
#ifndef OMSDK_CODEC_ARENA_H
#define OMSDK_CODEC_ARENA_H

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <omsdk/wire_types.h>

namespace omsdk {
namespace codec {

class arena {
public:
    // `first` (may be null) is storage the owner keeps alive as long as
    // the arena; nothing is allocated until it runs out.
    void init(uint8_t *first, size_t size) {
        first_ = first;
        first_size_ = size;
        chain_ = nullptr;
        rewind();
    }

    // `n` bytes aligned for any record, zeroed when asked; null when
    // memory runs out.
    void *alloc(size_t n, bool zero) {
        n = (n + kAlign - 1) & ~(kAlign - 1);
        if (n > static_cast<size_t>(end_ - cur_) && !grow(n)) return nullptr;
        void *p = cur_;
        cur_ += n;
        if (zero) memset(p, 0, n);
        return p;
    }

    // Frees the chained chunks and starts over in the first block.
    void release() {
        while (chain_ != nullptr) {
            chunk *next = chain_->next;
            free(chain_);
            chain_ = next;
        }
        rewind();
    }

    bool holds_nothing() const { return chain_ == nullptr && cur_ == first_; }

private:
    static constexpr size_t kAlign = 8;
    // Chunks start at this size and double up to kChunkMax, so a run of
    // small records costs few allocations; a larger request gets a chunk of
    // its own size.
    static constexpr size_t kChunk = 2048;
    static constexpr size_t kChunkMax = size_t{64} * 1024;

    struct chunk {
        chunk *next;
    };
    static constexpr size_t kChunkHead = (sizeof(chunk) + kAlign - 1) & ~(kAlign - 1);

    void rewind() {
        next_chunk_ = kChunk;
        cur_ = first_;
        end_ = first_ != nullptr ? first_ + first_size_ : nullptr;
    }

    bool grow(size_t n) {
        const size_t step = next_chunk_;
        const size_t size = n > step ? n : step;
        auto *c = static_cast<chunk *>(malloc(kChunkHead + size));
        if (c == nullptr) return false;
        c->next = chain_;
        chain_ = c;
        if (next_chunk_ < kChunkMax) next_chunk_ *= 2;
        cur_ = reinterpret_cast<uint8_t *>(c) + kChunkHead;
        end_ = cur_ + size;
        return true;
    }

    uint8_t *first_ = nullptr;
    size_t first_size_ = 0;
    uint8_t *cur_ = nullptr;
    uint8_t *end_ = nullptr;
    chunk *chain_ = nullptr;
    size_t next_chunk_ = kChunk;
};

// Where a record's memory comes from: the arena when there is one, the
// heap otherwise. Freeing is for heap records only; an arena gives its
// memory back whole.
inline void *mem_alloc(arena *a, size_t n, bool zero) {
    if (a != nullptr) return a->alloc(n, zero);
    return zero ? calloc(1, n) : malloc(n);
}
inline void mem_free(arena *a, void *p) {
    if (a == nullptr) free(p);
}

// TLV records carved from an arena carry a mark that the exported TLV free
// skips them by. The mark sits in the 4 bytes the record's layout leaves
// unused between the qualifier and the value pointer, and depends on the
// record's own address, so a copy of the record elsewhere is not marked.
static_assert(offsetof(cv_tlv, qualifier) + sizeof(uint32_t) + 4 == offsetof(cv_tlv, value),
              "the TLV record has 4 spare bytes before its value");
constexpr size_t kTlvMarkAt = offsetof(cv_tlv, qualifier) + sizeof(uint32_t);

inline uint32_t tlv_mark_for(const cv_tlv *t) {
    const auto at = reinterpret_cast<uintptr_t>(t);
    return static_cast<uint32_t>((at >> 3) ^ (at >> 35)) ^ 0x5EA1ED7Bu;
}
inline void set_tlv_mark(cv_tlv *t, uint32_t mark) {
    memcpy(reinterpret_cast<uint8_t *>(t) + kTlvMarkAt, &mark, sizeof mark);
}
inline bool tlv_in_arena(const cv_tlv *t) {
    uint32_t mark;
    memcpy(&mark, reinterpret_cast<const uint8_t *>(t) + kTlvMarkAt, sizeof mark);
    return mark == tlv_mark_for(t);
}

// A TLV record from the arena (marked) or the heap (never marked); fields
// zero.
inline cv_tlv *new_tlv(arena *a) {
    auto *t = static_cast<cv_tlv *>(mem_alloc(a, sizeof(cv_tlv), false));
    if (t == nullptr) return nullptr;
    memset(t, 0, sizeof *t);
    const uint32_t mark = tlv_mark_for(t);
    set_tlv_mark(t, a != nullptr ? mark : ~mark);
    return t;
}

}  // namespace codec
}  // namespace omsdk

#endif
