// SPDX-License-Identifier: Apache-2.0
// Received messages: their size and header checks, and the digest
// verdict.
#include <gtest/gtest.h>

#include <tuple>

#include <omsdk/codec.h>
#include <omsdk/enums.h>
#include <omsdk/pdu.h>

#include "log_capture.h"
#include "wire_test_util.h"

using namespace wire_test;

namespace {

const Bytes kKey = hex("6b 65 79 2d 6f 66 2d 74 68 65 2d 64 6f 6d 61 69 6e");
const Bytes kOtherKey = hex("6b 65 79 2d 6f 66 2d 74 68 65 2d 64 6f 6d 61 69 6f");

constexpr char kSender[] = "fedcba9876543210fedcba9876543210";

// Signed with kKey: sequence 9, priority 100, class 10, action 11, comm 1.
Bytes empty_message() { return frame(kSender, 9, -1, 100, 10, 11, 1, 0, {}, kKey); }

// NAME "abc", LEVEL 42 and an 8-byte REPLY_TO.
Bytes three_tlv_message() {
    return frame(kSender, 9, 0, 100, 10, 11, 1, 3,
                 hex("00 00 00 09 00 00 00 0f 00 00 00 00 61 62 63 | "
                     "00 00 00 0e 00 00 00 0d 00 00 00 00 2a | "
                     "00 00 00 17 00 00 00 14 00 00 00 00 01 02 03 04 05 06 07 08"),
                 kKey);
}

// The digest verdict on an empty message; a three-TLV one is decoded, its
// buffer let go (auth 1), and a second unpack changes nothing.
TEST(Unpack, DigestVerdictAndDecodedTlvs) {
    const Bytes msg = empty_message();
    ASSERT_EQ(80u, msg.size());
    KeyCtx right(kKey), wrong(kOtherKey);
    const std::pair<const hmac_sha_ctx *, uint32_t> cases[] = {
        {&right.ctx, 1}, {&wrong.ctx, 0}, {nullptr, 0}};
    for (const auto &k : cases) {
        int32_t rc = -1, index = 0;
        EventPtr ev = receive(msg, k.first, &rc);
        ASSERT_TRUE(ev);
        EXPECT_EQ(std::make_tuple(0, k.second, 1u, 257u, ev->pak->seq, ev->pak->shipment),
                  std::make_tuple(rc, ev->digest_ok, ev->ready, ev->state, 9u, int8_t{-1}));
        EXPECT_EQ(nullptr, cv_get_tlv_value(ev.get(), &index, CV_CORVANE_TLV_TYPE_NAME, nullptr));
        EXPECT_EQ(std::make_pair(-1, uint16_t{0}), std::make_pair(index, ev->pak->tlv_count));
    }
    int32_t rc = -1;
    EventPtr ev = receive(three_tlv_message(), &right.ctx, &rc);
    ASSERT_EQ(std::make_pair(0, uint16_t{3}), std::make_pair(rc, ev->pak->tlv_count));
    EXPECT_EQ(std::make_tuple(ev->digest_ok, ev->tlv_capacity, ev->pak->tlv_bytes, ev->raw,
                              ev->raw_present, ev->raw_len),
              std::make_tuple(1u, 3, uint16_t{0x30}, nullptr, 0u, 0u));
    EXPECT_STREQ("abc", static_cast<char *>(ev->tlvs[0]->value));
    EXPECT_EQ(42, *static_cast<uint8_t *>(ev->tlvs[1]->value));
    EXPECT_EQ(0, memcmp(hex("01 02 03 04 05 06 07 08").data(), ev->tlvs[2]->value, 8));
    EXPECT_EQ(0, cv_unpack_event(ev.get(), &right.ctx));
    EXPECT_EQ(3, ev->pak->tlv_count);
}

// Receives with kKey: result 0 is a ready event with the digest verdict 1,
// any other an error state, nothing ready or kept, no verdict.
EventPtr expect_result(const Bytes &msg, int32_t result) {
    KeyCtx key(kKey);
    int32_t rc = -1;
    EventPtr ev = receive(msg, &key.ctx, &rc);
    EXPECT_EQ(result, rc);
    if (ev && result == 0) {
        EXPECT_EQ(std::make_tuple(ev->state, ev->ready, ev->digest_ok),
                  std::make_tuple(257u, 1u, 1u));
    } else if (ev) {
        EXPECT_EQ(std::make_tuple(ev->state, ev->ready, ev->digest_ok, ev->pak, ev->tlvs),
                  std::make_tuple(263u, 0u, 0u, nullptr, nullptr));
    }
    return ev;
}

// Single bytes changed in the three-TLV message (signed again): security
// headers other than enc 2, auth 1, comm 0..4, digest length 20, TLVs that
// do not fit, and sizes other than the header says fail the whole message.
TEST(Unpack, BadSizesHeadersAndTlvs) {
    omsdk_test::QuietLog quiet;
    const Bytes msg = empty_message();
    EXPECT_EQ(nullptr, cv_mkevent_from_rawbuffer(59, msg.data()));  // shorter than the headers
    EXPECT_EQ(nullptr, cv_mkevent_from_rawbuffer(-1, msg.data()));
    Bytes claims_more = msg;
    claims_more[77] = 0x01;  // one TLV byte that is not there
    claims_more.resize(78);
    for (const Bytes &m : {cat({msg, {0}}), claims_more, Bytes(msg.begin(), msg.begin() + 70)})
        EXPECT_TRUE(expect_result(m, 3)) << m.size();
    // {offset, byte, result}: enc 3, reserved nibble, auth 2, auth 0, comm 5,
    // comm 0, comm 4, digest length 16, digest length 276; TLV count beyond
    // the TLVs, count the bytes cannot hold, TLV length past the end, TLV
    // length below its header, level with a spare byte.
    const int cases[][3] = {{1, 0x03, 5},  {1, 0x12, 0},  {9, 0x21, 5},  {9, 0x01, 5},
                            {9, 0x15, 5},  {9, 0x10, 0},  {9, 0x14, 0},  {11, 0x10, 5},
                            {10, 0x01, 5}, {79, 0x04, 1}, {78, 0xff, 1}, {87, 0x31, 1},
                            {87, 0x08, 1}, {102, 0x0e, 1}};
    for (const auto &r : cases) {
        SCOPED_TRACE(testing::Message() << "byte " << r[0] << " = " << r[1]);
        Bytes m = three_tlv_message();
        m[static_cast<size_t>(r[0])] = static_cast<uint8_t>(r[1]);
        sign(m, kKey);
        EXPECT_TRUE(expect_result(m, r[2]));
    }
}

}  // namespace
