#include <gtest/gtest.h>

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "log_capture.h"
#include "omsdk.h"
#include "omsdk/hmac.h"

namespace {

using Bytes = std::vector<uint8_t>;
Bytes bytes(const char *s) { return Bytes(s, s + strlen(s)); }
const uint8_t *u8(const char *s) { return reinterpret_cast<const uint8_t *>(s); }
uint16_t len16(const Bytes &b) { return static_cast<uint16_t>(b.size()); }

std::string hex(const uint8_t *d, size_t n = 20) {
    static const char x[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) s += {x[d[i] >> 4], x[d[i] & 15]};
    return s;
}

std::string mac(const Bytes &key, const Bytes &data) {
    uint8_t out[20] = {};
    hmac_sha(key.data(), len16(key), data.data(), len16(data), out);
    return hex(out);
}

// Independent reference: OpenSSL's own HMAC.
std::string reference_mac(const Bytes &key, const Bytes &data) {
    uint8_t out[20];
    unsigned len = 0;
    HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()), data.data(), data.size(), out, &len);
    return hex(out, len);
}

TEST(Hmac, Rfc2202Cases) {
    Bytes key4;
    for (uint8_t b = 1; b <= 25; ++b) key4.push_back(b);
    const struct { Bytes key, data; const char *want; } cases[] = {
        {Bytes(20, 0x0b), bytes("Hi There"), "b617318655057264e28bc0b6fb378c8ef146be00"},
        {bytes("Jefe"), bytes("what do ya want for nothing?"),
         "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
        {Bytes(20, 0xaa), Bytes(50, 0xdd), "125d7342b9ac11cd91a39af48aa17b4f63f175d3"},
        {key4, Bytes(50, 0xcd), "4c9007f4026250c6bc8414f9bf50c86c2d7235da"},
        {Bytes(20, 0x0c), bytes("Test With Truncation"),
         "4c1a03424b55e07fe7f27be1d58bb9324a9a5a04"},
        {Bytes(80, 0xaa), bytes("Test Using Larger Than Block-Size Key - Hash Key First"),
         "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
        {Bytes(80, 0xaa),
         bytes("Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data"),
         "e8e99d0f45237d786d6bbaa7965c7808bbff1a91"},
    };
    for (const auto &c : cases) EXPECT_EQ(mac(c.key, c.data), c.want) << c.want;
}

TEST(Hmac, KeysAroundTheBlockSizeAndEmptyData) {
    Bytes data = bytes("block size boundary"), k65(65);
    for (size_t i = 0; i < k65.size(); ++i) k65[i] = static_cast<uint8_t>(i * 7 + 1);
    Bytes k64(k65.begin(), k65.begin() + 64);
    EXPECT_EQ(mac(k64, data), reference_mac(k64, data));
    EXPECT_EQ(mac(k65, data), reference_mac(k65, data));

    uint8_t out[20];
    hmac_sha(u8("key"), 3, nullptr, 0, out);  // no update, the final still runs
    EXPECT_EQ(hex(out), reference_mac(bytes("key"), Bytes()));
}

TEST(Hmac, SecondInitKeepsFirstKeyCopyAndFinalFreesIt) {
    Bytes first = bytes("first key"), second = bytes("the second key"), data = bytes("message");
    hmac_sha_ctx ctx;
    memset(&ctx, 0, sizeof ctx);
    hmac_shainit(&ctx, first.data(), len16(first));
    hmac_shainit(&ctx, second.data(), len16(second));
    ASSERT_EQ(ctx.key_len, first.size());
    EXPECT_EQ(memcmp(ctx.key, first.data(), first.size()), 0);
    uint8_t out[20] = {};
    hmac_sha_msg(&ctx, data.data(), len16(data), out);
    EXPECT_EQ(hex(out), reference_mac(first, data));
    // The running computation itself uses the newer key.
    hmac_shaupdate(&ctx, data.data(), len16(data));
    hmac_shafinal(out, &ctx);
    EXPECT_EQ(hex(out), reference_mac(second, data));
    EXPECT_EQ(ctx.key, nullptr);
    EXPECT_EQ(ctx.key_len, 0u);
    EXPECT_EQ(ctx.evp, nullptr);

    // A key copy without a computation: freed (else the sanitizer build
    // reports a leak), the output left alone.
    ctx.key = static_cast<uint8_t *>(malloc(5));
    memcpy(ctx.key, "abcde", 5);
    ctx.key_len = 5;
    memset(out, 0x11, sizeof out);
    hmac_shafinal(out, &ctx);
    EXPECT_EQ(ctx.key, nullptr);
    EXPECT_EQ(ctx.key_len, 0u);
    EXPECT_EQ(hex(out), "1111111111111111111111111111111111111111");
}

TEST(Hmac, ShaHashAndDigestText) {
    const struct { const char *a, *b, *want; } cases[] = {
        {"ab", "c", "a9993e364706816aba3e25717850c26c9cd0d89d"},  // SHA-1("abc")
        {"", "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {"", "", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
    };
    uint8_t out[20];
    for (const auto &c : cases) {
        sha_hash(u8(c.a), static_cast<uint16_t>(strlen(c.a)), u8(c.b),
                 static_cast<uint16_t>(strlen(c.b)), out);
        EXPECT_EQ(hex(out), c.want) << c.a << "|" << c.b;
    }

    const uint8_t mixed[20] = {0x00, 0x01, 0x0f, 0x10, 0xff, 0xa0, 0, 0, 0, 0,
                               0,    0,    0,    0,    0,    0,    0, 0, 0, 0x7e};
    char text[42];
    memset(text, 'Z', sizeof text);
    sha1DigestToString(text, mixed);
    EXPECT_STREQ(text, "00010f10ffa0" "00000000000000000000000000" "7e");
    EXPECT_EQ(text[41], 'Z');  // exactly 41 bytes written
}

TEST(Hmac, ComposeKeyAndNonce) {
    Bytes key = bytes("shared secret");
    Bytes data(32);  // exactly 32 heap bytes: the sanitizer build catches any over-read
    for (int i = 0; i < 32; ++i) data[i] = static_cast<uint8_t>(0x40 + i);
    uint8_t out[20];
    memset(out, 0x33, sizeof out);
    omsdk_test::LogCapture cap(0);
    EXPECT_EQ(ohmara_utl_composeKey(key.data(), len16(key), data.data(), out, 19), 0);
    EXPECT_TRUE(cap.has(3, "ohmara_utl_composeKey", "Insufficient buffer")) << cap.dump();
    EXPECT_EQ(hex(out), "3333333333333333333333333333333333333333");
    EXPECT_EQ(ohmara_utl_composeKey(key.data(), len16(key), data.data(), out, 20), 20);
    EXPECT_EQ(hex(out), reference_mac(key, data));

    const uint8_t seed[4] = {0x12, 0x34, 0x56, 0x78};
    Bytes secret(20, 0x61);
    EXPECT_EQ(ohmara_utl_composeNonce(seed, 4, secret.data(), 20, out), 20);
    EXPECT_EQ(hex(out), reference_mac(Bytes(seed, seed + 4), secret));
}

}  // namespace
