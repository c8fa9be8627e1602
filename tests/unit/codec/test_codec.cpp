// SPDX-License-Identifier: Apache-2.0
// Value, record and TLV codecs: byte layouts typed from the wire form, the
// decoder contract, clones and frees (leaks show in the sanitizer build),
// every wire type and hostile input.
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <tuple>

#include <omsdk/codec.h>
#include <omsdk/enums.h>
#include <omsdk/pdu.h>

#include "log_capture.h"
#include "wire_test_util.h"

using namespace wire_test;

namespace {

// A decoder's report: status, bytes consumed, bytes left.
using Outcome = std::tuple<int32_t, uint32_t, int32_t>;

// One integer codec: packs `value` to `wire`, decodes it back, and decodes
// nothing from one byte too few or from a negative budget.
template <typename T>
void check_int(const char *name, uint32_t (*pack)(uint8_t *, T),
               void (*unpack)(const uint8_t *, T *, uint32_t *, int32_t *, int32_t *),
               T *(*unpack_ptr)(const uint8_t *, uint32_t *, int32_t *, int32_t *), T value,
               const char *wire_text) {
    SCOPED_TRACE(name);
    const Bytes wire = hex(wire_text);
    const uint32_t n = static_cast<uint32_t>(wire.size());
    const int32_t sn = static_cast<int32_t>(n);
    uint8_t out[8];
    memset(out, 0xEE, sizeof out);
    EXPECT_EQ(pack(out + 1, value), n);  // odd address: no alignment needed
    EXPECT_EQ(Bytes(out + 1, out + 2 + n), cat({wire, {0xEE}}));
    const Bytes in = cat({{0x00}, wire, hex("AA BB CC")});
    T got = static_cast<T>(0x5A);
    uint32_t consumed = 99;
    int32_t remaining = sn - 1, status = -1;
    unpack(in.data() + 1, &got, &consumed, &remaining, &status);  // one byte short
    EXPECT_EQ(std::make_tuple(status, consumed, remaining, got),
              std::make_tuple(8, 0u, sn - 1, static_cast<T>(0x5A)));
    remaining = sn + 3;
    unpack(in.data() + 1, &got, &consumed, &remaining, &status);
    EXPECT_EQ(std::make_tuple(status, consumed, remaining, got), std::make_tuple(0, n, 3, value));
    remaining = sn;
    T *p = unpack_ptr(in.data() + 1, &consumed, &remaining, &status);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(std::make_pair(*p, remaining), std::make_pair(value, 0));
    free(p);
    remaining = -5;
    EXPECT_EQ(unpack_ptr(in.data() + 1, &consumed, &remaining, &status), nullptr);
    EXPECT_EQ(Outcome(status, consumed, remaining), Outcome(8, 0, -5));
}

#define INT(T, f, v, w) check_int<T>(#f, om_pack_##f, om_unpack_##f, om_unpack_##f##_ptr, v, w)
TEST(CodecInt, BigEndianByteByByte) {
    INT(uint8_t, uint8, 0xAB, "AB");
    INT(int8_t, int8, -2, "FE");
    INT(uint16_t, uint16, 0x1234, "12 34");
    INT(uint32_t, uint32, 0x01020304u, "01 02 03 04");
    INT(int32_t, int32, -2, "FF FF FF FE");
    INT(int32_t, int32, INT32_MIN, "80 00 00 00");
    INT(int32_t, long, 0x7FFFFF80, "7F FF FF 80");
    INT(int32_t, boolean, 1, "00 00 00 01");
}
#undef INT

// Texts and blobs: 'S' and 'B' with a length prefix, 's' and 'b' of a
// given length.
TEST(CodecPrefixed, Decoding) {
    const struct {
        char form;
        const char *wire;
        int32_t remaining, status;
        const char *value;  // hex; null: no value
        uint32_t consumed, given;
    } cases[] = {
        {'S', "00 00 00 03 61 62 63 58", 8, 0, "61 62 63", 7, 0},
        {'S', "00 00 00 00", 4, 0, "", 4, 0},  // the empty text is allocated all the same
        {'S', "FF FF FF FF 61", 5, 8, nullptr, 0, 0},
        {'S', "7F FF FF FF 61 62 63 64", 8, 8, nullptr, 0, 0},
        {'S', "00 00 00 05 61 62 63 64 65", 7, 8, nullptr, 0, 0},
        {'S', "00 00 00", 3, 8, nullptr, 0, 0},
        {'B', "00 00 00 02 DE AD 99", 7, 0, "DE AD", 6, 0},
        {'B', "00 00 00 00 99", 5, 0, nullptr, 4, 0},  // an empty blob is no blob
        {'B', "00 00 00 03 DE AD", 6, 8, nullptr, 0, 0},
        {'B', "80 00 00 00 DE AD", 6, 8, nullptr, 0, 0},
        {'s', "61 62 63 64", 4, 0, "61 62 63", 3, 3},
        {'s', "61 62", 1, 8, nullptr, 0, 2},
        {'b', "DE AD", 2, 0, "DE AD", 2, 2},
        {'b', "DE AD", 2, 8, nullptr, 0, 3},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.form << " " << c.wire);
        const Bytes bytes = hex(c.wire);
        const uint8_t *in = bytes.data();
        uint32_t consumed = 77, len = 0;
        int32_t remaining = c.remaining, status = -1;
        void *got = c.form == 'S'   ? om_unpack_string_ptr(in, &consumed, &remaining, &status)
                    : c.form == 'B' ? om_unpack_void_ptr(in, &len, &consumed, &remaining, &status)
                    : c.form == 's'
                        ? om_unpack_string_tlv_ptr(in, c.given, &consumed, &remaining, &status)
                        : om_unpack_void_tlv_ptr(in, c.given, &consumed, &remaining, &status);
        EXPECT_EQ(Outcome(status, consumed, remaining),
                  Outcome(c.status, c.consumed, c.remaining - static_cast<int32_t>(c.consumed)));
        Bytes want = hex(c.value != nullptr ? c.value : "");
        if (c.form == 'B') {
            EXPECT_EQ(len, want.size());
        }
        if (c.form == 'S' || c.form == 's') want.push_back(0);
        ASSERT_EQ(got != nullptr, c.value != nullptr);
        if (got != nullptr) {
            EXPECT_EQ(Bytes(static_cast<uint8_t *>(got), static_cast<uint8_t *>(got) + want.size()),
                      want);
        }
        free(got);
    }
}

// One record codec: packs `sample` to `wire` (and sizes it so); decodes
// `wire`, checked by packing the result, or a clone of it, again; one byte
// short decodes nothing and keeps nothing.
template <typename T>
void check_record(const char *wire_text, const T *sample, uint32_t (*pack)(uint8_t *, const T *),
                  uint32_t (*size)(const T *),
                  T *(*unpack)(const uint8_t *, uint32_t *, int32_t *, int32_t *),
                  void (*release)(T *), T *(*clone)(const T *, int32_t *)) {
    SCOPED_TRACE(wire_text);
    const Bytes wire = hex(wire_text);
    const uint32_t n = static_cast<uint32_t>(wire.size());
    const int32_t sn = static_cast<int32_t>(n);
    uint8_t out[64];
    memset(out, 0xEE, sizeof out);
    EXPECT_EQ(pack(out, sample), n);
    EXPECT_EQ(Bytes(out, out + n + 1), cat({wire, {0xEE}}));
    EXPECT_EQ(size != nullptr ? size(sample) : n, n);
    const Bytes in = cat({wire, hex("AA BB")});
    uint32_t consumed = 0;
    int32_t remaining = sn + 2, status = -1;
    T *got = unpack(in.data(), &consumed, &remaining, &status);
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(Outcome(status, consumed, remaining), Outcome(0, n, 2));
    if (clone != nullptr) {
        T *copy = clone(got, &status);
        ASSERT_EQ(status, 0);
        release(got);  // the copy owns its own texts and blobs
        got = copy;
    }
    memset(out, 0xEE, sizeof out);
    EXPECT_EQ(pack(out, got), n);
    EXPECT_EQ(Bytes(out, out + n), wire);
    release(got);
    remaining = sn - 1;  // cut inside the last field
    EXPECT_EQ(unpack(in.data(), &consumed, &remaining, &status), nullptr);
    EXPECT_EQ(Outcome(status, consumed, remaining), Outcome(8, 0, sn - 1));
}

template <typename T>
void free_flat(T *p) {
    free(p);
}
template <typename T, void (*release_fields)(T *)>
void free_deep(T *p) {
    release_fields(p);
    free(p);
}
#define REC(T, f, w, v, rel, cl) \
    check_record<T>(w, v, om_pack_##f, om_get_##f##_size, om_unpack_##f##_ptr, rel, cl)
#define FREE(T, f) free_deep<T, om_free_##f>

TEST(CodecRecord, LayoutsDecodingAndClones) {
    const cv_alarm alarm = {60, 0x11, 0x22, {0, 0}, -1, 4};
    REC(cv_alarm, alarm, "00 00 00 3C | 11 | 22 | FF FF FF FF | 00 00 00 04", &alarm,
        free_flat<cv_alarm>, om_clone_alarm);
    char text[] = "x", name[] = "n1", role[] = "", kw[] = "k";
    const cv_recurrence rec = {text, 1, 2, 1};
    REC(cv_recurrence, recurrence, "00 00 00 01 78 | 01 | 02 | 00 00 00 01", &rec,
        om_free_recurrence_ptr, om_clone_recurrence);
    uint8_t blob1[] = {0xAA}, blob3[] = {1, 2, 3};
    cv_neighbor nb = {0, {0}, name, blob1, 1, {0}, 1};
    memset(nb.id, 0x11, sizeof nb.id);
    REC(cv_neighbor, neighbor, "32x11 | 00 00 00 02 6E 31 | 00 00 00 01 AA | 00 00 00 01", &nb,
        om_free_neighbor_ptr, om_clone_neighbor);
    cv_device_header dh = {{0}, 3, blob3};
    memset(dh.id, 0x41, sizeof dh.id);
    // Device and usage headers clone inside aggregate TLVs (below).
    REC(cv_device_header, deviceheader, "32x41 | 00 00 00 03 01 02 03", &dh,
        FREE(cv_device_header, deviceheader), nullptr);
    const cv_usage_cmn_hdr hdr = {1, -1, name, role, -3, 7, 200, kw};
    REC(cv_usage_cmn_hdr, usage_cmn_hdr,
        "00 00 00 01 | FF FF FF FF | 00 00 00 02 6E 31 | 00 00 00 00 | FD | 07 | C8 | 00 00 00 01 6B",
        &hdr, FREE(cv_usage_cmn_hdr, usage_cmn_hdr), nullptr);
    cv_sender_id sid = {{0}, 0x01020304};
    memset(sid.id, 0x61, sizeof sid.id);
    REC(cv_sender_id, sender_id, "32x61 | 01 02 03 04", &sid, free_flat<cv_sender_id>,
        om_clone_sender_id);
    const uint16_t uv[CV_VECTOR_LEN] = {0x0001, 0x0203, 0x0405, 0x0607, 0x0809, 0x0A0B,
                                        0x0C0D, 0x0E0F, 0x1011, 0x1213, 0xFFFF};
    check_record<uint16_t>("00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12 13 FF FF", uv,
                           om_pack_usage_vector, nullptr, om_unpack_usage_vector_ptr,
                           free_flat<uint16_t>, om_clone_usage_vector);
    const int32_t dv[CV_VECTOR_LEN] = {-1, 1, 0x01020304, 0, -256, 2, 3, 4, 5, 6, 7};
    check_record<int32_t>("FF FF FF FF 00 00 00 01 01 02 03 04 00 00 00 00 FF FF FF 00 00 00 00 02 "
                          "00 00 00 03 00 00 00 04 00 00 00 05 00 00 00 06 00 00 00 07",
                          dv, om_pack_delta_vector, nullptr, om_unpack_delta_vector_ptr,
                          free_flat<int32_t>, om_clone_delta_vector);
}
#undef FREE
#undef REC

constexpr int32_t kAll = INT32_MIN;  // budget: the whole buffer

struct Decoded {
    cv_tlv *tlv;
    int32_t remaining;
    ptrdiff_t advanced;
};

// Decodes from a copy of exactly these bytes (the sanitizer build sees any
// read past them).
Decoded decode(Bytes buf, int32_t remaining = kAll) {
    uint8_t *cursor = buf.data();
    if (remaining == kAll) remaining = static_cast<int32_t>(buf.size());
    cv_tlv *tlv = cv_create_tlv_from_raw_buf(&remaining, &cursor);
    return {tlv, remaining, cursor - buf.data()};
}

Bytes encode(const cv_tlv *tlv) {
    const uint32_t n = om_get_tlv_size(tlv);
    Bytes out(n + 8, 0xEE);
    cv_update_raw_buf_from_tlv(tlv, out.data());
    EXPECT_EQ(out[n], 0xEE) << "wrote past the size it reported";
    out.resize(n);
    return out;
}

// A deep copy through om_clone_tlv_ptr.
cv_tlv *clone(const cv_tlv *t) {
    int32_t st = -1;
    cv_tlv *copy = static_cast<cv_tlv *>(calloc(1, sizeof(cv_tlv)));
    *copy = *t;
    copy->value = om_clone_tlv_ptr(t->type, t->length - 12, t->value, &st);
    EXPECT_EQ(st, 0);
    return copy;
}

// A header-only TLV has no value; a text gains its NUL in memory only: 17
// bytes on the wire, 18 stored.
TEST(TlvWire, HeaderOnlyNameTextLeftoversAndUnknownTypes) {
    for (const char *wire : {"00 00 00 09 00 00 00 0C 00 00 00 2A",
                             "00 00 00 09 00 00 00 11 00 00 00 2A 68 65 6C 6C 6F"}) {
        Decoded d = decode(cat({hex(wire), {0x77}}));
        ASSERT_NE(d.tlv, nullptr);
        const bool text = d.tlv->value != nullptr;
        EXPECT_EQ(std::make_tuple(d.tlv->type, d.tlv->qualifier, d.tlv->length, d.advanced),
                  std::make_tuple(9u, 42u, text ? 18u : 12u, ptrdiff_t{text ? 17 : 12}));
        EXPECT_STREQ(text ? static_cast<char *>(d.tlv->value) : "hello", "hello");
        EXPECT_EQ(encode(d.tlv), hex(wire));
        om_free_tlv_ptr(d.tlv);
    }
    // A TLV longer than the bytes it is given, bytes left over in a TLV:
    // dropped; an unknown type is skipped whole.
    EXPECT_EQ(decode(hex("00 00 00 09 00 00 00 11 00 00 00 2A 68 65 6C 6C 6F"), 16).tlv, nullptr);
    EXPECT_EQ(decode(hex("00 00 00 03 00 00 00 14 00 00 00 00 00 00 00 01 00 00 00 02")).tlv,
              nullptr);
    EXPECT_EQ(decode(hex("00 00 00 2A 00 00 00 10 00 00 00 00 01 02 03 04")).tlv, nullptr);
    Decoded d = decode(hex("00 00 00 3C 00 00 00 14 00 00 00 00 | 8x5A | 00 00 00 0D"));
    ASSERT_NE(d.tlv, nullptr);
    EXPECT_EQ(std::make_tuple(d.tlv->value, d.tlv->length, d.advanced, d.remaining),
              std::make_tuple<void *>(nullptr, 20u, ptrdiff_t{20}, 4));
    om_free_tlv_ptr(d.tlv);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// The largest malloc() or calloc() asked for since the last reset, through
// the allocator below. (The sanitizer build keeps
// its own allocator, and aborts on a request of that size anyway.)
std::atomic<size_t> g_largest_alloc{0};

// A received count must not size an allocation its bytes cannot fill,
// decoded alone (from the heap) or in a received event (from its arena).
TEST(TlvWire, AnAggregateCountSizesNoAllocationItsBytesCannotFill) {
    // NAME aggregate: 32-byte id, empty blob, 0xffffff entries in 4 bytes.
    const Bytes hostile = hex("80000009 00000038 00000000 32x61 00000000 00ffffff 00000001");
    g_largest_alloc = 0;
    Decoded d = decode(hostile);
    EXPECT_EQ(d.tlv, nullptr);
    EXPECT_LT(g_largest_alloc.load(), 4096u);
    const Bytes msg =
        frame("fedcba9876543210fedcba9876543210", 1, 0, 1, 10, 1, 1, 1, hostile, hex("01 02 03"));
    cv_event *ev = cv_mkevent_from_rawbuffer(static_cast<int32_t>(msg.size()), msg.data());
    omsdk_test::LogCapture quiet(OHMARA_LOG_FATAL);
    g_largest_alloc = 0;
    EXPECT_EQ(1, cv_unpack_event(ev, nullptr));
    EXPECT_LT(g_largest_alloc.load(), 4096u);
    corvane_try_gc(ev);
}
#endif

// Every wire type with a value, as a plain TLV and, for the aggregate forms,
// as a one-entry aggregate (device 32x44, no blob; entry id 7; texts and
// blobs length-prefixed there, combo entries (43..45) with a usage header
// first): it decodes, sizes, re-encodes to the same bytes, clones into a
// copy that outlives it and re-encodes alike, and frees cleanly.
TEST(TlvTypes, EveryTypeRoundTripsThroughDecodeCloneEncode) {
    const char *kUsage = "00 01 00 02 00 03 00 04 00 05 00 06 00 07 00 08 00 09 00 0A 00 0B";
    const char *kDelta = "FF FF FF FF 00 00 00 01 00 00 00 02 00 00 00 03 00 00 00 04 00 00 00 05 "
                         "00 00 00 06 00 00 00 07 00 00 00 08 00 00 00 09 00 00 00 0A";
    struct Case {
        uint32_t type;
        const char *value;
        const char *sent_back = nullptr;  // when not the same
        int stored = -1;                  // an aggregate entry: the length it keeps
    };
    std::vector<Case> cases = {
        {0, "01 02 03"},     {2, "32x62"},        {3, "00 00 00 03"},  {4, "AA"},
        {5, "61"},           {6, "61 62"},        {7, "72 6F 6C 65"},  {8, "64"},
        {9, "6E"},           {10, "6B 00"},       {11, "65 72 72"},    {12, "FD"},
        {13, "12 34"},       {14, "01"},          {15, "02"},          {16, "03"},
        {17, "04"},          {18, "05"},          {19, "00 13"},       {20, "32x14"},
        {21, "32x15"},       {22, "FF FF FF FF"}, {25, "00 00 1F 90"}, {26, "00 00 00 0A"},
        {27, "63 6C"},       {29, "00 02"},       {30, "32x1E"},       {31, "00 00 01 00"},
        {32, "00 00 02 00"}, {33, "00 00 03 00"}, {34, "00 00 00 20"}, {36, kDelta},
        {38, "00 00 00 01"}, {39, kUsage},        {40, "74"},          {41, "29"},
        {43, "00 2B"},       {44, kUsage},        {45, kDelta},        {47, "12 34 56 78"},
        {48, "70 63"},       {49, "00 31"},       {51, "FF FF FF FF"}};
    const Case longer[] = {
        {1, "32x61 00 00 00 01"},
        {23, "00 02 A9 F0 7F 00 00 01 8x00"},
        {24, "00 02 00 50 7F 00 00 02 8x00"},
        {28, "32x1C 00 00 00 02 6E 62 00 00 00 01 AA 00 00 00 01"},
        {46, "00 00 00 03 61 62 63 01 02 00 00 00 01"},
        {50, "00 00 00 3C 11 22 00 00 00 09 00 00 00 01"},
        // The event id is read from the number's position: sent back, it
        // shows the number's bytes in front.
        {35,
         "00 00 00 07 | A0 A1 A2 A3 A4 A5 A6 A7 A8 A9 AA AB AC AD AE AF B0 B1 B2 B3 B4 B5 B6 "
         "B7 B8 B9 BA BB BC BD BE BF",
         "00 00 00 07 | 00 00 00 07 A0 A1 A2 A3 A4 A5 A6 A7 A8 A9 AA AB AC AD AE AF B0 B1 B2 B3 "
         "B4 B5 B6 B7 B8 B9 BA BB"},
        {0, "00 00 00 02 DE AD", nullptr, 2},
        {9, "00 00 00 02 6E 31", nullptr, 3},
        {14, "2A", nullptr, 1},
        {13, "12 34", nullptr, 2},
        {22, "FF FF FF FE", nullptr, 4},
        {2, "32x62", nullptr, 32},
        {1, "32x61 00 00 00 05", nullptr, 36},
        {39, kUsage, nullptr, 22},
        {28, "32x1C 00 00 00 01 6E 00 00 00 01 AA 00 00 00 01", nullptr, 46},
        {46, "00 00 00 01 78 01 02 00 00 00 01", nullptr, 11},
        {50, "00 00 00 3C 11 22 00 00 00 09 00 00 00 01", nullptr, 14},
        {43, "00 00 00 01 00 00 00 01 00 00 00 01 6E 00 00 00 01 72 00 03 04 00 00 00 00 01 02",
         nullptr, 0},
    };
    cases.insert(cases.end(), std::begin(longer), std::end(longer));
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.type << (c.stored < 0 ? "" : " aggregate"));
        const bool aggr = c.stored >= 0;
        const Bytes value = hex(c.value);
        const Bytes sent =
            aggr ? tlv(0x80000000u | c.type,
                       cat({hex("32x44 00 00 00 00 | 00 00 00 01 | 00 00 00 07"), value}))
                 : tlv(c.type, value);
        const Bytes wire = c.sent_back != nullptr ? tlv(c.type, hex(c.sent_back)) : sent;
        Decoded d = decode(sent);
        ASSERT_NE(d.tlv, nullptr);
        EXPECT_EQ(std::make_pair(om_get_tlv_size(d.tlv), d.advanced),
                  std::make_pair(static_cast<uint32_t>(sent.size()), ptrdiff_t(sent.size())));
        if (aggr) {
            const auto *e = static_cast<cv_aggr_entry *>(
                static_cast<cv_aggr_block *>(d.tlv->value)->entries[0]);
            EXPECT_EQ(std::make_tuple(e->id, cv_is_combo_tlv(c.type) ? 0 : e->len),
                      std::make_tuple(7u, static_cast<uint32_t>(c.stored)));
        }
        EXPECT_EQ(encode(d.tlv), wire);
        cv_tlv *copy = clone(d.tlv);
        ASSERT_NE(copy->value, nullptr);
        EXPECT_NE(copy->value, d.tlv->value);
        om_free_tlv_ptr(d.tlv);
        EXPECT_EQ(encode(copy), wire);
        if (aggr) {
            // Appends grow entry arrays in 16-pointer steps, so a copy has
            // room up to the 16th (the sanitizer build checks the bound).
            cv_aggr_block *cb = static_cast<cv_aggr_block *>(copy->value);
            for (int i = 1; i < 16; ++i) cb->entries[i] = nullptr;
        }
        om_free_tlv_ptr(copy);
    }
}

}  // namespace

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
namespace {
void note_alloc(size_t bytes) {
    size_t seen = g_largest_alloc.load();
    while (bytes > seen && !g_largest_alloc.compare_exchange_weak(seen, bytes)) {
    }
}
}  // namespace
extern "C" void *__libc_calloc(size_t n, size_t size);
extern "C" void *__libc_malloc(size_t n);
extern "C" void *calloc(size_t n, size_t size) {
    size_t bytes = SIZE_MAX;
    if (!__builtin_mul_overflow(n, size, &bytes)) bytes = n * size;
    note_alloc(bytes);
    return __libc_calloc(n, size);
}
extern "C" void *malloc(size_t n) {
    note_alloc(n);
    return __libc_malloc(n);
}
#endif
