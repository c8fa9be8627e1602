// Field codecs: integers, ids, texts, blobs, vectors. Expected bytes are
// typed from the wire layouts.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <omsdk/codec.h>

#include "hex.h"

using codec_test::Bytes;
using codec_test::hex;

namespace {

// One integer codec: packs `value` to `wire`, decodes `wire` back, and
// refuses to decode from one byte too few.
template <typename T>
void check_int(const char *name, uint32_t (*pack)(uint8_t *, T),
               void (*unpack)(const uint8_t *, T *, uint32_t *, int32_t *, int32_t *),
               T *(*unpack_ptr)(const uint8_t *, uint32_t *, int32_t *, int32_t *), T value,
               const char *wire_text) {
    SCOPED_TRACE(name);
    const Bytes wire = hex(wire_text);
    const uint32_t n = static_cast<uint32_t>(wire.size());

    uint8_t out[16];
    memset(out, 0xEE, sizeof out);
    EXPECT_EQ(pack(out + 1, value), n);  // odd address: no alignment needed
    EXPECT_EQ(Bytes(out + 1, out + 1 + n), wire);
    EXPECT_EQ(out[1 + n], 0xEE) << "wrote past the value";

    Bytes in(1, 0x00);
    in.insert(in.end(), wire.begin(), wire.end());
    in.insert(in.end(), {0xAA, 0xBB, 0xCC});
    T got{};
    uint32_t consumed = 99;
    int32_t remaining = static_cast<int32_t>(n) + 3, status = -1;
    unpack(in.data() + 1, &got, &consumed, &remaining, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(got, value);
    EXPECT_EQ(consumed, n);
    EXPECT_EQ(remaining, 3);

    T keep = static_cast<T>(0x5A);
    consumed = 99;
    remaining = static_cast<int32_t>(n) - 1;
    unpack(in.data() + 1, &keep, &consumed, &remaining, &status);
    EXPECT_EQ(status, 8);
    EXPECT_EQ(consumed, 0u);
    EXPECT_EQ(remaining, static_cast<int32_t>(n) - 1);
    EXPECT_EQ(keep, static_cast<T>(0x5A));

    remaining = static_cast<int32_t>(n);
    T *p = unpack_ptr(in.data() + 1, &consumed, &remaining, &status);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(*p, value);
    EXPECT_EQ(remaining, 0);
    free(p);
    remaining = -5;  // a negative budget holds nothing
    EXPECT_EQ(unpack_ptr(in.data() + 1, &consumed, &remaining, &status), nullptr);
    EXPECT_EQ(status, 8);
    EXPECT_EQ(remaining, -5);
}

TEST(CodecInt, BigEndianByteByByte) {
    check_int<uint8_t>("uint8", om_pack_uint8, om_unpack_uint8, om_unpack_uint8_ptr, 0xAB, "AB");
    check_int<int8_t>("int8", om_pack_int8, om_unpack_int8, om_unpack_int8_ptr, -2, "FE");
    check_int<uint16_t>("uint16", om_pack_uint16, om_unpack_uint16, om_unpack_uint16_ptr, 0x1234,
                        "12 34");
    check_int<uint32_t>("uint32", om_pack_uint32, om_unpack_uint32, om_unpack_uint32_ptr,
                        0x01020304u, "01 02 03 04");
    check_int<int32_t>("int32", om_pack_int32, om_unpack_int32, om_unpack_int32_ptr, -2,
                       "FF FF FF FE");
    check_int<int32_t>("long", om_pack_long, om_unpack_long, om_unpack_long_ptr, 0x7FFFFF80,
                       "7F FF FF 80");
    check_int<int32_t>("boolean", om_pack_boolean, om_unpack_boolean, om_unpack_boolean_ptr, 1,
                       "00 00 00 01");
    check_int<int32_t>("int32 min", om_pack_int32, om_unpack_int32, om_unpack_int32_ptr,
                       INT32_MIN, "80 00 00 00");
}

TEST(CodecInt, OneByteLeftForUint16) {
    const uint8_t one[] = {0x12};
    uint16_t v = 7;
    uint32_t consumed = 5;
    int32_t remaining = 1, status = 0;
    om_unpack_uint16(one, &v, &consumed, &remaining, &status);
    EXPECT_EQ(status, 8);
    EXPECT_EQ(consumed, 0u);
    EXPECT_EQ(remaining, 1);
    EXPECT_EQ(v, 7);
}

TEST(CodecText, StringInsideRecordHasLengthPrefix) {
    uint8_t out[16];
    memset(out, 0xEE, sizeof out);
    EXPECT_EQ(om_pack_string(out, "abc"), 7u);
    EXPECT_EQ(Bytes(out, out + 8), hex("00 00 00 03 61 62 63 EE"));

    memset(out, 0xEE, sizeof out);
    EXPECT_EQ(om_pack_string(out, nullptr), 0u);
    EXPECT_EQ(om_pack_string_tlv(out, nullptr), 0u);
    EXPECT_EQ(out[0], 0xEE);
    EXPECT_EQ(om_pack_string_tlv(out, "abc"), 3u);
    EXPECT_EQ(Bytes(out, out + 4), hex("61 62 63 EE"));
}

struct StringCase {
    const char *name;
    const char *wire;
    int32_t remaining;
    int32_t status;
    const char *text;  // expected text when status is 0
    uint32_t consumed;
};

TEST(CodecText, StringDecoding) {
    const StringCase cases[] = {
        {"plain", "00 00 00 03 61 62 63 58", 8, 0, "abc", 7},
        {"empty", "00 00 00 00", 4, 0, "", 4},
        {"negative length", "FF FF FF FF 61", 5, 8, nullptr, 0},
        {"huge length", "7F FF FF FF 61 62 63 64", 8, 8, nullptr, 0},
        {"length past remaining", "00 00 00 05 61 62 63 64 65", 7, 8, nullptr, 0},
        {"no prefix", "00 00 00", 3, 8, nullptr, 0},
    };
    for (const StringCase &c : cases) {
        SCOPED_TRACE(c.name);
        Bytes in = hex(c.wire);
        uint32_t consumed = 77;
        int32_t remaining = c.remaining, status = -1;
        char *text = om_unpack_string_ptr(in.data(), &consumed, &remaining, &status);
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(consumed, c.consumed);
        EXPECT_EQ(remaining, c.remaining - static_cast<int32_t>(c.consumed));
        if (c.text == nullptr) {
            EXPECT_EQ(text, nullptr);
        } else {
            ASSERT_NE(text, nullptr);  // even the empty text is allocated
            EXPECT_STREQ(text, c.text);
        }
        free(text);
    }
}

TEST(CodecText, StringTlvTakesGivenLength) {
    Bytes in = hex("61 62 63 64");
    uint32_t consumed = 0;
    int32_t remaining = 4, status = -1;
    char *t = om_unpack_string_tlv_ptr(in.data(), 3, &consumed, &remaining, &status);
    ASSERT_NE(t, nullptr);
    EXPECT_STREQ(t, "abc");
    EXPECT_EQ(consumed, 3u);
    EXPECT_EQ(remaining, 1);
    free(t);
    EXPECT_EQ(om_unpack_string_tlv_ptr(in.data(), 2, &consumed, &remaining, &status), nullptr);
    EXPECT_EQ(status, 8);
    EXPECT_EQ(remaining, 1);
}

TEST(CodecBlob, VoidForms) {
    const uint8_t data[] = {0xDE, 0xAD};
    uint8_t out[16];
    memset(out, 0xEE, sizeof out);
    EXPECT_EQ(om_pack_void(out, data, 2), 6u);
    EXPECT_EQ(Bytes(out, out + 7), hex("00 00 00 02 DE AD EE"));
    memset(out, 0xEE, sizeof out);
    EXPECT_EQ(om_pack_void_tlv(out, nullptr, 5), 5u);  // the length is reported, nothing copied
    EXPECT_EQ(out[0], 0xEE);
    EXPECT_EQ(om_pack_void_tlv(out, data, 2), 2u);
    EXPECT_EQ(Bytes(out, out + 3), hex("DE AD EE"));

    Bytes zero = hex("00 00 00 00 99");
    uint32_t len = 9, consumed = 0;
    int32_t remaining = 5, status = -1;
    EXPECT_EQ(om_unpack_void_ptr(zero.data(), &len, &consumed, &remaining, &status), nullptr);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(consumed, 4u);
    EXPECT_EQ(remaining, 1);

    Bytes two = hex("00 00 00 02 DE AD");
    remaining = 6;
    void *blob = om_unpack_void_ptr(two.data(), &len, &consumed, &remaining, &status);
    ASSERT_NE(blob, nullptr);
    EXPECT_EQ(len, 2u);
    EXPECT_EQ(memcmp(blob, data, 2), 0);
    free(blob);

    for (const char *bad : {"00 00 00 03 DE AD", "80 00 00 00 DE AD"}) {
        Bytes b = hex(bad);
        remaining = 6;
        consumed = 3;
        EXPECT_EQ(om_unpack_void_ptr(b.data(), &len, &consumed, &remaining, &status), nullptr);
        EXPECT_EQ(status, 8);
        EXPECT_EQ(consumed, 0u);
        EXPECT_EQ(remaining, 6);
    }

    remaining = 2;
    blob = om_unpack_void_tlv_ptr(data, 2, &consumed, &remaining, &status);
    ASSERT_NE(blob, nullptr);
    EXPECT_EQ(remaining, 0);
    free(blob);
    remaining = 2;
    EXPECT_EQ(om_unpack_void_tlv_ptr(data, 3, &consumed, &remaining, &status), nullptr);
    EXPECT_EQ(status, 8);
}

TEST(CodecVector, UsageVectorIs22Bytes) {
    const uint16_t v[CV_VECTOR_LEN] = {0x0001, 0x0203, 0x0405, 0x0607, 0x0809, 0x0A0B,
                                       0x0C0D, 0x0E0F, 0x1011, 0x1213, 0xFFFF};
    const Bytes wire = hex("00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12 13 FF FF");
    uint8_t out[32];
    EXPECT_EQ(om_pack_usage_vector(out, v), 22u);
    EXPECT_EQ(Bytes(out, out + 22), wire);

    uint32_t consumed = 0;
    int32_t remaining = 22, status = -1;
    uint16_t *got = om_unpack_usage_vector_ptr(wire.data(), &consumed, &remaining, &status);
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(consumed, 22u);
    EXPECT_EQ(memcmp(got, v, sizeof v), 0);
    for (int i = CV_VECTOR_LEN; i < 2 * CV_VECTOR_LEN; ++i) EXPECT_EQ(got[i], 0) << i;
    free(got);
    remaining = 21;
    EXPECT_EQ(om_unpack_usage_vector_ptr(wire.data(), &consumed, &remaining, &status), nullptr);
    EXPECT_EQ(status, 8);
}

TEST(CodecVector, DeltaVectorIs44Bytes) {
    const int32_t v[CV_VECTOR_LEN] = {-1, 1, 0x01020304, 0, -256, 2, 3, 4, 5, 6, 7};
    const Bytes wire = hex(
        "FF FF FF FF 00 00 00 01 01 02 03 04 00 00 00 00 FF FF FF 00 00 00 00 02 "
        "00 00 00 03 00 00 00 04 00 00 00 05 00 00 00 06 00 00 00 07");
    uint8_t out[48];
    EXPECT_EQ(om_pack_delta_vector(out, v), 44u);
    EXPECT_EQ(Bytes(out, out + 44), wire);
    int32_t got[CV_VECTOR_LEN];
    uint32_t consumed = 0;
    int32_t remaining = 44, status = -1;
    om_unpack_delta_vector(wire.data(), got, &consumed, &remaining, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(remaining, 0);
    EXPECT_EQ(memcmp(got, v, sizeof v), 0);
}

}  // namespace
