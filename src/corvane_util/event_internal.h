// SPDX-License-Identifier: Apache-2.0
// Internal event helpers shared by the protocol engine, and the storage
// behind every event made here.
#ifndef OMSDK_CORVANE_UTIL_EVENT_INTERNAL_H
#define OMSDK_CORVANE_UTIL_EVENT_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

#include <memory>

#include <omsdk/wire_types.h>

#include "codec/arena.h"

namespace omsdk {

// An event made here: the record, followed by the arena its TLVs, their
// values and the TLV array come from. Events built or received through the
// exported calls keep their headers and raw bytes on the heap, as their
// callers may free those on their own; the engine's events keep everything
// in the store and, when received, read their raw bytes where they lie.
struct event_store {
    cv_event ev;  // first: the record's address is the store's
    codec::arena mem;
    uint8_t own;        // event_owns bits
    bool raw_in_arena;  // ev.raw was carved from mem
    cv_event_hdr pak_slot;
    cv_sec_hdr sec_slot;
};

enum event_owns : uint8_t {
    kHeapRecord = 1,   // the store itself was malloc'd
    kHeapHeaders = 2,  // ev.pak and ev.sec are heap blocks, not the slots
    kHeapRaw = 4,      // raw buffers are heap blocks; else the arena's or borrowed
    kViews = 8,        // decoded blobs may point into ev.raw, which outlives the event
};

// The store behind an event made here, or null for a record made elsewhere.
event_store *store_of(const cv_event *ev);

// Sets up a store over `first` (size bytes, may be null) for its arena; the
// event is empty and, `with_header`, ready for TLVs: its header in the slot
// unless kHeapHeaders (then false when that cannot be had).
bool store_init(event_store *st, uint8_t *first, size_t size, uint8_t own, bool with_header = true);

// Points the store's empty event at `length` received bytes that outlive
// it (the raw bytes are read, never copied or written), as
// cv_mkevent_from_rawbuffer does with a copy; false (and a trace) for fewer
// than the fixed headers.
bool store_receive(event_store *st, const uint8_t *bytes, int32_t length);

// `n` zeroed bytes for the event's raw buffer (heap or arena by its store);
// null when memory runs out.
uint8_t *event_alloc_raw(cv_event *ev, size_t n);

// Frees the raw buffer (when owned) and the record with its store.
void event_release_packet(cv_event *ev);

// Frees an event completely: TLVs, headers, raw bytes and the record.
// cv_cleanup_event frees only reply events and omr_releasePacket leaves
// TLVs and headers, so the engine calls this once it is done with an event.
// Null-safe.
void event_release(cv_event *ev);

// Owner of an event that releases it completely when it goes out of scope.
struct event_deleter {
    void operator()(cv_event *e) const { event_release(e); }
};
using owned_event = std::unique_ptr<cv_event, event_deleter>;

// An event that lives where its owner puts it (on the stack, inside a
// message): headers in the store, TLVs carved from `Inline` bytes of its
// own before any heap chunk. Released completely when it goes.
template <size_t Inline>
class local_event {
public:
    explicit local_event(uint8_t own = 0) { store_init(&store_, bytes_, sizeof bytes_, own); }
    ~local_event() { event_release(&store_.ev); }
    local_event(const local_event &) = delete;
    local_event &operator=(const local_event &) = delete;
    cv_event *get() { return &store_.ev; }
    event_store *store() { return &store_; }
    cv_event *operator->() { return &store_.ev; }

private:
    event_store store_;
    alignas(8) uint8_t bytes_[Inline];
};

}  // namespace omsdk

#endif
