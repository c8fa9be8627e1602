// SPDX-License-Identifier: Apache-2.0
// libFuzzer target for the receive path of the wire format.
//
// Arbitrary bytes go through the exported value decoders, and through
// cv_mkevent_from_rawbuffer and cv_unpack_event (with a keyed context). When
// they decode, a fresh event holding clones of the decoded TLVs and the
// decoded header fields is packed and signed again with omr_createPdu, and
// that output is decoded and re-packed in turn.
//
// What must hold (any breach calls abort(), which libFuzzer reports):
//  - a value decoder takes no more than it was given, and a failed one
//    leaves nothing behind;
//  - a refused message is marked failed and holds no TLVs;
//  - our own output always decodes, and its digest matches;
//  - re-packing never makes a message longer than the one received;
//  - when nothing was lost in decoding (same length, no event id), the
//    re-packed TLV area and header fields equal the received ones;
//  - the output is a fixed point: decoding and re-packing it gives the same
//    bytes again.
//
// Losses that are part of the wire form all happen between the received
// bytes and the first output, so they do not disturb the fixed point:
//  - unknown types (52 and above) are kept with a null value and come back
//    as a bare 12-byte header;
//  - texts with an embedded NUL end at it once copied;
//  - aggregate text entries count their terminator in the stored length,
//    which the encoder does not use;
//  - neighbour records' unencoded fields never reach the wire.
// The event id is the exception: its decoder reads the id from the number's
// own position, so every pass shifts the id by four bytes and repeats the
// number once more. After eight passes the id is the number repeated, so a
// message holding an event id must settle within nine passes.
//
// Random mutations almost never keep the framing consistent (the header's
// TLV byte count, each TLV's length), so most would only reach the size
// checks. The custom mutator repairs the framing of most mutants (and signs
// them), and often mutates the value of one TLV alone, adjusting its length,
// which takes them deep into the value decoders.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include <omsdk/codec.h>
#include <omsdk/event.h>
#include <omsdk/pdu.h>

#include "framing.h"
#include "fuzz_key.h"
#include "omsdk.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kEventIdType = 35;
constexpr int kPassesPlain = 2;
constexpr int kPassesWithEventId = 9;

hmac_sha_ctx g_key;

// Formats every line at every level (exercising the log paths) and drops it.
void drop_line(uint32_t, const char *) {}

cv_event *decode(const uint8_t *data, size_t size, int32_t *rc) {
    *rc = -1;
    cv_event *ev = cv_mkevent_from_rawbuffer(static_cast<int32_t>(size), data);
    if (ev == nullptr) return nullptr;
    *rc = cv_unpack_event(ev, &g_key);
    return ev;
}

// A decoded event must be readable by the engine: header present, every
// counted TLV slot filled.
void check_decoded(const cv_event *ev) {
    if (ev->ready != 1 || ev->pak == nullptr || ev->sec == nullptr) abort();
    const uint32_t count = ev->pak->tlv_count;
    if (count == 0) return;
    if (ev->tlvs == nullptr || static_cast<uint32_t>(ev->tlv_capacity) < count) abort();
    for (uint32_t i = 0; i < count; ++i)
        if (ev->tlvs[i] == nullptr) abort();
}

bool holds_event_id(const cv_event *ev) {
    for (uint32_t i = 0; i < ev->pak->tlv_count; ++i)
        if ((ev->tlvs[i]->type & CV_TLV_TYPE_MASK) == kEventIdType) return true;
    return false;
}

// Packs and signs a fresh event holding clones of ev's TLVs under ev's
// header fields. A TLV kept without a value (an unknown type) is added as
// the bare header it encodes to.
Bytes repack(const cv_event *ev) {
    cv_event *out = corvane_create_my_packet();
    if (out == nullptr) abort();
    for (uint32_t i = 0; i < ev->pak->tlv_count; ++i) {
        const cv_tlv *t = ev->tlvs[i];
        uint32_t length = t->value != nullptr ? t->length : CV_TLV_HEADER_SIZE;
        if (cv_add_tlv_common(out, t->type, length, t->value, t->qualifier) != 0) abort();
    }
    const cv_event_hdr *h = ev->pak;
    const uint8_t comm = static_cast<uint8_t>(ev->sec->auth_comm >> 4);
    if (omr_createPdu(out, h->pri, h->shipment, h->event_class, h->action, h->id, h->seq, &g_key,
                      comm) != 0)
        abort();
    if (out->raw == nullptr || out->raw_len != CV_PDU_FIXED_SIZE + out->pak->tlv_bytes) abort();
    Bytes bytes(out->raw, out->raw + out->raw_len);
    corvane_try_gc(out);
    return bytes;
}

// Header fields that travel unchanged: seq, id, shipment, pri, class,
// action, TLV bytes and TLV count (wire offsets 32..67 and 69..79 without
// 71 and 72, which the sender fixes).
bool same_header_fields(const uint8_t *a, const uint8_t *b) {
    return memcmp(a + 32, b + 32, 36) == 0 && a[69] == b[69] && a[70] == b[70] &&
           memcmp(a + 73, b + 73, 7) == 0;
}

// Makes the framing agree with the bytes and signs them; returns the
// (possibly shortened) size.
size_t repair_framing(uint8_t *data, size_t size) {
    size = fuzz_wire::repair_framing(data, size);
    if (size >= CV_PDU_FIXED_SIZE)
        hmac_sha_msg(&g_key, data + 32, static_cast<uint16_t>(size - 32), data + 12);
    return size;
}

// The exported value decoders on the raw input: a success takes no more
// than it was given and says so in `remaining`; a failure (1 or 8) returns
// nothing. Whatever decodes is freed the way an application would.
template <typename T, typename F>
T *check_decoder(const uint8_t *data, size_t size, F &&decode) {
    const int32_t given = static_cast<int32_t>(size);
    int32_t remaining = given, status = -1;
    uint32_t consumed = 0;
    T *value = decode(data, &consumed, &remaining, &status);
    if (status == 0) {
        if (consumed > size || remaining != given - static_cast<int32_t>(consumed)) abort();
    } else if ((status != 1 && status != 8) || value != nullptr || remaining != given) {
        abort();
    }
    return value;
}

void exported_decoders(const uint8_t *data, size_t size) {
    free(check_decoder<char>(data, size, om_unpack_string_ptr));
    uint32_t len = 0;
    free(check_decoder<void>(data, size,
                             [&len](const uint8_t *src, uint32_t *c, int32_t *r, int32_t *st) {
                                 return om_unpack_void_ptr(src, &len, c, r, st);
                             }));
    free(check_decoder<cv_alarm>(data, size, om_unpack_alarm_ptr));
    om_free_recurrence_ptr(check_decoder<cv_recurrence>(data, size, om_unpack_recurrence_ptr));
    om_free_neighbor_ptr(check_decoder<cv_neighbor>(data, size, om_unpack_neighbor_ptr));
    cv_device_header *dh = check_decoder<cv_device_header>(data, size, om_unpack_deviceheader_ptr);
    om_free_deviceheader(dh);
    free(dh);
    cv_usage_cmn_hdr *uh = check_decoder<cv_usage_cmn_hdr>(data, size, om_unpack_usage_cmn_hdr_ptr);
    om_free_usage_cmn_hdr(uh);
    free(uh);
    free(check_decoder<cv_sender_id>(data, size, om_unpack_sender_id_ptr));
    free(check_decoder<cv_event_id>(data, size, om_unpack_event_id_ptr));
    free(check_decoder<int32_t>(data, size, om_unpack_delta_vector_ptr));
    free(check_decoder<uint16_t>(data, size, om_unpack_usage_vector_ptr));
    free(check_decoder<uint16_t>(data, size, om_unpack_uint16_ptr));
}

}  // namespace

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t max_size);

namespace {

// Mutates the value of the TLV numbered `pick` (modulo the count) alone,
// growing or shrinking it, and adjusts its length; framing is repaired by
// the caller.
size_t mutate_one_value(uint8_t *data, size_t size, size_t max_size, unsigned pick) {
    size_t starts[CV_PDU_MAX_SIZE / CV_TLV_HEADER_SIZE];
    size_t n = 0;
    const size_t room = sizeof starts / sizeof starts[0];
    for (size_t at = CV_PDU_FIXED_SIZE; size - at >= CV_TLV_HEADER_SIZE && n < room;
         at += fuzz_wire::get_be32(data + at + 4))
        starts[n++] = at;
    if (n == 0) return size;
    const size_t at = starts[pick % n];
    const size_t value_at = at + CV_TLV_HEADER_SIZE;
    const size_t old_len = fuzz_wire::get_be32(data + at + 4) - CV_TLV_HEADER_SIZE;
    const size_t tail = size - value_at - old_len;
    std::vector<uint8_t> value(data + value_at, data + value_at + old_len);
    value.resize(max_size - (size - old_len) + 1);  // room to grow into
    size_t new_len = old_len != 0 ? LLVMFuzzerMutate(value.data(), old_len, value.size() - 1)
                                  : LLVMFuzzerMutate(value.data(), 1, value.size() - 1);
    memmove(data + value_at + new_len, data + value_at + old_len, tail);
    memcpy(data + value_at, value.data(), new_len);
    fuzz_wire::put_be32(data + at + 4, static_cast<uint32_t>(new_len + CV_TLV_HEADER_SIZE));
    return value_at + new_len + tail;
}

}  // namespace

// One mutant in four is a plain mutation (framing as it comes), one has its
// framing repaired, two have the value of a single TLV mutated in place.
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size,
                                          unsigned int seed) {
    switch (seed % 4) {
    case 0: return LLVMFuzzerMutate(data, size, max_size);
    case 1: return repair_framing(data, LLVMFuzzerMutate(data, size, max_size));
    default:
        if (size < CV_PDU_FIXED_SIZE || max_size <= size)
            return repair_framing(data, LLVMFuzzerMutate(data, size, max_size));
        size = repair_framing(data, size);
        return repair_framing(data, mutate_one_value(data, size, max_size, seed / 4));
    }
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_wire::key_context(&g_key);
    setLogLevel(OHMARA_LOG_TRACE);
    setLogCallback(drop_line);
    enableLogCallback(1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > CV_PDU_MAX_SIZE) return 0;
    exported_decoders(data, size);
    int32_t rc = 0;
    cv_event *ev = decode(data, size, &rc);
    if (ev == nullptr) return 0;
    if (rc != 0) {
        if (ev->ready != 0 || ev->state != CV_EVENT_STATE_ERROR || ev->tlvs != nullptr) abort();
        corvane_try_gc(ev);
        return 0;
    }
    check_decoded(ev);
    const bool event_id = holds_event_id(ev);
    const uint16_t received_tlv_bytes = ev->pak->tlv_bytes;
    Bytes prev = repack(ev);
    corvane_try_gc(ev);

    // The header and TLV area of the received message begin 32 bytes in.
    if (prev.size() > size) abort();
    if (prev.size() == size && !event_id &&
        (!same_header_fields(prev.data(), data) ||
         memcmp(prev.data() + CV_PDU_FIXED_SIZE, data + CV_PDU_FIXED_SIZE, received_tlv_bytes) !=
             0))
        abort();

    const int passes = event_id ? kPassesWithEventId : kPassesPlain;
    for (int pass = 2;; ++pass) {
        cv_event *again = decode(prev.data(), prev.size(), &rc);
        if (again == nullptr || rc != 0 || again->digest_ok != 1) abort();
        check_decoded(again);
        Bytes next = repack(again);
        corvane_try_gc(again);
        if (next == prev) break;
        if (pass >= passes) abort();  // no fixed point
        prev.swap(next);
    }
    return 0;
}
