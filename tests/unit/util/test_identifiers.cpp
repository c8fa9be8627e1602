// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <string.h>

#include <functional>
#include <string>
#include <vector>

#include "omsdk.h"
#include "log_capture.h"
#include "omsdk/uuid.h"

namespace {

// 32 output bytes, then guard bytes that must stay untouched.
struct Text {
    char buf[40];
    Text() { memset(buf, '#', sizeof buf); }
    std::string str() const { return std::string(buf, 32); }
    bool guard_intact() const { return std::string(buf + 32, 8) == "########"; }
};

TEST(Identifiers, FromAMacFixedOtherwiseRandomLowerHex) {
    const struct {
        uint8_t mac[6];
        const char *want;
    } cases[] = {
        {{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, "e0d00de0000000000000001122334455"},
        {{0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF}, "e0d00de0000000000000aabbccddeeff"},
    };
    for (const auto &c : cases) {
        Text t, s;
        EXPECT_EQ(ohmara_utl_createUuidFromMac(t.buf, c.mac), 0);
        EXPECT_EQ(ohmara_utl_senderId(s.buf, c.mac), 0);
        for (const Text *x : {&t, &s})
            EXPECT_TRUE(x->str() == c.want && x->guard_intact()) << x->str();
    }
    Text a, b, c;
    EXPECT_EQ(ohmara_utl_senderId(a.buf, nullptr), 0);
    EXPECT_EQ(ohmara_utl_senderId(b.buf, nullptr), 0);
    EXPECT_EQ(ohmara_utl_createUuid(c.buf), 0);
    for (const Text *t : {&a, &b, &c})
        EXPECT_TRUE(t->str().find_first_not_of("0123456789abcdef") == std::string::npos &&
                    t->guard_intact())
            << t->str();
    EXPECT_TRUE(a.str() != b.str() && a.str() != c.str());
}

TEST(Identifiers, DetailsConcatenatedNullPiecesRefusedMacTextUpperCase) {
    const char *p[5] = {nullptr, "ABCDEFGHIJKLMNOPQRxx", "STUxx", "VWXYZxx", "012345xx"};
    Text t;
    EXPECT_EQ(ohmara_utl_createUuidFromDetails(t.buf, p[1], p[2], p[3], p[4]), 0);
    EXPECT_EQ(t.str(), "ABCDEFGHIJKLMNOPQRSTUVWXYZ012345");  // 18 + 3 + 5 + 6 bytes
    EXPECT_TRUE(t.guard_intact());
    Text none;  // a missing piece: refused, nothing written
    EXPECT_EQ(ohmara_utl_createUuidFromDetails(none.buf, p[1], p[2], nullptr, p[4]), -1);
    EXPECT_EQ(ohmara_utl_createUuidFromDetails(nullptr, p[1], p[2], p[3], p[4]), -1);
    EXPECT_EQ(std::string(none.buf, sizeof none.buf), std::string(sizeof none.buf, '#'));
    const uint8_t mac[6] = {0x0A, 0xBC, 0xDE, 0xF0, 0x12, 0x34};
    char out[20];
    memset(out, '#', sizeof out);
    EXPECT_EQ(macAddressToString(out, mac), 0);
    EXPECT_STREQ(out, "0A:BC:DE:F0:12:34");
    EXPECT_EQ(out[18], '#');
}

// A null in each pointer argument: the documented failure value, nothing written, no crash.
TEST(Guards, NullPointersGetTheFailureValue) {
    const uint8_t mac[6] = {1, 2, 3, 4, 5, 6}, key[20] = {7}, data[20] = {8};
    uint8_t out[20];
    Text t;
    char dst[8] = "ab";
    omsdk_test::QuietLog quiet;
    struct Case {
        const char *call;
        std::function<long()> run;
        long want;
    };
    const Case cases[] = {
        {"senderId(NULL, mac)", [&] { return ohmara_utl_senderId(nullptr, mac); }, -1},
        {"senderId(NULL, NULL)", [&] { return ohmara_utl_senderId(nullptr, nullptr); }, -1},
        {"createUuid(NULL)", [&] { return ohmara_utl_createUuid(nullptr); }, -1},
        {"createUuidFromMac(NULL, mac)", [&] { return ohmara_utl_createUuidFromMac(nullptr, mac); },
         -1},
        {"createUuidFromMac(out, NULL)",
         [&] { return ohmara_utl_createUuidFromMac(t.buf, nullptr); }, -1},
        {"strlcat(NULL, src)", [&] { return long(strlcat(nullptr, "xyz", 8)); }, 0},
        {"strlcat(dst, NULL)", [&] { return long(strlcat(dst, nullptr, sizeof dst)); }, 2},
    };
    std::vector<Case> all(std::begin(cases), std::end(cases));
    for (int null : {0, 1, 2}) {  // the key, the data, the output
        const uint8_t *k = null == 0 ? nullptr : key, *d = null == 1 ? nullptr : data;
        uint8_t *o = null == 2 ? nullptr : out;
        all.push_back({"composeKey", [=] { return ohmara_utl_composeKey(k, 20, d, o, 20); }, 0});
        all.push_back({"composeNonce", [=] { return ohmara_utl_composeNonce(k, 4, d, 20, o); }, 0});
    }
    for (const auto &c : all) {
        memset(out, '#', sizeof out);
        SCOPED_TRACE(testing::Message() << c.call << ", case " << &c - all.data());
        EXPECT_EQ(c.run(), c.want);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(out), sizeof out), std::string(20, '#'));
    }
    EXPECT_TRUE(t.guard_intact() && t.buf[0] == '#');
    EXPECT_STREQ(dst, "ab");
    EXPECT_EQ(ohmara_utl_composeNonce(key, 4, data, 20, out), 20);  // valid: still computed
}

}  // namespace
