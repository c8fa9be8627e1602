// Received messages: size and header checks, the digest verdict, and
// hostile bytes.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <random>

#include <omsdk/aggregate.h>
#include <omsdk/enums.h>
#include <omsdk/pdu.h>

#include "log_capture.h"
#include "wire_test_util.h"

using namespace wire_test;

namespace {

const Bytes kKey = hex("6b 65 79 2d 6f 66 2d 74 68 65 2d 64 6f 6d 61 69 6e");
const Bytes kOtherKey = hex("6b 65 79 2d 6f 66 2d 74 68 65 2d 64 6f 6d 61 69 6f");

// An 80-byte message without TLVs.
Bytes empty_message() {
    Builder m;
    m.h("00 02 00 00 00 00 00 00 00 11 00 14")
        .h("00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00")
        .h("00 00 00 09")
        .s("fedcba9876543210fedcba9876543210")
        .h("01 ff 64 0a 11 0a 00 0b 00 00 00 00");
    sign(m.b, kKey);
    return m.b;
}

// A message with a NAME, a LEVEL and a REPLY_TO TLV.
Bytes three_tlv_message() {
    Builder m;
    m.h("00 02 00 00 00 00 00 00 00 11 00 14")
        .h("00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00")
        .h("00 00 00 09")
        .s("fedcba9876543210fedcba9876543210")
        .h("01 00 64 0a 11 0a 00 0b 00 30 00 03")
        .h("00 00 00 09 00 00 00 0f 00 00 00 00")
        .s("abc")
        .h("00 00 00 0e 00 00 00 0d 00 00 00 00 2a")
        .h("00 00 00 17 00 00 00 14 00 00 00 00 01 02 03 04 05 06 07 08");
    sign(m.b, kKey);
    return m.b;
}

TEST(Unpack, TruncatedMessageIsDropped) {
    omsdk_test::LogCapture cap(0);
    Bytes b(60, 0);
    EXPECT_EQ(nullptr, cv_mkevent_from_rawbuffer(59, b.data()));
    EXPECT_TRUE(
        cap.has(OHMARA_LOG_DEBUG, "cv_mkevent_from_rawbuffer", "Dropping truncated packet"));
    EXPECT_EQ(nullptr, cv_mkevent_from_rawbuffer(-1, b.data()));
    EventPtr ev(cv_mkevent_from_rawbuffer(60, b.data()));
    ASSERT_TRUE(ev);
    EXPECT_EQ(1u, ev->raw_present);
    EXPECT_EQ(60u, ev->raw_len);
    EXPECT_EQ(257u, ev->state);
    EXPECT_EQ(0u, ev->ready);
    EXPECT_NE(b.data(), ev->raw);
}

TEST(Unpack, EmptyMessageAndTheDigestVerdict) {
    const Bytes msg = empty_message();
    KeyCtx right(kKey), wrong(kOtherKey);
    struct Case {
        const hmac_sha_ctx *key;
        uint32_t verdict;
    } cases[] = {{&right.ctx, 1}, {&wrong.ctx, 0}, {nullptr, 0}};
    for (const Case &k : cases) {
        int32_t rc = -1;
        EventPtr ev = receive(msg, k.key, &rc);
        ASSERT_TRUE(ev);
        EXPECT_EQ(0, rc);
        EXPECT_EQ(k.verdict, ev->digest_ok);
        EXPECT_EQ(1u, ev->ready);
        EXPECT_EQ(257u, ev->state);
        EXPECT_EQ(0, ev->pak->tlv_count);
        EXPECT_EQ(9u, ev->pak->seq);
        EXPECT_EQ(-1, ev->pak->shipment);
        int32_t index = 0;
        EXPECT_EQ(nullptr, cv_get_tlv_value(ev.get(), &index, CV_CORVANE_TLV_TYPE_NAME, nullptr));
        EXPECT_EQ(-1, index);
    }
}

TEST(Unpack, TlvsAreDecodedAndTheBufferReleased) {
    KeyCtx key(kKey);
    int32_t rc = -1;
    EventPtr ev = receive(three_tlv_message(), &key.ctx, &rc);
    ASSERT_EQ(0, rc);
    EXPECT_EQ(1u, ev->digest_ok);
    EXPECT_EQ(nullptr, ev->raw);
    EXPECT_EQ(0u, ev->raw_present);
    EXPECT_EQ(0u, ev->raw_len);
    ASSERT_EQ(3, ev->pak->tlv_count);
    EXPECT_EQ(3, ev->tlv_capacity);
    EXPECT_EQ(0x30, ev->pak->tlv_bytes);
    EXPECT_EQ(0x20, ev->sec->enc_byte);
    EXPECT_EQ(0x11, ev->sec->auth_comm);
    int32_t index = 0;
    uint32_t len = 0;
    EXPECT_STREQ("abc", static_cast<char *>(
                            cv_get_tlv_value(ev.get(), &index, CV_CORVANE_TLV_TYPE_NAME, &len)));
    index = 0;
    auto *level = static_cast<uint8_t *>(
        cv_get_tlv_value(ev.get(), &index, CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, &len));
    ASSERT_NE(nullptr, level);
    EXPECT_EQ(1, index);
    EXPECT_EQ(1u, len);
    EXPECT_EQ(42, *level);
    index = 0;
    EXPECT_EQ(0, memcmp(hex("01 02 03 04 05 06 07 08").data(),
                        cv_get_tlv_value(ev.get(), &index, CV_CORVANE_TLV_TYPE_REPLY_TO, &len), 8));
    EXPECT_EQ(8u, len);
    // A second unpack of a ready event changes nothing.
    EXPECT_EQ(0, cv_unpack_event(ev.get(), &key.ctx));
    EXPECT_EQ(3, ev->pak->tlv_count);
}

TEST(Unpack, SizeMismatch) {
    KeyCtx key(kKey);
    Bytes msg = empty_message();
    Bytes longer = msg;
    longer.push_back(0);
    Bytes claims_more = msg;
    claims_more[77] = 0x01;  // one TLV byte that is not there
    claims_more.pop_back();
    claims_more.pop_back();
    struct Row {
        Bytes bytes;
        std::string message;
    } rows[] = {
        {longer, "Cant unpack size mismatch: got 81, expecting: 80"},
        {Bytes(claims_more), "Cant unpack size mismatch: got 78, expecting: 80"},
        {Bytes(msg.begin(), msg.begin() + 70), "Cant unpack size mismatch: got 70, expecting: 80"},
    };
    for (const Row &r : rows) {
        omsdk_test::LogCapture cap(0);
        int32_t rc = -1;
        EventPtr ev = receive(r.bytes, &key.ctx, &rc);
        ASSERT_TRUE(ev);
        EXPECT_EQ(3, rc);
        EXPECT_EQ(263u, ev->state);
        EXPECT_EQ(0u, ev->ready);
        EXPECT_EQ(0u, ev->digest_ok);
        EXPECT_TRUE(cap.contains(r.message)) << cap.dump();
    }
}

TEST(Unpack, UnacceptableSecurityHeader) {
    KeyCtx key(kKey);
    struct Row {
        size_t offset;
        uint8_t value;
        int32_t rc;
    } rows[] = {
        {1, 0x03, 5},   // enc 3
        {1, 0x12, 0},   // reserved nibble ignored
        {9, 0x21, 5},   // auth 2
        {9, 0x01, 5},   // auth 0
        {9, 0x15, 5},   // comm 5
        {9, 0x10, 0},   // comm 0
        {9, 0x14, 0},   // comm 4
        {11, 0x10, 5},  // digest length 16
        {10, 0x01, 5},  // digest length 276
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(testing::Message() << "byte " << r.offset << " = " << int(r.value));
        Bytes msg = empty_message();
        msg[r.offset] = r.value;
        int32_t rc = -1;
        EventPtr ev = receive(msg, &key.ctx, &rc);
        EXPECT_EQ(r.rc, rc);
        EXPECT_EQ(r.rc == 0 ? 257u : 263u, ev->state);
        EXPECT_EQ(r.rc == 0 ? 1u : 0u, ev->digest_ok);
    }
}

TEST(Unpack, TamperingAfterTheSecurityHeaderFailsTheDigest) {
    omsdk_test::LogCapture quiet(OHMARA_LOG_FATAL);
    KeyCtx key(kKey);
    const Bytes good = three_tlv_message();
    for (size_t i = 12; i < good.size(); ++i) {
        for (uint8_t flip : {0x01, 0x80}) {
            Bytes msg = good;
            msg[i] ^= flip;
            int32_t rc = -1;
            EventPtr ev = receive(msg, &key.ctx, &rc);
            ASSERT_TRUE(ev);
            EXPECT_EQ(0u, ev->digest_ok) << "byte " << i << " rc " << rc;
        }
    }
    // Bytes of the security header that are not checked leave the verdict alone.
    for (size_t i : {0, 2, 3, 8}) {
        Bytes msg = good;
        msg[i] ^= 0xff;
        int32_t rc = -1;
        EventPtr ev = receive(msg, &key.ctx, &rc);
        EXPECT_EQ(0, rc);
        EXPECT_EQ(1u, ev->digest_ok) << "byte " << i;
    }
}

TEST(Unpack, NonZeroTagWarnsAndIsAccepted) {
    KeyCtx key(kKey);
    Bytes msg = three_tlv_message();
    msg[7] = 5;
    omsdk_test::LogCapture cap(0);
    int32_t rc = -1;
    EventPtr ev = receive(msg, &key.ctx, &rc);
    EXPECT_EQ(0, rc);
    EXPECT_EQ(1u, ev->digest_ok);
    EXPECT_TRUE(
        cap.has(OHMARA_LOG_WARN, "omr_validateMessageHeader", "Unexpected HMAC tag value 5"));
}

TEST(Unpack, BadTlvsFailTheWholeMessage) {
    KeyCtx key(kKey);
    struct Row {
        const char *why;
        size_t offset;
        uint8_t value;
    } rows[] = {
        {"count beyond the bytes", 79, 0x04},       {"count the bytes cannot hold", 78, 0xff},
        {"TLV length past the end", 87, 0x31},      {"TLV length below its header", 87, 0x08},
        {"level TLV with a spare byte", 102, 0x0e},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.why);
        Bytes msg = three_tlv_message();
        msg[r.offset] = r.value;
        sign(msg, kKey);
        int32_t rc = -1;
        EventPtr ev = receive(msg, &key.ctx, &rc);
        ASSERT_TRUE(ev);
        EXPECT_EQ(1, rc);
        EXPECT_EQ(263u, ev->state);
        EXPECT_EQ(0u, ev->ready);
        EXPECT_EQ(nullptr, ev->pak);
        EXPECT_EQ(nullptr, ev->tlvs);
        EXPECT_EQ(0, ev->tlv_capacity);
        EXPECT_EQ(0u, ev->digest_ok);
    }
}

// A signed message rich in records and aggregates, built by the library.
Bytes record_message(const hmac_sha_ctx *key) {
    EventPtr ev(corvane_create_my_packet());
    uint8_t blob[3] = {1, 2, 3};
    char text[] = "nb";
    cv_neighbor ngh = {};
    ngh.name = text;
    ngh.blob = blob;
    ngh.blob_len = 3;
    cv_recurrence rec = {text, 1, 2, 1};
    cv_alarm alarm = {5, 1, 2, {0, 0}, 7, 1};
    cv_event_id eid = {9, {0}};
    EXPECT_EQ(0, cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_NEIGHBOR, 12 + sizeof ngh, &ngh));
    EXPECT_EQ(0, cv_add_tlv(ev.get(), 46, 12 + sizeof rec, &rec));
    EXPECT_EQ(0, cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_ALARM, 12 + sizeof alarm, &alarm));
    EXPECT_EQ(0, cv_add_tlv(ev.get(), CV_CORVANE_TLV_TYPE_EVENT_ID, 12 + sizeof eid, &eid));
    cv_device_header dh = {};
    dh.blob = blob;
    dh.blob_len = 3;
    cv_usage_cmn_hdr common = {1, 2, text, text, 3, 4, 5, text};
    uint16_t usage = 6;
    EXPECT_EQ(0, cv_add_aggr_type_tlv(ev.get(), CV_CORVANE_TLV_TYPE_USAGE_REPORT, &usage, 1, &dh,
                                      &common));
    EXPECT_EQ(0, cv_add_aggr_type_tlv(ev.get(), CV_CORVANE_TLV_TYPE_NAME, text, 2, &dh, nullptr));
    EXPECT_EQ(0, cv_add_aggr_type_tlv(ev.get(), CV_CORVANE_TLV_TYPE_KEYWORDS, text, 3, &dh, nullptr));
    EXPECT_EQ(0, cv_aggr_ack(ev.get(), 4, &dh));
    EXPECT_EQ(0, omr_createPdu(ev.get(), 1, 1, 10, 11, nullptr, 1, key, 1));
    return raw_of(ev.get());
}

// Random damage to valid messages must never read or write outside the
// buffer or leak (checked under the sanitizers).
TEST(Unpack, HostileBytesAreContained) {
    omsdk_test::LogCapture quiet(OHMARA_LOG_FATAL);
    KeyCtx key(kKey);
    std::mt19937 rng(12345);
    const Bytes seeds[] = {empty_message(), three_tlv_message(), record_message(&key.ctx)};
    for (int round = 0; round < 6000; ++round) {
        Bytes msg = seeds[round % 3];
        int edits = 1 + static_cast<int>(rng() % 6);
        for (int e = 0; e < edits; ++e) {
            size_t at = 32 + rng() % (msg.size() - 32);
            msg[at] = static_cast<uint8_t>(rng());
        }
        if (rng() % 3 == 0) msg.resize(60 + rng() % (msg.size() + 40 - 60), 0xa5);
        // Keep the size consistent most of the time so the TLV decoder runs.
        if (rng() % 4 != 0 && msg.size() >= 80) {
            msg[76] = static_cast<uint8_t>((msg.size() - 80) >> 8);
            msg[77] = static_cast<uint8_t>(msg.size() - 80);
        }
        int32_t rc = -1;
        EventPtr ev = receive(msg, &key.ctx, &rc);
        ASSERT_TRUE(ev);
        if (rc == 0) {
            for (int32_t i = 0; i < ev->pak->tlv_count; ++i) ASSERT_NE(nullptr, ev->tlvs[i]);
        }
    }
}

}  // namespace
