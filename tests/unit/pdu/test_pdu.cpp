// SPDX-License-Identifier: Apache-2.0
// Whole messages built by the library, compared byte for byte with bytes
// written from the message layout (digests by OpenSSL, so accepting them on
// receipt proves the digest range); header byte order, size helpers and type
// lengths.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <tuple>

#include <omsdk/aggregate.h>
#include <omsdk/enums.h>
#include <omsdk/pdu.h>

#include "wire_test_util.h"

using namespace wire_test;

namespace {

const char kId[] = "0123456789abcdef0123456789abcdef";
const char kReplyTo[] = "02 00 12 34 7f 00 00 01 00 00 00 00 00 00 00 00";
const Bytes kKey = hex("64 6f 6d 61 69 6e 2d 73 68 61 72 65 64 2d 73 65 63 72 65 74");

void add(cv_event *ev, uint32_t type, const void *value, size_t size) {
    ASSERT_EQ(0, cv_add_tlv(ev, type, static_cast<uint32_t>(12 + size), value));
}
void add_text(cv_event *ev, uint32_t type, const char *text) {
    add(ev, type, text, strlen(text) + 1);
}
template <typename T>
void put(cv_event *ev, uint32_t type, const T &value) {
    add(ev, type, &value, sizeof value);
}

// Signs the event with kKey, compares its bytes with `expected` (digest
// filled in by OpenSSL) and checks that those are accepted on receipt.
void expect_message(cv_event *ev, uint8_t pri, int32_t shipment, uint8_t cls, uint16_t action,
                    uint32_t seq, uint8_t comm, Bytes expected) {
    KeyCtx key(kKey);
    ASSERT_EQ(0, omr_createPdu(ev, pri, shipment, cls, action,
                               reinterpret_cast<const uint8_t *>(kId), seq, &key.ctx, comm));
    sign(expected, kKey);
    ASSERT_EQ(expected, raw_of(ev));
    int32_t rc = -1;
    EventPtr rx = receive(expected, &key.ctx, &rc);
    ASSERT_EQ(0, rc);
    EXPECT_EQ(1u, rx->digest_ok);
}

// Security header, an empty digest, then the event header's sequence number and id.
Builder head(const char *seq) {
    Builder m;
    m.h("00 02 00 00 00 00 00 00 00 11 00 14 | 20x00").h(seq).s(kId);
    return m;
}

TEST(GoldenPdu, DiscoveryUpdate) {
    EventPtr ev(corvane_create_my_packet());
    cv_event *e = ev.get();
    const Bytes reply_to = hex(kReplyTo);
    const uint16_t uv[CV_VECTOR_LEN] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
    const int32_t dv[CV_VECTOR_LEN] = {-1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 0x01020304};
    cv_sender_id sender = {{0}, 1};
    memcpy(sender.id, kId, 32);
    add_text(e, CV_CORVANE_TLV_TYPE_DOMAIN, "dom");
    add(e, CV_CORVANE_TLV_TYPE_REPLY_TO, reply_to.data(), reply_to.size());
    add_text(e, CV_CORVANE_TLV_TYPE_NAME, "ep1");
    add_text(e, CV_CORVANE_TLV_TYPE_ROLE, "cam");
    add_text(e, CV_CORVANE_TLV_TYPE_KEYWORDS, "a,b");
    put(e, CV_CORVANE_TLV_TYPE_NANNY_VECTOR, uint32_t{0x40});
    put(e, CV_CORVANE_TLV_TYPE_USAGE, uint16_t{0x0102});
    put(e, CV_CORVANE_TLV_TYPE_UNITS, int8_t{-3});
    put(e, CV_CORVANE_TLV_TYPE_USAGE_CALIBER, int32_t{-1});
    put(e, CV_CORVANE_TLV_TYPE_USAGE_VECTOR, uv);
    put(e, CV_CORVANE_TLV_TYPE_DELTA_VECTOR, dv);
    put(e, CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, uint8_t{7});
    put(e, CV_CORVANE_TLV_TYPE_IMPORTANCE, uint8_t{50});
    put(e, CV_CORVANE_TLV_TYPE_USAGE_CATEGORY, int32_t{1});
    put(e, CV_CORVANE_TLV_TYPE_OHMRZ_ID, sender);
    Builder m = head("01 02 03 04");
    m.h("01 00 64 0a 11 0e 00 0a 01 48 00 0f")
        .h("00 00 00 08 00 00 00 0f 00 00 00 00 64 6f 6d | 00 00 00 17 00 00 00 1c 00 00 00 00")
        .h(kReplyTo)
        .h("00 00 00 09 00 00 00 0f 00 00 00 00 65 70 31 | 00 00 00 07 00 00 00 0f 00 00 00 00")
        .h("63 61 6d | 00 00 00 0a 00 00 00 10 00 00 00 00 61 2c 62 00")
        .h("00 00 00 22 00 00 00 10 00 00 00 00 00 00 00 40")
        .h("00 00 00 0d 00 00 00 0e 00 00 00 00 01 02 | 00 00 00 0c 00 00 00 0d 00 00 00 00 fd")
        .h("00 00 00 26 00 00 00 10 00 00 00 00 ff ff ff ff | 00 00 00 27 00 00 00 22 00 00 00 00")
        .h("00 01 00 02 00 03 00 04 00 05 00 06 00 07 00 08 00 09 00 0a 00 0b")
        .h("00 00 00 24 00 00 00 38 00 00 00 00")
        .h("ff ff ff ff 00 00 00 00 00 00 00 01 00 00 00 02 00 00 00 03 00 00 00 04")
        .h("00 00 00 05 00 00 00 06 00 00 00 07 00 00 00 08 01 02 03 04")
        .h("00 00 00 0e 00 00 00 0d 00 00 00 00 07 | 00 00 00 10 00 00 00 0d 00 00 00 00 32")
        .h("00 00 00 33 00 00 00 10 00 00 00 00 00 00 00 01 | 00 00 00 01 00 00 00 30 00 00 00 00")
        .s(kId)
        .h("00 00 00 01");
    ASSERT_EQ(408u, m.b.size());
    expect_message(ev.get(), 100, CV_SHIPMENT_SEND, CV_CLASS_DISCOVERY, 10, 0x01020304, 1, m.b);
}

cv_device_header device(Bytes &reply_to) {
    cv_device_header dh;
    memcpy(dh.id, kId, 32);
    dh.blob_len = static_cast<uint32_t>(reply_to.size());
    dh.blob = reply_to.data();
    return dh;
}

TEST(GoldenPdu, AcknowledgementWithAggregateAck) {
    EventPtr ev(corvane_create_my_packet());
    Bytes reply_to = hex(kReplyTo);
    cv_device_header dh = device(reply_to);
    add_text(ev.get(), CV_CORVANE_TLV_TYPE_DOMAIN, "dom");
    ASSERT_EQ(0, cv_aggr_ack(ev.get(), 0, &dh));
    Builder m = head("0a 0b 0c 0d");
    m.b[9] = 0x14;  // auth 1, comm 4
    m.h("01 ff 64 0a 11 0a 00 0b 00 57 00 02")
        .h("00 00 00 08 00 00 00 0f 00 00 00 00 64 6f 6d | 80 00 00 2a 00 00 00 48 00 00 00 00")
        .s(kId)
        .h("00 00 00 10")
        .h(kReplyTo)
        .h("00 00 00 01 | 00 00 00 00");
    ASSERT_EQ(167u, m.b.size());
    expect_message(ev.get(), 100, CV_SHIPMENT_ACK_WILL, CV_CLASS_QUERY, 11, 0x0a0b0c0d, 4, m.b);
}

TEST(GoldenPdu, GetReplyWithPlainAndComboEntries) {
    EventPtr ev(corvane_create_my_packet());
    Bytes reply_to = hex(kReplyTo);
    cv_device_header dh = device(reply_to);
    char name[] = "ep1", role[] = "cam", keywords[] = "a,b";
    cv_usage_cmn_hdr common = {1, 2, name, role, -3, 7, 50, keywords};
    const uint16_t usage = 0x0102;
    add_text(ev.get(), CV_CORVANE_TLV_TYPE_DOMAIN, "dom");
    ASSERT_EQ(0, cv_add_aggr_type_tlv(ev.get(), CV_CORVANE_TLV_TYPE_NAME, name, 1, &dh, nullptr));
    ASSERT_EQ(
        0, cv_add_aggr_type_tlv(ev.get(), CV_CORVANE_TLV_TYPE_KEYWORDS, keywords, 1, &dh, nullptr));
    ASSERT_EQ(0, cv_add_aggr_type_tlv(ev.get(), CV_CORVANE_TLV_TYPE_USAGE_REPORT, &usage, 1, &dh,
                                      &common));
    Builder m = head("00 00 00 07");
    m.h("01 01 64 0a 11 0a 00 0b 01 18 00 04")
        .h("00 00 00 08 00 00 00 0f 00 00 00 00 64 6f 6d | 80 00 00 09 00 00 00 4f 00 00 00 00")
        .s(kId)
        .h("00 00 00 10")
        .h(kReplyTo)
        .h("00 00 00 01 | 00 00 00 01 00 00 00 03 65 70 31 | 80 00 00 0a 00 00 00 50 00 00 00 00")
        .s(kId)
        .h("00 00 00 10")
        .h(kReplyTo)
        .h("00 00 00 01 | 00 00 00 01 00 00 00 04 61 2c 62 00")
        .h("80 00 00 2b 00 00 00 6a 00 00 00 00")
        .s(kId)
        .h("00 00 00 10")
        .h(kReplyTo)
        .h("00 00 00 01 | 00 00 00 01 | 00 00 00 01 00 00 00 02 00 00 00 03 65 70 31 | 00 00 00 03")
        .h("63 61 6d | fd 07 32 00 00 00 03 61 2c 62 | 01 02");
    ASSERT_EQ(360u, m.b.size());
    expect_message(ev.get(), 100, CV_SHIPMENT_REPLY_NO_ERROR, CV_CLASS_QUERY, 11, 7, 1, m.b);
}

TEST(PduHeaders, SecurityHeaderSwapsNibblesOfBytesZeroOneAndNine) {
    const Bytes wire = hex("12 34 56 78 9a bc de f0 11 2c 00 14");
    cv_sec_hdr h;
    ASSERT_EQ(0, cv_corvane_secure_nw_to_host(wire.data(), &h));
    // In memory comm is the high nibble and auth the low one.
    EXPECT_EQ(std::make_tuple(h.nibbles0, h.enc_byte, h.reserved16, h.hmac_tag, h.reserved8,
                              h.auth_comm, h.digest_len),
              std::make_tuple(uint8_t{0x21}, uint8_t{0x43}, uint16_t{0x5678}, 0x9abcdef0u,
                              uint8_t{0x11}, uint8_t{0xc2}, uint16_t{20}));
    Bytes back(12, 0xee);
    ASSERT_EQ(0, cv_corvane_secure_host_to_nw(&h, back.data()));
    EXPECT_EQ(wire, back);
}

TEST(PduHelpers, SizeAddressBoundsAndTypeLengths) {
    Bytes hdr(48 + 0x102, 0);
    hdr[44] = 0x01;
    hdr[45] = 0x02;
    EXPECT_EQ(48u + 0x102u, omr_getPduSize(hdr.data()));
    const uint8_t *p = hdr.data();
    EXPECT_EQ(1, omr_isValidPduAddress(p, p));
    EXPECT_EQ(1, omr_isValidPduAddress(p, p + 48 + 0x101));
    EXPECT_EQ(0, omr_isValidPduAddress(p, p + 48 + 0x102));
    EXPECT_EQ(0, omr_isValidPduAddress(p + 1, p));
    // Length figures of types 0..51; 255 is "unexpected type".
    const uint32_t lengths[52] = {0,  36, 32, 4, 0,  0,  0,  0,  0,   0,  0,   0,   1,
                                  2,  1,  1,  1, 1,  1,  2,  32, 32,  4,  16,  16,  4,
                                  4,  0,  84, 2, 32, 4,  4,  4,  4,   36, 44,  255, 4,
                                  22, 0,  1,  4, 26, 46, 68, 12, 255, 0,  255, 255, 4};
    for (int32_t t = 0; t < 52; ++t) EXPECT_EQ(lengths[t], omr_getTypeLength(t)) << "type " << t;
    for (int32_t t : {52, 1000, -1}) EXPECT_EQ(255u, omr_getTypeLength(t)) << "type " << t;
}

}  // namespace
