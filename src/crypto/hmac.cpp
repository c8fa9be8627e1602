// SPDX-License-Identifier: Apache-2.0
// HMAC-SHA1 (RFC 2104) plus key and nonce derivation and digest text.
//
// The streaming contexts run on the EVP SHA-1 digest. The per-message MACs
// (hmac_sha_msg, hmac_sha) run on SHA_CTX states on the stack instead: a
// keyed context's key block also holds the SHA-1 states after its inner and
// outer pads, so every message starts from copies of them, with no
// allocation, no provider look-up and two compressions fewer.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <openssl/evp.h>
#include <openssl/sha.h>

#include <atomic>
#include <initializer_list>

#include <omsdk/hmac.h>
#include <omsdk/utility.h>

#include "common/api.h"
#include "crypto/hmac_internal.h"
#include "diag/log.h"

// SHA1_Init/Update/Final are deprecated in OpenSSL 3 in favour of EVP, whose
// contexts live on the heap; a SHA_CTX can be copied and kept on the stack,
// which is the point here.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

constexpr size_t kBlock = OHMARA_SHA1_BLOCK_SIZE;
constexpr size_t kDigest = OHMARA_SHA1_DIGEST_SIZE;
constexpr uint8_t kInnerPad = 0x36;
constexpr uint8_t kOuterPad = 0x5C;
constexpr uint16_t kComposeKeyDataLen = 32;

// Owns a temporary EVP context for the length of one computation.
class EvpGuard {
public:
    EvpGuard() : ctx_(EVP_MD_CTX_new()) {}
    ~EvpGuard() { EVP_MD_CTX_free(ctx_); }
    EvpGuard(const EvpGuard &) = delete;
    EvpGuard &operator=(const EvpGuard &) = delete;
    EVP_MD_CTX *get() const { return ctx_; }

private:
    EVP_MD_CTX *ctx_;
};

// SHA-1 as fetched once from the default provider: initialising a digest
// with the legacy EVP_sha1() handle looks the implementation up again every
// time, which costs about as much as hashing a whole message.
std::atomic<EVP_MD *> g_sha1{nullptr};

const EVP_MD *sha1() {
    EVP_MD *md = g_sha1.load(std::memory_order_acquire);
    if (md != nullptr) return md;
    EVP_MD *fetched = EVP_MD_fetch(nullptr, "SHA1", nullptr);
    if (fetched == nullptr) return EVP_sha1();
    if (!g_sha1.compare_exchange_strong(md, fetched, std::memory_order_acq_rel)) {
        EVP_MD_free(fetched);  // another thread was first
        return md;
    }
    return fetched;
}

// One whole SHA-1 over the parts. OpenSSL's digest calls fail only for
// want of memory or a provider; a digest that failed must not pass for a
// real one, so `out` is zeroed then and the caller told.
struct part {
    const void *data;
    size_t len;
};

bool sha1_parts(EVP_MD_CTX *ctx, uint8_t *out, std::initializer_list<part> parts) {
    bool ok = EVP_DigestInit_ex(ctx, sha1(), nullptr) == 1;
    for (const part &p : parts) ok = ok && EVP_DigestUpdate(ctx, p.data, p.len) == 1;
    ok = ok && EVP_DigestFinal_ex(ctx, out, nullptr) == 1;
    if (!ok) {
        memset(out, 0, kDigest);
        OM_ERROR("SHA-1 digest failed");
    }
    return ok;
}

// The SHA-1 states after the inner and outer padded key: HMAC(key, m) is
// outer(SHA-1(inner(m))).
struct pad_states {
    SHA_CTX inner;
    SHA_CTX outer;
};

// A key longer than a block is replaced by its digest, as RFC 2104 says.
void pad_states_for(const uint8_t *key, size_t len, pad_states *st) {
    uint8_t reduced[kDigest];
    if (len > kBlock) {
        SHA_CTX c;
        SHA1_Init(&c);
        SHA1_Update(&c, key, len);
        SHA1_Final(reduced, &c);
        key = reduced;
        len = kDigest;
    }
    uint8_t ipad[kBlock];
    uint8_t opad[kBlock];
    for (size_t i = 0; i < kBlock; ++i) {
        const uint8_t k = i < len ? key[i] : 0;
        ipad[i] = static_cast<uint8_t>(k ^ kInnerPad);
        opad[i] = static_cast<uint8_t>(k ^ kOuterPad);
    }
    SHA1_Init(&st->inner);
    SHA1_Update(&st->inner, ipad, kBlock);
    SHA1_Init(&st->outer);
    SHA1_Update(&st->outer, opad, kBlock);
    OPENSSL_cleanse(ipad, sizeof ipad);
    OPENSSL_cleanse(opad, sizeof opad);
    OPENSSL_cleanse(reduced, sizeof reduced);
}

void mac_from(const pad_states &st, const uint8_t *data, size_t len, uint8_t *out) {
    SHA_CTX c = st.inner;
    uint8_t inner[kDigest];
    if (data != nullptr && len > 0) SHA1_Update(&c, data, len);
    SHA1_Final(inner, &c);
    c = st.outer;
    SHA1_Update(&c, inner, kDigest);
    SHA1_Final(out, &c);
}

// The key copy of a context is one heap block: the key as given, then, at
// the next aligned offset, its pad_states. The public record keeps only the
// pointer to the key, and one free() of it releases both.
size_t states_at(size_t key_len) {
    constexpr size_t align = alignof(pad_states);
    return (key_len + align - 1) / align * align;
}

const pad_states *states_of(const hmac_sha_ctx *ctx) {
    return reinterpret_cast<const pad_states *>(ctx->key + states_at(ctx->key_len));
}

uint8_t *new_key_block(const uint8_t *key, uint16_t len) {
    const size_t at = states_at(len);
    auto *block = static_cast<uint8_t *>(malloc(at + sizeof(pad_states)));
    if (block == nullptr) return nullptr;
    memcpy(block, key, len);
    pad_states_for(key, len, reinterpret_cast<pad_states *>(block + at));
    return block;
}

}  // namespace

namespace omsdk {

void hmac_release(hmac_sha_ctx *ctx) {
    if (ctx == nullptr) return;
    EVP_MD_CTX_free(ctx->evp);
    free(ctx->key);
    memset(ctx, 0, sizeof *ctx);
}

}  // namespace omsdk

OMSDK_API OMSDK_COLD void hmac_shainit(hmac_sha_ctx *ctx, const uint8_t *key, uint16_t len) {
    if (key == nullptr || len == 0) return;

    // Only the first key is kept: re-keying starts from an empty context.
    if (ctx->key == nullptr) {
        ctx->key = new_key_block(key, len);
        if (ctx->key != nullptr) ctx->key_len = len;
    }

    uint8_t reduced[kDigest];
    if (len > kBlock) {
        EvpGuard tmp;
        if (tmp.get() == nullptr) {
            OM_ERROR("hmac_shainit:tempctx memory allocation failed");
            return;
        }
        if (!sha1_parts(tmp.get(), reduced, {{key, len}})) return;
        key = reduced;
        len = kDigest;
    }

    uint8_t ipad[kBlock] = {};
    memset(ctx->opad, 0, sizeof ctx->opad);
    memcpy(ipad, key, len);
    memcpy(ctx->opad, key, len);
    for (size_t i = 0; i < kBlock; ++i) {
        ipad[i] ^= kInnerPad;
        ctx->opad[i] ^= kOuterPad;
    }

    // A running inner computation would otherwise be lost.
    EVP_MD_CTX_free(ctx->evp);
    ctx->evp = EVP_MD_CTX_new();
    if (ctx->evp == nullptr) {
        OM_ERROR("hmac_shainit:context->evp memory allocation failed");
        return;
    }
    if (EVP_DigestInit_ex(ctx->evp, sha1(), nullptr) != 1 ||
        EVP_DigestUpdate(ctx->evp, ipad, kBlock) != 1) {
        // Without its inner pad the context must not produce digests.
        OM_ERROR("SHA-1 digest failed");
        EVP_MD_CTX_free(ctx->evp);
        ctx->evp = nullptr;
    }
}

OMSDK_API void hmac_shaupdate(hmac_sha_ctx *ctx, const uint8_t *data, uint16_t len) {
    if (data == nullptr || len == 0 || ctx->evp == nullptr) return;
    if (EVP_DigestUpdate(ctx->evp, data, len) != 1) {
        OM_ERROR("SHA-1 digest failed");
        EVP_MD_CTX_free(ctx->evp);
        ctx->evp = nullptr;
    }
}

OMSDK_API void hmac_shafinal(uint8_t *out, hmac_sha_ctx *ctx) {
    if (ctx->key != nullptr) {
        free(ctx->key);
        ctx->key = nullptr;
        ctx->key_len = 0;
    }
    if (ctx->evp == nullptr) return;

    uint8_t inner[kDigest];
    const bool inner_ok = EVP_DigestFinal_ex(ctx->evp, inner, nullptr) == 1;
    EVP_MD_CTX_free(ctx->evp);
    ctx->evp = EVP_MD_CTX_new();
    if (ctx->evp == nullptr) {
        OM_ERROR("hmac_shafinal:context->evp memory allocation failed");
        return;
    }
    if (!inner_ok) {
        memset(out, 0, kDigest);
        OM_ERROR("SHA-1 digest failed");
    } else {
        sha1_parts(ctx->evp, out, {{ctx->opad, kBlock}, {inner, kDigest}});
    }
    EVP_MD_CTX_free(ctx->evp);
    ctx->evp = nullptr;
}

OMSDK_API void hmac_sha(const uint8_t *key, uint16_t key_len, const uint8_t *data,
                        uint16_t data_len, uint8_t *out) {
    // Without a key no digest is made and `out` is left as it was.
    if (key == nullptr || key_len == 0) return;
    pad_states st;
    pad_states_for(key, key_len, &st);
    mac_from(st, data, data_len, out);
    OPENSSL_cleanse(&st, sizeof st);
}

OMSDK_API void hmac_sha_msg(const hmac_sha_ctx *keyed, const uint8_t *data, uint16_t data_len,
                            uint8_t *out) {
    if (keyed->key == nullptr || keyed->key_len == 0) return;
    mac_from(*states_of(keyed), data, data_len, out);
}

OMSDK_API void sha_hash(const uint8_t *data1, uint16_t len1, const uint8_t *data2, uint16_t len2,
                        uint8_t *out) {
    SHA_CTX c;
    SHA1_Init(&c);
    if (len1 > 0) SHA1_Update(&c, data1, len1);
    if (len2 > 0) SHA1_Update(&c, data2, len2);
    SHA1_Final(out, &c);
}

OMSDK_API void sha1DigestToString(char *text, const uint8_t *digest) {
    static constexpr char kHex[] = "0123456789abcdef";
    for (size_t i = 0; i < kDigest; ++i) {
        text[2 * i] = kHex[digest[i] >> 4];
        text[2 * i + 1] = kHex[digest[i] & 0x0f];
    }
    text[2 * kDigest] = '\0';
}

OMSDK_API void ohmara_dump_digest(const uint8_t *digest) {
    if (!omsdk::log_enabled(omsdk::LOG_TRACE)) return;
    char text[OHMARA_SHA1_TEXT_SIZE];
    sha1DigestToString(text, digest);
    OM_TRACE("digest: %s", text);
}

OMSDK_API int32_t ohmara_utl_composeKey(const uint8_t *key, uint16_t key_len, const uint8_t *data,
                                        uint8_t *out, int32_t out_size) {
    if ((key == nullptr && key_len > 0) || data == nullptr || out == nullptr) {
        OM_ERROR("null argument");
        return 0;
    }
    if (out_size > 19) {
        hmac_sha(key, key_len, data, kComposeKeyDataLen, out);
        return static_cast<int32_t>(kDigest);
    }
    OM_WARN("Insufficient buffer");
    return 0;
}

OMSDK_API int32_t ohmara_utl_composeNonce(const uint8_t *key, uint16_t key_len, const uint8_t *data,
                                          uint16_t data_len, uint8_t *out) {
    if ((key == nullptr && key_len > 0) || (data == nullptr && data_len > 0) || out == nullptr) {
        OM_ERROR("null argument");
        return 0;
    }
    hmac_sha(key, key_len, data, data_len, out);
    return static_cast<int32_t>(kDigest);
}
