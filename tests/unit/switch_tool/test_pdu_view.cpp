// The switch's decoder against messages written by hand from the layout.
#include <gtest/gtest.h>

#include <omsdk/hmac.h>

#include "hand_pdu.h"
#include "pdu_view.h"
#include "switch.h"

using namespace hand_pdu;
using omsdk_tools::DecodedPdu;
using omsdk_tools::Value;
using omsdk_tools::Verdict;

namespace {

constexpr char kEp[] = "0123456789abcdef0123456789abcdef";
const Bytes kSecret = text("domain-secret");

class Key {
public:
    explicit Key(const Bytes &k) {
        memset(&ctx, 0, sizeof ctx);
        hmac_shainit(&ctx, k.data(), static_cast<uint16_t>(k.size()));
    }
    ~Key() {
        uint8_t out[20];
        hmac_shafinal(out, &ctx);
    }
    hmac_sha_ctx ctx;
};

// A discovery update as an endpoint sends it.
Bytes discovery(const Bytes &key) {
    return message(
        0x01020304, kEp, 0, 100, 14, 10,
        {tlv(8, text("dom")),
         tlv(23, hex("0002 1f90 7f000001 0000000000000000")),
         tlv(47, hex("12345678")),
         tlv(9, text("lamp-1")),
         tlv(10, hex("6b31 2c 6b32 00")),  // "k1,k2" and its NUL
         tlv(13, hex("0102")),
         tlv(12, hex("03")),
         tlv(14, hex("05")),
         tlv(51, hex("ffffffff")),
         tlv(50, hex("0000001e 02 01 00000007 00000001")),
         tlv(1, cat({text(kEp), hex("00000001")}))},
        key);
}

TEST(PduView, DiscoveryFieldsAndVerdicts) {
    const Bytes msg = discovery(kSecret);
    Key right(kSecret), wrong(text("domain-secreT"));
    struct Case {
        const hmac_sha_ctx *key;
        Verdict want;
    } cases[] = {{&right.ctx, Verdict::Verified},
                 {&wrong.ctx, Verdict::Mismatch},
                 {nullptr, Verdict::NotVerified}};
    for (const Case &c : cases) {
        DecodedPdu p = omsdk_tools::decode_pdu(msg, c.key);
        ASSERT_TRUE(p.ok) << p.error;
        EXPECT_EQ(p.verdict, c.want);
    }

    DecodedPdu p = omsdk_tools::decode_pdu(msg, &right.ctx);
    EXPECT_EQ(p.hdr.seq, 0x01020304u);
    EXPECT_EQ(p.sender(), kEp);
    EXPECT_EQ(p.hdr.cls, 14);
    EXPECT_EQ(p.hdr.action, 10);
    EXPECT_EQ(p.hdr.pri, 100);
    EXPECT_EQ(omsdk_tools::pdu_kind(p), "discovery");
    ASSERT_EQ(p.tlvs.size(), 11u);

    EXPECT_EQ(p.find(8)->value.text, "dom");
    EXPECT_EQ(p.find(23)->value.text, "127.0.0.1:8080");
    EXPECT_EQ(p.find(47)->value.num, 0x12345678);
    EXPECT_EQ(p.find(47)->name, "NONCE");
    EXPECT_EQ(p.find(9)->value.text, "lamp-1");
    EXPECT_EQ(p.find(10)->value.text, "k1,k2");
    EXPECT_EQ(p.find(13)->value.num, 258);
    EXPECT_EQ(p.find(13)->value.note, "units 3");  // usage shown with the message's units
    EXPECT_EQ(p.find(14)->value.num, 5);
    EXPECT_EQ(p.find(14)->name, "LEVEL_CURRENT");
    EXPECT_EQ(p.find(51)->value.num, -1);
    EXPECT_EQ(p.find(51)->value.note, "CV_CORVANE_USAGE_PRODUCER");
    EXPECT_EQ(p.find(1)->value.text, kEp);

    const Value &alarm = p.find(50)->value;
    ASSERT_EQ(alarm.kind, Value::Kind::Record);
    ASSERT_EQ(alarm.fields.size(), 5u);
    const int64_t want[] = {30, 2, 1, 7, 1};  // seconds, param2, param1, id, operation
    for (size_t i = 0; i < 5; ++i) EXPECT_EQ(alarm.fields[i].num, want[i]) << alarm.fields[i].name;
    EXPECT_EQ(alarm.note, "set");

    const std::string json = omsdk_tools::render_json(p, "\"event\":\"x\"", false);
    EXPECT_NE(json.find("\"digest\":\"verified\""), std::string::npos) << json;
    EXPECT_NE(json.find("{\"type\":14,\"name\":\"LEVEL_CURRENT\",\"value\":5}"), std::string::npos)
        << json;
    const std::string txt = omsdk_tools::render_text(p, "discovery", false);
    EXPECT_NE(txt.find("USAGE                258 (units 3)"), std::string::npos) << txt;
}

TEST(PduView, ReplyAggregatesAndComboEntries) {
    const Bytes dev = cat({text(kEp), hex("00000000")});  // device header: id, empty blob
    const Bytes level = tlv(0x8000000e, cat({dev, hex("00000001"), hex("00000001 07")}));
    // Combo entry: id, usage common header (version 1, caliber 1, name "n",
    // role "r", units 2, level 7, importance 9, keywords "k"), then 200.
    const Bytes common = hex("00000001 00000001 00000001 6e 00000001 72 02 07 09 00000001 6b");
    const Bytes report = tlv(0x8000002b, cat({dev, hex("00000001"), hex("00000001"), common,
                                              hex("00c8")}));
    const Bytes name = tlv(0x80000009, cat({dev, hex("00000001"), hex("00000001"),
                                            hex("00000004"), text("lamp")}));
    const Bytes nonce_key = Bytes(20, 0x5a);
    const Bytes msg = message(9, kEp, 1, 100, 10, 11, {tlv(8, text("dom")), level, report, name},
                              nonce_key);
    Key k(nonce_key);
    DecodedPdu p = omsdk_tools::decode_pdu(msg, &k.ctx);
    ASSERT_TRUE(p.ok) << p.error;
    EXPECT_EQ(p.verdict, Verdict::Verified);
    EXPECT_EQ(omsdk_tools::pdu_kind(p), "reply");

    ASSERT_EQ(p.values_of(14).size(), 1u);
    EXPECT_EQ(p.values_of(14)[0].num, 7);
    ASSERT_EQ(p.values_of(9).size(), 1u);
    EXPECT_EQ(p.values_of(9)[0].text, "lamp");

    ASSERT_EQ(p.tlvs.size(), 4u);
    const omsdk_tools::DecodedTlv &r = p.tlvs[2];
    ASSERT_TRUE(r.aggregate);
    EXPECT_EQ(r.type, 43u);
    EXPECT_EQ(r.device_id, kEp);
    ASSERT_EQ(r.entries.size(), 1u);
    const omsdk_tools::Entry &e = r.entries[0];
    EXPECT_TRUE(e.combo);
    EXPECT_EQ(e.value.num, 200);
    EXPECT_EQ(e.value.note, "units 2");
    EXPECT_EQ(e.common.version, 1u);
    EXPECT_EQ(e.common.caliber, 1);
    EXPECT_EQ(e.common.name, "n");
    EXPECT_EQ(e.common.role, "r");
    EXPECT_EQ(e.common.units, 2);
    EXPECT_EQ(e.common.level, 7);
    EXPECT_EQ(e.common.importance, 9);
    EXPECT_EQ(e.common.keywords, "k");
}

TEST(PduView, BrokenMessagesAreReportedNotDecoded) {
    const Bytes good = discovery(kSecret);
    Bytes longer = good;
    longer.push_back(0);  // one byte more than the header announces
    Bytes bad_sec = good;
    bad_sec[1] = 0x03;  // enc 3
    const Bytes stub = Bytes(good.begin(), good.begin() + 40);
    struct Case {
        const char *what;
        Bytes msg;
        const char *error_part;
    } cases[] = {{"size", longer, "does not match"},
                 {"security header", bad_sec, "security header"},
                 {"short", stub, "too short"}};
    for (const Case &c : cases) {
        DecodedPdu p = omsdk_tools::decode_pdu(c.msg, nullptr);
        EXPECT_FALSE(p.ok) << c.what;
        EXPECT_NE(p.error.find(c.error_part), std::string::npos) << c.what << ": " << p.error;
    }
}

// The nonce key is HMAC-SHA1 keyed with the 4-byte seed (switch nonce XOR
// endpoint nonce, big-endian) over the secret read as 20 bytes, or over
// the endpoint's 32-byte identifier when there is no secret.
TEST(PduView, NonceKeyDerivation) {
    const uint32_t a = 0x11223344, b = 0x01020304;
    const Bytes seed = hex("10 20 30 40");
    struct Case {
        Bytes secret;
        Bytes data;
    } cases[] = {
        {text("short"), cat({text("short"), Bytes(15, 0)})},
        {text("a-secret-longer-than-twenty"), text("a-secret-longer-than")},
        {Bytes(), text(kEp)},
    };
    for (const Case &c : cases) {
        Bytes want = openssl_hmac(seed, c.data.data(), c.data.size());
        Bytes got = omsdk_tools::Switch::derive_nonce_key(
            a, b, c.secret, reinterpret_cast<const uint8_t *>(kEp));
        EXPECT_EQ(got, want);
    }
}

}  // namespace
