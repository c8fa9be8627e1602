// Whole messages built by the library, compared byte for byte with
// expectations written from the message layout; digests by OpenSSL.
#include <gtest/gtest.h>

#include <omsdk/aggregate.h>
#include <omsdk/enums.h>
#include <omsdk/pdu.h>

#include "wire_test_util.h"

using namespace wire_test;

namespace {

const char kId[] = "0123456789abcdef0123456789abcdef";
const char kReplyTo[] = "02 00 12 34 7f 00 00 01 00 00 00 00 00 00 00 00";
const Bytes kKey = {'d', 'o', 'm', 'a', 'i', 'n', '-', 's', 'h', 'a',
                    'r', 'e', 'd', '-', 's', 'e', 'c', 'r', 'e', 't'};

template <typename T>
void add(cv_event *ev, uint32_t type, const T &value) {
    ASSERT_EQ(0, cv_add_tlv(ev, type, static_cast<uint32_t>(12 + sizeof(T)), &value));
}
void add_text(cv_event *ev, uint32_t type, const char *text) {
    ASSERT_EQ(0, cv_add_tlv(ev, type, static_cast<uint32_t>(12 + strlen(text) + 1), text));
}
void add_bytes(cv_event *ev, uint32_t type, const Bytes &b) {
    ASSERT_EQ(0, cv_add_tlv(ev, type, static_cast<uint32_t>(12 + b.size()), b.data()));
}

cv_sender_id sender() {
    cv_sender_id s;
    memcpy(s.id, kId, 32);
    s.value = 1;
    return s;
}

cv_device_header device(Bytes &reply_to) {
    cv_device_header dh;
    memcpy(dh.id, kId, 32);
    dh.blob_len = static_cast<uint32_t>(reply_to.size());
    dh.blob = reply_to.data();
    return dh;
}

// Builds, checks the bytes against `expected` (digest filled in by OpenSSL)
// and checks that the expected bytes are accepted on receipt.
void expect_message(cv_event *ev, Bytes expected, const char *what) {
    SCOPED_TRACE(what);
    sign(expected, kKey);
    Bytes got = raw_of(ev);
    ASSERT_EQ(expected.size(), got.size());
    for (size_t i = 0; i < got.size(); ++i)
        ASSERT_EQ(expected[i], got[i]) << "first difference at offset " << i;

    KeyCtx key(kKey);
    int32_t rc = 0;
    EventPtr rx = receive(expected, &key.ctx, &rc);
    ASSERT_EQ(0, rc);
    EXPECT_EQ(1u, rx->digest_ok);
}

TEST(GoldenPdu, DiscoveryUpdate) {
    EventPtr ev(corvane_create_my_packet());
    ASSERT_TRUE(ev);
    Bytes reply_to = hex(kReplyTo);
    const cv_usage_vector uv = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
    const cv_delta_vector dv = {-1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 0x01020304};
    add_text(ev.get(), CV_CORVANE_TLV_TYPE_DOMAIN, "dom");
    add_bytes(ev.get(), CV_CORVANE_TLV_TYPE_REPLY_TO, reply_to);
    add_text(ev.get(), CV_CORVANE_TLV_TYPE_NAME, "ep1");
    add_text(ev.get(), CV_CORVANE_TLV_TYPE_ROLE, "cam");
    add_text(ev.get(), CV_CORVANE_TLV_TYPE_KEYWORDS, "a,b");
    add(ev.get(), CV_CORVANE_TLV_TYPE_NANNY_VECTOR, uint32_t{0x40});
    add(ev.get(), CV_CORVANE_TLV_TYPE_USAGE, uint16_t{0x0102});
    add(ev.get(), CV_CORVANE_TLV_TYPE_UNITS, int8_t{-3});
    add(ev.get(), CV_CORVANE_TLV_TYPE_USAGE_CALIBER, int32_t{-1});
    add(ev.get(), CV_CORVANE_TLV_TYPE_USAGE_VECTOR, uv);
    add(ev.get(), CV_CORVANE_TLV_TYPE_DELTA_VECTOR, dv);
    add(ev.get(), CV_CORVANE_TLV_TYPE_LEVEL_CURRENT, uint8_t{7});
    add(ev.get(), CV_CORVANE_TLV_TYPE_IMPORTANCE, uint8_t{50});
    add(ev.get(), CV_CORVANE_TLV_TYPE_USAGE_CATEGORY, int32_t{1});
    add(ev.get(), CV_CORVANE_TLV_TYPE_OHMRZ_ID, sender());

    KeyCtx key(kKey);
    ASSERT_EQ(0, omr_createPdu(ev.get(), 100, CV_SHIPMENT_SEND, CV_CLASS_DISCOVERY, 10,
                               reinterpret_cast<const uint8_t *>(kId), 0x01020304, &key.ctx, 1));
    Builder m;
    m.h("00 02 00 00  00 00 00 00  00 11 00 14")
        .h("00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00")
        .h("01 02 03 04")
        .s(kId)
        .h("01 00 64 0a 11 0e 00 0a 01 48 00 0f")
        .h("00 00 00 08 00 00 00 0f 00 00 00 00")
        .s("dom")
        .h("00 00 00 17 00 00 00 1c 00 00 00 00")
        .h(kReplyTo)
        .h("00 00 00 09 00 00 00 0f 00 00 00 00")
        .s("ep1")
        .h("00 00 00 07 00 00 00 0f 00 00 00 00")
        .s("cam")
        .h("00 00 00 0a 00 00 00 10 00 00 00 00")
        .s("a,b")
        .h("00")
        .h("00 00 00 22 00 00 00 10 00 00 00 00 00 00 00 40")
        .h("00 00 00 0d 00 00 00 0e 00 00 00 00 01 02")
        .h("00 00 00 0c 00 00 00 0d 00 00 00 00 fd")
        .h("00 00 00 26 00 00 00 10 00 00 00 00 ff ff ff ff")
        .h("00 00 00 27 00 00 00 22 00 00 00 00")
        .h("00 01 00 02 00 03 00 04 00 05 00 06 00 07 00 08 00 09 00 0a 00 0b")
        .h("00 00 00 24 00 00 00 38 00 00 00 00")
        .h("ff ff ff ff 00 00 00 00 00 00 00 01 00 00 00 02 00 00 00 03 00 00 00 04")
        .h("00 00 00 05 00 00 00 06 00 00 00 07 00 00 00 08 01 02 03 04")
        .h("00 00 00 0e 00 00 00 0d 00 00 00 00 07")
        .h("00 00 00 10 00 00 00 0d 00 00 00 00 32")
        .h("00 00 00 33 00 00 00 10 00 00 00 00 00 00 00 01")
        .h("00 00 00 01 00 00 00 30 00 00 00 00")
        .s(kId)
        .h("00 00 00 01");
    ASSERT_EQ(408u, m.b.size());
    expect_message(ev.get(), m.b, "discovery update");
}

TEST(GoldenPdu, AcknowledgementWithAggregateAck) {
    EventPtr ev(corvane_create_my_packet());
    ASSERT_TRUE(ev);
    Bytes reply_to = hex(kReplyTo);
    add_text(ev.get(), CV_CORVANE_TLV_TYPE_DOMAIN, "dom");
    add_bytes(ev.get(), CV_CORVANE_TLV_TYPE_REPLY_TO, reply_to);
    add(ev.get(), CV_CORVANE_TLV_TYPE_OHMRZ_ID, sender());
    cv_device_header dh = device(reply_to);
    ASSERT_EQ(0, cv_aggr_ack(ev.get(), 0, &dh));

    KeyCtx key(kKey);
    ASSERT_EQ(0, omr_createPdu(ev.get(), 100, CV_SHIPMENT_ACK_WILL, CV_CLASS_QUERY, 11,
                               reinterpret_cast<const uint8_t *>(kId), 0x0a0b0c0d, &key.ctx, 4));
    Builder m;
    m.h("00 02 00 00  00 00 00 00  00 14 00 14")
        .h("00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00")
        .h("0a 0b 0c 0d")
        .s(kId)
        .h("01 ff 64 0a 11 0a 00 0b 00 a3 00 04")
        .h("00 00 00 08 00 00 00 0f 00 00 00 00")
        .s("dom")
        .h("00 00 00 17 00 00 00 1c 00 00 00 00")
        .h(kReplyTo)
        .h("00 00 00 01 00 00 00 30 00 00 00 00")
        .s(kId)
        .h("00 00 00 01")
        .h("80 00 00 2a 00 00 00 48 00 00 00 00")
        .s(kId)
        .h("00 00 00 10")
        .h(kReplyTo)
        .h("00 00 00 01")
        .h("00 00 00 00");
    ASSERT_EQ(243u, m.b.size());
    expect_message(ev.get(), m.b, "acknowledgement");
}

TEST(GoldenPdu, GetReplyWithPlainAndComboEntries) {
    EventPtr ev(corvane_create_my_packet());
    ASSERT_TRUE(ev);
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

    KeyCtx key(kKey);
    ASSERT_EQ(0, omr_createPdu(ev.get(), 100, CV_SHIPMENT_REPLY_NO_ERROR, CV_CLASS_QUERY, 11,
                               reinterpret_cast<const uint8_t *>(kId), 7, &key.ctx, 1));
    Builder m;
    m.h("00 02 00 00  00 00 00 00  00 11 00 14")
        .h("00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00")
        .h("00 00 00 07")
        .s(kId)
        .h("01 01 64 0a 11 0a 00 0b 01 18 00 04")
        .h("00 00 00 08 00 00 00 0f 00 00 00 00")
        .s("dom")
        .h("80 00 00 09 00 00 00 4f 00 00 00 00")
        .s(kId)
        .h("00 00 00 10")
        .h(kReplyTo)
        .h("00 00 00 01")
        .h("00 00 00 01 00 00 00 03")
        .s("ep1")
        .h("80 00 00 0a 00 00 00 50 00 00 00 00")
        .s(kId)
        .h("00 00 00 10")
        .h(kReplyTo)
        .h("00 00 00 01")
        .h("00 00 00 01 00 00 00 04")
        .s("a,b")
        .h("00")
        .h("80 00 00 2b 00 00 00 6a 00 00 00 00")
        .s(kId)
        .h("00 00 00 10")
        .h(kReplyTo)
        .h("00 00 00 01")
        .h("00 00 00 01")
        .h("00 00 00 01 00 00 00 02 00 00 00 03")
        .s("ep1")
        .h("00 00 00 03")
        .s("cam")
        .h("fd 07 32 00 00 00 03")
        .s("a,b")
        .h("01 02");
    ASSERT_EQ(360u, m.b.size());
    expect_message(ev.get(), m.b, "GET reply");
}

TEST(GoldenPdu, EmptyEventIsEightyBytesSignedOverTheHeader) {
    EventPtr ev(corvane_create_my_packet());
    ASSERT_TRUE(ev);
    KeyCtx key(kKey);
    ASSERT_EQ(0, omr_createPdu(ev.get(), 5, CV_SHIPMENT_ACK_WONT, CV_CLASS_DISCOVERY, 12,
                               reinterpret_cast<const uint8_t *>(kId), 0xfffffffe, &key.ctx, 0));
    EXPECT_EQ(1u, ev->raw_present);
    EXPECT_EQ(ev->raw + 32, ev->body);
    Builder m;
    m.h("00 02 00 00  00 00 00 00  00 10 00 14")
        .h("00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00")
        .h("ff ff ff fe")
        .s(kId)
        .h("01 fe 05 0a 11 0e 00 0c 00 00 00 00");
    ASSERT_EQ(80u, m.b.size());
    expect_message(ev.get(), m.b, "empty event");
}

}  // namespace
