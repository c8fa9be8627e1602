#include <gtest/gtest.h>

#include <string.h>

#include <string>

#include "log_capture.h"
#include "omsdk.h"
#include "omsdk/uuid.h"

namespace {

using omsdk_test::LogCapture;

// 32 output bytes plus a guard byte that must stay untouched.
struct Text {
    char buf[40];
    Text() { memset(buf, '#', sizeof buf); }
    std::string str() const { return std::string(buf, 32); }
    bool guard_intact() const { return buf[32] == '#'; }
};

bool lower_hex32(const std::string &s) {
    if (s.size() != 32) return false;
    for (char c : s)
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    return true;
}

TEST(Uuid, MacDerivedTextsAreFixed) {
    struct Case {
        uint8_t mac[6];
        const char *want;
    } cases[] = {
        {{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, "e0d00de0000000000000001122334455"},
        {{0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF}, "e0d00de0000000000000aabbccddeeff"},
        {{0x00, 0x00, 0x00, 0x00, 0x00, 0x00}, "e0d00de0000000000000000000000000"},
    };
    for (const Case &c : cases) {
        Text t;
        EXPECT_EQ(ohmara_utl_createUuidFromMac(t.buf, c.mac), 0);
        EXPECT_EQ(t.str(), c.want);
        EXPECT_TRUE(t.guard_intact());
        Text s;
        EXPECT_EQ(ohmara_utl_senderId(s.buf, c.mac), 0);
        EXPECT_EQ(s.str(), c.want);
        EXPECT_TRUE(s.guard_intact());
    }
    const uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
    const uint8_t want[16] = {0xE0, 0xD0, 0x0D, 0xE0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 4, 5, 6};
    uint8_t uuid[16];
    memset(uuid, 0x5A, sizeof uuid);
    EXPECT_EQ(uuidFromMacAddress(uuid, mac), 0);
    EXPECT_EQ(memcmp(uuid, want, 16), 0);
}

TEST(Uuid, ConvertWritesExactly32LowerCaseDigits) {
    const uint8_t uuid[16] = {0x00, 0x01, 0x12, 0x23, 0x9A, 0xAB, 0xBC, 0xCD,
                              0xDE, 0xEF, 0xF0, 0x0F, 0x80, 0x7F, 0xFE, 0xFF};
    Text t;
    EXPECT_EQ(convertUuidString(t.buf, uuid), 0);
    EXPECT_EQ(t.str(), "000112239aabbccddeeff00f807ffeff");
    EXPECT_TRUE(t.guard_intact());
}

TEST(Uuid, RandomIdentifiersDifferAndAreLowerHex) {
    LogCapture cap(0);
    Text a, b, c;
    EXPECT_EQ(ohmara_utl_senderId(a.buf, nullptr), 0);
    EXPECT_EQ(ohmara_utl_senderId(b.buf, nullptr), 0);
    EXPECT_EQ(ohmara_utl_createUuid(c.buf), 0);
    for (const Text *t : {&a, &b, &c}) {
        EXPECT_TRUE(lower_hex32(t->str())) << t->str();
        EXPECT_TRUE(t->guard_intact());
    }
    EXPECT_NE(a.str(), b.str());
    EXPECT_NE(a.str(), c.str());
    EXPECT_EQ(cap.count_containing("ohmara_utl_senderId: creating unique session UUID"), 2u);
    EXPECT_TRUE(cap.has(1, "ohmara_utl_senderId", "UUID " + a.str()));
    EXPECT_TRUE(cap.has(1, "ohmara_utl_senderId", "UUID " + b.str()));

    uint8_t buffer[49];
    memset(buffer, '#', sizeof buffer);
    char *text = newUUID(buffer);
    ASSERT_EQ(text, reinterpret_cast<char *>(buffer + 16));
    char want[33];
    for (int i = 0; i < 16; ++i) snprintf(want + 2 * i, 3, "%02x", buffer[i]);
    EXPECT_EQ(std::string(text, 32), want);
    EXPECT_EQ(buffer[48], '#');
}

TEST(Uuid, DetailsAreConcatenatedAndNullPiecesRefused) {
    const char *first = "ABCDEFGHIJKLMNOPQRxx";  // only the first 18 bytes are taken
    const char *second = "STUxx", *third = "VWXYZxx", *fourth = "012345xx";
    Text t;
    EXPECT_EQ(ohmara_utl_createUuidFromDetails(t.buf, first, second, third, fourth), 0);
    EXPECT_EQ(t.str(), "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345");
    EXPECT_TRUE(t.guard_intact());

    for (int missing = 0; missing < 5; ++missing) {
        const char *p[5] = {nullptr, first, second, third, fourth};
        Text out;
        p[0] = out.buf;
        p[missing] = nullptr;
        EXPECT_EQ(ohmara_utl_createUuidFromDetails(const_cast<char *>(p[0]), p[1], p[2], p[3], p[4]),
                  -1) << missing;
        EXPECT_EQ(std::string(out.buf, sizeof out.buf), std::string(sizeof out.buf, '#'));
    }
}

TEST(Uuid, MacTextIsUpperCaseAndTerminated) {
    const uint8_t mac[6] = {0x0A, 0xBC, 0xDE, 0xF0, 0x12, 0x34};
    char out[20];
    memset(out, '#', sizeof out);
    EXPECT_EQ(macAddressToString(out, mac), 0);
    EXPECT_STREQ(out, "0A:BC:DE:F0:12:34");
    EXPECT_EQ(out[18], '#');
}

}  // namespace
