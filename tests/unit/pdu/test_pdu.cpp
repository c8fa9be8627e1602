// Header byte order, size helpers, type lengths and digest checks.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <omsdk/enums.h>
#include <omsdk/pdu.h>

#include "log_capture.h"
#include "wire_test_util.h"

using namespace wire_test;

namespace {

TEST(PduHeaders, SecurityHeaderSwapsNibblesOfBytesZeroOneAndNine) {
    const Bytes wire = hex("12 34 56 78 9a bc de f0 11 2c 00 14");
    cv_sec_hdr h;
    ASSERT_EQ(0, cv_corvane_secure_nw_to_host(wire.data(), &h));
    EXPECT_EQ(0x21, h.nibbles0);
    EXPECT_EQ(0x43, h.enc_byte);
    EXPECT_EQ(0x5678, h.reserved16);
    EXPECT_EQ(0x9abcdef0u, h.hmac_tag);
    EXPECT_EQ(0x11, h.reserved8);
    EXPECT_EQ(0xc2, h.auth_comm);  // comm 0xc high, auth 2 low
    EXPECT_EQ(20, h.digest_len);
    Bytes back(12, 0xee);
    ASSERT_EQ(0, cv_corvane_secure_host_to_nw(&h, back.data()));
    EXPECT_EQ(wire, back);
}

TEST(PduHeaders, EventHeaderConvertsCountersAndCopiesTheRest) {
    Builder w;
    w.h("81 02 03 04")
        .s("0123456789abcdef0123456789abcdef")
        .h("01 ff 64 0a 11 0e 12 34 01 48 00 0f");
    cv_event_hdr h;
    ASSERT_EQ(0, cv_corvane_event_nw_to_host(w.b.data(), &h));
    EXPECT_EQ(0x81020304u, h.seq);
    EXPECT_EQ(0, memcmp(h.id, "0123456789abcdef0123456789abcdef", 32));
    EXPECT_EQ(1, h.ver);
    EXPECT_EQ(-1, h.shipment);
    EXPECT_EQ(100, h.pri);
    EXPECT_EQ(10, h.type);
    EXPECT_EQ(17, h.app);
    EXPECT_EQ(14, h.event_class);
    EXPECT_EQ(0x1234, h.action);
    EXPECT_EQ(0x148, h.tlv_bytes);
    EXPECT_EQ(15, h.tlv_count);
    Bytes back(48, 0xee);
    ASSERT_EQ(0, cv_corvane_event_host_to_nw(&h, back.data()));
    EXPECT_EQ(w.b, back);
}

TEST(PduHelpers, SizeAndAddressBounds) {
    Bytes hdr(48 + 0x102, 0);
    hdr[44] = 0x01;
    hdr[45] = 0x02;
    EXPECT_EQ(48u + 0x102u, omr_getPduSize(hdr.data()));
    const uint8_t *p = hdr.data();
    EXPECT_EQ(1, omr_isValidPduAddress(p, p));
    EXPECT_EQ(1, omr_isValidPduAddress(p, p + 48 + 0x101));
    EXPECT_EQ(0, omr_isValidPduAddress(p, p + 48 + 0x102));
    EXPECT_EQ(0, omr_isValidPduAddress(p + 1, p));
}

TEST(PduHelpers, TypeLengths) {
    struct Row {
        int32_t length;
        std::vector<int32_t> types;
    };
    const Row rows[] = {
        {0, {0, 4, 5, 6, 7, 8, 9, 10, 11, 27, 40, 48}},
        {36, {1, 35}},
        {32, {2, 20, 21, 30}},
        {4, {3, 22, 25, 26, 31, 32, 33, 34, 38, 42, 51}},
        {1, {12, 14, 15, 16, 17, 18, 41}},
        {2, {13, 19, 29}},
        {16, {23, 24}},
        {84, {28}},
        {44, {36}},
        {22, {39}},
        {26, {43}},
        {46, {44}},
        {68, {45}},
        {12, {46}},
    };
    omsdk_test::LogCapture cap(0);
    for (const Row &r : rows)
        for (int32_t t : r.types)
            EXPECT_EQ(static_cast<uint32_t>(r.length), omr_getTypeLength(t)) << "type " << t;
    EXPECT_EQ(0u, cap.lines().size());
    for (int32_t t : {37, 47, 49, 50, 52, 1000}) {
        cap.clear();
        EXPECT_EQ(255u, omr_getTypeLength(t)) << "type " << t;
        EXPECT_TRUE(
            cap.has(OHMARA_LOG_WARN, "omr_getTypeLength", "unexpected type " + std::to_string(t)));
    }
}

// A signed message: header, an 8-byte NAME TLV.
Bytes signed_message(const Bytes &key) {
    Builder m;
    m.h("00 02 00 00 00 00 00 00 00 11 00 14")
        .h("00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00")
        .h("00 00 00 2a")
        .s("0123456789abcdef0123456789abcdef")
        .h("01 00 64 0a 11 0e 00 0a 00 14 00 01")
        .h("00 00 00 09 00 00 00 14 00 00 00 00")
        .s("endpoint");
    sign(m.b, key);
    return m.b;
}

cv_event *wrap(Bytes &msg) {
    auto *ev = static_cast<cv_event *>(calloc(1, sizeof(cv_event)));
    ev->raw = msg.data();
    ev->raw_len = static_cast<uint32_t>(msg.size());
    return ev;
}

TEST(PduValidate, DigestCoversBytesFromThirtyTwoOnly) {
    const Bytes key_bytes = hex("00 11 22 33 44 55 66 77 88 99");
    KeyCtx key(key_bytes);
    Bytes msg = signed_message(key_bytes);
    cv_event *ev = wrap(msg);
    omsdk_test::LogCapture cap(0);
    EXPECT_EQ(1, omr_validateMessageHeader(ev, &key.ctx));
    EXPECT_EQ(0u, cap.lines().size());

    for (size_t i = 0; i < msg.size(); ++i) {
        if (i >= 12 && i < 32) continue;  // the digest itself
        SCOPED_TRACE(i);
        cap.clear();
        msg[i] ^= 0x40;
        EXPECT_EQ(i < 32 ? 1 : 0, omr_validateMessageHeader(ev, &key.ctx));
        if (i >= 32) {
            EXPECT_TRUE(cap.contains("HMAC_SHA1 header mismatch"));
        }
        if (i >= 4 && i < 8) {
            EXPECT_TRUE(cap.has(OHMARA_LOG_WARN, "omr_validateMessageHeader",
                                "Unexpected HMAC tag value " +
                                    std::to_string(static_cast<int>(0x40u << (8 * (7 - i))))));
        }
        msg[i] ^= 0x40;
    }
    msg[20] ^= 1;  // the digest
    EXPECT_EQ(0, omr_validateMessageHeader(ev, &key.ctx));
    msg[20] ^= 1;

    const Bytes other = hex("00 11 22 33 44 55 66 77 88 98");
    KeyCtx wrong(other);
    EXPECT_EQ(0, omr_validateMessageHeader(ev, &wrong.ctx));
    EXPECT_EQ(0, omr_validateMessageHeader(ev, nullptr));
    hmac_sha_ctx empty;
    memset(&empty, 0, sizeof empty);
    EXPECT_EQ(0, omr_validateMessageHeader(ev, &empty));
    free(ev);
}

TEST(PduRelease, FreesRawAndRecordOnly) {
    cv_event *ev = corvane_create_my_packet();
    ASSERT_NE(nullptr, ev);
    ASSERT_EQ(0, omr_createPdu(ev, 1, 0, 14, 10, nullptr, 1, nullptr, 1));
    cv_event_hdr *pak = ev->pak;
    cv_sec_hdr *sec = ev->sec;
    omsdk_test::LogCapture cap(0);
    omr_releasePacket(ev);  // leak checkers see raw and event freed here
    EXPECT_TRUE(cap.contains("omr_releasePacket: free pdu "));
    EXPECT_TRUE(cap.contains("omr_releasePacket: free pkt "));
    free(pak);
    free(sec);
}

}  // namespace
