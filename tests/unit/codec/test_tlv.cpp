// TLV wire form and the dispatchers over whole TLVs.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <omsdk/codec.h>

#include "codec/tlv_table.h"
#include "hex.h"
#include "log_capture.h"

using codec_test::Bytes;
using codec_test::concat;
using codec_test::hex;

namespace {

constexpr const char *kFn = "cv_create_tlv_from_raw_buf";

struct Decoded {
    cv_tlv *tlv;
    int32_t remaining;
    ptrdiff_t advanced;
};

Decoded decode(Bytes &buf, int32_t remaining) {
    uint8_t *cursor = buf.data();
    Decoded d;
    d.remaining = remaining;
    d.tlv = cv_create_tlv_from_raw_buf(&d.remaining, &cursor);
    d.advanced = cursor - buf.data();
    return d;
}

Bytes encode(const cv_tlv *tlv) {
    Bytes out(om_get_tlv_size(tlv) + 8, 0xEE);
    cv_update_raw_buf_from_tlv(tlv, out.data());
    EXPECT_EQ(out[om_get_tlv_size(tlv)], 0xEE) << "wrote past the size it reported";
    out.resize(om_get_tlv_size(tlv));
    return out;
}

TEST(TlvWire, HeaderOnlyTlv) {
    Bytes buf = hex("00 00 00 09 00 00 00 0C 00 00 00 2A | 77");
    Decoded d = decode(buf, 13);
    ASSERT_NE(d.tlv, nullptr);
    EXPECT_EQ(d.tlv->type, 9u);
    EXPECT_EQ(d.tlv->length, 12u);
    EXPECT_EQ(d.tlv->qualifier, 42u);
    EXPECT_EQ(d.tlv->value, nullptr);
    EXPECT_EQ(d.advanced, 12);
    EXPECT_EQ(d.remaining, 1);
    EXPECT_EQ(encode(d.tlv), hex("00 00 00 09 00 00 00 0C 00 00 00 2A"));
    om_free_tlv_ptr(d.tlv);
}

TEST(TlvWire, NameTextGainsItsNulInMemoryOnly) {
    Bytes buf = hex("00 00 00 09 00 00 00 11 00 00 00 05 68 65 6C 6C 6F");
    Decoded d = decode(buf, 17);
    ASSERT_NE(d.tlv, nullptr);
    EXPECT_STREQ(static_cast<char *>(d.tlv->value), "hello");
    EXPECT_EQ(d.tlv->length, 18u);
    EXPECT_EQ(d.advanced, 17);
    EXPECT_EQ(d.remaining, 0);
    EXPECT_EQ(encode(d.tlv), buf);
    om_free_tlv_ptr(d.tlv);
}

TEST(TlvWire, Uint32WithLeftoverBytesIsDropped) {
    omsdk_test::LogCapture cap(0);
    Bytes buf = hex("00 00 00 03 00 00 00 14 00 00 00 00 00 00 00 01 00 00 00 02");
    Decoded d = decode(buf, 20);
    EXPECT_EQ(d.tlv, nullptr);
    EXPECT_TRUE(cap.has(OHMARA_LOG_ERROR, kFn, "Received mismatched TLV for type 3, dropping packet"))
        << cap.dump();
}

TEST(TlvWire, UnknownTypeIsSkippedAndKept) {
    omsdk_test::LogCapture cap(0);
    Bytes buf = hex("00 00 00 3C 00 00 00 14 00 00 00 00 | 8x5A | 00 00 00 0D");
    Decoded d = decode(buf, 24);
    ASSERT_NE(d.tlv, nullptr);
    EXPECT_EQ(d.tlv->value, nullptr);
    EXPECT_EQ(d.tlv->length, 20u);
    EXPECT_EQ(d.advanced, 20);
    EXPECT_EQ(d.remaining, 4);
    EXPECT_TRUE(cap.has(OHMARA_LOG_TRACE, kFn, "Skipping unknown TLV, type = 60")) << cap.dump();
    om_free_tlv_ptr(d.tlv);
}

TEST(TlvWire, ConsecutiveTlvsAdvanceTheCursor) {
    Bytes buf = hex("00 00 00 0D 00 00 00 0E 00 00 00 00 12 34 | "
                    "40 00 00 03 00 00 00 10 00 00 00 00 DE AD BE EF");
    uint8_t *cursor = buf.data();
    int32_t remaining = 30;
    cv_tlv *a = cv_create_tlv_from_raw_buf(&remaining, &cursor);
    cv_tlv *b = cv_create_tlv_from_raw_buf(&remaining, &cursor);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(*static_cast<uint16_t *>(a->value), 0x1234);
    EXPECT_EQ(b->type, 0x40000003u);  // bit 30 is kept in the word but not in the type
    EXPECT_EQ(*static_cast<uint32_t *>(b->value), 0xDEADBEEFu);
    EXPECT_EQ(remaining, 0);
    EXPECT_EQ(cursor, buf.data() + 30);
    EXPECT_EQ(cv_create_tlv_from_raw_buf(&remaining, &cursor), nullptr);
    om_free_tlv_ptr(a);
    om_free_tlv_ptr(b);
}

// Malformed or truncated input: null, nothing logged, nothing leaked, no
// read outside the bytes given (the sanitizer build checks the last two).
TEST(TlvWire, HostileInputIsRejected) {
    struct Case {
        const char *name;
        Bytes bytes;
        int32_t remaining;  // -1: the whole buffer
    };
    const Bytes dh = hex("32x44 00 00 00 00");
    const Case cases[] = {
        {"length below header", hex("00 00 00 09 00 00 00 08 00 00 00 00 61 62"), -1},
        {"length zero", hex("00 00 00 03 00 00 00 00 00 00 00 00"), -1},
        {"header cut", hex("00 00 00 09 00 00 00 0C 00 00"), -1},
        {"length past payload", hex("00 00 00 03 00 00 00 10 00 00 00 00 01 02 03"), -1},
        {"negative remaining", hex("00 00 00 09 00 00 00 0C 00 00 00 00"), -3},
        {"uint32 value cut by its TLV",
         hex("00 00 00 03 00 00 00 0E 00 00 00 00 01 02 | 00 00 00 03 00 00"), -1},
        {"huge aggregate count",
         concat({hex("80 00 00 0D 00 00 00 3A 00 00 00 00"), dh, hex("FF FF FF FF 00 00 00 01 12 34")}),
         -1},
        {"count beyond entry bytes",
         concat({hex("80 00 00 0D 00 00 00 38 00 00 00 00"), dh, hex("00 00 00 03 00 00 00 01")}), -1},
        {"negative string prefix",
         concat({hex("80 00 00 09 00 00 00 3E 00 00 00 00"), dh,
                 hex("00 00 00 01 00 00 00 01 FF FF FF FE 61 62")}),
         -1},
        {"string prefix beyond its TLV",
         concat({hex("80 00 00 09 00 00 00 3E 00 00 00 00"), dh,
                 hex("00 00 00 01 00 00 00 01 00 00 00 08 61 62"),
                 hex("00 00 00 09 00 00 00 0F 00 00 00 00 61 62 63")}),
         -1},
        {"device blob beyond its TLV",
         concat({hex("80 00 00 0D 00 00 00 34 00 00 00 00 32x44 00 00 00 10"),
                 hex("00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00")}),
         -1},
        {"huge device blob", hex("80 00 00 0D 00 00 00 32 00 00 00 00 32x44 7F FF FF FF 00 00"),
         -1},
    };
    omsdk_test::LogCapture cap(0);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Bytes buf = c.bytes;
        int32_t rem = c.remaining == -1 ? static_cast<int32_t>(buf.size()) : c.remaining;
        Decoded d = decode(buf, rem);
        EXPECT_EQ(d.tlv, nullptr);
        om_free_tlv_ptr(d.tlv);
        EXPECT_EQ(d.advanced, 0);
    }
    EXPECT_EQ(cap.lines().size(), 0u) << cap.dump();
}

// An aggregate NAME TLV: device header with a blob, two text entries.
const char kAggrName[] =
    "80 00 00 09 00 00 00 48 00 00 00 00 | 32x44 00 00 00 02 B1 B2 | 00 00 00 02 | "
    "00 00 00 01 00 00 00 02 61 62 | 00 00 00 02 00 00 00 00";

TEST(TlvAggregate, DecodeAndReencode) {
    Bytes buf = hex(kAggrName);
    ASSERT_EQ(buf.size(), 72u);
    Decoded d = decode(buf, 72);
    ASSERT_NE(d.tlv, nullptr);
    const cv_aggr_block *blk = static_cast<cv_aggr_block *>(d.tlv->value);
    ASSERT_NE(blk, nullptr);
    EXPECT_EQ(blk->dh.id[31], 0x44);
    ASSERT_EQ(blk->dh.blob_len, 2u);
    EXPECT_EQ(static_cast<uint8_t *>(blk->dh.blob)[1], 0xB2);
    ASSERT_EQ(blk->count, 2u);
    const cv_aggr_entry *e0 = static_cast<cv_aggr_entry *>(blk->entries[0]);
    const cv_aggr_entry *e1 = static_cast<cv_aggr_entry *>(blk->entries[1]);
    EXPECT_EQ(e0->id, 1u);
    EXPECT_STREQ(static_cast<char *>(e0->value), "ab");
    EXPECT_EQ(e0->len, 3u);  // text and NUL
    EXPECT_EQ(e1->id, 2u);
    EXPECT_STREQ(static_cast<char *>(e1->value), "");
    EXPECT_EQ(e1->len, 1u);
    EXPECT_EQ(om_get_tlv_size(d.tlv), 72u);
    EXPECT_EQ(encode(d.tlv), buf);

    // A deep copy outlives the original.
    int32_t st = -1;
    cv_tlv *copy = static_cast<cv_tlv *>(calloc(1, sizeof(cv_tlv)));
    *copy = *d.tlv;
    copy->value = om_clone_tlv_ptr(d.tlv->type, d.tlv->length - 12, d.tlv->value, &st);
    ASSERT_EQ(st, 0);
    om_free_tlv_ptr(d.tlv);
    EXPECT_EQ(encode(copy), buf);
    // Appends grow the array in 16-pointer steps, so a copy of two entries
    // has room up to the 16th (the sanitizer build checks the bound).
    cv_aggr_block *cb = static_cast<cv_aggr_block *>(copy->value);
    for (int i = 2; i < 16; ++i) cb->entries[i] = nullptr;
    om_free_tlv_ptr(copy);
}

TEST(TlvAggregate, OpaqueAndAckEntries) {
    // Keywords (opaque) entry keeps the blob length; ack entries have ids only.
    Bytes kw = hex("80 00 00 0A 00 00 00 3E 00 00 00 00 | 32x44 00 00 00 00 | 00 00 00 01 | "
                   "00 00 00 05 00 00 00 02 6B 00");
    Decoded d = decode(kw, 62);
    ASSERT_NE(d.tlv, nullptr);
    const cv_aggr_entry *e = static_cast<cv_aggr_entry *>(
        static_cast<cv_aggr_block *>(d.tlv->value)->entries[0]);
    EXPECT_EQ(e->id, 5u);
    EXPECT_EQ(e->len, 2u);
    EXPECT_EQ(encode(d.tlv), kw);
    om_free_tlv_ptr(d.tlv);

    Bytes ack = hex("80 00 00 2A 00 00 00 38 00 00 00 00 | 32x44 00 00 00 00 | 00 00 00 01 | "
                    "00 00 00 00");
    d = decode(ack, 56);
    ASSERT_NE(d.tlv, nullptr);
    e = static_cast<cv_aggr_entry *>(static_cast<cv_aggr_block *>(d.tlv->value)->entries[0]);
    EXPECT_EQ(e->value, nullptr);
    EXPECT_EQ(encode(d.tlv), ack);
    om_free_tlv_ptr(d.tlv);
}

TEST(TlvAggregate, ComboEntryCarriesUsageHeader) {
    const Bytes wire = hex(
        "80 00 00 2B 00 00 00 53 00 00 00 00 | 32x45 00 00 00 00 | 00 00 00 01 | 00 00 00 07 | "
        "00 00 00 01 00 00 00 01 00 00 00 01 6E 00 00 00 01 72 00 03 04 00 00 00 00 | 01 02");
    ASSERT_EQ(wire.size(), 83u);

    char name[] = "n", role[] = "r", kw[] = "";
    uint16_t usage = 0x0102;
    cv_combo_entry entry;
    memset(&entry, 0, sizeof entry);
    entry.id = 7;
    entry.hdr.version = 1;
    entry.hdr.caliber = 1;
    entry.hdr.name = name;
    entry.hdr.role = role;
    entry.hdr.level = 3;
    entry.hdr.importance = 4;
    entry.hdr.keywords = kw;
    entry.value = &usage;
    void *entries[1] = {&entry};
    cv_aggr_block block;
    memset(&block, 0, sizeof block);
    memset(block.dh.id, 0x45, sizeof block.dh.id);
    block.count = 1;
    block.entries = entries;
    cv_tlv tlv = {0x8000002Bu, 60, 0, &block};
    EXPECT_EQ(om_get_tlv_size(&tlv), 83u);
    EXPECT_EQ(encode(&tlv), wire);

    int32_t st = -1;
    void *copy = om_clone_tlv_ptr(tlv.type, 48, &block, &st);
    ASSERT_EQ(st, 0);
    cv_tlv *ct = static_cast<cv_tlv *>(calloc(1, sizeof(cv_tlv)));
    *ct = tlv;
    ct->value = copy;
    name[0] = 'Z';  // the copy owns its texts
    EXPECT_EQ(encode(ct), wire);
    om_free_tlv_ptr(ct);

    Bytes buf = wire;
    Decoded d = decode(buf, 83);
    ASSERT_NE(d.tlv, nullptr);
    const cv_combo_entry *got = static_cast<cv_combo_entry *>(
        static_cast<cv_aggr_block *>(d.tlv->value)->entries[0]);
    EXPECT_EQ(got->id, 7u);
    EXPECT_STREQ(got->hdr.name, "n");
    EXPECT_STREQ(got->hdr.role, "r");
    EXPECT_EQ(got->hdr.importance, 4);
    EXPECT_EQ(*static_cast<uint16_t *>(got->value), 0x0102);
    EXPECT_EQ(d.advanced, 83);
    om_free_tlv_ptr(d.tlv);
}

// Every wire type: a plain TLV with the value bytes below decodes, clones,
// re-encodes to the same bytes and frees cleanly.
struct TypeCase {
    uint32_t type;
    const char *value;     // value bytes on the wire
    uint32_t size;         // whole TLV size
};

const TypeCase kTypes[] = {
    {0, "01 02 03", 15},
    {1, "32x61 00 00 00 01", 48},
    {2, "32x62", 44},
    {3, "00 00 00 03", 16},
    {4, "AA", 13},
    {5, "61", 13}, {6, "61 62", 14}, {7, "72 6F 6C 65", 16}, {8, "64", 13}, {9, "6E", 13},
    {10, "6B 00", 14},
    {11, "65 72 72", 15},
    {12, "FD", 13},
    {13, "12 34", 14},
    {14, "01", 13}, {15, "02", 13}, {16, "03", 13}, {17, "04", 13}, {18, "05", 13},
    {19, "00 13", 14},
    {20, "32x14", 44}, {21, "32x15", 44},
    {22, "FF FF FF FF", 16},
    {23, "00 02 A9 F0 7F 00 00 01 00 00 00 00 00 00 00 00", 28},
    {24, "00 02 00 50 7F 00 00 02 00 00 00 00 00 00 00 00", 28},
    {25, "00 00 1F 90", 16}, {26, "00 00 00 0A", 16},
    {27, "63 6C", 14},
    {28, "32x1C 00 00 00 02 6E 62 00 00 00 01 AA 00 00 00 01", 59},
    {29, "00 02", 14},
    {30, "32x1E", 44},
    {31, "00 00 01 00", 16}, {32, "00 00 02 00", 16}, {33, "00 00 03 00", 16},
    {34, "00 00 00 20", 16},
    {36, "FF FF FF FF 00 00 00 01 00 00 00 02 00 00 00 03 00 00 00 04 00 00 00 05 "
         "00 00 00 06 00 00 00 07 00 00 00 08 00 00 00 09 00 00 00 0A", 56},
    {38, "00 00 00 01", 16},
    {39, "00 01 00 02 00 03 00 04 00 05 00 06 00 07 00 08 00 09 00 0A 00 0B", 34},
    {40, "74", 13},
    {41, "29", 13},
    {43, "00 2B", 14},
    {44, "00 01 00 02 00 03 00 04 00 05 00 06 00 07 00 08 00 09 00 0A 00 0B", 34},
    {45, "00 00 00 01 00 00 00 02 00 00 00 03 00 00 00 04 00 00 00 05 00 00 00 06 "
         "00 00 00 07 00 00 00 08 00 00 00 09 00 00 00 0A 00 00 00 0B", 56},
    {46, "00 00 00 03 61 62 63 01 02 00 00 00 01", 25},
    {47, "12 34 56 78", 16},
    {48, "70 63", 14},
    {49, "00 31", 14},
    {50, "00 00 00 3C 11 22 00 00 00 09 00 00 00 01", 26},
    {51, "FF FF FF FF", 16},
};

TEST(TlvTypes, EveryTypeRoundTripsThroughDecodeCloneEncode) {
    for (const TypeCase &c : kTypes) {
        SCOPED_TRACE(c.type);
        Bytes value = hex(c.value);
        uint32_t len = static_cast<uint32_t>(12 + value.size());
        Bytes wire = concat({hex("00 00 00 00"), Bytes{0, 0, 0, static_cast<uint8_t>(len)},
                             hex("00 00 00 00"), value});
        wire[3] = static_cast<uint8_t>(c.type);
        Decoded d = decode(wire, static_cast<int32_t>(wire.size()));
        ASSERT_NE(d.tlv, nullptr);
        EXPECT_EQ(om_get_tlv_size(d.tlv), c.size);
        EXPECT_EQ(encode(d.tlv), wire);

        int32_t st = -1;
        cv_tlv *copy = static_cast<cv_tlv *>(calloc(1, sizeof(cv_tlv)));
        *copy = *d.tlv;
        copy->value = om_clone_tlv_ptr(d.tlv->type, d.tlv->length - 12, d.tlv->value, &st);
        EXPECT_EQ(st, 0);
        ASSERT_NE(copy->value, nullptr);
        EXPECT_NE(copy->value, d.tlv->value);
        om_free_tlv_ptr(d.tlv);
        EXPECT_EQ(encode(copy), wire);
        om_free_tlv_ptr(copy);
    }
}

TEST(TlvTypes, EventIdTlvKeepsTheDecodingQuirk) {
    Bytes wire = hex("00 00 00 23 00 00 00 30 00 00 00 00 | 00 00 00 07 | "
                     "A0 A1 A2 A3 A4 A5 A6 A7 A8 A9 AA AB AC AD AE AF "
                     "B0 B1 B2 B3 B4 B5 B6 B7 B8 B9 BA BB BC BD BE BF");
    Decoded d = decode(wire, 48);
    ASSERT_NE(d.tlv, nullptr);
    EXPECT_EQ(static_cast<cv_event_id *>(d.tlv->value)->number, 7u);
    EXPECT_EQ(om_get_tlv_size(d.tlv), 48u);
    // Sent back, the id shows the number's bytes in front.
    EXPECT_EQ(encode(d.tlv), hex("00 00 00 23 00 00 00 30 00 00 00 00 | 00 00 00 07 | "
                                 "00 00 00 07 A0 A1 A2 A3 A4 A5 A6 A7 A8 A9 AA AB "
                                 "AC AD AE AF B0 B1 B2 B3 B4 B5 B6 B7 B8 B9 BA BB"));
    om_free_tlv_ptr(d.tlv);
}

TEST(TlvTypes, DecodedIntegersAreHostValues) {
    struct { uint32_t type; const char *value; int64_t expect; size_t width; } cases[] = {
        {12, "FD", -3, 1}, {14, "C8", 200, 1}, {13, "12 34", 0x1234, 2},
        {3, "01 02 03 04", 0x01020304, 4}, {22, "FF FF FF FE", -2, 4},
        {31, "00 01 00 00", 65536, 4}, {47, "80 00 00 01", 0x80000001LL, 4},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.type);
        Bytes value = hex(c.value);
        Bytes wire = concat({Bytes{0, 0, 0, static_cast<uint8_t>(c.type)},
                             Bytes{0, 0, 0, static_cast<uint8_t>(12 + value.size())},
                             hex("00 00 00 00"), value});
        Decoded d = decode(wire, static_cast<int32_t>(wire.size()));
        ASSERT_NE(d.tlv, nullptr);
        int64_t got = 0;
        const void *v = d.tlv->value;
        if (c.width == 1 && c.expect < 0) got = *static_cast<const int8_t *>(v);
        if (c.width == 1 && c.expect >= 0) got = *static_cast<const uint8_t *>(v);
        if (c.width == 2) got = *static_cast<const uint16_t *>(v);
        if (c.width == 4 && c.expect < 0) got = *static_cast<const int32_t *>(v);
        if (c.width == 4 && c.expect >= 0) got = *static_cast<const uint32_t *>(v);
        EXPECT_EQ(got, c.expect);
        om_free_tlv_ptr(d.tlv);
    }
}

TEST(TlvTypes, ValuelessTypes) {
    omsdk_test::LogCapture cap(0);
    for (uint32_t type : {37u, 42u}) {
        SCOPED_TRACE(type);
        Bytes bare = concat({Bytes{0, 0, 0, static_cast<uint8_t>(type)}, hex("00 00 00 0C 00 00 00 00")});
        Decoded d = decode(bare, 12);
        ASSERT_NE(d.tlv, nullptr);
        EXPECT_EQ(om_get_tlv_size(d.tlv), 12u);
        om_free_tlv_ptr(d.tlv);
        // A value where the type has none is left over: a mismatch.
        Bytes extra = concat({Bytes{0, 0, 0, static_cast<uint8_t>(type)}, hex("00 00 00 10 00 00 00 00 01 02 03 04")});
        EXPECT_EQ(decode(extra, 16).tlv, nullptr);
        // Sizing ignores a value given anyway.
        uint32_t v = 1;
        cv_tlv t = {type, 16, 0, &v};
        EXPECT_EQ(om_get_tlv_size(&t), 12u);
        int32_t st = -1;
        EXPECT_EQ(om_clone_tlv_ptr(type, 4, &v, &st), nullptr);
        EXPECT_EQ(st, 0);
    }
    EXPECT_EQ(cap.count_containing("mismatched"), 2u);
}

// Sizes of values inside an aggregate: texts and blobs gain a 4-byte length.
TEST(TlvTypes, AggregateEntrySizes) {
    char text[] = "abcd";
    uint8_t blob[5] = {1, 2, 3, 4, 5};
    uint32_t word = 9;
    uint16_t half = 3;
    struct { uint32_t type; void *value; uint32_t len; uint32_t value_size; } cases[] = {
        {9, text, 4, 8}, {10, blob, 5, 9}, {0, blob, 5, 9}, {13, &half, 2, 2}, {3, &word, 4, 4},
        {42, nullptr, 0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.type);
        cv_aggr_entry e = {1, c.len, c.value};
        void *entries[1] = {&e};
        cv_aggr_block b;
        memset(&b, 0, sizeof b);
        b.count = 1;
        b.entries = entries;
        cv_tlv t = {CV_TLV_AGGREGATE_FLAG | c.type, 60, 0, &b};
        // header 12, device header 36, count 4, entry id 4
        EXPECT_EQ(om_get_tlv_size(&t), 56u + c.value_size);
        b.count = 0;
        EXPECT_EQ(om_get_tlv_size(&t), 52u);
    }
}

TEST(TlvTable, LengthFigures) {
    const int32_t expect[omsdk::kTlvTypeCount] = {
        0,  36, 32, 4,  0,  0,  0,  0,  0,  0,  0,  0,  1,  2,  1,  1,  1,  1,
        1,  2,  32, 32, 4,  16, 16, 4,  4,  0,  84, 2,  32, 4,  4,  4,  4,  36,
        44, -1, 4,  22, 0,  1,  4,  26, 46, 68, 12, -1, 0,  -1, -1, 4};
    for (uint32_t t = 0; t < omsdk::kTlvTypeCount; ++t)
        EXPECT_EQ(omsdk::type_length_figure(t), expect[t]) << "type " << t;
    EXPECT_EQ(omsdk::type_length_figure(52), -1);
    EXPECT_EQ(omsdk::type_length_figure(0x3FFFFFFF), -1);
}

}  // namespace
