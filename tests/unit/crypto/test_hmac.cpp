#include <gtest/gtest.h>

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "crypto/hmac_internal.h"
#include "log_capture.h"
#include "omsdk.h"
#include "omsdk/hmac.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytes(const char *s) { return Bytes(s, s + strlen(s)); }
Bytes repeat(uint8_t b, size_t n) { return Bytes(n, b); }

std::string hex(const uint8_t *d, size_t n = 20) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += digits[d[i] >> 4];
        s += digits[d[i] & 15];
    }
    return s;
}

std::string mac(const Bytes &key, const Bytes &data) {
    uint8_t out[20] = {};
    hmac_sha(key.data(), static_cast<uint16_t>(key.size()), data.data(),
             static_cast<uint16_t>(data.size()), out);
    return hex(out);
}

// Independent reference: OpenSSL's own HMAC.
std::string reference_mac(const Bytes &key, const Bytes &data) {
    uint8_t out[20];
    unsigned len = 0;
    HMAC(EVP_sha1(), key.data(), static_cast<int>(key.size()), data.data(), data.size(), out,
         &len);
    return hex(out, len);
}

TEST(Hmac, Rfc2202TestCases) {
    Bytes key4;
    for (uint8_t b = 1; b <= 25; ++b) key4.push_back(b);
    const struct {
        Bytes key, data;
        const char *want;
    } cases[] = {
        {repeat(0x0b, 20), bytes("Hi There"), "b617318655057264e28bc0b6fb378c8ef146be00"},
        {bytes("Jefe"), bytes("what do ya want for nothing?"),
         "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
        {repeat(0xaa, 20), repeat(0xdd, 50), "125d7342b9ac11cd91a39af48aa17b4f63f175d3"},
        {key4, repeat(0xcd, 50), "4c9007f4026250c6bc8414f9bf50c86c2d7235da"},
        {repeat(0x0c, 20), bytes("Test With Truncation"),
         "4c1a03424b55e07fe7f27be1d58bb9324a9a5a04"},
        {repeat(0xaa, 80), bytes("Test Using Larger Than Block-Size Key - Hash Key First"),
         "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
        {repeat(0xaa, 80),
         bytes("Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data"),
         "e8e99d0f45237d786d6bbaa7965c7808bbff1a91"},
    };
    int n = 1;
    for (const auto &c : cases) EXPECT_EQ(mac(c.key, c.data), c.want) << "RFC 2202 case " << n++;
}

TEST(Hmac, KeysAroundTheBlockSizeAndEmptyData) {
    Bytes data = bytes("block size boundary");
    Bytes k64(64), k65(65);
    for (size_t i = 0; i < k65.size(); ++i) k65[i] = static_cast<uint8_t>(i * 7 + 1);
    memcpy(k64.data(), k65.data(), 64);
    EXPECT_EQ(mac(k64, data), reference_mac(k64, data));
    EXPECT_EQ(mac(k65, data), reference_mac(k65, data));
    EXPECT_NE(mac(k64, data), mac(k65, data));

    // Zero-length data: the update is skipped but the final still runs.
    EXPECT_EQ(mac(bytes("key"), Bytes()), reference_mac(bytes("key"), Bytes()));
    uint8_t out[20] = {};
    hmac_sha(reinterpret_cast<const uint8_t *>("key"), 3, nullptr, 0, out);
    EXPECT_EQ(hex(out), reference_mac(bytes("key"), Bytes()));
}

TEST(Hmac, NoKeyLeavesOutputUntouched) {
    uint8_t out[20];
    memset(out, 0x5a, sizeof out);
    hmac_sha(nullptr, 10, reinterpret_cast<const uint8_t *>("data"), 4, out);
    hmac_sha(reinterpret_cast<const uint8_t *>("k"), 0, reinterpret_cast<const uint8_t *>("data"),
             4, out);
    hmac_sha_ctx empty;
    memset(&empty, 0, sizeof empty);
    hmac_sha_msg(&empty, reinterpret_cast<const uint8_t *>("data"), 4, out);
    EXPECT_EQ(hex(out), "5a5a5a5a5a5a5a5a5a5a5a5a5a5a5a5a5a5a5a5a");
}

TEST(Hmac, SecondInitKeepsFirstKeyCopy) {
    Bytes first = bytes("first key"), second = bytes("the second key");
    Bytes data = bytes("message");
    hmac_sha_ctx ctx;
    memset(&ctx, 0, sizeof ctx);
    hmac_shainit(&ctx, first.data(), static_cast<uint16_t>(first.size()));
    hmac_shainit(&ctx, second.data(), static_cast<uint16_t>(second.size()));
    ASSERT_EQ(ctx.key_len, first.size());
    EXPECT_EQ(memcmp(ctx.key, first.data(), first.size()), 0);

    uint8_t out[20] = {};
    hmac_sha_msg(&ctx, data.data(), static_cast<uint16_t>(data.size()), out);
    EXPECT_EQ(hex(out), reference_mac(first, data));

    // The running computation itself uses the newer key.
    hmac_shaupdate(&ctx, data.data(), static_cast<uint16_t>(data.size()));
    hmac_shafinal(out, &ctx);
    EXPECT_EQ(hex(out), reference_mac(second, data));
    EXPECT_EQ(ctx.key, nullptr);
    EXPECT_EQ(ctx.key_len, 0u);
    EXPECT_EQ(ctx.evp, nullptr);
}

TEST(Hmac, StepwiseUpdatesMatchOneShot) {
    Bytes key = bytes("k"), data = bytes("split into several updates");
    hmac_sha_ctx ctx;
    memset(&ctx, 0, sizeof ctx);
    hmac_shainit(&ctx, key.data(), 1);
    hmac_shaupdate(&ctx, data.data(), 5);
    hmac_shaupdate(&ctx, data.data() + 5, 0);
    hmac_shaupdate(&ctx, data.data() + 5, static_cast<uint16_t>(data.size() - 5));
    uint8_t out[20];
    hmac_shafinal(out, &ctx);
    EXPECT_EQ(hex(out), reference_mac(key, data));
}

TEST(Hmac, FinalFreesKeyCopyEvenWithoutComputation) {
    hmac_sha_ctx ctx;
    memset(&ctx, 0, sizeof ctx);
    ctx.key = static_cast<uint8_t *>(malloc(5));  // the sanitizer build reports a leak
    memcpy(ctx.key, "abcde", 5);
    ctx.key_len = 5;
    uint8_t out[20];
    memset(out, 0x11, sizeof out);
    hmac_shafinal(out, &ctx);
    EXPECT_EQ(ctx.key, nullptr);
    EXPECT_EQ(ctx.key_len, 0u);
    for (uint8_t b : out) EXPECT_EQ(b, 0x11);
}

TEST(Hmac, ReleaseEmptiesKeyedContext) {
    hmac_sha_ctx ctx;
    memset(&ctx, 0, sizeof ctx);
    hmac_shainit(&ctx, reinterpret_cast<const uint8_t *>("abc"), 3);
    ASSERT_NE(ctx.evp, nullptr);
    omsdk::hmac_release(&ctx);
    hmac_sha_ctx zero;
    memset(&zero, 0, sizeof zero);
    EXPECT_EQ(memcmp(&ctx, &zero, sizeof ctx), 0);
    // Empty again, so a new key is taken.
    hmac_shainit(&ctx, reinterpret_cast<const uint8_t *>("xy"), 2);
    EXPECT_EQ(ctx.key_len, 2u);
    omsdk::hmac_release(&ctx);
    omsdk::hmac_release(&ctx);  // releasing an empty context is harmless
}

TEST(Hmac, ShaHashIsDigestOfConcatenation) {
    uint8_t out[20];
    // FIPS 180 example: SHA-1("abc")
    const char *abc = "a9993e364706816aba3e25717850c26c9cd0d89d";
    sha_hash(reinterpret_cast<const uint8_t *>("ab"), 2, reinterpret_cast<const uint8_t *>("c"), 1,
             out);
    EXPECT_EQ(hex(out), abc);
    sha_hash(reinterpret_cast<const uint8_t *>(""), 0, reinterpret_cast<const uint8_t *>("abc"), 3,
             out);
    EXPECT_EQ(hex(out), abc);
    // SHA-1 of the empty message
    sha_hash(reinterpret_cast<const uint8_t *>(""), 0, reinterpret_cast<const uint8_t *>(""), 0,
             out);
    EXPECT_EQ(hex(out), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST(Hmac, DigestText) {
    uint8_t digest[20];
    memset(digest, 0xab, sizeof digest);
    char text[42];
    memset(text, 'Z', sizeof text);
    sha1DigestToString(text, digest);
    std::string want;
    for (int i = 0; i < 20; ++i) want += "ab";
    EXPECT_EQ(std::string(text), want);
    EXPECT_EQ(text[41], 'Z');  // exactly 41 bytes written

    const uint8_t mixed[20] = {0x00, 0x01, 0x0f, 0x10, 0xff, 0xa0, 0, 0, 0, 0,
                               0,    0,    0,    0,    0,    0,    0, 0, 0, 0x7e};
    sha1DigestToString(text, mixed);
    EXPECT_STREQ(text, "00010f10ffa0" "00000000000000000000000000" "7e");
}

TEST(Hmac, DumpDigestLogsAtTrace) {
    uint8_t digest[20];
    memset(digest, 0xab, sizeof digest);
    omsdk_test::LogCapture cap(0);
    ohmara_dump_digest(digest);
    EXPECT_TRUE(cap.has(0, "ohmara_dump_digest",
                        "digest: abababababababababababababababababababab"))
        << cap.dump();
}

TEST(Hmac, ComposeKeyNeedsTwentyBytesAndReadsThirtyTwo) {
    Bytes key = bytes("shared secret");
    // Exactly 32 heap bytes: the sanitizer build catches any over-read.
    uint8_t *data = static_cast<uint8_t *>(malloc(32));
    for (int i = 0; i < 32; ++i) data[i] = static_cast<uint8_t>(0x40 + i);

    uint8_t out[20];
    memset(out, 0x33, sizeof out);
    {
        omsdk_test::LogCapture cap(0);
        EXPECT_EQ(ohmara_utl_composeKey(key.data(), static_cast<uint16_t>(key.size()), data, out, 19),
                  0);
        EXPECT_TRUE(cap.has(3, "ohmara_utl_composeKey", "Insufficient buffer")) << cap.dump();
    }
    for (uint8_t b : out) EXPECT_EQ(b, 0x33);

    EXPECT_EQ(ohmara_utl_composeKey(key.data(), static_cast<uint16_t>(key.size()), data, out, 20),
              20);
    EXPECT_EQ(hex(out), reference_mac(key, Bytes(data, data + 32)));
    free(data);
}

TEST(Hmac, ComposeNonceIsHmacOfSecretUnderSeed) {
    const uint8_t seed[4] = {0x12, 0x34, 0x56, 0x78};
    Bytes secret = repeat(0x61, 20);
    uint8_t out[20] = {};
    EXPECT_EQ(ohmara_utl_composeNonce(seed, 4, secret.data(), 20, out), 20);
    EXPECT_EQ(hex(out), reference_mac(Bytes(seed, seed + 4), secret));
}

}  // namespace
