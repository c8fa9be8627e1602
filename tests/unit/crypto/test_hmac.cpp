// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "crypto/hmac_internal.h"
#include "endpoint.h"
#include "omsdk/hmac.h"

namespace {

using namespace switch_test;  // hex, text, openssl_hmac: the independent reference
uint16_t len16(const Bytes &b) { return static_cast<uint16_t>(b.size()); }
Bytes digest(const uint8_t *d) { return Bytes(d, d + 20); }
Bytes mac(const Bytes &key, const Bytes &data) {
    uint8_t out[20] = {};
    hmac_sha(key.data(), len16(key), data.data(), len16(data), out);
    return digest(out);
}

TEST(Hmac, Rfc2202Cases) {
    const struct {
        Bytes key, data;
        const char *want;
    } cases[] = {
        {Bytes(20, 0x0b), text("Hi There"), "b617318655057264e28bc0b6fb378c8ef146be00"},
        {text("Jefe"), text("what do ya want for nothing?"),
         "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
        {Bytes(20, 0xaa), Bytes(50, 0xdd), "125d7342b9ac11cd91a39af48aa17b4f63f175d3"},
        {Bytes(80, 0xaa), text("Test Using Larger Than Block-Size Key - Hash Key First"),
         "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
        {Bytes(80, 0xaa),
         text("Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data"),
         "e8e99d0f45237d786d6bbaa7965c7808bbff1a91"},
    };
    for (const auto &c : cases) EXPECT_EQ(mac(c.key, c.data), hex(c.want)) << c.want;
}

TEST(Hmac, ShaHashDigestTextAndComposeKey) {
    uint8_t out[20];
    sha_hash(text("ab").data(), 2, text("c").data(), 1, out);
    EXPECT_EQ(digest(out), hex("a9993e364706816aba3e25717850c26c9cd0d89d"));  // SHA-1("abc")
    const uint8_t *none = reinterpret_cast<const uint8_t *>("");
    sha_hash(none, 0, none, 0, out);
    EXPECT_EQ(digest(out), hex("da39a3ee5e6b4b0d3255bfef95601890afd80709"));
    const uint8_t mixed[20] = {0x00, 0x01, 0x0f, 0x10, 0xff, 0xa0, 0, 0, 0, 0,
                               0,    0,    0,    0,    0,    0,    0, 0, 0, 0x7e};
    char dtext[42];
    memset(dtext, 'Z', sizeof dtext);
    sha1DigestToString(dtext, mixed);
    EXPECT_STREQ(dtext, "00010f10ffa0"
                        "00000000000000000000000000"
                        "7e");
    EXPECT_EQ(dtext[41], 'Z');  // exactly 41 bytes written

    const Bytes key = text("shared secret");
    Bytes data(32);  // exactly 32 heap bytes: the sanitizer build catches any over-read
    for (int i = 0; i < 32; ++i) data[i] = static_cast<uint8_t>(0x40 + i);
    memset(out, 0x33, sizeof out);
    QuietLog quiet;
    EXPECT_EQ(ohmara_utl_composeKey(key.data(), len16(key), data.data(), out, 19), 0);
    EXPECT_EQ(digest(out), Bytes(20, 0x33));
    EXPECT_EQ(ohmara_utl_composeKey(key.data(), len16(key), data.data(), out, 20), 20);
    EXPECT_EQ(digest(out), openssl_hmac(key, data));
}

// Keyed contexts: the per-message MAC and the streaming calls agree with
// OpenSSL for keys around the block size; a context re-keyed after a
// release signs with the new key at once (the nonce key at each handshake),
// one keyed again without release keeps its first key for per-message MACs.
TEST(Hmac, KeyedContextsAndRekeying) {
    const Bytes data = text("a message longer than one SHA-1 block of sixty-four bytes, to pad");
    uint8_t out[20];
    for (size_t n : {3, 20, 64, 65, 80}) {
        Bytes k(n);
        for (size_t i = 0; i < n; ++i) k[i] = static_cast<uint8_t>(i * 5 + 3);
        KeyCtx c(k);
        hmac_sha_msg(&c.ctx, data.data(), len16(data), out);
        EXPECT_EQ(digest(out), openssl_hmac(k, data)) << n;
        hmac_sha_msg(&c.ctx, nullptr, 0, out);
        EXPECT_EQ(digest(out), openssl_hmac(k, Bytes())) << n;
        hmac_shaupdate(&c.ctx, data.data(), 10);
        hmac_shaupdate(&c.ctx, data.data() + 10, static_cast<uint16_t>(data.size() - 10));
        hmac_shafinal(out, &c.ctx);
        EXPECT_EQ(digest(out), openssl_hmac(k, data)) << n;
    }
    const Bytes first = text("first key"), second(20, 0x5a);
    KeyCtx c(first);
    hmac_shainit(&c.ctx, second.data(), len16(second));
    hmac_sha_msg(&c.ctx, data.data(), len16(data), out);
    EXPECT_EQ(digest(out), openssl_hmac(first, data));
    omsdk::hmac_release(&c.ctx);
    hmac_shainit(&c.ctx, second.data(), len16(second));
    hmac_sha_msg(&c.ctx, data.data(), len16(data), out);
    EXPECT_EQ(digest(out), openssl_hmac(second, data));

    // Without a key no digest is written.
    hmac_sha_ctx empty;
    memset(&empty, 0, sizeof empty);
    memset(out, 0x33, sizeof out);
    hmac_sha_msg(&empty, data.data(), len16(data), out);
    hmac_sha(nullptr, 0, data.data(), len16(data), out);
    EXPECT_EQ(digest(out), Bytes(20, 0x33));
}

}  // namespace
