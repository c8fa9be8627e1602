// SPDX-License-Identifier: Apache-2.0
// Events: building TLV lists, look-ups and freeing; received messages with
// their size and header checks, the digest verdict; hostile bytes.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <random>
#include <tuple>

#include <omsdk/aggregate.h>
#include <omsdk/codec.h>
#include <omsdk/enums.h>
#include <omsdk/pdu.h>

#include "log_capture.h"
#include "wire_test_util.h"

using namespace wire_test;

namespace {

// Values are copied, a header-only TLV has none, the array grows by 16;
// look-ups by type, qualifier and index.
TEST(Event, AddingAndFindingTlvs) {
    EventPtr ev(corvane_create_my_packet());
    char text[] = "lab";
    uint8_t a = 1, b = 2, c = 3;
    ASSERT_EQ(0, cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, 13, &a));
    ASSERT_EQ(0, cv_add_tlv_common(ev.get(), CV_CORVANE_TLV_TYPE_IMPORTANCE, 13, &b, 1));
    ASSERT_EQ(0, cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_IMPORTANCE, 13, &c));
    ASSERT_EQ(0, cv_add_tlv_common(ev.get(), CV_CORVANE_TLV_TYPE_IMPORTANCE, 13, &a, 1));
    EXPECT_EQ(ev->tlvs[1], cv_get_next_tlv(ev.get(), CV_CORVANE_TLV_TYPE_IMPORTANCE));
    EXPECT_EQ(nullptr, cv_get_next_tlv(ev.get(), CV_CORVANE_TLV_TYPE_NAME));
    // {start index, qualifier, index found (-1: none)}; 4 is the count.
    const int32_t cases[][3] = {{0, 0, 2}, {2, 0, 2},  {3, 0, -1}, {0, 1, 1},
                                {2, 1, 3}, {4, 0, -1}, {4, 1, -1}, {-1, 0, -1}};
    for (const auto &k : cases) {
        SCOPED_TRACE(testing::Message() << "start " << k[0] << " qualifier " << k[1]);
        int32_t index = k[0], again = k[0];
        uint32_t len = 0;
        void *v = cv_get_next_tlv_value(ev.get(), &index, CV_CORVANE_TLV_TYPE_IMPORTANCE, &len,
                                        static_cast<uint32_t>(k[1]));
        EXPECT_EQ(std::make_tuple(k[2], k[2] < 0 ? nullptr : ev->tlvs[k[2]]->value, k[2] >= 0),
                  std::make_tuple(index, v, len == 1));
        if (k[1] == 0) {  // the same without a qualifier
            EXPECT_EQ(v, cv_get_tlv_value(ev.get(), &again, CV_CORVANE_TLV_TYPE_IMPORTANCE, &len));
            EXPECT_EQ(k[2], again);
        }
    }
    ASSERT_EQ(0, cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_NAME, 16, text));
    ASSERT_EQ(0, cv_add_tlv(ev.get(), 42, 12, text));
    text[0] = 'X';
    EXPECT_STREQ("lab", static_cast<char *>(ev->tlvs[4]->value));
    EXPECT_EQ(std::make_pair(12u, static_cast<void *>(nullptr)),
              std::make_pair(ev->tlvs[5]->length, ev->tlvs[5]->value));
    // No event, a length below the header or no value: nothing is added.
    EXPECT_NE(0, cv_add_tlv(nullptr, 14, 13, text));
    EXPECT_NE(0, cv_add_tlv(ev.get(), 14, 11, text));
    EXPECT_NE(0, cv_add_tlv(ev.get(), 14, 13, nullptr));
    for (int i = 6; i < 17; ++i) {  // past 16 the array grows
        uint8_t v = static_cast<uint8_t>(i);
        ASSERT_EQ(0, cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, 13, &v));
    }
    for (int i = 6; i < 17; ++i) EXPECT_EQ(i, *static_cast<uint8_t *>(ev->tlvs[i]->value));
}

// An event's TLVs and values go with the event, however an application
// handles them: om_free_tlv_ptr on one of them leaves it to the event, a
// copy of one with a value of its own is freed whole, an emptied event is
// filled again, and each release call frees all of it. Enough TLVs to need
// more memory than an event starts with; the sanitizer build sees anything
// freed twice, read after its free, or left behind.
TEST(Event, TlvsGoWithTheirEventHoweverReleased) {
    char text[] = "a-keyword-list";
    const uint32_t len = 12 + sizeof text;
    for (int release = 0; release < 3; ++release) {
        SCOPED_TRACE(release);
        cv_event *ev = corvane_create_my_packet();
        for (int i = 0; i < 120; ++i)
            ASSERT_EQ(0, cv_add_tlv(ev, CV_CORVANE_TLV_TYPE_NAME, len, text));
        om_free_tlv_ptr(ev->tlvs[3]);
        EXPECT_STREQ(text, static_cast<char *>(ev->tlvs[3]->value));
        auto *mine = static_cast<cv_tlv *>(malloc(sizeof(cv_tlv)));
        memcpy(mine, ev->tlvs[5], sizeof *mine);
        int32_t st = -1;
        mine->value = om_clone_tlv_ptr(mine->type, len - 12, mine->value, &st);
        om_free_tlv_ptr(mine);
        for (int i = 0; i < 120; ++i) ASSERT_STREQ(text, static_cast<char *>(ev->tlvs[i]->value));
        cv_free_tlvs(ev);
        for (uint8_t i = 0; i < 40; ++i) ASSERT_EQ(0, cv_add_tlv(ev, 14, 13, &i));
        ASSERT_EQ(0, omr_createPdu(ev, 1, 1, 10, 11, nullptr, 1, nullptr, 1));
        for (uint8_t i = 0; i < 40; ++i) {
            EXPECT_EQ(i, *static_cast<uint8_t *>(ev->tlvs[i]->value));
            EXPECT_EQ(i, ev->raw[80 + 13 * i + 12]);
        }
        if (release == 0) corvane_try_gc(ev);
        if (release == 1) {
            ev->state = CV_EVENT_STATE_REPLY;
            cv_cleanup_event(ev);
        }
        if (release == 2) {
            cv_free_tlvs(ev);
            cv_free_data(ev);
            omr_releasePacket(ev);
        }
    }
}

const Bytes kKey = hex("6b 65 79 2d 6f 66 2d 74 68 65 2d 64 6f 6d 61 69 6e");
const Bytes kOtherKey = hex("6b 65 79 2d 6f 66 2d 74 68 65 2d 64 6f 6d 61 69 6f");

// A message signed with kKey: the event header ends in `hdr_tail`.
Bytes message(const char *hdr_tail, const Bytes &tlvs = {}) {
    Builder m;
    m.h("00 02 00 00 00 00 00 00 00 11 00 14 | 20x00 | 00 00 00 09")
        .s("fedcba9876543210fedcba9876543210")
        .h(hdr_tail)
        .raw(tlvs);
    sign(m.b, kKey);
    return m.b;
}

Bytes empty_message() { return message("01 ff 64 0a 11 0a 00 0b 00 00 00 00"); }

// NAME "abc", LEVEL 42 and an 8-byte REPLY_TO.
Bytes three_tlv_message() {
    return message("01 00 64 0a 11 0a 00 0b 00 30 00 03",
                   hex("00 00 00 09 00 00 00 0f 00 00 00 00 61 62 63 | "
                       "00 00 00 0e 00 00 00 0d 00 00 00 00 2a | "
                       "00 00 00 17 00 00 00 14 00 00 00 00 01 02 03 04 05 06 07 08"));
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

TEST(Unpack, SizeMismatch) {
    const Bytes msg = empty_message();
    EXPECT_EQ(nullptr, cv_mkevent_from_rawbuffer(59, msg.data()));  // shorter than the headers
    EXPECT_EQ(nullptr, cv_mkevent_from_rawbuffer(-1, msg.data()));
    Bytes claims_more = msg;
    claims_more[77] = 0x01;  // one TLV byte that is not there
    claims_more.resize(78);
    const std::pair<Bytes, const char *> rows[] = {
        {cat({msg, {0}}), "Cant unpack size mismatch: got 81, expecting: 80"},
        {claims_more, "Cant unpack size mismatch: got 78, expecting: 80"},
        {Bytes(msg.begin(), msg.begin() + 70), "Cant unpack size mismatch: got 70, expecting: 80"},
    };
    for (const auto &r : rows) {
        omsdk_test::LogCapture cap(0);
        EXPECT_TRUE(expect_result(r.first, 3));
        EXPECT_TRUE(cap.contains(r.second)) << cap.dump();
    }
}

// Single bytes changed in the three-TLV message (signed again): security
// headers other than enc 2, auth 1, comm 0..4, digest length 20, and TLVs
// that do not fit, fail the whole message.
TEST(Unpack, BadHeadersAndTlvs) {
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
        Bytes msg = three_tlv_message();
        msg[static_cast<size_t>(r[0])] = static_cast<uint8_t>(r[1]);
        sign(msg, kKey);
        EXPECT_TRUE(expect_result(msg, r[2]));
    }
}

// Signs the event into a message: seq 77, pri 9, comm 2.
Bytes make_pdu(cv_event *ev) {
    KeyCtx key(kKey);
    const char *id = "abcdefghijklmnopqrstuvwxyz012345";
    EXPECT_EQ(0, omr_createPdu(ev, 9, CV_SHIPMENT_REPLY_NO_ERROR, CV_CLASS_QUERY, 11,
                               reinterpret_cast<const uint8_t *>(id), 77, &key.ctx, 2));
    return raw_of(ev);
}

// Aggregates of texts, vectors and combo entries for two devices.
Bytes aggregate_message() {
    EventPtr ev(corvane_create_my_packet());
    uint8_t blob[3] = {0x0a, 0x0b, 0x0c};
    cv_device_header dh[2] = {{{0}, 3, blob}, {{0}, 0, nullptr}};
    memset(dh[1].id, 0x33, 32);
    char name[] = "n1", role[] = "r", kw[] = "k1,k2";
    const cv_usage_cmn_hdr hdr = {1, -1, name, role, -2, 1, 99, kw};
    const uint16_t uv[CV_VECTOR_LEN] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
    for (uint32_t i = 0; i < 4; ++i) {
        cv_device_header *d = &dh[i % 2];
        EXPECT_EQ(0, cv_add_aggr_type_tlv(ev.get(), CV_CORVANE_TLV_TYPE_NAME, name, i, d, nullptr));
        EXPECT_EQ(
            0, cv_add_aggr_type_tlv(ev.get(), CV_CORVANE_TLV_TYPE_USAGE_VECTOR, uv, i, d, nullptr));
        EXPECT_EQ(0, cv_add_aggr_type_tlv(ev.get(), 44, uv, i, d, &hdr));
        EXPECT_EQ(0, cv_aggr_ack(ev.get(), i, d));
    }
    return make_pdu(ev.get());
}

// Random damage to valid messages must never read or write outside the
// buffer or leak (checked under the sanitizers); bounded rounds.
TEST(Unpack, HostileBytesAreContained) {
    omsdk_test::LogCapture quiet(OHMARA_LOG_FATAL);
    KeyCtx key(kKey);
    const Bytes seeds[] = {empty_message(), three_tlv_message(), aggregate_message(),
                           aggregate_message()};
    for (const Bytes &m : seeds) {  // undamaged, every seed is accepted
        int32_t rc = -1;
        EventPtr ev = receive(m, &key.ctx, &rc);
        ASSERT_EQ(std::make_pair(0, 1u), std::make_pair(rc, ev->digest_ok));
    }
    std::mt19937 rng(12345);
    for (int round = 0; round < 6000; ++round) {
        Bytes msg = seeds[round % 4];
        int edits = 1 + static_cast<int>(rng() % 6);
        for (int e = 0; e < edits; ++e)
            msg[32 + rng() % (msg.size() - 32)] = static_cast<uint8_t>(rng());
        if (rng() % 3 == 0) msg.resize(60 + rng() % (msg.size() + 40 - 60), 0xa5);
        // Keep the size consistent most of the time so the TLV decoder runs.
        if (rng() % 4 != 0 && msg.size() >= 80) {
            msg[76] = static_cast<uint8_t>((msg.size() - 80) >> 8);
            msg[77] = static_cast<uint8_t>(msg.size() - 80);
        }
        int32_t rc = -1;
        EventPtr ev = receive(msg, &key.ctx, &rc);
        ASSERT_TRUE(ev);
        for (int32_t i = 0; rc == 0 && i < ev->pak->tlv_count; ++i) ASSERT_NE(nullptr, ev->tlvs[i]);
        // The same in place, as the engine receives: little memory of its
        // own, blobs read where they lie.
        omsdk::local_event<64> in_place(omsdk::kViews);
        const int32_t rc_in_place =
            omsdk::store_receive(in_place.store(), msg.data(), static_cast<int32_t>(msg.size()))
                ? cv_unpack_event(in_place.get(), &key.ctx)
                : -100;
        ASSERT_EQ(rc, rc_in_place);
    }
}

}  // namespace
